#include "Band/StatisticCalculator.h"

#include "Band/MemoryBandRep.h"
#include "Band/TileBandRep.h"

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

#define ORL_STATISTIC_CALCULATOR_INSTANTIATE(T)                                                         \
  template class CGrayValueStatisticsCalculator<T, double>;                                             \
  template class CStatisticCalculator<T, double, CMemoryBandRep<T>>;                                    \
  template class CStatisticCalculator<T, double, CTileBandRep<T>>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_STATISTIC_CALCULATOR_INSTANTIATE)

}}}} // namespace Orl::Ostrel::Band::Detail
