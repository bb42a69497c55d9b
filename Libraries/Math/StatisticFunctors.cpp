#include "Math/StatisticFunctors.h"

#include "Foundation/BadArgument.h"

namespace Orl { namespace Harnel { namespace Math {

void CheckPercent(double dPercent)
{
  if (!(dPercent >= 0.0 && dPercent <= 100.0))
    ThrowBadArgument(__FILE__, __LINE__, "A percentile must lie between 0 and 100, not %1%", dPercent);
}

#define ORL_STATISTIC_FUNCTORS_INSTANTIATE(T)                                                           \
  template class CCountFunctor<T>;                                                                      \
  template class CMinMaxFunctor<T>;                                                                     \
  template class CMeanVarianceFunctor<double, T>;                                                       \
  template class CMinMaxMeanVarianceFunctor<double, T>;                                                 \
  template class CHistoFunctor<double, T>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_STATISTIC_FUNCTORS_INSTANTIATE)

}}} // namespace Orl::Harnel::Math
