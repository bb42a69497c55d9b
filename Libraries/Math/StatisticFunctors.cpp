#include "Math/StatisticFunctors.h"

namespace Orl { namespace Harnel { namespace Math {

#define ORL_STATISTIC_FUNCTORS_INSTANTIATE(T)                                                           \
  template class CCountFunctor<T>;                                                                      \
  template class CMinMaxFunctor<T>;                                                                     \
  template class CMeanVarianceFunctor<double, T>;                                                       \
  template class CMinMaxMeanVarianceFunctor<double, T>;                                                 \
  template class CHistoFunctor<double, T>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_STATISTIC_FUNCTORS_INSTANTIATE)

}}} // namespace Orl::Harnel::Math
