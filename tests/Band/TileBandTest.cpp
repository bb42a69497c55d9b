// Tile bands: the grid, the caches and the prefetch thread; tile iterators against memory iterators;
// Copy2D and ForEach2D against memory bands with the same pixels, with all threads and with one, also
// while the bands spill (the statistics: StatisticsConcurrencyTest.cpp).
#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Band/ForEach2D.h"
#include "BandTestSupport.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <chrono>
#include <random>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Test::CRect;
using Orl::Test::TLoggerPtr;
using CPointI = Orl::Pravik::GraphObject2d::CPoint<int>;

template <class TPixel>
class TileBandTest : public ::testing::Test
{
protected:
  static constexpr unsigned ms_nTX = Detail::STileSize<TPixel>::ms_nX, ms_nTY = Detail::STileSize<TPixel>::ms_nY;
};
TYPED_TEST_SUITE(TileBandTest, Orl::Test::TAllPixelTypes);

// Tiles follow the band's edges, a full tile is one block of the largest pool, and Clear makes and
// marks every tile, which the band gives back when it dies.
TYPED_TEST(TileBandTest, GridClearAndRelease)
{
  const unsigned nTX = this->ms_nTX, nTY = this->ms_nTY;
  EXPECT_EQ(nTX * nTY * sizeof(TypeParam), 524288u);
  const unsigned aaCases[][4] = {{0, 0, 0, 0}, {5, 0, 1, 0}, {nTX, nTY, 1, 1}, {2 * nTX + 1, nTY + 1, 3, 2}, {nTX - 1, 1, 1, 1}};
  const auto nTilesBefore = Orl::Test::TileCache().GetCounters().m_nTiles;
  for (const auto& aCase : aaCases)
  {
    CBand<TypeParam, STileTag> oBand(aCase[0], aCase[1]);
    auto& oRep = oBand.GetRep();
    ASSERT_EQ(oRep.m_nTilesPerRow, aCase[2]);
    ASSERT_EQ(oRep.GetTileCount(), aCase[2] * aCase[3]);
    oRep.GetStatistics().m_abValid[3] = true;
    oBand.Clear(TypeParam(42));
    EXPECT_FALSE(oRep.GetStatistics().AnyValid());
    for (unsigned i = 0; i < oRep.GetTileCount(); ++i)
    {
      const unsigned nX = (i % aCase[2]) * nTX, nY = (i / aCase[2]) * nTY;
      const auto pTile = oRep.GetTile(nX, nY, false);
      EXPECT_TRUE(pTile->IsModified());
      EXPECT_EQ(pTile->GetSizeX(), std::min(nTX, aCase[0] - nX));
      EXPECT_EQ(pTile->GetSizeY(), std::min(nTY, aCase[1] - nY));
      const auto* p = static_cast<const TypeParam*>(pTile->GetDataLocation());
      EXPECT_EQ(std::count(p, p + pTile->GetSizeX() * pTile->GetSizeY(), TypeParam(42)),
                long(pTile->GetSizeX() * pTile->GetSizeY()));
    }
  }
  EXPECT_EQ(Orl::Test::TileCache().GetCounters().m_nTiles, nTilesBefore);
}

// The local cache keeps a tile for the following calls, and the (c + 1)-th different tile evicts the
// first one asked for, however recently that one was used. A hit only ever sets the modified mark.
TEST(TileBandRepTest, LocalCacheRoundRobinAndMarks)
{
  CTileBandRep<float> oRep(512 * 40, 256);
  const unsigned nCapacity = oRep.GetLocalCacheCapacity();
  ASSERT_TRUE(nCapacity >= 4 && nCapacity < 40);
  const auto pFirst = oRep.GetTile(0, 0, false);
  EXPECT_EQ(oRep.GetTile(511, 255, false), pFirst);
  const long nHeld = pFirst.use_count(); // tile cache, local cache, here
  for (const bool bWrite : {true, false})
  {
    oRep.GetTile(3, 3, bWrite);
    EXPECT_TRUE(pFirst->IsModified());
  }
  pFirst->SetModified(false);
  oRep.GetTile(3, 3, false);
  EXPECT_FALSE(pFirst->IsModified());
  for (unsigned i = 1; i < nCapacity; ++i)
    oRep.GetTile(512 * i, 0, false);
  oRep.GetTile(0, 0, false);
  EXPECT_EQ(pFirst.use_count(), nHeld);
  oRep.GetTile(512 * nCapacity, 0, false);
  EXPECT_EQ(pFirst.use_count(), nHeld - 1);
}

// Row-major over the whole band through all tiles of a row, and back again pixel for pixel.
TEST(TileBandRepTest, ScanOrderForwardAndBack)
{
  const unsigned nWidth = 1100, nHeight = 3; // unsigned char tiles are 1024 wide
  CTileBandRep<unsigned char> oRep(nWidth, nHeight);
  auto it = oRep.begin();
  unsigned n = 0;
  for (; it != oRep.end(); ++it, ++n)
  {
    ASSERT_TRUE(it.GetX() == n % nWidth && it.GetY() == n / nWidth) << n;
    *it = Orl::Test::PixelAt<unsigned char>(n % nWidth, n / nWidth);
  }
  EXPECT_EQ(n, nWidth * nHeight);
  it = oRep.begin();
  for (unsigned i = 0; i + 1 < n; ++i)
    ++it;
  for (unsigned i = n - 1; i != 0; --i, --it)
    ASSERT_EQ(*it, Orl::Test::PixelAt<unsigned char>(i % nWidth, i / nWidth)) << i;
  EXPECT_TRUE(it == oRep.begin());
  CTileBandRep<float> oFlat(7, 0);
  EXPECT_TRUE(oFlat.begin() == oFlat.end());
}

// The tiles a pattern names come into memory through the prefetch thread, in the order asked for; an
// index beyond the last tile makes nothing; a band whose queue is full at its end still stops its
// thread (a regression hangs and meets the test's timeout).
TEST(TileBandRepTest, PrefetchThread)
{
  // Walks on tile (nX, nY) until the thread has made tile nIndex: every step asks again, and a fuller
  // queue wakes the thread.
  const auto WalkUntilMade = [](CTileBandRep<float>& oRep, unsigned nX, unsigned nY, unsigned nIndex) {
    for (const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(60);
         oRep.GetTileId(nIndex) == 0 && std::chrono::steady_clock::now() < tEnd;)
      oRep.GetTile(nX, nY, false);
    return oRep.GetTileId(nIndex) != 0;
  };
  {
    const auto nTilesBefore = Orl::Test::TileCache().GetCounters().m_nTiles;
    CTileBandRep<float> oRep(512 * 3, 256 * 3);
    oRep.SetPrefetchPattern(ePrefetchNextRow);
    ASSERT_TRUE(WalkUntilMade(oRep, 0, 0, 5)); // tile 0 names the row below: 3, 4, 5
    oRep.SetPrefetchPattern(ePrefetchNextTile);
    for (int i = 0; i < 20; ++i)
      oRep.GetTile(512 * 2, 256 * 2, false); // tile 8 names index 9, behind the band
    ASSERT_TRUE(WalkUntilMade(oRep, 512 * 2, 256, 6)); // asked after every 9: those are done
    std::string strMade;
    for (unsigned i = 0; i < oRep.GetTileCount(); ++i)
      strMade += oRep.GetTileId(i) != 0 ? 'x' : '.';
    EXPECT_EQ(strMade, "x..xxxx.x");
    EXPECT_EQ(Orl::Test::TileCache().GetCounters().m_nTiles, nTilesBefore + 6);
  }
  CTileBandRep<unsigned char> oFull(1024 * 20, 512);
  oFull.SetPrefetchPattern(ePrefetchRestOfRow);
  oFull.GetTile(0, 0, false); // nineteen tiles named at once
}

// Random walks through the supported moves over a band whose sizes are not multiples of the tile
// size, against a memory iterator on the same pixels and a model of the attached state: positions
// stay within one step of the band; ++ never attaches, -- attaches when it lands inside, += to a
// place inside attaches. Jumps go near tile borders so that short runs of steps cross them.
template <class TIt, class TMemIt>
void RandomWalk(TIt it, TMemIt itMem, int nWidth, int nHeight, int nTX, int nTY, unsigned nSeed)
{
  std::mt19937 oRandom(nSeed);
  bool bAttached = it.X < nWidth && it.Y < nHeight;
  const auto fnNearBorder = [&](int nTile, int nSize) {
    const int nBorder = nTile * int(oRandom() % unsigned(nSize / nTile + 2));
    return std::max(0, std::min(nSize, nBorder + int(oRandom() % 5) - 2));
  };
  for (int nStep = 0; nStep < 3000; ++nStep)
  {
    const unsigned nMove = oRandom() % 9;
    if (nMove == 0)
    {
      const CPointI oOffset(fnNearBorder(nTX, nWidth) - it.X, fnNearBorder(nTY, nHeight) - it.Y);
      it += oOffset;
      itMem += oOffset;
      bAttached = it.X < nWidth && it.Y < nHeight;
    }
    else if (nMove <= 2 && it.X < nWidth)
      ++it.X, ++itMem.X, bAttached = bAttached && it.X < nWidth;
    else if (nMove <= 4 && it.X >= 0)
      --it.X, --itMem.X, bAttached = it.X >= 0 && it.Y >= 0 && it.Y < nHeight;
    else if (nMove <= 6 && it.Y < nHeight)
      ++it.Y, ++itMem.Y, bAttached = bAttached && it.Y < nHeight;
    else if (nMove <= 8 && it.Y >= 0)
      --it.Y, --itMem.Y, bAttached = it.Y >= 0 && it.X >= 0 && it.X < nWidth;
    ASSERT_TRUE(it.X == itMem.X && it.Y == itMem.Y) << nStep;
    ASSERT_EQ(it.IsAttached(), bAttached) << nStep << " at " << int(it.X) << ", " << int(it.Y);
    if (bAttached)
    {
      ASSERT_EQ(*it, *itMem) << nStep << " at " << int(it.X) << ", " << int(it.Y);
    }
  }
}

TYPED_TEST(TileBandTest, RandomWalksReadWhatMemoryIteratorsRead)
{
  const int nTX = int(this->ms_nTX), nTY = int(this->ms_nTY);
  const int nWidth = 2 * nTX + 37, nHeight = 2 * nTY + 11;
  std::vector<TypeParam> vecPixels;
  for (int y = 0; y < nHeight; ++y)
    for (int x = 0; x < nWidth; ++x)
      vecPixels.push_back(Orl::Test::PixelAt<TypeParam>(x, y));
  CBand<TypeParam, STileTag> oTiles(nWidth, nHeight);
  CBand<TypeParam, SMemoryTag> oMemory(nWidth, nHeight);
  Orl::Test::WritePixels(oTiles, vecPixels);
  Orl::Test::WritePixels(oMemory, vecPixels);
  const auto& oConstTiles = oTiles;
  const auto& oConstMemory = oMemory;
  const CRect oRect(nTX - 3, 1, nTX + 20, nTY + 7); // ends inside a tile
  RandomWalk(boost::get<0>(oConstTiles.GetBandIterators(oConstTiles)),
             boost::get<0>(oConstMemory.GetBandIterators(oConstMemory)), nWidth, nHeight, nTX, nTY, 1);
  RandomWalk(boost::get<1>(oTiles.GetBandIterators(oRect)), boost::get<1>(oMemory.GetBandIterators(oRect)), nWidth,
             nHeight, nTX, nTY, 2);
  RandomWalk(boost::get<1>(oConstTiles.GetBandIterators(oConstTiles)),
             boost::get<1>(oConstMemory.GetBandIterators(oConstMemory)), nWidth, nHeight, nTX, nTY, 3);
}

// A float band of 3 x 2 tiles; tile i starts at (512 * (i % 3), 256 * (i / 3)). A mutable iterator
// marks a tile exactly when it fetches it, which makes its fetches visible. The mutable pair marks the
// tile under an end inside the band, though nothing is written to it; the end of the whole band holds
// no tile; a read-only iterator leaves marks as they are; a step over a tile border and straight back
// between held tiles fetches nothing; a copy keeps working after its original has gone.
TEST(TileIteratorMarksTest, FetchesAndEdges)
{
  CBand<float, STileTag> oBand(3 * 512, 2 * 256);
  oBand.Clear(0.0f);
  const auto fnTile = [&](int i) { return oBand.GetRep().GetTile(512 * (i % 3), 256 * (i / 3), false); };
  const auto fnMarks = [&](bool bUnmark) {
    std::vector<bool> vecMarks;
    for (int i = 0; i < 6; ++i)
    {
      vecMarks.push_back(fnTile(i)->IsModified());
      if (bUnmark)
        fnTile(i)->SetModified(false);
    }
    return vecMarks;
  };
  const auto fnMoveTo = [](auto& it, int nTile, int nX, int nY) {
    it += CPointI(512 * (nTile % 3) + nX - it.X, 256 * (nTile / 3) + nY - it.Y);
  };
  fnMarks(true);
  auto oIts = oBand.GetBandIterators(CRect(10, 10, 600, 300)); // ends in tile 4
  EXPECT_EQ(fnMarks(true), std::vector<bool>({true, false, false, false, true, false}));
  oIts = oBand.GetBandIterators(oBand);
  EXPECT_FALSE(boost::get<1>(oIts).IsAttached());
  EXPECT_EQ(fnMarks(true), std::vector<bool>({true, false, false, false, false, false}));
  fnTile(2)->SetModified(true);
  const auto& oConst = oBand;
  auto itRead = boost::get<0>(oConst.GetBandIterators(oConst));
  for (int i = 0; i < 6; ++i)
    fnMoveTo(itRead, i, 7, 3);
  EXPECT_EQ(fnMarks(true), std::vector<bool>({false, false, true, false, false, false}));

  auto it = boost::get<0>(oIts);
  fnMoveTo(it, 1, 0, 0); // tiles 0 and 1 held
  fnMoveTo(it, 0, 511, 0);
  fnMarks(true);
  ++it.X;
  --it.X;
  EXPECT_EQ(fnMarks(false), std::vector<bool>(6, false));
  fnMoveTo(it, 2, 511, 10);
  ++it.X; // off the right edge, and back onto the last column with its tile
  --it.X;
  EXPECT_TRUE(it.IsAttached() && it.GetTileOffsetX() == 511 && it.GetCurrentTile() == fnTile(2));
  auto* pOriginal = new Detail::CMutableTileBandIterator<float, int>(it);
  fnMoveTo(*pOriginal, 4, 7, 3);
  const Detail::CMutableTileBandIterator<float, int> itCopy(*pOriginal);
  delete pOriginal;
  *itCopy = 5.0f;
  EXPECT_TRUE(itCopy.GetCurrentTile() == fnTile(4) && itCopy.GetBlockHintX() == 1024 && itCopy.GetBlockHintY() == 512);
}

// Sub-rectangles at odd places, between every pair of storage kinds, with all threads and with one,
// on bands that spill.
TYPED_TEST(TileBandTest, Copy2DEqualsMemoryUnderSpilling)
{
  const unsigned nWidth = 3 * this->ms_nTX + 11, nHeight = 3 * this->ms_nTY + 5; // about 4.5 MiB
  const Orl::Test::CTileBudget oBudget(1u << 20);
  const auto oMemory = Orl::Test::MakeRandomBand<TypeParam>(nWidth, nHeight, 3, false);
  CBand<TypeParam, STileTag> oTiles(nWidth, nHeight);
  Orl::Test::WritePixels(oTiles, Orl::Test::ReadPixels(oMemory));
  const CRect oFrom(this->ms_nTX - 5, 3, 2 * this->ms_nTX + 9, 2 * this->ms_nTY + 1);
  const CRect oTo(7, this->ms_nTY - 2, oFrom.GetWidth(), oFrom.GetHeight());
  const auto fnCopy = [&](const auto& oFromBand, auto oToBand) {
    oToBand.Clear(TypeParam(1));
    Copy2D(oFromBand.GetBandIterators(oFrom), oToBand.GetBandIterators(oTo), TLoggerPtr(), SAllowParallelFor());
    return Orl::Test::ReadPixels(oToBand);
  };
  for (const int nThreads : {1, int(tbb::task_arena::automatic)})
    tbb::task_arena(nThreads).execute([&] {
      const auto vecExpected = fnCopy(oMemory, CBand<TypeParam, SMemoryTag>(nWidth, nHeight));
      EXPECT_TRUE(fnCopy(oTiles, CBand<TypeParam, STileTag>(nWidth, nHeight)) == vecExpected) << nThreads;
      EXPECT_TRUE(fnCopy(oMemory, CBand<TypeParam, STileTag>(nWidth, nHeight)) == vecExpected) << nThreads;
      EXPECT_TRUE(fnCopy(oTiles, CBand<TypeParam, SMemoryTag>(nWidth, nHeight)) == vecExpected) << nThreads;
    });
}

} // namespace
