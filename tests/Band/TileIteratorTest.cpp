#include "Band/Band.h"
#include "Band/Detail/RowRuns.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Test::PixelAt;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;
using CPointI = Orl::Pravik::GraphObject2d::CPoint<int>;

template <class TPixel>
class TileIteratorTest : public ::testing::Test
{
protected:
  static constexpr int ms_nTX = int(Detail::STileSize<TPixel>::ms_nX);
  static constexpr int ms_nTY = int(Detail::STileSize<TPixel>::ms_nY);
};
TYPED_TEST_SUITE(TileIteratorTest, Orl::Test::TAllPixelTypes);

// A random walk through the moves the iterators support, over a band whose sizes are not multiples
// of the tile size, against a memory band with the same pixels and a model of the attached state:
// positions stay within one step of the band; ++ never attaches, -- attaches when it lands inside,
// += to a place inside attaches. Jumps go to tile corners and edges, so that short runs of steps
// cross borders in every direction.
template <class TIt, class TMemIt>
void RandomWalk(TIt it, TMemIt itMem, int nWidth, int nHeight, int nTX, int nTY, unsigned nSeed)
{
  std::mt19937 oRandom(nSeed);
  bool bAttached = it.X < nWidth && it.Y < nHeight;
  const auto pick = [&](int nTile, int nSize) {
    const int nBorder = nTile * int(oRandom() % unsigned(nSize / nTile + 2));
    return std::max(0, std::min(nSize, nBorder + int(oRandom() % 5) - 2));
  };
  for (int nStep = 0; nStep < 4000; ++nStep)
  {
    const unsigned nMove = oRandom() % 9;
    if (nMove == 0)
    {
      const CPointI oOffset(pick(nTX, nWidth) - it.X, pick(nTY, nHeight) - it.Y);
      it += oOffset;
      itMem += oOffset;
      bAttached = it.X < nWidth && it.Y < nHeight;
    }
    else if (nMove <= 2 && it.X < nWidth)
    {
      ++it.X;
      ++itMem.X;
      bAttached = bAttached && it.X < nWidth;
    }
    else if (nMove <= 4 && it.X >= 0)
    {
      --it.X;
      --itMem.X;
      bAttached = it.X >= 0 && it.Y >= 0 && it.Y < nHeight && (bAttached || it.X < nWidth);
    }
    else if (nMove <= 6 && it.Y < nHeight)
    {
      ++it.Y;
      ++itMem.Y;
      bAttached = bAttached && it.Y < nHeight;
    }
    else if (nMove <= 8 && it.Y >= 0)
    {
      --it.Y;
      --itMem.Y;
      bAttached = it.Y >= 0 && it.X >= 0 && it.X < nWidth && (bAttached || it.Y < nHeight);
    }
    ASSERT_EQ(int(it.X), int(itMem.X)) << nStep;
    ASSERT_EQ(int(it.Y), int(itMem.Y)) << nStep;
    ASSERT_EQ(it.IsAttached(), bAttached) << nStep << " at " << int(it.X) << ", " << int(it.Y);
    if (bAttached)
    {
      ASSERT_EQ(*it, *itMem) << nStep << " at " << int(it.X) << ", " << int(it.Y);
    }
  }
}

TYPED_TEST(TileIteratorTest, RandomWalksReadWhatMemoryIteratorsRead)
{
  const int nTX = this->ms_nTX, nTY = this->ms_nTY;
  const int nWidth = 2 * nTX + 37, nHeight = 2 * nTY + 11;
  CBand<TypeParam, STileTag> oTiles(nWidth, nHeight);
  CBand<TypeParam, SMemoryTag> oMemory(nWidth, nHeight);
  Orl::Test::FillNumbered(oTiles);
  Orl::Test::FillNumbered(oMemory);
  const auto& oConstTiles = oTiles;
  const auto& oConstMemory = oMemory;
  const CRect oRect(nTX - 3, 1, nTX + 20, nTY + 7); // begins and ends inside tiles
  for (unsigned nSeed = 0; nSeed < 3; ++nSeed)
  {
    RandomWalk(boost::get<0>(oConstTiles.GetBandIterators(oConstTiles)),
               boost::get<0>(oConstMemory.GetBandIterators(oConstMemory)), nWidth, nHeight, nTX, nTY, nSeed);
    RandomWalk(boost::get<1>(oTiles.GetBandIterators(oRect)), boost::get<1>(oMemory.GetBandIterators(oRect)), nWidth,
               nHeight, nTX, nTY, nSeed + 10);
    RandomWalk(boost::get<1>(oConstTiles.GetBandIterators(oConstTiles)),
               boost::get<1>(oConstMemory.GetBandIterators(oConstMemory)), nWidth, nHeight, nTX, nTY, nSeed + 20);
  }
}

// What a walk writes through mutable tile iterators lands on the right pixels, read back through the
// tiles themselves.
TYPED_TEST(TileIteratorTest, RectangleWalkWritesTheRectangle)
{
  const int nTX = this->ms_nTX, nTY = this->ms_nTY;
  CBand<TypeParam, STileTag> oBand(nTX + 9, nTY + 5);
  oBand.Clear(TypeParam(0));
  const CRect oRect(nTX - 2, nTY - 1, 5, 4);
  auto oIts = oBand.GetBandIterators(oRect);
  for (auto itRow = boost::get<0>(oIts); itRow.Y != boost::get<1>(oIts).Y; ++itRow.Y)
    for (auto it = itRow; it.X != boost::get<1>(oIts).X; ++it.X)
      *it = TypeParam(1 + int(it.X) - nTX + 10 * (int(it.Y) - nTY + 2));
  for (unsigned y = 0; y < oBand.GetHeight(); ++y)
    for (unsigned x = 0; x < oBand.GetWidth(); ++x)
    {
      const auto pTile = oBand.GetRep().GetTile(x, y, false);
      const TypeParam tValue = static_cast<const TypeParam*>(
        pTile->GetDataLocation())[(y - pTile->GetPosY()) * pTile->GetSizeX() + x - pTile->GetPosX()];
      const bool bInside = x >= oRect.GetStart().x && x < oRect.GetEnd().x && y >= oRect.GetStart().y &&
                           y < oRect.GetEnd().y;
      ASSERT_EQ(tValue, bInside ? TypeParam(1 + int(x) - nTX + 10 * (int(y) - nTY + 2)) : TypeParam(0)) << x << ", " << y;
    }
}

// Run walks over rectangles cut the rows at tile borders and nowhere else, and see the same pixels in
// the same order as a memory band's single runs.
TYPED_TEST(TileIteratorTest, RectangleRunsMatchMemory)
{
  const int nTX = this->ms_nTX, nTY = this->ms_nTY;
  const int nWidth = 3 * nTX + 5, nHeight = nTY + 9;
  CBand<TypeParam, STileTag> oTiles(nWidth, nHeight);
  CBand<TypeParam, SMemoryTag> oMemory(nWidth, nHeight);
  Orl::Test::FillNumbered(oTiles);
  Orl::Test::FillNumbered(oMemory);
  const CRect aRects[] = {CRect(0, 0, nWidth, nHeight), CRect(nTX - 1, nTY - 2, 2 * nTX + 2, 5),
                          CRect(nTX, 3, nTX, 1), CRect(nWidth - 1, 0, 1, nHeight), CRect(5, 5, 0, 3)};
  for (const CRect& oRect : aRects)
  {
    std::vector<TypeParam> vecTiles, vecMemory;
    std::vector<int> vecRuns;
    const auto oTileIts = static_cast<const CBand<TypeParam, STileTag>&>(oTiles).GetBandIterators(oRect);
    Detail::WalkRectRuns(
      boost::get<0>(oTileIts), int(oRect.GetWidth()), int(oRect.GetHeight()),
      [&](const TypeParam* p, int n) {
        vecTiles.insert(vecTiles.end(), p, p + n);
        vecRuns.push_back(n);
      },
      [] {});
    auto oMemIts = oMemory.GetBandIterators(oRect);
    Detail::WalkRectRuns(
      boost::get<0>(oMemIts), int(oRect.GetWidth()), int(oRect.GetHeight()),
      [&](TypeParam* p, int n) { vecMemory.insert(vecMemory.end(), p, p + n); }, [] {});
    EXPECT_EQ(vecTiles, vecMemory) << oRect;
    const int nStart = int(oRect.GetStart().x), nEnd = int(oRect.GetEnd().x);
    const int nBorders = nEnd == nStart ? 0 : (nEnd - 1) / nTX - nStart / nTX;
    EXPECT_EQ(vecRuns.size(), oRect.GetWidth() == 0 ? 0u : std::size_t(nBorders + 1) * oRect.GetHeight()) << oRect;
  }
}

class TileMarkingTest : public ::testing::Test
{
protected:
  // A float band of 3 x 2 tiles; tile i starts at (512 * (i % 3), 256 * (i / 3)).
  TileMarkingTest() : m_oBand(3 * 512, 2 * 256) { m_oBand.Clear(0.0f); }

  CTileBandRep<float>& Rep() { return m_oBand.GetRep(); }
  boost::shared_ptr<Detail::CTileBase> Tile(int i) { return Rep().GetTile(512 * (i % 3), 256 * (i / 3), false); }
  void Unmark()
  {
    for (int i = 0; i < 6; ++i)
      Tile(i)->SetModified(false);
  }
  bool Marked(int i) { return Tile(i)->IsModified(); }
  static CPointI Corner(int i) { return CPointI(512 * (i % 3), 256 * (i / 3)); }
  // The offset that takes an iterator to the point.
  template <class TIt>
  static CPointI To(const TIt& it, const CPointI& oPoint)
  {
    return CPointI(oPoint.x - it.X, oPoint.y - it.Y);
  }

  CBand<float, STileTag> m_oBand;
};

// A mutable pair marks the tile under an end inside the band, though nothing is written to it; the end
// of the whole band holds no tile. A read-only iterator leaves marks as they are.
TEST_F(TileMarkingTest, EndIteratorsAndReadOnlyIterators)
{
  Unmark();
  {
    auto oIts = m_oBand.GetBandIterators(CRect(10, 10, 600, 300)); // ends in tile 4
    EXPECT_TRUE(boost::get<1>(oIts).IsAttached());
    EXPECT_TRUE(Marked(0));
    EXPECT_TRUE(Marked(4));
    EXPECT_FALSE(Marked(1));
  }
  Unmark();
  {
    auto oIts = m_oBand.GetBandIterators(m_oBand);
    EXPECT_FALSE(boost::get<1>(oIts).IsAttached());
    EXPECT_EQ(int(boost::get<1>(oIts).X), 3 * 512);
    EXPECT_EQ(int(boost::get<1>(oIts).Y), 2 * 256);
    EXPECT_EQ(boost::get<1>(oIts).GetCurrentTile(), nullptr);
    for (int i = 1; i < 6; ++i)
      EXPECT_FALSE(Marked(i)) << i;
  }
  Unmark();
  Tile(2)->SetModified(true);
  {
    const auto& oConst = m_oBand;
    auto it = boost::get<0>(oConst.GetBandIterators(CRect(0, 0, 3 * 512, 2 * 256)));
    for (int i = 0; i < 6; ++i)
    {
      it += To(it, Corner(i));
      EXPECT_FLOAT_EQ(*it, 0.0f);
    }
  }
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(Marked(i), i == 2) << i;
}

// The iterator's four slots are replaced in a fixed cycle 0, 1, 2, 3 that hits do not disturb; a hit
// does not go to the representation. A mutable iterator marks a tile exactly when it fetches it, which
// makes the fetches visible.
TEST_F(TileMarkingTest, SlotsRoundRobinAndHitsFetchNothing)
{
  auto it = boost::get<0>(m_oBand.GetBandIterators(m_oBand)); // tile 0 in all four slots
  struct SMove
  {
    int m_nTile;
    bool m_bFetch;
  };
  // Slots after each move: [1 0 0 0] [1 0 0 0] [1 2 0 0] [1 2 3 0] [1 2 3 0] [1 2 3 4] [0 2 3 4]
  // [0 1 3 4] [0 1 3 4] [0 1 5 4]
  const SMove aMoves[] = {{1, true}, {0, false}, {2, true}, {3, true}, {0, false},
                          {4, true}, {0, true},  {1, true}, {3, false}, {5, true}};
  for (const SMove& oMove : aMoves)
  {
    Unmark();
    it += To(it, CPointI(Corner(oMove.m_nTile).x + 7, Corner(oMove.m_nTile).y + 3));
    EXPECT_EQ(Marked(oMove.m_nTile), oMove.m_bFetch) << oMove.m_nTile;
    EXPECT_EQ(it.GetTileOffsetX(), 7);
    EXPECT_EQ(it.GetTileOffsetY(), 3);
  }
  // Over the border to the right and straight back: both tiles in slots, no fetch.
  it += CPointI(511 - it.X, 0);
  Unmark();
  ++it.X;
  --it.X;
  EXPECT_FALSE(Marked(0));
  EXPECT_FALSE(Marked(1));
  EXPECT_EQ(it.GetTileOffsetX(), 511);
}

// The moves at the band's right edge, with the unequal rules of ++ and --, and += across tiles.
TEST_F(TileMarkingTest, EdgesAndOffsets)
{
  const auto& oConst = m_oBand;
  auto it = boost::get<0>(oConst.GetBandIterators(oConst));
  it += CPointI(600, 10);
  EXPECT_EQ(it.GetTileOffsetX(), 88);
  EXPECT_EQ(it.GetTileOffsetY(), 10);

  it += CPointI(3 * 512 - 1 - 600, 0);
  ++it.X; // off the right edge
  EXPECT_FALSE(it.IsAttached());
  --it.X; // back on the last column, with its tile
  EXPECT_TRUE(it.IsAttached());
  EXPECT_EQ(it.GetTileOffsetX(), 511);
  EXPECT_EQ(it.GetCurrentTile(), Tile(2));

  it += CPointI(-int(it.X), 0);
  --it.X; // off the left edge
  EXPECT_FALSE(it.IsAttached());
  ++it.X; // ++ never attaches
  EXPECT_FALSE(it.IsAttached());
  EXPECT_EQ(int(it.X), 0);
  it += CPointI(0, 0); // but += does
  EXPECT_TRUE(it.IsAttached());
  EXPECT_EQ(it.GetCurrentTile(), Tile(0));

  // A copy keeps working after its original has gone.
  auto* pOriginal = new Detail::CTileBandIterator<float, int, false>(it);
  pOriginal->operator+=(CPointI(1000, 300));
  const Detail::CTileBandIterator<float, int, false> itCopy(*pOriginal);
  delete pOriginal;
  EXPECT_EQ(itCopy.GetCurrentTile(), Tile(4));
  EXPECT_FLOAT_EQ(*itCopy, 0.0f);
  EXPECT_EQ(itCopy.GetBlockHintX(), 1024u);
  EXPECT_EQ(itCopy.GetBlockHintY(), 512u);
}

} // namespace
