// The generic algorithms on tile bands: Copy2D, ForEach2D and the statistics give what they give on
// memory bands with the same pixels, with all threads and with one, also while the bands spill.
#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Band/Detail/RowRuns.h"
#include "Band/ForEach2D.h"
#include "StatisticsSupport.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <tbb/task_arena.h>

#include <cmath>
#include <cstring>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;
using TLoggerPtr = boost::shared_ptr<Orl::Harnel::Progress::CLogger>;

template <class TPixel>
constexpr unsigned TileX()
{
  return Detail::STileSize<TPixel>::ms_nX;
}
template <class TPixel>
constexpr unsigned TileY()
{
  return Detail::STileSize<TPixel>::ms_nY;
}

// A tile band with the pixels of a memory band, written run by run.
template <class TPixel>
CBand<TPixel, STileTag> ToTiles(const CBand<TPixel, SMemoryTag>& oMemory)
{
  CBand<TPixel, STileTag> oTiles(oMemory.GetWidth(), oMemory.GetHeight());
  const TPixel* pFrom = oMemory.GetRep().GetDataLocation();
  Detail::WalkRectRuns(
    boost::get<0>(oTiles.GetBandIterators(oTiles)), int(oTiles.GetWidth()), int(oTiles.GetHeight()),
    [&](TPixel* pRun, int n) {
      std::memcpy(pRun, pFrom, n * sizeof(TPixel));
      pFrom += n;
    },
    [] {});
  if (oMemory.HasNoDataValue())
    oTiles.SetNoDataValue(oMemory.GetNoDataValue());
  return oTiles;
}

template <class TBand>
std::vector<typename TBand::TPixel> Pixels(const TBand& oBand)
{
  std::vector<typename TBand::TPixel> vecPixels;
  Detail::WalkRectRuns(
    boost::get<0>(oBand.GetBandIterators(oBand)), int(oBand.GetWidth()), int(oBand.GetHeight()),
    [&](const typename TBand::TPixel* p, int n) { vecPixels.insert(vecPixels.end(), p, p + n); }, [] {});
  return vecPixels;
}

// Random pixels whose sums are exact in every order: integers of any size, and for floating types
// multiples of 1/8 below 1e4, so that tile and memory bands, split differently, agree to the bit.
template <class TPixel>
CBand<TPixel, SMemoryTag> MakeBand(unsigned nWidth, unsigned nHeight, unsigned nSeed, bool bNoData)
{
  auto oBand = Orl::Test::MakeRandomBand<TPixel>(nWidth, nHeight, nSeed, bNoData);
  if constexpr (std::is_floating_point<TPixel>::value)
  {
    TPixel* p = oBand.GetRep().GetDataLocation();
    for (std::size_t i = 0; i < std::size_t(nWidth) * nHeight; ++i)
      p[i] = std::round(p[i] * 8) / 8;
  }
  return oBand;
}

template <class TPixel>
class TileAlgorithmsTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(TileAlgorithmsTest, Orl::Test::TAllPixelTypes);

// All statistics of a tile band equal those of the memory band with its pixels, bit for bit.
TYPED_TEST(TileAlgorithmsTest, StatisticsEqualMemory)
{
  for (const bool bNoData : {false, true})
  {
    const auto oMemory = MakeBand<TypeParam>(2 * TileX<TypeParam>() + 3, TileY<TypeParam>() + 5, 7, bNoData);
    const auto oTiles = ToTiles(oMemory);
    const auto fnAll = [](const auto& oBand) {
      unsigned long nValid, nInvalid;
      TypeParam tMin, tMax;
      double dMean, dVariance, dLow, dStep, dWidth;
      std::vector<unsigned long> vecHisto;
      unsigned long nMaxCount;
      oBand.GetCounts(nValid, nInvalid);
      oBand.GetMinMax(tMin, tMax);
      oBand.GetMeanVariance(dMean, dVariance);
      oBand.GetHistogram(vecHisto, dLow, dStep, dWidth, nMaxCount);
      return std::make_tuple(nValid, nInvalid, tMin, tMax, dMean, dVariance, vecHisto, dLow, dStep, nMaxCount,
                             oBand.GetMedian(), oBand.GetPercentile(90.0));
    };
    EXPECT_TRUE(fnAll(oMemory) == fnAll(oTiles)) << bNoData;
  }
}

// Sub-rectangles at odd places, with all threads and with one, on bands that spill: the same pixels
// as the copy on memory bands.
TYPED_TEST(TileAlgorithmsTest, Copy2DEqualsMemoryUnderSpilling)
{
  const unsigned nWidth = 3 * TileX<TypeParam>() + 11, nHeight = 3 * TileY<TypeParam>() + 5; // about 4.5 MiB
  Orl::Test::CTileBudget oBudget(1u << 20);
  const auto oMemSrc = MakeBand<TypeParam>(nWidth, nHeight, 3, false);
  const auto oTileSrc = ToTiles(oMemSrc);
  const CRect oFrom(TileX<TypeParam>() - 5, 3, 2 * TileX<TypeParam>() + 9, 2 * TileY<TypeParam>() + 1);
  const CRect oTo(7, TileY<TypeParam>() - 2, oFrom.GetWidth(), oFrom.GetHeight());
  for (const int nThreads : {1, tbb::task_arena::automatic})
  {
    CBand<TypeParam, SMemoryTag> oMemDest(nWidth, nHeight);
    CBand<TypeParam, STileTag> oTileDest(nWidth, nHeight);
    oMemDest.Clear(TypeParam(1));
    oTileDest.Clear(TypeParam(1));
    tbb::task_arena oArena(nThreads);
    oArena.execute([&] {
      Copy2D(oMemSrc.GetBandIterators(oFrom), oMemDest.GetBandIterators(oTo), TLoggerPtr(), SAllowParallelFor());
      Copy2D(oTileSrc.GetBandIterators(oFrom), oTileDest.GetBandIterators(oTo), TLoggerPtr(), SAllowParallelFor());
    });
    EXPECT_TRUE(Pixels(oMemDest) == Pixels(oTileDest)) << nThreads;
  }
}

// A functor with only the pixel operation, and statistic functors with row loops, through ForEach2D
// and ForEach2DIf on a spilling tile band.
struct SHashFunctor
{
  SHashFunctor() = default;
  SHashFunctor(const SHashFunctor&, Orl::Harnel::Math::SEmptyState) {}
  template <class TPixel>
  void operator()(TPixel tValue)
  {
    ++m_nCount;
    m_nSum += std::uint64_t(std::int64_t(tValue) * 2654435761u);
  }
  void Join(const SHashFunctor& oOther)
  {
    m_nCount += oOther.m_nCount;
    m_nSum += oOther.m_nSum;
  }
  std::uint64_t m_nCount = 0, m_nSum = 0;
};

TEST(TileForEach2DTest, EqualsMemoryWithAllThreadsAndWithOne)
{
  Orl::Test::CTileBudget oBudget(1u << 20);
  const auto oMemory = MakeBand<int>(3 * 512 + 40, 4 * 256 + 3, 11, true);
  const auto oTiles = ToTiles(oMemory);
  const CRect oRect(100, 50, 3 * 512 - 60, 4 * 256 - 90);
  const Detail::SValidDataPredicate<int> oValid{oMemory.GetNoDataValue()};
  for (const int nThreads : {1, tbb::task_arena::automatic})
  {
    tbb::task_arena oArena(nThreads);
    oArena.execute([&] {
      const auto oHashMem = ForEach2D(oMemory.GetBandIterators(oRect), SHashFunctor(), TLoggerPtr(), SAllowParallelReduce());
      const auto oHashTile = ForEach2D(oTiles.GetBandIterators(oRect), SHashFunctor(), TLoggerPtr(), SAllowParallelReduce());
      EXPECT_EQ(oHashMem.m_nCount, std::uint64_t(oRect.GetWidth()) * oRect.GetHeight());
      EXPECT_EQ(oHashMem.m_nSum, oHashTile.m_nSum);
      const auto oIfMem = ForEach2DIf(oMemory.GetBandIterators(oRect), oValid, SHashFunctor(), TLoggerPtr(),
                                      SAllowParallelReduce());
      const auto oIfTile = ForEach2DIf(oTiles.GetBandIterators(oRect), oValid, SHashFunctor(), TLoggerPtr(),
                                       SAllowParallelReduce());
      EXPECT_LT(oIfMem.m_nCount, oHashMem.m_nCount);
      EXPECT_EQ(oIfMem.m_nCount, oIfTile.m_nCount);
      EXPECT_EQ(oIfMem.m_nSum, oIfTile.m_nSum);
      using TMoments = Orl::Harnel::Math::CMinMaxMeanVarianceFunctor<double, int>;
      const auto oMomMem = ForEach2DIf(oMemory.GetBandIterators(oRect), oValid, TMoments(), TLoggerPtr(),
                                       SAllowParallelReduce());
      const auto oMomTile = ForEach2DIf(oTiles.GetBandIterators(oRect), oValid, TMoments(), TLoggerPtr(),
                                        SAllowParallelReduce());
      EXPECT_EQ(oMomMem.m_nCount, oMomTile.m_nCount);
      EXPECT_EQ(oMomMem.m_tMin, oMomTile.m_tMin);
      EXPECT_EQ(oMomMem.m_tMax, oMomTile.m_tMax);
      EXPECT_TRUE(oMomMem.m_tSum == oMomTile.m_tSum && oMomMem.m_tSumSquares == oMomTile.m_tSumSquares);
    });
  }
}

} // namespace
