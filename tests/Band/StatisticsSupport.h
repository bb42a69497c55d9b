#pragma once

// Random bands and plain reference statistics for the statistics tests.

#include "Band/Band.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

namespace Orl { namespace Test {

// Pixels over the whole range of integer types (sums that overflow narrow accumulators), floating
// pixels in [-1e4, 1e4]; every 7th pixel is tNoData when bNoData.
template <class TPixel>
Ostrel::Band::CBand<TPixel, Ostrel::Band::SMemoryTag> MakeRandomBand(unsigned nWidth, unsigned nHeight, unsigned nSeed,
                                                                     bool bNoData, TPixel tNoData = TPixel(3))
{
  Ostrel::Band::CBand<TPixel, Ostrel::Band::SMemoryTag> oBand(nWidth, nHeight);
  std::mt19937_64 oRandom(nSeed);
  TPixel* pData = oBand.GetRep().GetDataLocation();
  for (std::size_t i = 0; i < std::size_t(nWidth) * nHeight; ++i)
  {
    if constexpr (std::is_floating_point<TPixel>::value)
      pData[i] = TPixel(std::uniform_real_distribution<double>(-1e4, 1e4)(oRandom));
    else
      pData[i] = TPixel(std::uniform_int_distribution<long long>(std::numeric_limits<TPixel>::lowest(),
                                                                 std::numeric_limits<TPixel>::max())(oRandom));
    if (bNoData && i % 7 == 3)
      pData[i] = tNoData;
  }
  if (bNoData)
    oBand.SetNoDataValue(tNoData);
  return oBand;
}

// Count, extremes by plain comparisons, and moments in long double over the valid pixels.
template <class TPixel>
struct SReference
{
  std::uint64_t m_nValid = 0;
  std::uint64_t m_nTotal = 0;
  TPixel m_tMin = std::numeric_limits<TPixel>::max();
  TPixel m_tMax = std::numeric_limits<TPixel>::lowest();
  long double m_dMean = 0;
  long double m_dVariance = 0;

  template <class TBand>
  explicit SReference(const TBand& oBand)
  {
    const TPixel* pData = oBand.GetRep().GetDataLocation();
    m_nTotal = std::uint64_t(oBand.GetWidth()) * oBand.GetHeight();
    long double dSum = 0;
    for (std::uint64_t i = 0; i < m_nTotal; ++i)
      if (!oBand.HasNoDataValue() || pData[i] != oBand.GetNoDataValue())
      {
        ++m_nValid;
        dSum += pData[i];
        if (pData[i] < m_tMin)
          m_tMin = pData[i];
        if (pData[i] > m_tMax)
          m_tMax = pData[i];
      }
    m_dMean = dSum / m_nValid;
    long double dSquares = 0; // two passes: the reference should not share the one-pass cancellation
    for (std::uint64_t i = 0; i < m_nTotal; ++i)
      if (!oBand.HasNoDataValue() || pData[i] != oBand.GetNoDataValue())
        dSquares += (pData[i] - m_dMean) * (pData[i] - m_dMean);
    m_dVariance = dSquares / m_nValid;
  }
};

}} // namespace Orl::Test
