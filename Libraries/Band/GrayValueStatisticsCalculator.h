#pragma once

#include "Foundation/PixelTypes.h"

#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

namespace Orl { namespace Harnel { namespace Progress {
class CLogger;
}}} // namespace Orl::Harnel::Progress

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// What a band's statistics record calls to compute statistics: the raw computations, which neither
// read nor write the record's cache. Results come back through the reference arguments, all of which
// are overwritten on every normal path. bApproximate: work on the band's GetApproxRects() instead of
// the whole band; counts then cover those rectangles only. pLogger may be empty.
template <class TPixel, class TAcc>
class CGrayValueStatisticsCalculator
{
public:
  using TLoggerPtr = boost::shared_ptr<Harnel::Progress::CLogger>;

  virtual ~CGrayValueStatisticsCalculator() = default;

  virtual void CalcCounts(unsigned long& nValid, unsigned long& nInvalid, bool bApproximate, TLoggerPtr pLogger) = 0;
  virtual void CalcMinMax(TPixel& tMin, TPixel& tMax, unsigned long& nValid, unsigned long& nInvalid,
                          bool bApproximate, TLoggerPtr pLogger) = 0;
  virtual void CalcMeanVar(double& dMean, double& dVariance, unsigned long& nValid, unsigned long& nInvalid,
                           bool bApproximate, TLoggerPtr pLogger) = 0;
  // Note the order: nValid before the moments, nInvalid after them.
  virtual void CalcMinMaxMeanVar(TPixel& tMin, TPixel& tMax, unsigned long& nValid, double& dMean, double& dVariance,
                                 unsigned long& nInvalid, bool bApproximate, TLoggerPtr pLogger) = 0;
  // nBins goes in as the number wanted (not 0) and comes back as the number used; [tMin, tMax] is
  // the range, as a rule from CalcMinMax.
  virtual void CalcHisto(std::vector<unsigned long>& vecHistogram, double& dMedian, double& dMode, unsigned int& nBins,
                         unsigned long& nMaxCount, double& dBinWidth, double& dBinStep, unsigned long& nValid,
                         unsigned long& nInvalid, const TPixel& tMin, const TPixel& tMax, bool bApproximate,
                         TLoggerPtr pLogger) = 0;
};

// The most bins a floating histogram gets.
constexpr unsigned int g_nMaxFloatingBins = 4096;

// The range and the bin count CalcHisto works with. Integer pixels: never more bins than values
// (max - min + 1, in 64 bits so that no range of a 32-bit type overflows); a degenerate range becomes
// two values, upwards, or downwards at the type's maximum. Floating pixels: a degenerate range
// stretches to zero (to 1 when it is zero), and at most g_nMaxFloatingBins bins. A NaN end is
// unequal to everything and takes no special path; a reversed range (as CalcMinMax gives for an
// empty band) does not limit the bins.
template <class TPixel>
void FixHistogramRange(TPixel& tMin, TPixel& tMax, unsigned int& nBins)
{
  assert(nBins > 0 && "a histogram needs at least one bin");
  if constexpr (std::is_integral<TPixel>::value)
  {
    std::uint64_t nLimit = 2;
    if (tMin < tMax)
      nLimit = std::uint64_t(std::int64_t(tMax) - std::int64_t(tMin) + 1);
    else if (tMin > tMax)
      nLimit = std::numeric_limits<std::uint64_t>::max();
    else if (tMin < std::numeric_limits<TPixel>::max())
      tMax = TPixel(tMin + 1);
    else
      tMin = TPixel(tMax - 1);
    nBins = unsigned(std::min<std::uint64_t>(nBins, nLimit));
  }
  else
  {
    if (tMin == tMax)
    {
      if (tMin == TPixel(0))
        tMax = TPixel(1);
      else if (tMin < TPixel(0))
        tMax = TPixel(0);
      else
        tMin = TPixel(0);
    }
    nBins = std::min(nBins, g_nMaxFloatingBins);
  }
}

#define ORL_GRAY_VALUE_CALCULATOR_EXTERN(T) extern template class CGrayValueStatisticsCalculator<T, double>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_GRAY_VALUE_CALCULATOR_EXTERN)
#undef ORL_GRAY_VALUE_CALCULATOR_EXTERN

}}}} // namespace Orl::Ostrel::Band::Detail
