#pragma once

// The cache above the calculator: what the statistic getters of CBand do.
//
// A getter answers from the record when the result's flag is set, otherwise it runs the calculator,
// stores what came back and sets the flags. Rules that keep the cache consistent:
// - An approximate question is answered by an exact result when there is one; an exact question
//   never by an approximate one. An approximate question on a band whose GetApproxRects() is the
//   whole band is an exact question.
// - Results a calculation brings along (counts with everything, extremes with the moments) are
//   stored too, but never over an exact result with an approximate one. The extremes are always
//   asked for with the moments (CalcMinMaxMeanVar), so the first of GetMinMax, GetMeanVariance and
//   the histogram getters walks the band for all of extremes, moments and counts.
// - The histogram, median and mode were computed over the range that stands in m_tMin, m_tMax. When
//   an exact minimum and maximum replace approximate ones, the approximate histogram built on those
//   goes; nothing else ever changes the extremes while a histogram is current.
//
// Not thread-safe, like the record's other fields: getters on bands that share a representation are
// to be called from one thread at a time, and not while another task writes the band.

#include "Band/GrayValueStatistics.h"
#include "Band/GrayValueStatisticsCalculator.h"
#include "Foundation/BadArgument.h"
#include "Math/StatisticFunctors.h"

#include <boost/shared_ptr.hpp>

#include <cassert>
#include <cstdint>
#include <limits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

template <class TRep>
class CCachedStatistics
{
public:
  using TPixel = typename TRep::TPixelType;
  using TLoggerPtr = boost::shared_ptr<Harnel::Progress::CLogger>;

  CCachedStatistics(TRep& oRep, bool bApproximate, TLoggerPtr pLogger)
    : m_oRecord(oRep.GetStatistics()), m_bApproximate(bApproximate && !_SampleIsWholeBand(oRep)),
      m_pLogger(std::move(pLogger))
  {
    assert(m_oRecord.m_pCalculator && "the representation installs its calculator when it is built");
  }

  void GetCounts(unsigned long& nValid, unsigned long& nInvalid)
  {
    if (!_IsCurrent(eResultCounts) && m_oRecord.m_bHasNoDataValue)
      _CalcMoments(); // a walk anyway: let it bring the rest
    if (!_IsCurrent(eResultCounts)) // without no-data no pixel is looked at
    {
      unsigned long nNewValid, nNewInvalid;
      m_oRecord.m_pCalculator->CalcCounts(nNewValid, nNewInvalid, m_bApproximate, m_pLogger);
      _StoreCounts(nNewValid, nNewInvalid);
    }
    nValid = m_oRecord.m_nValid;
    nInvalid = m_oRecord.m_nInvalid;
  }

  void GetMinMax(TPixel& tMin, TPixel& tMax)
  {
    _EnsureMinMax();
    tMin = m_oRecord.m_tMin;
    tMax = m_oRecord.m_tMax;
  }

  // One traversal gives the extremes and counts as well, and it runs in parallel also without no-data.
  void GetMeanVariance(double& dMean, double& dVariance)
  {
    if (!_IsCurrent(eResultMean) || !_IsCurrent(eResultVariance))
      _CalcMoments();
    dMean = m_oRecord.m_dMean;
    dVariance = m_oRecord.m_dVariance;
  }

  // vecHistogram is empty when fewer than three pixels are valid. dLow is the centre of the first
  // bin; bin i stands for the pixels nearest to dLow + i * dBinStep.
  void GetHistogram(std::vector<unsigned long>& vecHistogram, double& dLow, double& dBinStep, double& dBinWidth,
                    unsigned long& nMaxCount)
  {
    _EnsureHistogram();
    vecHistogram = m_oRecord.m_vecHistogram;
    dLow = double(_HistogramRangeLow());
    dBinStep = m_oRecord.m_dBinStep;
    dBinWidth = m_oRecord.m_dBinWidth;
    nMaxCount = m_oRecord.m_nMaxCount;
  }

  double GetMedian()
  {
    _EnsureHistogram();
    return m_oRecord.m_dMedian;
  }

  double GetMode()
  {
    _EnsureHistogram();
    return m_oRecord.m_dMode;
  }

  // From the cached histogram, as the median is; 0 when the histogram is unusable.
  double GetPercentile(double dPercent)
  {
    // Checked before the histogram is made; the functor checks it again for its own callers.
    Harnel::Math::CheckPercent(dPercent);
    _EnsureHistogram();
    if (m_oRecord.m_vecHistogram.empty())
      return 0.0;
    TPixel tLow = m_oRecord.m_tMin, tHigh = m_oRecord.m_tMax;
    unsigned int nBins = unsigned(m_oRecord.m_vecHistogram.size());
    FixHistogramRange(tLow, tHigh, nBins);
    const Harnel::Math::CHistoFunctor<double, TPixel> oHisto(
      tLow, tHigh, std::vector<std::uint64_t>(m_oRecord.m_vecHistogram.begin(), m_oRecord.m_vecHistogram.end()));
    return oHisto.GetPercentile(dPercent);
  }

  // Changing the bin count drops the cached histogram, median and mode, and only those.
  static void SetHistogramBins(CGrayValueStatistics<TPixel>& oRecord, unsigned int nBins)
  {
    if (nBins == 0)
      Harnel::ThrowBadArgument(__FILE__, __LINE__, "A histogram needs at least one bin");
    if (nBins == oRecord.m_nBins)
      return;
    oRecord.m_nBins = nBins;
    for (const bool bApproximate : {false, true})
      for (const EStatisticResult eResult : {eResultHistogram, eResultMedian, eResultMode})
        oRecord.m_abValid[oRecord.GetFlagIndex(eResult, bApproximate)] = false;
  }

private:
  static bool _SampleIsWholeBand(const TRep& oRep)
  {
    const auto vecRects = oRep.GetApproxRects();
    return vecRects.size() == 1 && vecRects.front() == oRep.GetBoundingRect();
  }

  bool _Flag(EStatisticResult eResult, bool bApproximate) const
  {
    return m_oRecord.m_abValid[m_oRecord.GetFlagIndex(eResult, bApproximate)];
  }
  bool _IsCurrent(EStatisticResult eResult) const
  {
    return _Flag(eResult, false) || (m_bApproximate && _Flag(eResult, true));
  }
  // An approximate result never overwrites an exact one.
  bool _MayStore(EStatisticResult eResult) const { return !m_bApproximate || !_Flag(eResult, false); }
  void _Mark(EStatisticResult eResult)
  {
    m_oRecord.m_abValid[m_oRecord.GetFlagIndex(eResult, m_bApproximate)] = true;
    if (!m_bApproximate) // the fields hold the exact value now
      m_oRecord.m_abValid[m_oRecord.GetFlagIndex(eResult, true)] = false;
  }

  void _StoreCounts(unsigned long nValid, unsigned long nInvalid)
  {
    if (!_MayStore(eResultCounts))
      return;
    m_oRecord.m_nValid = nValid;
    m_oRecord.m_nInvalid = nInvalid;
    _Mark(eResultCounts);
  }

  void _StoreMinMax(TPixel tMin, TPixel tMax)
  {
    if (!_MayStore(eResultMinMax))
      return;
    if (!m_bApproximate && _Flag(eResultMinMax, true))
      for (const EStatisticResult eResult : {eResultHistogram, eResultMedian, eResultMode})
        m_oRecord.m_abValid[m_oRecord.GetFlagIndex(eResult, true)] = false;
    m_oRecord.m_tMin = tMin;
    m_oRecord.m_tMax = tMax;
    _Mark(eResultMinMax);
  }

  // The extremes come from the moments pass, which costs about what a pass for the extremes alone
  // does and leaves mean, variance and counts in the record: a band's getters then walk it at most
  // twice, once for these and once for the histogram.
  void _EnsureMinMax()
  {
    if (!_IsCurrent(eResultMinMax))
      _CalcMoments();
  }

  void _CalcMoments()
  {
    TPixel tMin, tMax;
    unsigned long nValid, nInvalid;
    double dMean, dVariance;
    m_oRecord.m_pCalculator->CalcMinMaxMeanVar(tMin, tMax, nValid, dMean, dVariance, nInvalid, m_bApproximate,
                                               m_pLogger);
    if (nValid == 0 && !m_oRecord.m_bHasNoDataValue) // an empty band: the extremes' empty state, as CalcMinMax
    {
      tMin = std::numeric_limits<TPixel>::max();
      tMax = std::numeric_limits<TPixel>::lowest();
    }
    _StoreMinMax(tMin, tMax);
    _StoreCounts(nValid, nInvalid);
    if (_MayStore(eResultMean))
    {
      m_oRecord.m_dMean = dMean;
      m_oRecord.m_dVariance = dVariance;
      _Mark(eResultMean);
      _Mark(eResultVariance);
    }
  }

  void _EnsureHistogram()
  {
    if (_IsCurrent(eResultHistogram) && _IsCurrent(eResultMedian) && _IsCurrent(eResultMode))
      return;
    _EnsureMinMax();
    std::vector<unsigned long> vecHistogram;
    double dMedian, dMode, dBinWidth, dBinStep;
    unsigned int nBins = m_oRecord.m_nBins;
    unsigned long nMaxCount, nValid, nInvalid;
    const TPixel tMin = m_oRecord.m_tMin, tMax = m_oRecord.m_tMax;
    m_oRecord.m_pCalculator->CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dBinWidth, dBinStep, nValid,
                                       nInvalid, tMin, tMax, m_bApproximate, m_pLogger);
    _StoreCounts(nValid, nInvalid);
    if (!_MayStore(eResultHistogram))
      return;
    m_oRecord.m_vecHistogram = std::move(vecHistogram);
    m_oRecord.m_nMaxCount = nMaxCount;
    m_oRecord.m_dBinWidth = dBinWidth;
    m_oRecord.m_dBinStep = dBinStep;
    m_oRecord.m_dMedian = dMedian;
    m_oRecord.m_dMode = dMode;
    _Mark(eResultHistogram);
    _Mark(eResultMedian);
    _Mark(eResultMode);
  }

  TPixel _HistogramRangeLow() const
  {
    TPixel tLow = m_oRecord.m_tMin, tHigh = m_oRecord.m_tMax;
    unsigned int nBins = m_oRecord.m_nBins;
    FixHistogramRange(tLow, tHigh, nBins);
    return tLow;
  }

  CGrayValueStatistics<TPixel>& m_oRecord;
  const bool m_bApproximate;
  const TLoggerPtr m_pLogger;
};

}}}} // namespace Orl::Ostrel::Band::Detail
