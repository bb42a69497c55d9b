#pragma once

#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace Orl { namespace Ostrel { namespace Band {

namespace Detail {
template <class TPixel, class TAcc>
class CGrayValueStatisticsCalculator;
}

// The cached results, each with two of the record's fourteen validity flags: m_abValid[2 * r] says
// that result r holds the value over the whole band, m_abValid[2 * r + 1] that it holds the value over
// the band's GetApproxRects(). The fields hold one kind at a time; an exact value may answer an
// approximate question, never the other way round.
enum EStatisticResult : unsigned int
{
  eResultCounts,    // m_nValid, m_nInvalid
  eResultMinMax,    // m_tMin, m_tMax
  eResultMean,      // m_dMean
  eResultVariance,  // m_dVariance
  eResultHistogram, // m_vecHistogram, m_nMaxCount, m_dBinWidth, m_dBinStep (over the range in m_tMin, m_tMax)
  eResultMedian,    // m_dMedian
  eResultMode       // m_dMode
};
constexpr unsigned int g_nNumStatisticResults = unsigned(eResultMode) + 1;

// A representation's record: the calculator bound to it, the cached statistic results with their
// validity flags, and the band's no-data value. Cached results are current only while their flag
// is set; every mutable access to the band clears all flags at once. The no-data value is not a
// cached result and survives every clearing.
template <class TPixel>
struct CGrayValueStatistics
{
  static constexpr unsigned int ms_nNumValidFlags = 14;
  static constexpr unsigned int ms_nDefaultBins = 1024;

  static constexpr unsigned int GetFlagIndex(EStatisticResult eResult, bool bApproximate)
  {
    return 2 * unsigned(eResult) + (bApproximate ? 1 : 0);
  }

  boost::shared_ptr<Detail::CGrayValueStatisticsCalculator<TPixel, double>> m_pCalculator;
  std::uint32_t m_nBins = ms_nDefaultBins; // bins asked of CalcHisto by the cached getters
  unsigned long m_nMaxCount = 0;
  std::vector<unsigned long> m_vecHistogram;
  double m_dMedian = 0;
  double m_dMode = 0;
  TPixel m_tNoDataValue; // meaningless while m_bHasNoDataValue is false
  bool m_bHasNoDataValue = false;
  double m_dBinWidth = 0;
  double m_dBinStep = 0;
  TPixel m_tMin = 0;
  TPixel m_tMax = 0;
  unsigned long m_nValid = 0;
  unsigned long m_nInvalid = 0;
  double m_dMean = 0;
  double m_dVariance = 0;
  bool m_abValid[ms_nNumValidFlags] = {};
  static_assert(2 * g_nNumStatisticResults == ms_nNumValidFlags, "an exact and an approximate flag per result");

  void ClearValidFlags() { std::fill(m_abValid, m_abValid + ms_nNumValidFlags, false); }

  bool AnyValid() const { return std::find(m_abValid, m_abValid + ms_nNumValidFlags, true) != m_abValid + ms_nNumValidFlags; }
};

}}} // namespace Orl::Ostrel::Band
