#include "Band/Band.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>

#include <chrono>
#include <set>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Test::PixelAt;
using Orl::Test::TileCounters;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;

template <class TPixel>
class TileBandTest : public ::testing::Test
{
protected:
  using TBand = CBand<TPixel, STileTag>;
  static constexpr unsigned ms_nTX = Detail::STileSize<TPixel>::ms_nX;
  static constexpr unsigned ms_nTY = Detail::STileSize<TPixel>::ms_nY;
};
TYPED_TEST_SUITE(TileBandTest, Orl::Test::TAllPixelTypes);

// Tiles follow the band's edges: the last tile of a row or column is as small as the band leaves it,
// and a full tile is one block of the largest pool.
TYPED_TEST(TileBandTest, TileGridFollowsTheBandEdges)
{
  const unsigned nTX = this->ms_nTX, nTY = this->ms_nTY;
  EXPECT_EQ(nTX * nTY * sizeof(TypeParam), 524288u);
  struct SCase
  {
    unsigned m_nWidth, m_nHeight, m_nTilesPerRow, m_nTileRows;
  };
  const SCase aCases[] = {{0, 5, 0, 0},       {5, 0, 1, 0},         {1, 1, 1, 1},
                          {nTX, nTY, 1, 1},   {nTX + 1, nTY, 2, 1}, {2 * nTX + 1, nTY + 1, 3, 2},
                          {nTX - 1, 3 * nTY, 1, 3}};
  for (const SCase& oCase : aCases)
  {
    CTileBandRep<TypeParam> oRep(oCase.m_nWidth, oCase.m_nHeight);
    EXPECT_EQ(oRep.m_nTilesPerRow, oCase.m_nTilesPerRow) << oCase.m_nWidth;
    EXPECT_EQ(oRep.GetTileCount(), oCase.m_nTilesPerRow * oCase.m_nTileRows) << oCase.m_nWidth;
    if (oCase.m_nWidth == 0 || oCase.m_nHeight == 0)
      continue;
    // The last tile of the band.
    const auto pTile = oRep.GetTile(oCase.m_nWidth - 1, oCase.m_nHeight - 1, false);
    EXPECT_EQ(pTile->GetPosX(), (oCase.m_nTilesPerRow - 1) * nTX);
    EXPECT_EQ(pTile->GetPosY(), (oCase.m_nTileRows - 1) * nTY);
    EXPECT_EQ(pTile->GetSizeX(), oCase.m_nWidth - pTile->GetPosX());
    EXPECT_EQ(pTile->GetSizeY(), oCase.m_nHeight - pTile->GetPosY());
    EXPECT_NE(oRep.GetTileId(oRep.GetTileCount() - 1), 0u);
  }
}

// The local cache keeps a tile for the following calls, and the (c + 1)-th different tile evicts the
// first one asked for, however recently that one was used. The modified mark only ever grows on a hit.
TEST(TileBandLocalCacheTest, RoundRobinAndModifiedMarks)
{
  CTileBandRep<float> oRep(512 * 40, 256);
  const unsigned nCapacity = oRep.GetLocalCacheCapacity();
  ASSERT_GE(nCapacity, 4u);
  ASSERT_LT(nCapacity, 40u);

  const auto pFirst = oRep.GetTile(0, 0, false);
  EXPECT_FALSE(pFirst->IsModified());
  EXPECT_EQ(oRep.GetTile(511, 255, false), pFirst);
  const long nHeld = pFirst.use_count(); // tile cache, local cache, here
  oRep.GetTile(3, 3, true);
  EXPECT_TRUE(pFirst->IsModified());
  oRep.GetTile(3, 3, false);
  EXPECT_TRUE(pFirst->IsModified());
  pFirst->SetModified(false);
  oRep.GetTile(3, 3, false);
  EXPECT_FALSE(pFirst->IsModified());

  for (unsigned i = 1; i < nCapacity; ++i)
    oRep.GetTile(512 * i, 0, false);
  oRep.GetTile(0, 0, false); // a hit does not renew the entry
  EXPECT_EQ(pFirst.use_count(), nHeld);
  oRep.GetTile(512 * nCapacity, 0, false);
  EXPECT_EQ(pFirst.use_count(), nHeld - 1);
}

// Destruction gives every tile back to the cache; tiles that iterators hold live on until they go.
TEST(TileBandLifeTest, DestructionReleasesEveryTile)
{
  const auto nBefore = TileCounters().m_nTiles;
  {
    CBand<unsigned short, STileTag> oBand(1500, 700);
    EXPECT_EQ(TileCounters().m_nTiles, nBefore); // construction makes nothing
    oBand.Clear(7);
    EXPECT_EQ(TileCounters().m_nTiles, nBefore + 6);
  }
  EXPECT_EQ(TileCounters().m_nTiles, nBefore);
}

TYPED_TEST(TileBandTest, ClearMakesAndMarksEveryTile)
{
  typename TestFixture::TBand oBand(this->ms_nTX + 3, 2 * this->ms_nTY + 1);
  oBand.SetNoDataValue(TypeParam(9));
  auto& oRep = oBand.GetRep();
  oRep.GetStatistics().m_abValid[3] = true;
  oBand.Clear(TypeParam(42));
  EXPECT_FALSE(oRep.GetStatistics().AnyValid());
  EXPECT_TRUE(oBand.HasNoDataValue());
  for (unsigned i = 0; i < oRep.GetTileCount(); ++i)
  {
    ASSERT_NE(oRep.GetTileId(i), 0u);
    const unsigned nX = (i % oRep.m_nTilesPerRow) * this->ms_nTX, nY = (i / oRep.m_nTilesPerRow) * this->ms_nTY;
    const auto pTile = oRep.GetTile(nX, nY, false);
    EXPECT_TRUE(pTile->IsModified());
    const TypeParam* pPixels = static_cast<const TypeParam*>(pTile->GetDataLocation());
    const unsigned nCount = pTile->GetSizeX() * pTile->GetSizeY();
    EXPECT_EQ(std::count(pPixels, pPixels + nCount, TypeParam(42)), long(nCount)) << i;
  }

  // A band without rows clears only the flags.
  typename TestFixture::TBand oEmpty(5, 0);
  oEmpty.GetRep().GetStatistics().m_abValid[0] = true;
  oEmpty.Clear(TypeParam(1));
  EXPECT_FALSE(oEmpty.GetRep().GetStatistics().AnyValid());
}

// The scan order is row-major over the whole band, through all tiles of a row; walking back retraces
// it pixel for pixel, over tile and row borders.
TEST(TileScanOrderTest, RowMajorThroughTilesAndBack)
{
  const unsigned nWidth = 1100, nHeight = 3; // unsigned char tiles are 1024 wide: two per row
  CTileBandRep<unsigned char> oRep(nWidth, nHeight);
  auto it = oRep.begin();
  const auto itEnd = oRep.end();
  unsigned n = 0;
  for (; it != itEnd; ++it, ++n)
  {
    ASSERT_EQ(it.GetX(), n % nWidth);
    ASSERT_EQ(it.GetY(), n / nWidth);
    *it = PixelAt<unsigned char>(n % nWidth, n / nWidth);
  }
  EXPECT_EQ(n, nWidth * nHeight);
  EXPECT_EQ(it.GetX(), 0u);
  EXPECT_EQ(it.GetY(), nHeight);

  const auto pSecond = oRep.GetTile(1024, 1, false);
  EXPECT_EQ(static_cast<const unsigned char*>(pSecond->GetDataLocation())[1 * 76 + 5], PixelAt<unsigned char>(1029, 1));

  // Back from the last pixel to the first.
  auto itBack = oRep.begin();
  for (unsigned i = 0; i + 1 < nWidth * nHeight; ++i)
    ++itBack;
  for (unsigned i = nWidth * nHeight - 1;; --i)
  {
    ASSERT_EQ(itBack.GetX(), i % nWidth);
    ASSERT_EQ(itBack.GetY(), i / nWidth);
    ASSERT_EQ(*itBack, PixelAt<unsigned char>(i % nWidth, i / nWidth)) << i;
    if (i == 0)
      break;
    --itBack;
  }
}

TEST(TileScanOrderTest, EmptyBandsStartAtTheirEnd)
{
  CTileBandRep<float> oFlat(7, 0);
  EXPECT_TRUE(oFlat.begin() == oFlat.end());
  CTileBandRep<float> oNarrow(0, 7);
  EXPECT_FALSE(oNarrow.begin() == oNarrow.end()); // must not be walked
  EXPECT_EQ(oNarrow.GetTileCount(), 0u);
}

// The tiles that a pattern names come into memory through the prefetch thread, made if need be; an
// index beyond the band's last tile is ignored.
TEST(TilePrefetchTest, ThreadBringsTheNamedTiles)
{
  CTileBandRep<float> oRep(512 * 3, 256 * 3);
  oRep.SetPrefetchPattern(ePrefetchNextRow);
  EXPECT_EQ(oRep.GetPrefetchPattern(), ePrefetchNextRow);
  // Each call asks for tiles 3, 4, 5 again; the seventh index in the queue wakes the thread.
  for (unsigned i = 0; i < 3; ++i)
    oRep.GetTile(512 * i, 0, false);
  const auto tDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (oRep.GetTileId(5) == 0 && std::chrono::steady_clock::now() < tDeadline)
    boost::this_thread::sleep_for(boost::chrono::milliseconds(1));
  for (unsigned i = 0; i < 9; ++i)
    EXPECT_EQ(oRep.GetTileId(i) != 0, i < 6) << i;

  oRep.SetPrefetchPattern(ePrefetchNextTile);
  for (int i = 0; i < 20; ++i)
    oRep.GetTile(512 * 2 + 1, 256 * 2 + 1, false); // the last tile asks for index 9
  boost::this_thread::sleep_for(boost::chrono::milliseconds(20));
  EXPECT_EQ(oRep.GetTileId(6), 0u);
  EXPECT_EQ(oRep.GetTileId(7), 0u);
}

// A band whose prefetch queue is full at its end cannot place the stop order; destruction still ends
// the thread and goes on.
TEST(TilePrefetchTest, DestructionWithAFullQueue)
{
  for (int nRound = 0; nRound < 3; ++nRound)
  {
    CTileBandRep<unsigned char> oRep(1024 * 20, 512);
    oRep.SetPrefetchPattern(ePrefetchRestOfRow);
    oRep.GetTile(0, 0, false); // nine tiles asked for at once
  }
}

// Bands several times larger than the budget keep every pixel through spilling and reloading.
TYPED_TEST(TileBandTest, PixelsSurviveSpilling)
{
  Orl::Test::CTileBudget oBudget(2u << 20);
  const auto oBefore = TileCounters();
  typename TestFixture::TBand oBand(3 * this->ms_nTX + 5, 4 * this->ms_nTY - 3); // about 6 MiB
  Orl::Test::FillNumbered(oBand);
  const auto& oConst = oBand;
  auto oIts = oConst.GetBandIterators(oConst);
  std::uint64_t nWrong = 0;
  for (auto itRow = boost::get<0>(oIts); itRow.Y != boost::get<1>(oIts).Y; ++itRow.Y)
    for (auto it = itRow; it.X != boost::get<1>(oIts).X; ++it.X)
      nWrong += *it != PixelAt<TypeParam>(unsigned(int(it.X)), unsigned(int(it.Y)));
  EXPECT_EQ(nWrong, 0u);
  const auto oAfter = TileCounters();
  EXPECT_GT(oAfter.m_nRecordsWritten, oBefore.m_nRecordsWritten);
  EXPECT_GT(oAfter.m_nRecordsRead, oBefore.m_nRecordsRead);
}

// Approximate statistics look at whole tiles, about one in sixteen, spread over rows and columns.
TEST(TileApproxRectsTest, WholeTilesSpreadOverTheBand)
{
  EXPECT_EQ(CTileBandRep<float>(2048, 2048).GetApproxRects(), std::vector<CRect>{CRect(0, 0, 2048, 2048)});
  const CTileBandRep<float> oRep(512 * 20 + 100, 256 * 40 + 7);
  const auto vecRects = oRep.GetApproxRects();
  std::set<unsigned> oColumns;
  std::uint64_t nPixels = 0;
  for (std::size_t i = 0; i < vecRects.size(); ++i)
  {
    const CRect& oRect = vecRects[i];
    EXPECT_EQ(oRect.GetStart().x % 512, 0u);
    EXPECT_EQ(oRect.GetStart().y % 256, 0u);
    EXPECT_TRUE(oRect.GetWidth() == 512 || oRect.GetEnd().x == oRep.m_nWidth);
    EXPECT_TRUE(oRect.GetHeight() == 256 || oRect.GetEnd().y == oRep.m_nHeight);
    if (i > 0) // row-major order, disjoint
    {
      EXPECT_TRUE(oRect.GetStart().y > vecRects[i - 1].GetStart().y ||
                  oRect.GetStart().x >= vecRects[i - 1].GetEnd().x);
    }
    oColumns.insert(oRect.GetStart().x / 512);
    nPixels += std::uint64_t(oRect.GetWidth()) * oRect.GetHeight();
  }
  EXPECT_EQ(oColumns.size(), 21u);
  EXPECT_NEAR(double(nPixels) / (double(oRep.m_nWidth) * oRep.m_nHeight), 1.0 / 16, 0.01);
}

} // namespace
