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
using CFilter = CLinearFillHoleFilter<SDefaultLineData>;

// ---- An independent reference: per hole, walk the eight lines outward -----------------------------

// Truncation toward zero; NaN and values out of range give the smallest value of the 32- or 64-bit
// integer, which then keeps its low bits.
template <class T>
T ToPixel(float f)
{
  if constexpr (std::is_floating_point<T>::value)
    return T(f);
  else if constexpr (std::is_same<T, unsigned int>::value)
    return T(std::uint64_t(f >= -0x1p63f && f < 0x1p63f ? std::int64_t(f) : std::numeric_limits<std::int64_t>::min()));
  else
    return T(f >= -0x1p31f && f < 0x1p31f ? std::int32_t(f) : std::numeric_limits<std::int32_t>::min());
}

template <class T>
T Bound(double d)
{
  if constexpr (std::is_floating_point<T>::value)
    return T(d);
  else
    return T(std::uint64_t(d >= -0x1p63 && d < 0x1p63 ? std::int64_t(d) : std::numeric_limits<std::int64_t>::min()));
}

struct SParams
{
  unsigned int m_nMinDirections;
  float m_fMaxDistance;
  bool m_bUseMask;
  bool m_bUseRange;
  double m_dLow;
  double m_dHigh;
};

template <class TPixel, class TMask>
struct SCase
{
  unsigned int m_nWidth = 0;
  unsigned int m_nHeight = 0;
  std::vector<TPixel> m_vecSrc;
  std::vector<TMask> m_vecMask;
  bool m_bSrcNoData = false, m_bMaskNoData = false, m_bDestNoData = false;
  TPixel m_tSrcNoData{}, m_tDestNoData{};
  TMask m_tMaskNoData{};
};

template <class TPixel>
struct SResult
{
  std::vector<TPixel> m_vecPixels;
  bool m_bHasNoData;
  TPixel m_tNoData;
};

enum EClass { eValid, eHole, eSkipped };

template <class TPixel, class TMask>
SResult<TPixel> Reference(const SCase<TPixel, TMask>& oCase, const SParams& oParams)
{
  const int nW = int(oCase.m_nWidth), nH = int(oCase.m_nHeight);
  const auto fnClass = [&](int x, int y) {
    const TPixel t = oCase.m_vecSrc[y * nW + x];
    bool bValid = !(oCase.m_bSrcNoData && t == oCase.m_tSrcNoData);
    if constexpr (std::is_floating_point<TPixel>::value)
      bValid = bValid && std::isfinite(t);
    if (!oParams.m_bUseMask)
      return bValid ? eValid : eHole;
    const TMask m = oCase.m_vecMask[y * nW + x];
    const bool bSelected = oParams.m_bUseRange
                             ? m < Bound<TMask>(oParams.m_dLow) || m > Bound<TMask>(oParams.m_dHigh)
                             : m == (oCase.m_bMaskNoData ? oCase.m_tMaskNoData : TMask(0));
    return bSelected ? eHole : bValid ? eValid : eSkipped;
  };

  SResult<TPixel> oResult{oCase.m_vecSrc, oCase.m_bDestNoData, oCase.m_tDestNoData};
  const TPixel tNoData = oCase.m_bDestNoData ? oCase.m_tDestNoData
                                             : std::is_signed<TPixel>::value ? std::numeric_limits<TPixel>::lowest()
                                                                             : std::numeric_limits<TPixel>::max();
  bool bAnyHole = false, bAnyNoData = false;
  // Left, up, upper left, upper right, then right, down, lower left, lower right.
  static const int s_aDirections[8][2] = {{-1, 0}, {0, -1}, {-1, -1}, {1, -1}, {1, 0}, {0, 1}, {-1, 1}, {1, 1}};
  for (int y = 0; y < nH; ++y)
    for (int x = 0; x < nW; ++x)
    {
      TPixel& tOut = oResult.m_vecPixels[y * nW + x];
      const EClass eClass = fnClass(x, y);
      if (eClass == eSkipped)
      {
        tOut = tNoData;
        bAnyNoData = true;
      }
      if (eClass != eHole)
        continue;
      bAnyHole = true;
      float fWeights = 0.0f, fValues = 0.0f;
      unsigned int nCount = 0;
      for (const auto& aDir : s_aDirections)
      {
        int nHoles = 1;
        for (int u = x + aDir[0], v = y + aDir[1]; u >= 0 && u < nW && v >= 0 && v < nH; u += aDir[0], v += aDir[1])
        {
          const EClass eOther = fnClass(u, v);
          if (eOther == eHole)
            ++nHoles;
          if (eOther != eValid)
            continue;
          const float fDistance = float(nHoles);
          if (oParams.m_fMaxDistance >= fDistance)
          {
            fWeights += 1.0f / fDistance;
            fValues += (1.0f / fDistance) * float(oCase.m_vecSrc[v * nW + u]);
            ++nCount;
          }
          break;
        }
      }
      if (nCount >= oParams.m_nMinDirections)
        tOut = ToPixel<TPixel>(fValues / fWeights);
      else
      {
        tOut = tNoData;
        bAnyNoData = true;
      }
    }
  if (!bAnyHole)
    oResult.m_vecPixels = oCase.m_vecSrc; // copied as they are, skipped pixels included
  else if (bAnyNoData)
  {
    oResult.m_bHasNoData = true;
    oResult.m_tNoData = tNoData;
  }
  return oResult;
}

// ---- Running the filter -----------------------------------------------------------------------------

template <class TTag, class TPixel, class TMask>
SResult<TPixel> RunFilter(const SCase<TPixel, TMask>& oCase, const SParams& oParams, unsigned int nMaxHolePixels)
{
  CBand<TPixel, TTag> oSrc(oCase.m_nWidth, oCase.m_nHeight), oDest(oCase.m_nWidth, oCase.m_nHeight);
  CBand<TMask, TTag> oMask(oCase.m_nWidth, oCase.m_nHeight);
  std::copy(oCase.m_vecSrc.begin(), oCase.m_vecSrc.end(), oSrc.GetRep().GetDataLocation());
  std::copy(oCase.m_vecMask.begin(), oCase.m_vecMask.end(), oMask.GetRep().GetDataLocation());
  oDest.Clear(TPixel(7));
  if (oCase.m_bSrcNoData)
    oSrc.SetNoDataValue(oCase.m_tSrcNoData);
  if (oCase.m_bMaskNoData)
    oMask.SetNoDataValue(oCase.m_tMaskNoData);
  if (oCase.m_bDestNoData)
    oDest.SetNoDataValue(oCase.m_tDestNoData);
  const CFilter oFilter =
    oParams.m_bUseRange ? CFilter(oParams.m_dLow, oParams.m_dHigh, nMaxHolePixels, oParams.m_nMinDirections,
                                  oParams.m_fMaxDistance, oParams.m_bUseMask)
                        : CFilter(nMaxHolePixels, oParams.m_nMinDirections, oParams.m_fMaxDistance, oParams.m_bUseMask);
  oFilter.Apply(oDest, oSrc, oMask);
  const TPixel* pDest = oDest.GetRep().GetDataLocation();
  return SResult<TPixel>{std::vector<TPixel>(pDest, pDest + oCase.m_vecSrc.size()), oDest.HasNoDataValue(),
                         oDest.HasNoDataValue() ? oDest.GetNoDataValue() : TPixel()};
}

template <class TPixel>
void ExpectSame(const SResult<TPixel>& oExpected, const SResult<TPixel>& oActual, const std::string& strWhat)
{
  ASSERT_EQ(oExpected.m_vecPixels.size(), oActual.m_vecPixels.size());
  for (std::size_t i = 0; i < oExpected.m_vecPixels.size(); ++i)
    ASSERT_EQ(0, std::memcmp(&oExpected.m_vecPixels[i], &oActual.m_vecPixels[i], sizeof(TPixel)))
      << strWhat << " pixel " << i << ": " << +oExpected.m_vecPixels[i] << " != " << +oActual.m_vecPixels[i];
  ASSERT_EQ(oExpected.m_bHasNoData, oActual.m_bHasNoData) << strWhat;
  if (oExpected.m_bHasNoData)
  {
    ASSERT_EQ(0, std::memcmp(&oExpected.m_tNoData, &oActual.m_tNoData, sizeof(TPixel))) << strWhat;
  }
}

// ---- Random cases -----------------------------------------------------------------------------------

template <class T>
T RandomValue(std::mt19937& oRng, bool bFullRange)
{
  if constexpr (std::is_floating_point<T>::value)
  {
    if (bFullRange && oRng() % 8 == 0) // beyond float for double, the extremes for float
      return (oRng() % 2 ? 1 : -1) * std::numeric_limits<T>::max() / T(1 + oRng() % 4);
    return T(std::uniform_real_distribution<double>(bFullRange ? -1e7 : -100.0, bFullRange ? 1e7 : 100.0)(oRng));
  }
  else if (bFullRange)
    return T(std::uniform_int_distribution<long long>(std::numeric_limits<T>::lowest(), std::numeric_limits<T>::max())(oRng));
  else
    return T(std::uniform_int_distribution<int>(0, 100)(oRng));
}

enum EPattern { eScattered, eDense, eBlobs, eAllHoles, eNoHoles };

template <class TPixel, class TMask>
SCase<TPixel, TMask> MakeCase(std::mt19937& oRng, unsigned int nW, unsigned int nH, EPattern ePattern,
                              const SParams& oParams)
{
  SCase<TPixel, TMask> oCase;
  oCase.m_nWidth = nW;
  oCase.m_nHeight = nH;
  const bool bFullRange = oRng() % 3 == 0;
  oCase.m_bSrcNoData = std::is_integral<TPixel>::value || oRng() % 2;
  oCase.m_tSrcNoData = RandomValue<TPixel>(oRng, bFullRange);
  oCase.m_bDestNoData = oRng() % 2;
  oCase.m_tDestNoData = RandomValue<TPixel>(oRng, true);
  oCase.m_bMaskNoData = oRng() % 2;
  oCase.m_tMaskNoData = RandomValue<TMask>(oRng, false);
  const TMask tMarker = oCase.m_bMaskNoData ? oCase.m_tMaskNoData : TMask(0);

  // Which pixels are meant as holes.
  std::vector<char> vecHole(std::size_t(nW) * nH, 0);
  const auto fnDisc = [&](int cx, int cy, int r) {
    for (int y = 0; y < int(nH); ++y)
      for (int x = 0; x < int(nW); ++x)
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
          vecHole[y * nW + x] = 1;
  };
  for (std::size_t i = 0; i < vecHole.size(); ++i)
    vecHole[i] = ePattern == eAllHoles || (ePattern == eScattered && oRng() % 10 == 0) ||
                 (ePattern == eDense && oRng() % 10 < 6);
  if (ePattern == eBlobs)
    for (int n = 0; n < 4; ++n)
      fnDisc(int(oRng() % nW), int(oRng() % nH), int(oRng() % (2 + nW / 5)));

  for (std::size_t i = 0; i < vecHole.size(); ++i)
  {
    TPixel tValue = RandomValue<TPixel>(oRng, bFullRange);
    TMask tMask = RandomValue<TMask>(oRng, true);
    // Invalid source pixels: holes without a mask, mostly skipped ones with a mask.
    const bool bInvalid = oParams.m_bUseMask ? oRng() % 8 == 0 : bool(vecHole[i]);
    if (bInvalid)
    {
      if constexpr (std::is_floating_point<TPixel>::value)
      {
        const TPixel atInvalid[] = {std::numeric_limits<TPixel>::quiet_NaN(), std::numeric_limits<TPixel>::infinity(),
                                    -std::numeric_limits<TPixel>::infinity(), oCase.m_tSrcNoData};
        tValue = atInvalid[oRng() % (oCase.m_bSrcNoData ? 4 : 3)];
      }
      else
        tValue = oCase.m_tSrcNoData;
    }
    if (oParams.m_bUseMask && !oParams.m_bUseRange)
      tMask = vecHole[i] ? tMarker : tMask;
    else if (oParams.m_bUseMask)
      tMask = vecHole[i] ? tMask : Bound<TMask>(oParams.m_dLow);
    if constexpr (std::is_floating_point<TMask>::value)
      if (oRng() % 16 == 0)
        tMask = std::numeric_limits<TMask>::quiet_NaN(); // never a hole
    oCase.m_vecSrc.push_back(tValue);
    oCase.m_vecMask.push_back(tMask);
  }
  return oCase;
}

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
  const float fNaN = std::numeric_limits<float>::quiet_NaN();
  const std::pair<unsigned, float> aLimits[] = {{1, 3.0f}, {2, 5.5f}, {0, 2.0f},  {3, 1000.0f},
                                                {8, 1e6f}, {1, 0.0f}, {2, fNaN}, {4, 1.0f}};
  const std::pair<unsigned, unsigned> aSizes[] = {{1, 1}, {1, 9}, {9, 1}, {5, 4}, {31, 17}, {64, 48}};
  const std::pair<double, double> aRanges[] = {{10.5, 60.25}, {-1.5, 300.7}, {0.0, 0.0}, {-1e12, 1e12}};
  std::mt19937 oRng(1234);
  unsigned int nCase = 0;
  for (const auto& oSize : aSizes)
    for (EPattern ePattern : {eScattered, eDense, eBlobs, eAllHoles, eNoHoles})
      for (int nMode = 0; nMode < 3; ++nMode, ++nCase)
      {
        const auto& oLimits = aLimits[nCase % 8];
        const auto& oRange = aRanges[nCase % 4];
        const SParams oParams{oLimits.first, oLimits.second, nMode > 0, nMode == 2, oRange.first, oRange.second};
        const auto oCase = MakeCase<TPixel, TMask>(oRng, oSize.first, oSize.second, ePattern, oParams);
        const std::string strWhat = "case " + std::to_string(nCase);
        const unsigned int nMaxHoles = oSize.first * oSize.second;
        const auto oExpected = Reference(oCase, oParams);
        ExpectSame(oExpected, RunFilter<SMemoryTag>(oCase, oParams, nMaxHoles), strWhat);
        ExpectSame(oExpected, RunFilter<SIPPTag>(oCase, oParams, nMaxHoles), strWhat + " (IPP)");
      }
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
