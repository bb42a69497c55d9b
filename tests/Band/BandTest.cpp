#include "Band/Band.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <typeinfo>
#include <string>

namespace {
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;

using namespace Orl::Ostrel::Band;

template <class TPixel>
class BandTest : public ::testing::Test
{
protected:
  using TBand = CBand<TPixel, SMemoryTag>;

  // Marks every cached statistic as current, so that a test can see which accesses drop them.
  static void FillCache(TBand& oBand)
  {
    auto& oStatistics = oBand.GetRep().GetStatistics();
    std::fill(std::begin(oStatistics.m_abValid), std::end(oStatistics.m_abValid), true);
  }
  static bool AllValid(const TBand& oBand)
  {
    const auto& abValid = oBand.GetRep().GetStatistics().m_abValid;
    return std::all_of(std::begin(abValid), std::end(abValid), [](bool b) { return b; });
  }
  static bool NoneValid(const TBand& oBand) { return !oBand.GetRep().GetStatistics().AnyValid(); }
};
TYPED_TEST_SUITE(BandTest, Orl::Test::TAllPixelTypes);

TYPED_TEST(BandTest, EmptyBandsHaveNoBlockButARecord)
{
  for (const auto& oSize : {std::make_pair(0u, 7u), std::make_pair(7u, 0u), std::make_pair(0u, 0u)})
  {
    typename TestFixture::TBand oBand(oSize.first, oSize.second);
    EXPECT_EQ(oBand.GetRep().m_pData, nullptr);
    EXPECT_NE(oBand.GetRep().m_pStatistics, nullptr);
    EXPECT_FALSE(oBand.HasNoDataValue());
    this->FillCache(oBand);
    oBand.Clear(TypeParam(1)); // only the flags
    EXPECT_TRUE(this->NoneValid(oBand));
    auto oIts = oBand.GetBandIterators(oBand);
    EXPECT_TRUE(boost::get<0>(oIts).X == boost::get<1>(oIts).X || boost::get<0>(oIts).Y == boost::get<1>(oIts).Y);
  }
}

TYPED_TEST(BandTest, ClearSetsEveryPixelAndKeepsNoData)
{
  typename TestFixture::TBand oBand(13, 5);
  oBand.SetNoDataValue(TypeParam(3));
  this->FillCache(oBand);
  oBand.Clear(TypeParam(42));
  EXPECT_TRUE(this->NoneValid(oBand));
  ASSERT_TRUE(oBand.HasNoDataValue());
  EXPECT_EQ(oBand.GetNoDataValue(), TypeParam(3));
  const TypeParam* pData = static_cast<const typename TestFixture::TBand&>(oBand).GetRep().GetDataLocation();
  for (unsigned i = 0; i < 13 * 5; ++i)
    ASSERT_EQ(pData[i], TypeParam(42)) << i;
}

TYPED_TEST(BandTest, CopiesSharePixelsNoDataAndStatistics)
{
  typename TestFixture::TBand oBand(4, 4);
  auto oCopy = oBand;
  oCopy.SetNoDataValue(TypeParam(9));
  EXPECT_TRUE(oBand.HasNoDataValue());
  EXPECT_EQ(oBand.GetNoDataValue(), TypeParam(9));
  oBand.SetNoDataValue(TypeParam(7));
  EXPECT_EQ(oCopy.GetNoDataValue(), TypeParam(7));
  oBand.Clear(TypeParam(5));
  EXPECT_EQ(*boost::get<0>(static_cast<const typename TestFixture::TBand&>(oCopy).GetBandIterators(oCopy)), TypeParam(5));
  EXPECT_EQ(&oBand.GetRep(), &oCopy.GetRep());
}

// Which accesses drop the cached statistics: every grant of mutable access and every no-data change,
// even one to the same value; never a const access.
TYPED_TEST(BandTest, MutableAccessInvalidatesConstAccessDoesNot)
{
  using TBand = typename TestFixture::TBand;
  TBand oBand(8, 3);
  const TBand& oConst = oBand;
  struct SCase
  {
    const char* m_szName;
    std::function<void()> m_fnAccess;
    bool m_bInvalidates;
  };
  const SCase aCases[] = {
    {"const iterators", [&] { oConst.GetBandIterators(oConst); }, false},
    {"const data location", [&] { oConst.GetRep().GetDataLocation(); }, false},
    {"no-data reads", [&] { (void)oConst.HasNoDataValue(); (void)oConst.GetNoDataValueOrHint(); }, false},
    {"mutable iterators", [&] { oBand.GetBandIterators(oBand); }, true},
    {"mutable iterators, empty rect", [&] { oBand.GetBandIterators(CRect(0, 0, 0, 0)); }, true},
    {"mutable data location", [&] { oBand.GetRep().GetDataLocation(); }, true},
    {"SetNoDataValue", [&] { oBand.SetNoDataValue(TypeParam(1)); }, true},
    {"SetNoDataValue, same value", [&] { oBand.SetNoDataValue(TypeParam(1)); }, true},
    {"Clear", [&] { oBand.Clear(TypeParam(0)); }, true},
  };
  for (const auto& oCase : aCases)
  {
    this->FillCache(oBand);
    oCase.m_fnAccess();
    EXPECT_EQ(this->NoneValid(oBand), oCase.m_bInvalidates) << oCase.m_szName;
    if (!oCase.m_bInvalidates)
    {
      EXPECT_TRUE(this->AllValid(oBand)) << oCase.m_szName;
    }
  }
}

TYPED_TEST(BandTest, NoDataHintIsStorableAndAtTheFarEnd)
{
  const TypeParam tHint = SNoDataValueHint<TypeParam>::ms_tNoDataValue;
  EXPECT_EQ(tHint, std::numeric_limits<TypeParam>::is_signed ? std::numeric_limits<TypeParam>::lowest()
                                                             : std::numeric_limits<TypeParam>::max());
  EXPECT_TRUE(tHint == tHint); // not NaN: no-data is found by equality
  typename TestFixture::TBand oBand(2, 1);
  EXPECT_EQ(oBand.GetNoDataValueOrHint(), tHint);
  oBand.SetNoDataValue(TypeParam(0));
  EXPECT_EQ(oBand.GetNoDataValueOrHint(), TypeParam(0));
}

TEST(BandTagTest, IppBandsShareTheMemoryRepresentation)
{
  static_assert(std::is_same<CBand<float, SIPPTag>::TRep, CBand<float, SMemoryTag>::TRep>::value, "");
  CBand<float, SIPPTag> oBand(3, 2);
  oBand.Clear(2.5f);
  EXPECT_EQ(*boost::get<0>(static_cast<const CBand<float, SIPPTag>&>(oBand).GetBandIterators(oBand)), 2.5f);
}

TEST(BandTest, BandReadsAsItsRectangle)
{
  CBand<short, SMemoryTag> oBand(6, 4);
  const CRect oRect = oBand;
  EXPECT_EQ(oRect, CRect(0, 0, 6, 4));
}

class AllocationTraceTest : public ::testing::Test
{
protected:
  void SetUp() override { Detail::CBandRepBase::ms_bTraceAllocations = true; }
  void TearDown() override { Detail::CBandRepBase::ms_bTraceAllocations = false; }
};

TEST_F(AllocationTraceTest, WritesOneLineOnAllocationAndRelease)
{
  const std::string strName = typeid(float).name();
  ::testing::internal::CaptureStderr();
  {
    CBand<float, SMemoryTag> oBand(1024, 3);
    CBand<float, SMemoryTag> oEmpty(0, 3); // no block, no line
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "For pixel-type: " + strName + " currently 1 bands with a total of : 12288 allocated\n"
            "For pixel-type: " + strName + " currently 0 bands with a total of : 0 allocated\n");
}

// Geometry ---------------------------------------------------------------------------------------

TEST(RectTest, IntersectTable)
{
  struct SCase
  {
    CRect m_oA, m_oB, m_oExpected;
  };
  const SCase aCases[] = {
    {CRect(0, 0, 10, 10), CRect(0, 0, 20, 20), CRect(0, 0, 10, 10)},  // contained: unchanged
    {CRect(5, 6, 10, 10), CRect(0, 0, 8, 12), CRect(5, 6, 3, 6)},     // sticks out: cut
    {CRect(2, 3, 4, 5), CRect(2, 3, 4, 5), CRect(2, 3, 4, 5)},        // same
    {CRect(0, 0, 4, 4), CRect(10, 0, 4, 4), CRect(10, 0, 0, 4)},      // disjoint in x
    {CRect(0, 0, 4, 4), CRect(0, 9, 4, 4), CRect(0, 9, 4, 0)},        // disjoint in y
    {CRect(0, 0, 0, 0), CRect(0, 0, 4, 4), CRect(0, 0, 0, 0)},        // empty stays empty
  };
  for (const auto& oCase : aCases)
  {
    CRect oRect = oCase.m_oA;
    oRect.Intersect(oCase.m_oB);
    EXPECT_EQ(oRect, oCase.m_oExpected) << oCase.m_oA << " & " << oCase.m_oB;
    EXPECT_LE(oRect.GetStart().x, oRect.GetEnd().x);
    EXPECT_LE(oRect.GetStart().y, oRect.GetEnd().y);
  }
}

TEST(RectTest, SettersKeepTheStartAndChain)
{
  CRect oRect(3, 4, 10, 10);
  oRect.SetWidth(0).SetHeight(2);
  EXPECT_EQ(oRect, CRect(3, 4, 0, 2));
  EXPECT_TRUE(oRect.IsEmpty());
}

} // namespace
