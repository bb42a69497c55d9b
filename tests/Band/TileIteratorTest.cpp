#include "Band/Band.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace Orl::Ostrel::Band;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;
using CPointI = Orl::Pravik::GraphObject2d::CPoint<int>;

template <class TPixel>
class TileIteratorTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(TileIteratorTest, Orl::Test::TAllPixelTypes);

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
    {
      ++it.X, ++itMem.X;
      bAttached = bAttached && it.X < nWidth;
    }
    else if (nMove <= 4 && it.X >= 0)
    {
      --it.X, --itMem.X;
      bAttached = it.X >= 0 && it.Y >= 0 && it.Y < nHeight;
    }
    else if (nMove <= 6 && it.Y < nHeight)
    {
      ++it.Y, ++itMem.Y;
      bAttached = bAttached && it.Y < nHeight;
    }
    else if (nMove <= 8 && it.Y >= 0)
    {
      --it.Y, --itMem.Y;
      bAttached = it.Y >= 0 && it.X >= 0 && it.X < nWidth;
    }
    ASSERT_TRUE(it.X == itMem.X && it.Y == itMem.Y) << nStep;
    ASSERT_EQ(it.IsAttached(), bAttached) << nStep << " at " << int(it.X) << ", " << int(it.Y);
    if (bAttached)
    {
      ASSERT_EQ(*it, *itMem) << nStep << " at " << int(it.X) << ", " << int(it.Y);
    }
  }
}

TYPED_TEST(TileIteratorTest, RandomWalksReadWhatMemoryIteratorsRead)
{
  const int nTX = int(Detail::STileSize<TypeParam>::ms_nX), nTY = int(Detail::STileSize<TypeParam>::ms_nY);
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
// marks a tile exactly when it fetches it, which makes its fetches visible.
class TileMarkingTest : public ::testing::Test
{
protected:
  TileMarkingTest() : m_oBand(3 * 512, 2 * 256) { m_oBand.Clear(0.0f); }

  boost::shared_ptr<Detail::CTileBase> Tile(int i) { return m_oBand.GetRep().GetTile(512 * (i % 3), 256 * (i / 3), false); }
  void Unmark()
  {
    for (int i = 0; i < 6; ++i)
      Tile(i)->SetModified(false);
  }
  std::vector<bool> Marks()
  {
    std::vector<bool> vecMarks;
    for (int i = 0; i < 6; ++i)
      vecMarks.push_back(Tile(i)->IsModified());
    return vecMarks;
  }
  template <class TIt>
  static void MoveTo(TIt& it, int nTile, int nX = 7, int nY = 3)
  {
    it += CPointI(512 * (nTile % 3) + nX - it.X, 256 * (nTile / 3) + nY - it.Y);
  }

  CBand<float, STileTag> m_oBand;
};

// The mutable pair marks the tile under an end inside the band, though nothing is written to it; the
// end of the whole band holds no tile; a read-only iterator leaves marks as they are.
TEST_F(TileMarkingTest, EndIteratorsAndReadOnlyIterators)
{
  Unmark();
  auto oIts = m_oBand.GetBandIterators(CRect(10, 10, 600, 300)); // ends in tile 4
  EXPECT_EQ(Marks(), std::vector<bool>({true, false, false, false, true, false}));
  Unmark();
  oIts = m_oBand.GetBandIterators(m_oBand);
  EXPECT_FALSE(boost::get<1>(oIts).IsAttached());
  EXPECT_EQ(Marks(), std::vector<bool>({true, false, false, false, false, false}));
  Unmark();
  Tile(2)->SetModified(true);
  const auto& oConst = m_oBand;
  auto it = boost::get<0>(oConst.GetBandIterators(oConst));
  for (int i = 0; i < 6; ++i)
    MoveTo(it, i);
  EXPECT_EQ(Marks(), std::vector<bool>({false, false, true, false, false, false}));
}

// The four slots are replaced in a fixed cycle 0, 1, 2, 3 that hits do not disturb, and a hit goes
// nowhere; a copy keeps working after its original has gone.
TEST_F(TileMarkingTest, SlotCycleAndEdges)
{
  auto it = boost::get<0>(m_oBand.GetBandIterators(m_oBand)); // tile 0 in all four slots
  // Slots after each move: [1 0 0 0] [1 0 0 0] [1 2 0 0] [1 2 3 0] [1 2 3 0] [1 2 3 4] [0 2 3 4]
  // [0 1 3 4] [0 1 3 4] [0 1 5 4]
  const std::pair<int, bool> aMoves[] = {{1, true}, {0, false}, {2, true}, {3, true},  {0, false},
                                         {4, true}, {0, true},  {1, true}, {3, false}, {5, true}};
  for (const auto& oMove : aMoves)
  {
    Unmark();
    MoveTo(it, oMove.first);
    EXPECT_EQ(Marks()[oMove.first], oMove.second) << oMove.first;
    EXPECT_TRUE(it.GetTileOffsetX() == 7 && it.GetTileOffsetY() == 3);
  }
  MoveTo(it, 0, 511, 0); // over the border to the right and straight back: no fetch
  Unmark();
  ++it.X;
  --it.X;
  EXPECT_EQ(Marks(), std::vector<bool>(6, false));

  MoveTo(it, 2, 511, 10);
  ++it.X; // off the right edge, and back onto the last column with its tile
  --it.X;
  EXPECT_TRUE(it.IsAttached() && it.GetTileOffsetX() == 511 && it.GetCurrentTile() == Tile(2));

  auto* pOriginal = new Detail::CMutableTileBandIterator<float, int>(it); // a copy outlives its original
  MoveTo(*pOriginal, 4);
  const Detail::CMutableTileBandIterator<float, int> itCopy(*pOriginal);
  delete pOriginal;
  *itCopy = 5.0f;
  EXPECT_TRUE(itCopy.GetCurrentTile() == Tile(4) && itCopy.GetBlockHintX() == 1024 && itCopy.GetBlockHintY() == 512);
}

} // namespace
