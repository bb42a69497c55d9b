#include "Math/StatisticFunctors.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

using namespace Orl::Harnel::Math;
using TUInt128 = Detail::TUInt128;
__extension__ typedef __int128 TInt128;

// Excludes one value and says so, which lets the row loops test it on whole vectors.
template <class TPixel>
struct SExclude
{
  TPixel m_tValue;
  bool operator()(TPixel t) const { return t != m_tValue; }
  TPixel GetExcludedValue() const { return m_tValue; }
};

template <class TPixel>
std::vector<TPixel> RandomPixels(std::size_t nCount, unsigned nSeed, bool bSpecials)
{
  std::mt19937_64 oRandom(nSeed);
  std::vector<TPixel> vecPixels(nCount);
  for (auto& t : vecPixels)
  {
    if constexpr (std::is_floating_point<TPixel>::value)
      t = TPixel(std::uniform_real_distribution<double>(-1e4, 1e4)(oRandom));
    else
      t = TPixel(std::uniform_int_distribution<long long>(std::numeric_limits<TPixel>::lowest(),
                                                          std::numeric_limits<TPixel>::max())(oRandom));
  }
  if (bSpecials && nCount > 8)
  {
    vecPixels[nCount / 3] = std::numeric_limits<TPixel>::max();
    vecPixels[nCount / 2] = std::numeric_limits<TPixel>::lowest();
    if constexpr (std::is_floating_point<TPixel>::value)
    {
      vecPixels[nCount / 5] = std::numeric_limits<TPixel>::quiet_NaN();
      vecPixels[nCount / 4] = std::numeric_limits<TPixel>::infinity();
    }
  }
  return vecPixels;
}

template <class TValue>
void ExpectSameSum(TValue tExpected, TValue tActual)
{
  if constexpr (std::is_floating_point<TValue>::value)
  {
    if (std::isnan(tExpected))
      EXPECT_TRUE(std::isnan(tActual));
    else if (std::isinf(tExpected))
      EXPECT_EQ(tActual, tExpected);
    else
      EXPECT_NEAR(tActual, tExpected, 1e-10 * std::abs(tExpected) + 1e-9);
  }
  else
    EXPECT_TRUE(tExpected == tActual) << double(tExpected) << " != " << double(tActual);
}

template <class TFunctor>
void ExpectSameMoments(const TFunctor& oExpected, const TFunctor& oActual)
{
  EXPECT_EQ(oActual.m_nCount, oExpected.m_nCount);
  EXPECT_EQ(oActual.m_tMin, oExpected.m_tMin);
  EXPECT_EQ(oActual.m_tMax, oExpected.m_tMax);
  ExpectSameSum(oExpected.m_tSum, oActual.m_tSum);
  ExpectSameSum(oExpected.m_tSumSquares, oActual.m_tSumSquares);
}

template <class TPixel>
class StatisticFunctorsTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(StatisticFunctorsTest, Orl::Test::TAllPixelTypes);

// The row loops (vector loops of both widths, lane flushes, tails, any alignment) and joins against the
// plain per-pixel operations and an independent exact or long double reference, for each kind of predicate.
TYPED_TEST(StatisticFunctorsTest, RowLoopsMatchPixelByPixelAndReference)
{
  using TPixel = TypeParam;
  using TFunctor = CMinMaxMeanVarianceFunctor<double, TPixel>;
  // 262181 crosses the flushes of the byte loop's 16- and 32-bit lanes.
  for (const std::size_t nLength : {0u, 1u, 3u, 4u, 5u, 15u, 16u, 17u, 33u, 1000u, 262181u})
    for (const bool bSpecials : {false, true})
    {
      SCOPED_TRACE(testing::Message() << "length " << nLength << (bSpecials ? " with specials" : ""));
      const auto vecPixels = RandomPixels<TPixel>(nLength, unsigned(nLength), bSpecials);
      const SExclude<TPixel> oExclude{nLength > 3 ? vecPixels[2] : TPixel(7)};
      TFunctor oAll, oExcl, oOpaque, oPixelAll, oPixelExcl;
      oAll.ApplyRow(vecPixels.data(), nLength, SAcceptAll());
      oExcl.ApplyRow(vecPixels.data(), nLength, oExclude);
      oOpaque.ApplyRow(vecPixels.data(), nLength, [&](TPixel t) { return oExclude(t); }); // opaque: pixel by pixel
      long double dSum = 0, dSumSquares = 0;
      TInt128 nSum = 0;
      TUInt128 nSumSquares = 0;
      for (const TPixel t : vecPixels)
      {
        oPixelAll(t);
        if (!oExclude(t))
          continue;
        oPixelExcl(t);
        dSum += t;
        dSumSquares += (long double)t * t;
        if constexpr (std::is_integral<TPixel>::value) // exact sums; a float pixel may not fit 128 bits
        {
          nSum += TInt128(t);
          nSumSquares += TUInt128(TInt128(t) * TInt128(t));
        }
      }
      ExpectSameMoments(oPixelAll, oAll);
      EXPECT_EQ(oAll.m_nCount, nLength);
      ExpectSameMoments(oPixelExcl, oExcl);
      ExpectSameMoments(oPixelExcl, oOpaque);
      // The same lanes on every instruction set: the SSE2 loop gives the bits of the one that ran.
      if constexpr (std::is_same<TPixel, float>::value)
      {
        TFunctor o;
        Detail::FloatRowSse2<true, true>(vecPixels.data(), nLength, oExclude, o.m_nCount, o.m_tMin, o.m_tMax, o.m_tSum,
                                         o.m_tSumSquares);
        EXPECT_EQ(std::memcmp(&o, &oExcl, sizeof o), 0);
      }
      // Split at any point, also one that leaves a row unaligned or a side empty, and joined.
      for (const std::size_t nSplit : {std::size_t(0), nLength / 2 + (nLength > 2), nLength})
      {
        TFunctor oLeft, oRight;
        oLeft.ApplyRow(vecPixels.data(), nSplit, oExclude);
        oRight.ApplyRow(vecPixels.data() + nSplit, nLength - nSplit, oExclude);
        oLeft.Join(oRight);
        ExpectSameMoments(oPixelExcl, oLeft);
      }
      if constexpr (std::is_floating_point<TPixel>::value)
      {
        ExpectSameSum(double(dSum), oExcl.m_tSum);
        ExpectSameSum(double(dSumSquares), oExcl.m_tSumSquares);
      }
      else
        EXPECT_TRUE(TInt128(oExcl.m_tSum) == nSum && TUInt128(oExcl.m_tSumSquares) == nSumSquares);

      // The smaller functors share the loops; their fields must agree with the full one.
      CCountFunctor<TPixel> oCount;
      CMinMaxFunctor<TPixel> oMinMax;
      CMeanVarianceFunctor<double, TPixel> oMoments;
      oCount.ApplyRow(vecPixels.data(), nLength, oExclude);
      oMinMax.ApplyRow(vecPixels.data(), nLength, oExclude);
      oMoments.ApplyRow(vecPixels.data(), nLength, oExclude);
      EXPECT_EQ(oCount.m_nCount, oExcl.m_nCount);
      EXPECT_TRUE(oMinMax.m_tMin == oExcl.m_tMin && oMinMax.m_tMax == oExcl.m_tMax);
      ExpectSameSum(oExcl.m_tSum, oMoments.m_tSum);
    }
}

// Binning of one pixel, row by row: range, bins, pixel, expected bin.
TEST(HistoFunctorTest, BinningCases)
{
  const double dNaN = std::numeric_limits<double>::quiet_NaN();
  const double dInf = std::numeric_limits<double>::infinity();
  struct SCase
  {
    double dMin, dMax;
    std::uint32_t nBins;
    double dPixel;
    std::uint32_t nExpected;
  } const aCases[] = {
    {0, 10, 1, 0, 0},     {0, 10, 1, 10, 0},    {0, 10, 1, 7, 0}, // one bin: the whole range
    {0, 4, 5, 0.5, 1},                                            // half a step up rounds up
    {0, 4, 5, 0.49, 0},   {0, 4, 5, 3.5, 4},    {0, 4, 5, 4, 4},
    {0, 4, 5, -0.5, 4},                                           // half a step down: index -1, the last bin
    {0, 4, 5, -0.49, 0},  {0, 4, 5, -3, 4},     {0, 4, 5, 100, 4}, // outside the range: the last bin
    {0, 4, 5, dNaN, 0},                                           // NaN: the first bin
    {0, 4, 5, dInf, 0},   {0, 4, 5, -dInf, 0},                    // not representable: as NaN
    {0, 1, 2, 4294967296.0, 0}, {0, 1, 2, 4294967297.0, 1},       // only the low 32 bits of the index
  };
  for (const SCase& o : aCases)
  {
    CHistoFunctor<double, double> oHisto(o.dMin, o.dMax, o.nBins);
    EXPECT_EQ(oHisto.GetBinIndex(o.dPixel), o.nExpected) << o.dMin << ".." << o.dMax << " / " << o.nBins << ": " << o.dPixel;
  }
}

TEST(HistoFunctorTest, PercentilesInterpolateInsideBins)
{
  // Range 0..2 in two bins of width 1, two pixels in each.
  const CHistoFunctor<double, float> oHisto(0.0f, 2.0f, std::vector<std::uint64_t>{2, 2});
  EXPECT_EQ(oHisto.m_nCount, 4u);
  EXPECT_DOUBLE_EQ(oHisto.GetPercentile(0.0), 0.0);
  EXPECT_DOUBLE_EQ(oHisto.GetPercentile(20.0), 0.0); // pos 0.8 < 1: the low end
  EXPECT_DOUBLE_EQ(oHisto.GetPercentile(25.0), 0.5); // pixel 1 at the middle of bin 1, pixel 2 at its end
  EXPECT_DOUBLE_EQ(oHisto.GetPercentile(50.0), 1.0);
  EXPECT_DOUBLE_EQ(oHisto.GetPercentile(62.5), 1.25);
  EXPECT_DOUBLE_EQ(oHisto.GetPercentile(100.0), 2.0); // no interpolation: the end of the last full bin

  // With an empty last bin the 100th percentile ends at the last non-empty one.
  const CHistoFunctor<double, unsigned char> oGap(10, 20, std::vector<std::uint64_t>{3, 0, 1, 0, 0});
  EXPECT_DOUBLE_EQ(oGap.GetPercentile(100.0), 10 + 3 * 2.0);
}

} // namespace
