#include "Band/Band.h"
#include "BandTestSupport.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <typeinfo>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Test::CRect;
using Orl::Test::TMemBand;

template <class TPixel>
class BandTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(BandTest, Orl::Test::TAllPixelTypes);

// Empty bands have no block but a statistics record; Clear fills every pixel and keeps the no-data
// value; copies share pixels, no-data value and statistics.
TYPED_TEST(BandTest, EmptyBandsClearAndSharedCopies)
{
  for (const auto& oSize : {std::make_pair(0u, 7u), std::make_pair(7u, 0u)})
  {
    TMemBand<TypeParam> oEmpty(oSize.first, oSize.second);
    EXPECT_EQ(oEmpty.GetRep().m_pData, nullptr);
    EXPECT_NE(oEmpty.GetRep().m_pStatistics, nullptr);
    oEmpty.Clear(TypeParam(1));
    const auto oIts = oEmpty.GetBandIterators(oEmpty);
    EXPECT_TRUE(boost::get<0>(oIts).X == boost::get<1>(oIts).X || boost::get<0>(oIts).Y == boost::get<1>(oIts).Y);
  }
  TMemBand<TypeParam> oBand(13, 5);
  const TMemBand<TypeParam> oCopy = oBand;
  oBand.SetNoDataValue(TypeParam(3));
  oBand.Clear(TypeParam(42));
  EXPECT_EQ(&oBand.GetRep(), &oCopy.GetRep());
  ASSERT_TRUE(oCopy.HasNoDataValue());
  EXPECT_EQ(oCopy.GetNoDataValue(), TypeParam(3));
  const TypeParam* pData = oCopy.GetRep().GetDataLocation();
  EXPECT_EQ(std::count(pData, pData + 13 * 5, TypeParam(42)), 13 * 5);
}

TYPED_TEST(BandTest, NoDataHintIsAtTheFarEndUntilAValueIsSet)
{
  EXPECT_EQ(SNoDataValueHint<TypeParam>::ms_tNoDataValue, std::numeric_limits<TypeParam>::is_signed
                                                             ? std::numeric_limits<TypeParam>::lowest()
                                                             : std::numeric_limits<TypeParam>::max());
  TMemBand<TypeParam> oBand(2, 1);
  EXPECT_FALSE(oBand.HasNoDataValue());
  EXPECT_EQ(oBand.GetNoDataValueOrHint(), SNoDataValueHint<TypeParam>::ms_tNoDataValue);
  oBand.SetNoDataValue(TypeParam(0));
  EXPECT_EQ(oBand.GetNoDataValueOrHint(), TypeParam(0));
}

// Sub-rectangles are clipped to the band (an empty one starts at the later start) and address through
// the full band width; a walk (rows outside, columns inside, each row from a copy of its start) visits
// exactly the clipped rectangle. Moves out of the band and back are covered by the tile iterator
// walks, which compare against memory iterators.
TYPED_TEST(BandTest, IteratorWalkVisitsTheClippedRectangle)
{
  const unsigned nWidth = 37, nHeight = 11;
  const auto oBand = Orl::Test::MakeNumberedBand<TypeParam>(nWidth, nHeight);
  for (const CRect& oRect : {CRect(0, 0, nWidth, nHeight), CRect(3, 2, 5, 4), CRect(30, 8, 20, 20),
                             CRect(36, 10, 1, 1), CRect(40, 0, 3, 3), CRect(0, 20, 3, 3), CRect(2, 2, 0, 5),
                             CRect(0, 0, 1000, 1)})
  {
    const unsigned nX0 = oRect.GetStart().x, nX1 = std::max(nX0, std::min(oRect.GetEnd().x, nWidth));
    const unsigned nY0 = oRect.GetStart().y, nY1 = std::max(nY0, std::min(oRect.GetEnd().y, nHeight));
    std::vector<TypeParam> vecExpected, vecSeen;
    for (unsigned y = nY0; y < nY1; ++y)
      for (unsigned x = nX0; x < nX1; ++x)
        vecExpected.push_back(Orl::Test::At(oBand, x, y));
    const auto oIts = oBand.GetBandIterators(oRect);
    auto itRow = boost::get<0>(oIts);
    const auto itEnd = boost::get<1>(oIts);
    EXPECT_TRUE(unsigned(itRow.X) == nX0 && unsigned(itRow.Y) == nY0) << oRect;
    EXPECT_TRUE(unsigned(itEnd.X) == nX1 && unsigned(itEnd.Y) == nY1) << oRect;
    for (; itRow.Y != itEnd.Y; ++itRow.Y)
      for (auto it = itRow; it.X != itEnd.X; ++it.X)
        vecSeen.push_back(*it);
    EXPECT_EQ(vecSeen, vecExpected) << oRect;
  }
}

TEST(BandTest, AllocationTraceWritesOneLineOnAllocationAndRelease)
{
  const std::string strName = typeid(float).name();
  Detail::CBandRepBase::ms_bTraceAllocations = true;
  ::testing::internal::CaptureStderr();
  {
    TMemBand<float> oBand(1024, 3);
    TMemBand<float> oEmpty(0, 3); // no block, no line
  }
  Detail::CBandRepBase::ms_bTraceAllocations = false;
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "For pixel-type: " + strName + " currently 1 bands with a total of : 12288 allocated\n"
            "For pixel-type: " + strName + " currently 0 bands with a total of : 0 allocated\n");
}

// Block hints are whole rows, at least one; the sample for approximate statistics is the whole of a
// small band and even, disjoint, full-width strips of about a sixteenth of a large one.
TEST(BandRepTest, BlockHintsAndApproxRects)
{
  const unsigned aaHints[][4] = {{0, 0, 1, 32768}, {1, 1, 1, 32768}, {8192, 8192, 8192, 4}, {100000, 3, 100000, 1}};
  for (const auto& a : aaHints)
    EXPECT_EQ(Detail::CBandRepBase(a[0], a[1]).GetBlockHint(), std::make_pair(a[2], a[3])) << a[0];

  EXPECT_EQ(Detail::CBandRepBase(2048, 2048).GetApproxRects(), std::vector<CRect>{CRect(0, 0, 2048, 2048)});
  EXPECT_EQ(Detail::CBandRepBase(100000, 100).GetApproxRects(), std::vector<CRect>{CRect(0, 0, 100000, 100)});
  const auto vecRects = Detail::CBandRepBase(3000, 9000).GetApproxRects();
  ASSERT_EQ(vecRects.size(), 32u);
  std::uint64_t nPixels = 0;
  for (std::size_t i = 0; i < vecRects.size(); ++i)
  {
    EXPECT_TRUE(vecRects[i].GetWidth() == 3000u && vecRects[i].GetHeight() > 0u) << i;
    EXPECT_TRUE(i == 0 || vecRects[i - 1].GetEnd().y <= vecRects[i].GetStart().y) << i;
    nPixels += std::uint64_t(vecRects[i].GetWidth()) * vecRects[i].GetHeight();
  }
  EXPECT_LE(vecRects.back().GetEnd().y, 9000u);
  EXPECT_NEAR(double(nPixels) / (3000.0 * 9000.0), 1.0 / 16, 0.01);
}

} // namespace
