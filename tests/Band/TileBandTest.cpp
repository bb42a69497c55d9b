#include "Band/Band.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>

#include <chrono>

namespace {

using namespace Orl::Ostrel::Band;

template <class TPixel>
class TileBandTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(TileBandTest, Orl::Test::TAllPixelTypes);

// Tiles follow the band's edges, a full tile is one block of the largest pool, and Clear makes and
// marks every tile, which the band gives back when it dies.
TYPED_TEST(TileBandTest, GridClearAndRelease)
{
  const unsigned nTX = Detail::STileSize<TypeParam>::ms_nX, nTY = Detail::STileSize<TypeParam>::ms_nY;
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

// The tiles a pattern names come into memory through the prefetch thread; an index beyond the last
// tile is ignored; a band whose queue is full at its end still stops its thread.
TEST(TileBandRepTest, PrefetchThread)
{
  {
    CTileBandRep<float> oRep(512 * 3, 256 * 3);
    oRep.SetPrefetchPattern(ePrefetchNextRow);
    for (unsigned i = 0; i < 3; ++i) // tiles 3, 4, 5 asked for three times: the seventh wakes the thread
      oRep.GetTile(512 * i, 0, false);
    for (const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(20);
         oRep.GetTileId(5) == 0 && std::chrono::steady_clock::now() < tEnd;)
      boost::this_thread::sleep_for(boost::chrono::milliseconds(1));
    for (unsigned i = 0; i < 9; ++i)
      EXPECT_EQ(oRep.GetTileId(i) != 0, i < 6) << i;
    oRep.SetPrefetchPattern(ePrefetchNextTile);
    for (int i = 0; i < 20; ++i)
      oRep.GetTile(512 * 2, 256 * 2, false); // asks for index 9
    boost::this_thread::sleep_for(boost::chrono::milliseconds(20));
    EXPECT_EQ(oRep.GetTileId(6), 0u);
  }
  CTileBandRep<unsigned char> oFull(1024 * 20, 512);
  oFull.SetPrefetchPattern(ePrefetchRestOfRow);
  oFull.GetTile(0, 0, false); // nine tiles at once
}

} // namespace
