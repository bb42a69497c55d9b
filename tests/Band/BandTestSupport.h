#pragma once

// Memory bands with known or random pixels, and plain reference statistics.

#include "Band/Band.h"
#include "Foundation/Logger.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

namespace Orl { namespace Test {

using CRect = Pravik::GraphObject2d::CRect<unsigned int>;
using TLoggerPtr = boost::shared_ptr<Harnel::Progress::CLogger>;
template <class TPixel>
using TMemBand = Ostrel::Band::CBand<TPixel, Ostrel::Band::SMemoryTag>;

// Pixel i in row order holds (7 i + nSeed) % 113 + 1: never 0, and neighbours differ.
template <class TPixel>
TMemBand<TPixel> MakeNumberedBand(unsigned nWidth, unsigned nHeight, unsigned nSeed = 0)
{
  TMemBand<TPixel> oBand(nWidth, nHeight);
  TPixel* pData = oBand.GetRep().GetDataLocation();
  for (unsigned i = 0; i < nWidth * nHeight; ++i)
    pData[i] = TPixel((i * 7 + nSeed) % 113 + 1);
  return oBand;
}

template <class TPixel>
TPixel At(const TMemBand<TPixel>& oBand, unsigned nX, unsigned nY)
{
  return oBand.GetRep().GetDataLocation()[std::size_t(nY) * oBand.GetWidth() + nX];
}

// Pixels over the whole range of integer types (sums that overflow narrow accumulators), floating
// pixels in [-1e4, 1e4]; every 7th pixel is tNoData when bNoData.
template <class TPixel>
TMemBand<TPixel> MakeRandomBand(unsigned nWidth, unsigned nHeight, unsigned nSeed, bool bNoData,
                                TPixel tNoData = TPixel(3))
{
  TMemBand<TPixel> oBand(nWidth, nHeight);
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

// Count, extremes and two-pass moments in long double over the valid pixels of a memory band.
template <class TPixel>
struct SReference
{
  std::uint64_t m_nValid = 0, m_nTotal = 0;
  TPixel m_tMin = std::numeric_limits<TPixel>::max(), m_tMax = std::numeric_limits<TPixel>::lowest();
  long double m_dMean = 0, m_dVariance = 0;

  explicit SReference(const TMemBand<TPixel>& oBand)
  {
    const TPixel* pData = oBand.GetRep().GetDataLocation();
    m_nTotal = std::uint64_t(oBand.GetWidth()) * oBand.GetHeight();
    std::vector<TPixel> vecValid;
    std::copy_if(pData, pData + m_nTotal, std::back_inserter(vecValid),
                 [&](TPixel t) { return !oBand.HasNoDataValue() || t != oBand.GetNoDataValue(); });
    m_nValid = vecValid.size();
    for (const TPixel t : vecValid)
    {
      m_dMean += t;
      m_tMin = std::min(m_tMin, t);
      m_tMax = std::max(m_tMax, t);
    }
    m_dMean /= m_nValid;
    for (const TPixel t : vecValid)
      m_dVariance += (t - m_dMean) * (t - m_dMean);
    m_dVariance /= m_nValid;
  }
};

}} // namespace Orl::Test
