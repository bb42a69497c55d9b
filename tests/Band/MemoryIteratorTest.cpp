#include "Band/Band.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;
using CPointI = Orl::Pravik::GraphObject2d::CPoint<int>;

// A band whose pixel (x, y) holds a value that identifies the position.
template <class TPixel>
CBand<TPixel, SMemoryTag> MakeNumberedBand(unsigned nWidth, unsigned nHeight)
{
  CBand<TPixel, SMemoryTag> oBand(nWidth, nHeight);
  TPixel* pData = oBand.GetRep().GetDataLocation();
  for (unsigned i = 0; i < nWidth * nHeight; ++i)
    pData[i] = TPixel(i % 101);
  return oBand;
}

// The generic walk of the library: rows outside, columns inside, each row from a copy of the row start.
template <class TIt, class TFn>
void WalkRect(const boost::tuples::tuple<TIt, TIt>& oIts, TFn fn)
{
  TIt itRow = boost::get<0>(oIts);
  const TIt itEnd = boost::get<1>(oIts);
  for (; itRow.Y != itEnd.Y; ++itRow.Y)
    for (TIt it = itRow; it.X != itEnd.X; ++it.X)
      fn(it);
}

template <class TPixel>
class MemoryIteratorTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(MemoryIteratorTest, Orl::Test::TAllPixelTypes);

// Sub-rectangles address through the full band width, and a walk visits exactly the clipped rectangle.
TYPED_TEST(MemoryIteratorTest, WalkVisitsTheClippedRectangleInRowOrder)
{
  const unsigned nWidth = 37, nHeight = 11;
  const auto oBand = MakeNumberedBand<TypeParam>(nWidth, nHeight);
  const CRect aRects[] = {CRect(0, 0, nWidth, nHeight), CRect(3, 2, 5, 4),   CRect(30, 8, 20, 20),
                          CRect(36, 10, 1, 1),          CRect(40, 0, 3, 3),  CRect(2, 2, 0, 5),
                          CRect(0, 0, 1000, 1)};
  for (const CRect& oRect : aRects)
  {
    CRect oClipped = oRect;
    oClipped.Intersect(CRect(0, 0, nWidth, nHeight));
    std::vector<TypeParam> vecExpected;
    for (unsigned y = oClipped.GetStart().y; y < oClipped.GetEnd().y; ++y)
      for (unsigned x = oClipped.GetStart().x; x < oClipped.GetEnd().x; ++x)
        vecExpected.push_back(TypeParam((y * nWidth + x) % 101));

    const auto oIts = oBand.GetBandIterators(oRect);
    EXPECT_EQ(unsigned(boost::get<0>(oIts).X), oClipped.GetStart().x) << oRect;
    EXPECT_EQ(unsigned(boost::get<0>(oIts).Y), oClipped.GetStart().y) << oRect;
    EXPECT_EQ(unsigned(boost::get<1>(oIts).X), oClipped.GetEnd().x) << oRect;
    EXPECT_EQ(unsigned(boost::get<1>(oIts).Y), oClipped.GetEnd().y) << oRect;
    std::vector<TypeParam> vecSeen;
    WalkRect(oIts, [&](const auto& it) { vecSeen.push_back(*it); });
    EXPECT_EQ(vecSeen, vecExpected) << oRect;
  }
}

TYPED_TEST(MemoryIteratorTest, MutableWalkWritesThroughToTheBlock)
{
  CBand<TypeParam, SMemoryTag> oBand(9, 6);
  oBand.Clear(TypeParam(0));
  WalkRect(oBand.GetBandIterators(CRect(2, 1, 4, 3)), [](const auto& it) { *it = TypeParam(it.X + 10 * it.Y); });
  const TypeParam* pData = static_cast<const CBand<TypeParam, SMemoryTag>&>(oBand).GetRep().GetDataLocation();
  for (unsigned y = 0; y < 6; ++y)
    for (unsigned x = 0; x < 9; ++x)
    {
      const bool bInside = x >= 2 && x < 6 && y >= 1 && y < 4;
      EXPECT_EQ(pData[y * 9 + x], bInside ? TypeParam(x + 10 * y) : TypeParam(0)) << x << ", " << y;
    }
}

// Position is the only state: any sequence of moves that returns to a place reads the same pixel,
// also through positions outside the band.
TYPED_TEST(MemoryIteratorTest, MovesAreReversibleAndMayLeaveTheBand)
{
  const auto oBand = MakeNumberedBand<TypeParam>(16, 8);
  const auto itBegin = boost::get<0>(oBand.GetBandIterators(oBand));
  auto it = itBegin;
  it += CPointI(5, 3);
  EXPECT_EQ(*it, TypeParam((3 * 16 + 5) % 101));
  for (int i = 0; i < 20; ++i) // past the last column and back
    ++it.X;
  for (int i = 0; i < 20; ++i)
    --it.X;
  it += CPointI(-10, -7); // outside, never dereferenced
  it += CPointI(10, 7);
  ++it.Y;
  --it.Y;
  EXPECT_EQ(it.X, 5);
  EXPECT_EQ(it.Y, 3);
  EXPECT_EQ(*it, TypeParam((3 * 16 + 5) % 101));
  const auto oHint = oBand.GetRep().GetBlockHint();
  EXPECT_EQ(it.GetBlockHintX(), oHint.first);
  EXPECT_EQ(it.GetBlockHintY(), oHint.second);
}

TEST(BlockHintTest, WholeRowsAndAtLeastOne)
{
  struct SCase
  {
    unsigned m_nWidth, m_nHeight, m_nX, m_nY;
  };
  const SCase aCases[] = {{0, 0, 1, 32768}, {1, 1, 1, 32768}, {8192, 8192, 8192, 4}, {100000, 3, 100000, 1}};
  for (const auto& oCase : aCases)
  {
    const Detail::CBandRepBase oRep(oCase.m_nWidth, oCase.m_nHeight);
    EXPECT_EQ(oRep.GetBlockHint(), std::make_pair(oCase.m_nX, oCase.m_nY)) << oCase.m_nWidth;
  }
}

TEST(ApproxRectsTest, SmallBandsWholeLargeBandsEvenDisjointStrips)
{
  EXPECT_EQ(Detail::CBandRepBase(2048, 2048).GetApproxRects(), std::vector<CRect>{CRect(0, 0, 2048, 2048)});
  EXPECT_EQ(Detail::CBandRepBase(100000, 100).GetApproxRects(), std::vector<CRect>{CRect(0, 0, 100000, 100)});

  const Detail::CBandRepBase oRep(3000, 9000);
  const auto vecRects = oRep.GetApproxRects();
  ASSERT_EQ(vecRects.size(), 32u);
  std::uint64_t nPixels = 0;
  for (std::size_t i = 0; i < vecRects.size(); ++i)
  {
    EXPECT_EQ(vecRects[i].GetWidth(), 3000u);
    EXPECT_GT(vecRects[i].GetHeight(), 0u);
    if (i > 0)
    {
      EXPECT_LE(vecRects[i - 1].GetEnd().y, vecRects[i].GetStart().y);
    }
    nPixels += std::uint64_t(vecRects[i].GetWidth()) * vecRects[i].GetHeight();
  }
  EXPECT_LT(vecRects.back().GetEnd().y, 9000u + 1);
  EXPECT_NEAR(double(nPixels) / (3000.0 * 9000.0), 1.0 / 16, 0.01);
}

} // namespace
