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

// A representation's record: the calculator bound to it, the cached statistic results with their
// validity flags, and the band's no-data value. Cached results are current only while their flag
// is set; every mutable access to the band clears all flags at once. The no-data value is not a
// cached result and survives every clearing.
template <class TPixel>
struct CGrayValueStatistics
{
  static constexpr unsigned int ms_nNumValidFlags = 14;
  static constexpr unsigned int ms_nDefaultBins = 1024;

  boost::shared_ptr<Detail::CGrayValueStatisticsCalculator<TPixel, double>> m_pCalculator;
  std::uint32_t m_nBins = ms_nDefaultBins;
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

  void ClearValidFlags() { std::fill(m_abValid, m_abValid + ms_nNumValidFlags, false); }

  bool AnyValid() const { return std::find(m_abValid, m_abValid + ms_nNumValidFlags, true) != m_abValid + ms_nNumValidFlags; }
};

}}} // namespace Orl::Ostrel::Band
