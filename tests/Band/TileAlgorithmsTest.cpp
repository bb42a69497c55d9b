// Copy2D, ForEach2D and the statistics on tile bands give what they give on memory bands with the same
// pixels, with all threads and with one, also while the bands spill.
#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Band/ForEach2D.h"
#include "BandTestSupport.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <tbb/task_arena.h>

#include <cmath>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Test::CRect;
using Orl::Test::TLoggerPtr;

// Random pixels whose sums are exact in any order (integers; multiples of 1/8 for floating types), so
// that bands split into different blocks agree to the bit. Memory and tile band with the same pixels.
template <class TPixel>
auto MakeBands(unsigned nWidth, unsigned nHeight, unsigned nSeed, bool bNoData)
{
  auto oMemory = Orl::Test::MakeRandomBand<TPixel>(nWidth, nHeight, nSeed, bNoData);
  auto vecPixels = Orl::Test::ReadPixels(oMemory);
  if constexpr (std::is_floating_point<TPixel>::value)
    for (TPixel& t : vecPixels)
      t = std::round(t * 8) / 8;
  Orl::Test::WritePixels(oMemory, vecPixels);
  CBand<TPixel, STileTag> oTiles(nWidth, nHeight);
  Orl::Test::WritePixels(oTiles, vecPixels);
  if (bNoData)
    oTiles.SetNoDataValue(oMemory.GetNoDataValue());
  return std::make_pair(oMemory, oTiles);
}

template <class TPixel>
class TileAlgorithmsTest : public ::testing::Test
{
protected:
  static constexpr unsigned ms_nTX = Detail::STileSize<TPixel>::ms_nX, ms_nTY = Detail::STileSize<TPixel>::ms_nY;
};
TYPED_TEST_SUITE(TileAlgorithmsTest, Orl::Test::TAllPixelTypes);

TYPED_TEST(TileAlgorithmsTest, StatisticsEqualMemory)
{
  for (const bool bNoData : {false, true})
  {
    const auto oBands = MakeBands<TypeParam>(2 * this->ms_nTX + 3, this->ms_nTY + 5, 7, bNoData);
    const auto fnAll = [](const auto& oBand) {
      unsigned long nValid, nInvalid, nMaxCount;
      TypeParam tMin, tMax;
      double dMean, dVariance, dLow, dStep, dWidth;
      std::vector<unsigned long> vecHisto;
      oBand.GetCounts(nValid, nInvalid);
      oBand.GetMinMax(tMin, tMax);
      oBand.GetMeanVariance(dMean, dVariance);
      oBand.GetHistogram(vecHisto, dLow, dStep, dWidth, nMaxCount);
      return std::make_tuple(nValid, nInvalid, tMin, tMax, dMean, dVariance, vecHisto, dLow, dStep, nMaxCount,
                             oBand.GetPercentile(90.0));
    };
    EXPECT_TRUE(fnAll(oBands.first) == fnAll(oBands.second)) << bNoData;
  }
}

// Sub-rectangles at odd places, with all threads and with one, on bands that spill.
TYPED_TEST(TileAlgorithmsTest, Copy2DEqualsMemoryUnderSpilling)
{
  const unsigned nWidth = 3 * this->ms_nTX + 11, nHeight = 3 * this->ms_nTY + 5; // about 4.5 MiB
  const Orl::Test::CTileBudget oBudget(1u << 20);
  const auto oSrc = MakeBands<TypeParam>(nWidth, nHeight, 3, false);
  const CRect oFrom(this->ms_nTX - 5, 3, 2 * this->ms_nTX + 9, 2 * this->ms_nTY + 1);
  const CRect oTo(7, this->ms_nTY - 2, oFrom.GetWidth(), oFrom.GetHeight());
  for (const int nThreads : {1, int(tbb::task_arena::automatic)})
  {
    CBand<TypeParam, SMemoryTag> oMemDest(nWidth, nHeight);
    CBand<TypeParam, STileTag> oTileDest(nWidth, nHeight);
    oMemDest.Clear(TypeParam(1));
    oTileDest.Clear(TypeParam(1));
    tbb::task_arena(nThreads).execute([&] {
      Copy2D(oSrc.first.GetBandIterators(oFrom), oMemDest.GetBandIterators(oTo), TLoggerPtr(), SAllowParallelFor());
      Copy2D(oSrc.second.GetBandIterators(oFrom), oTileDest.GetBandIterators(oTo), TLoggerPtr(), SAllowParallelFor());
    });
    EXPECT_TRUE(Orl::Test::ReadPixels(oMemDest) == Orl::Test::ReadPixels(oTileDest)) << nThreads;
  }
}

// A functor with only the pixel operation (no row loops), through ForEach2D and ForEach2DIf on a
// sub-rectangle of bands that spill, with all threads and with one.
struct SHashFunctor
{
  SHashFunctor() = default;
  SHashFunctor(const SHashFunctor&, Orl::Harnel::Math::SEmptyState) {}
  void operator()(int nValue) { ++m_nCount, m_nSum += std::uint64_t(std::int64_t(nValue) * 2654435761u); }
  void Join(const SHashFunctor& o) { m_nCount += o.m_nCount, m_nSum += o.m_nSum; }
  bool operator==(const SHashFunctor& o) const { return m_nCount == o.m_nCount && m_nSum == o.m_nSum; }
  std::uint64_t m_nCount = 0, m_nSum = 0;
};

TEST(TileForEach2DTest, EqualsMemoryWithAllThreadsAndWithOne)
{
  const Orl::Test::CTileBudget oBudget(1u << 20);
  const auto oBands = MakeBands<int>(3 * 512 + 40, 4 * 256 + 3, 11, true);
  const CRect oRect(100, 50, 3 * 512 - 60, 4 * 256 - 90);
  const Detail::SValidDataPredicate<int> oValid{oBands.first.GetNoDataValue()};
  const auto fnBoth = [&](const auto& oBand) {
    return std::make_pair(
      ForEach2D(oBand.GetBandIterators(oRect), SHashFunctor(), TLoggerPtr(), SAllowParallelReduce()),
      ForEach2DIf(oBand.GetBandIterators(oRect), oValid, SHashFunctor(), TLoggerPtr(), SAllowParallelReduce()));
  };
  const auto oExpected = fnBoth(oBands.first);
  EXPECT_EQ(oExpected.first.m_nCount, std::uint64_t(oRect.GetWidth()) * oRect.GetHeight());
  EXPECT_LT(oExpected.second.m_nCount, oExpected.first.m_nCount);
  for (const int nThreads : {1, int(tbb::task_arena::automatic)})
    tbb::task_arena(nThreads).execute([&] { EXPECT_TRUE(fnBoth(oBands.second) == oExpected) << nThreads; });
}

} // namespace
