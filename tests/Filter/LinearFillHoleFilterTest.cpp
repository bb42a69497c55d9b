#include "FillHoleReference.h"
#include "Filter/LinearFillHoleFilter.h"
#include "Foundation/Logger.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Ostrel::Filter;
using namespace Orl::Test::FillHole;

template <class TPair>
class LinearFillHoleReferenceTest : public ::testing::Test
{
};

template <class TPixel, class TMask>
struct SPair
{
  using TImage = TPixel;
  using TMaskPixel = TMask;
};

using TInstances =
  ::testing::Types<SPair<unsigned char, unsigned char>, SPair<unsigned short, unsigned char>,
                   SPair<unsigned short, unsigned short>, SPair<short, unsigned char>, SPair<short, unsigned short>,
                   SPair<unsigned int, unsigned char>, SPair<unsigned int, unsigned int>, SPair<int, unsigned char>,
                   SPair<int, unsigned int>, SPair<float, unsigned char>, SPair<float, float>,
                   SPair<double, unsigned char>, SPair<double, double>>;
TYPED_TEST_SUITE(LinearFillHoleReferenceTest, TInstances);

TYPED_TEST(LinearFillHoleReferenceTest, EqualsTheReferenceBitForBitOnBothMemoryTags)
{
  using TPixel = typename TypeParam::TImage;
  using TMask = typename TypeParam::TMaskPixel;
  ForEachRandomCase<TPixel, TMask>([](const SCase<TPixel, TMask>& oCase, const SParams& oParams,
                                      unsigned int nMaxHoles, const std::string& strWhat) {
    const auto oExpected = Reference(oCase, oParams);
    ExpectSame(oExpected, RunFilter<SMemoryTag>(oCase, oParams, nMaxHoles), strWhat);
    ExpectSame(oExpected, RunFilter<SIPPTag>(oCase, oParams, nMaxHoles), strWhat + " (IPP)");
  });
}

// ---- Worked examples --------------------------------------------------------------------------------

template <class TPixel>
SCase<TPixel, unsigned char> Row(std::vector<TPixel> vecSrc, TPixel tNoData)
{
  SCase<TPixel, unsigned char> oCase;
  oCase.m_nWidth = unsigned(vecSrc.size());
  oCase.m_nHeight = 1;
  oCase.m_vecSrc = std::move(vecSrc);
  oCase.m_vecMask.assign(oCase.m_vecSrc.size(), 1);
  oCase.m_bSrcNoData = true;
  oCase.m_tSrcNoData = tNoData;
  return oCase;
}

TEST(LinearFillHoleFilter, ThreeHolesBetweenTenAndTwenty)
{
  const auto oInt = Row<unsigned short>({10, 0, 0, 0, 20}, 0);
  EXPECT_EQ(RunFilter<SMemoryTag>(oInt, SParams{1, 3.0f, false, false, 0, 0}, 0).m_vecPixels,
            (std::vector<unsigned short>{10, 12, 15, 17, 20}));
  EXPECT_EQ(RunFilter<SMemoryTag>(oInt, SParams{1, 2.0f, false, false, 0, 0}, 0).m_vecPixels,
            (std::vector<unsigned short>{10, 10, 15, 20, 20}));
  const auto oFloat = Row<float>({10, -1, -1, -1, 20}, -1);
  const float fThird = 1.0f / 3.0f;
  EXPECT_EQ(RunFilter<SMemoryTag>(oFloat, SParams{1, 3.0f, false, false, 0, 0}, 0).m_vecPixels,
            (std::vector<float>{10, (10.0f + fThird * 20.0f) / (1.0f + fThird), (0.5f * 10 + 0.5f * 20) / (0.5f + 0.5f),
                                (fThird * 10.0f + 20.0f) / (fThird + 1.0f), 20}));
}

TEST(LinearFillHoleFilter, MinimumDirectionsAndReach)
{
  const auto oCase = Row<int>({4, -9, 9}, -9);
  EXPECT_EQ(RunFilter<SMemoryTag>(oCase, SParams{2, 1.0f, false, false, 0, 0}, 0).m_vecPixels, (std::vector<int>{4, 6, 9}));
  const auto oTooFew = RunFilter<SMemoryTag>(oCase, SParams{3, 1.0f, false, false, 0, 0}, 0);
  EXPECT_EQ(oTooFew.m_vecPixels, (std::vector<int>{4, std::numeric_limits<int>::min(), 9}));
  EXPECT_TRUE(oTooFew.m_bHasNoData); // the hint, as the destination had none
  EXPECT_EQ(RunFilter<SMemoryTag>(oCase, SParams{1, 0.0f, false, false, 0, 0}, 0).m_vecPixels[1],
            std::numeric_limits<int>::min());

  // Zero directions asked: a hole without any contribution computes 0 / 0, and no no-data is noted.
  const auto oAlone = Row<int>({-9}, -9);
  const auto oNaNInt = RunFilter<SMemoryTag>(oAlone, SParams{0, 5.0f, false, false, 0, 0}, 0);
  EXPECT_EQ(oNaNInt.m_vecPixels[0], std::numeric_limits<int>::min());
  EXPECT_FALSE(oNaNInt.m_bHasNoData);
  EXPECT_EQ(RunFilter<SMemoryTag>(Row<unsigned int>({5}, 5), SParams{0, 5.0f, false, false, 0, 0}, 0).m_vecPixels[0], 0u);
  EXPECT_TRUE(std::isnan(RunFilter<SMemoryTag>(Row<float>({NAN}, 0), SParams{0, 5.0f, false, false, 0, 0}, 0).m_vecPixels[0]));
}

// Border holes see at most five lines, corner holes three.
TEST(LinearFillHoleFilter, BorderAndCornerHoles)
{
  SCase<float, unsigned char> oCase;
  oCase.m_nWidth = oCase.m_nHeight = 3;
  oCase.m_vecSrc.assign(9, 1.0f);
  oCase.m_vecMask.assign(9, 1);
  oCase.m_vecSrc[0] = oCase.m_vecSrc[7] = INFINITY;
  for (unsigned int nMin = 1; nMin <= 6; ++nMin)
  {
    const auto oResult = RunFilter<SMemoryTag>(oCase, SParams{nMin, 2.0f, false, false, 0, 0}, 0);
    EXPECT_EQ(oResult.m_vecPixels[0] == 1.0f, nMin <= 3) << nMin;
    EXPECT_EQ(oResult.m_vecPixels[7] == 1.0f, nMin <= 5) << nMin;
  }
}

// In mask mode a source no-data pixel that the mask leaves alone stays no-data and does not lengthen
// the lines through it; a valid pixel that the mask selects is replaced and feeds nobody.
TEST(LinearFillHoleFilter, MaskSkipsAndOverrides)
{
  auto oCase = Row<short>({10, -1, 30, 50, 70}, -1);
  oCase.m_vecMask = {1, 1, 0, 0, 1}; // 0, the marker of a mask without no-data value, selects
  oCase.m_bDestNoData = true;
  oCase.m_tDestNoData = -5;
  const auto oResult = RunFilter<SMemoryTag>(oCase, SParams{2, 1.0f, true, false, 0, 0}, 0);
  EXPECT_EQ(oResult.m_vecPixels, (std::vector<short>{10, -5, -5, -5, 70}));
  EXPECT_EQ(RunFilter<SMemoryTag>(oCase, SParams{1, 1.0f, true, false, 0, 0}, 0).m_vecPixels,
            (std::vector<short>{10, -5, 10, 70, 70}));
  EXPECT_EQ(oResult.m_tNoData, -5);
}

// The list holds 1024 * ((max >> 10) + 1) entries: exactly full with 1024 holes and a maximum of 0.
TEST(LinearFillHoleFilter, HoleListCapacity)
{
  for (const auto& oSize : {std::make_pair(32u, 32u), std::make_pair(45u, 45u)})
  {
    SCase<unsigned char, unsigned char> oCase;
    oCase.m_nWidth = oSize.first;
    oCase.m_nHeight = oSize.second;
    oCase.m_vecSrc.assign(oSize.first * oSize.second, 0);
    oCase.m_vecSrc[0] = 42;
    oCase.m_vecMask = oCase.m_vecSrc;
    oCase.m_bSrcNoData = true;
    const SParams oParams{1, 100.0f, false, false, 0, 0};
    ExpectSame(Reference(oCase, oParams), RunFilter<SMemoryTag>(oCase, oParams, oSize.first == 32 ? 0 : 1024), "capacity");
  }
}

TEST(LinearFillHoleFilter, ComparatorsAndNaN)
{
  const Orl::Ostrel::Filter::Detail::SOutsideRangeComparator<float> oPoint{2.0f, 2.0f};
  EXPECT_FALSE(oPoint(2.0f));
  EXPECT_TRUE(oPoint(1.5f));
  EXPECT_TRUE(oPoint(-INFINITY));
  EXPECT_FALSE(oPoint(NAN));
  const Orl::Ostrel::Filter::Detail::SEqualComparator<double> oNaN{std::nan("")};
  EXPECT_FALSE(oNaN(std::nan("")));
}

// Bands of different sizes work on the common rectangle; the rest of the destination is untouched.
TEST(LinearFillHoleFilter, CommonRectangleAndLogger)
{
  CBand<float, SMemoryTag> oSrc(4, 3), oMask(5, 3), oDest(6, 5);
  oSrc.Clear(2.0f);
  oSrc.GetRep().GetDataLocation()[5] = NAN;
  oMask.Clear(1.0f);
  oDest.Clear(9.0f);
  CFilter oFilter(0, 1, 10.0f, false);
  const auto pLogger = boost::make_shared<Orl::Harnel::Progress::CLogger>();
  oFilter.SetLogger(pLogger);
  oFilter.Apply(oDest, oSrc, oMask);
  EXPECT_EQ(pLogger->GetDepth(), 0u);
  const float* pDest = oDest.GetRep().GetDataLocation();
  for (unsigned int y = 0; y < 5; ++y)
    for (unsigned int x = 0; x < 6; ++x)
      EXPECT_EQ(pDest[y * 6 + x], x < 4 && y < 3 ? 2.0f : 9.0f) << x << ", " << y;
  EXPECT_FALSE(oDest.HasNoDataValue());
  EXPECT_EQ(oFilter.GetName(), "Linear Fill Hole Filter");
  EXPECT_FALSE(oFilter.AllowDestIsSrc());
}

} // namespace
