// Fourier transforms, resampling, histogram equalization and gradient orientation: oracles and
// properties, on memory and tile bands.

#include "Filter/ColorConversionFilter.h"
#include "Filter/Detail/RowBuffers.h"
#include "Filter/FftFilter.h"
#include "Filter/GradientOrientationFilter.h"
#include "Filter/HistogramEqualizationFilter.h"
#include "Filter/ResampleFilter.h"
#include "Foundation/BasicException.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <complex>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Ostrel::Filter;
using Orl::Test::ReadPixels;
using Orl::Test::WritePixels;

template <class TPixel, class TTag = SMemoryTag>
CBand<TPixel, TTag> MakeBand(unsigned nWidth, unsigned nHeight, const std::vector<TPixel>& vecPixels)
{
  CBand<TPixel, TTag> oBand(nWidth, nHeight);
  WritePixels(oBand, vecPixels);
  return oBand;
}

template <class TPixel>
std::vector<TPixel> RandomPixels(std::size_t nCount, unsigned nSeed, double dLow = -10.0, double dHigh = 10.0)
{
  std::mt19937 oRng(nSeed);
  std::uniform_real_distribution<double> oDist(dLow, dHigh);
  std::vector<TPixel> vec(nCount);
  for (auto& t : vec)
    t = TPixel(oDist(oRng));
  return vec;
}

template <class TPixel, class TTag>
struct SKind
{
  using TPixelType = TPixel;
  using TTagType = TTag;
};

// ---------------------------------------------------------------------------------------------------
// Fourier transforms

TEST(FftFilterTest, PaddedSizes)
{
  const struct
  {
    unsigned nIn, nOut;
  } aCases[] = {{0, 1},       {1, 1},       {2, 2},       {3, 4},
                {5, 8},       {1000, 1024}, {1024, 1024}, {1025, 2048},
                {2147483648u, 2147483648u}};
  for (const auto& oCase : aCases)
  {
    EXPECT_EQ(CFftForwardFilter::GetFftSize(oCase.nIn), oCase.nOut) << oCase.nIn;
    EXPECT_EQ(CFftReverseFilter::GetFftSize(oCase.nIn), oCase.nOut) << oCase.nIn;
  }
  EXPECT_EQ(CFftForwardFilter().GetName(), "FFT-Forward-Filter");
  EXPECT_EQ(CFftReverseFilter().GetName(), "FFT-Reverse-Filter");
  EXPECT_FALSE(CFftForwardFilter().AllowDestIsSrc());
}

template <class TKind>
class FftTest : public ::testing::Test
{
};
using TFftKinds = ::testing::Types<SKind<float, SMemoryTag>, SKind<double, SMemoryTag>, SKind<float, STileTag>,
                                   SKind<double, STileTag>>;
TYPED_TEST_SUITE(FftTest, TFftKinds);

// Against the plain sum on the zero-padded source (taken along rows, then columns), no-data counting
// as 0; with an impulse at (a, b) the sum is the phase ramp exp(-2 pi i (u a / Nx + v b / Ny)) itself.
// Then back again. The larger sizes span several blocks of rows and of columns.
TYPED_TEST(FftTest, EqualsTheDirectSumAndComesBack)
{
  using TPixel = typename TypeParam::TPixelType;
  using TBand = CBand<TPixel, typename TypeParam::TTagType>;
  const double dEps = sizeof(TPixel) == 4 ? 2e-5 : 1e-12;
  const struct
  {
    unsigned nWidth, nHeight;
    bool bImpulse;
  } aCases[] = {{1, 1, false}, {1, 7, false}, {7, 1, false}, {5, 3, false}, {8, 8, false}, {13, 6, false},
                {17, 2, false}, {11, 5, true}, {16, 8, true}, {100, 37, false}, {150, 70, true}};
  for (const auto& oCase : aCases)
  {
    const unsigned nW = oCase.nWidth, nH = oCase.nHeight;
    const unsigned nX = CFftForwardFilter::GetFftSize(nW), nY = CFftForwardFilter::GetFftSize(nH);
    std::vector<TPixel> vecSrc = RandomPixels<TPixel>(nW * nH, nW * 31 + nH);
    if (oCase.bImpulse)
      vecSrc.assign(nW * nH, TPixel(0)), vecSrc[(nH / 2) * nW + nW - 2] = TPixel(1);
    TBand oSrc = MakeBand<TPixel, typename TypeParam::TTagType>(nW, nH, vecSrc);
    if (nW * nH > 3 && !oCase.bImpulse)
    {
      oSrc.SetNoDataValue(vecSrc[2]);
      vecSrc[2] = 0; // no-data counts as 0
    }
    TBand oRe(nX, nY), oIm(nX, nY);
    CFftForwardFilter().Apply(oRe, oIm, oSrc);
    const auto vecRe = ReadPixels(oRe), vecIm = ReadPixels(oIm);

    double dScale = 1.0, dEnergy = 0.0, dSpectrum = 0.0;
    for (TPixel t : vecSrc)
      dScale += std::abs(double(t)), dEnergy += double(t) * double(t);
    std::vector<std::complex<double>> vecRows(std::size_t(nX) * nH); // (u, y)
    for (unsigned y = 0; y < nH; ++y)
      for (unsigned u = 0; u < nX; ++u)
        for (unsigned x = 0; x < nW; ++x)
          vecRows[y * nX + u] += double(vecSrc[y * nW + x]) * std::polar(1.0, -2.0 * M_PI * double(u * x % nX) / nX);
    for (unsigned v = 0; v < nY; ++v)
      for (unsigned u = 0; u < nX; ++u)
      {
        std::complex<double> oSum;
        for (unsigned y = 0; y < nH; ++y)
          oSum += vecRows[y * nX + u] * std::polar(1.0, -2.0 * M_PI * double(v * y % nY) / nY);
        const std::complex<double> oGot(vecRe[v * nX + u], vecIm[v * nX + u]);
        ASSERT_LT(std::abs(oGot - oSum), dEps * dScale) << nW << "x" << nH << " at " << u << "," << v;
        dSpectrum += std::norm(oGot);
      }
    EXPECT_NEAR(dSpectrum, dEnergy * nX * nY, dEps * 10 * dSpectrum) << "Parseval, " << nW << "x" << nH;

    TBand oBack(nW, nH);
    CFftReverseFilter().Apply(oBack, oRe, oIm);
    const auto vecBack = ReadPixels(oBack);
    for (std::size_t i = 0; i < vecSrc.size(); ++i)
      ASSERT_NEAR(double(vecBack[i]), double(vecSrc[i]), dEps * dScale) << nW << "x" << nH << " pixel " << i;
  }
}

// Bands of several tiles, spilled, with no-data and NaN: tile results are the memory results within a
// few rounding steps per stage of the transform (the two run different plans), both ways.
TYPED_TEST(FftTest, TilesEqualMemory)
{
  using TPixel = typename TypeParam::TPixelType;
  if (std::is_same<typename TypeParam::TTagType, SMemoryTag>::value)
    GTEST_SKIP() << "memory is the reference";
  const Orl::Test::CTileBudget oBudget(3u << 20);
  const unsigned nW = 2 * Orl::Ostrel::Band::Detail::STileSize<TPixel>::ms_nX + 77, nH = 300;
  const unsigned nX = CFftForwardFilter::GetFftSize(nW), nY = CFftForwardFilter::GetFftSize(nH);
  auto vecSrc = RandomPixels<TPixel>(nW * nH, 5);
  vecSrc[7] = std::numeric_limits<TPixel>::quiet_NaN();
  auto oMemSrc = MakeBand<TPixel>(nW, nH, vecSrc);
  auto oTileSrc = MakeBand<TPixel, STileTag>(nW, nH, vecSrc);
  oMemSrc.SetNoDataValue(vecSrc[nW + 3]);
  oTileSrc.SetNoDataValue(vecSrc[nW + 3]);
  CBand<TPixel, SMemoryTag> oMemRe(nX, nY), oMemIm(nX, nY), oMemBack(nW - 5, nH - 3);
  CBand<TPixel, STileTag> oTileRe(nX, nY), oTileIm(nX, nY), oTileBack(nW - 5, nH - 3);
  CFftForwardFilter().Apply(oMemRe, oMemIm, oMemSrc);
  CFftForwardFilter().Apply(oTileRe, oTileIm, oTileSrc);
  CFftReverseFilter().Apply(oMemBack, oMemRe, oMemIm);
  CFftReverseFilter().Apply(oTileBack, oTileRe, oTileIm);
  // Rounding steps of a transform grow with log2 of its size, each at most an epsilon of the norm.
  const double dSteps = 4.0 * std::log2(double(nX) * nY) * std::numeric_limits<TPixel>::epsilon();
  double dNorm = 0.0;
  for (TPixel t : vecSrc)
    dNorm += t == t ? double(t) * double(t) : 0.0;
  dNorm = std::sqrt(dNorm);
  const auto fnExpectNear = [](const auto& vecMemory, const auto& vecTile, double dTolerance, const char* szPart) {
    ASSERT_EQ(vecMemory.size(), vecTile.size());
    for (std::size_t i = 0; i < vecMemory.size(); ++i)
      ASSERT_NEAR(double(vecMemory[i]), double(vecTile[i]), dTolerance) << szPart << " " << i;
  };
  fnExpectNear(ReadPixels(oMemRe), ReadPixels(oTileRe), dSteps * dNorm, "real");
  fnExpectNear(ReadPixels(oMemIm), ReadPixels(oTileIm), dSteps * dNorm, "imaginary");
  fnExpectNear(ReadPixels(oMemBack), ReadPixels(oTileBack), dSteps * 10.0, "back");
}

TEST(FftFilterTest, RejectsWrongSizesBeforeWriting)
{
  CBand<float, SMemoryTag> oSrc(5, 3), oRe(8, 4), oIm(8, 4), oSmall(8, 2), oOdd(6, 4);
  oRe.Clear(7.0f);
  EXPECT_THROW(CFftForwardFilter().Apply(oRe, oSmall, oSrc), Orl::Harnel::CBasicException);
  EXPECT_THROW(CFftForwardFilter().Apply(oSmall, oIm, oSrc), Orl::Harnel::CBasicException);
  EXPECT_EQ(ReadPixels(oRe), std::vector<float>(32, 7.0f));
  CBand<float, SMemoryTag> oDest(5, 3), oLarge(9, 3);
  EXPECT_THROW(CFftReverseFilter().Apply(oDest, oRe, oSmall), Orl::Harnel::CBasicException);
  EXPECT_THROW(CFftReverseFilter().Apply(oDest, oOdd, oOdd), Orl::Harnel::CBasicException);
  EXPECT_THROW(CFftReverseFilter().Apply(oLarge, oRe, oIm), Orl::Harnel::CBasicException);
}

// ---------------------------------------------------------------------------------------------------
// Resampling

const struct
{
  std::string szName;
  EResampleKernel eKernel;
  double dRadius;
} g_aKernels[] = {{"nearest", eResampleNearest, 0.5}, {"bilinear", eResampleBilinear, 1.0},
                  {"cubic", eResampleCubic, 2.0},       {"lanczos3", eResampleLanczos3, 3.0},
                  {"average", eResampleAverage, 0.5}};

template <class TPixel, class TTag = SMemoryTag>
std::vector<TPixel> Resampled(EResampleKernel eKernel, const CBand<TPixel, TTag>& oSrc, unsigned nWidth,
                              unsigned nHeight)
{
  CBand<TPixel, TTag> oDest(nWidth, nHeight);
  CResampleFilter(eKernel).Apply(oDest, oSrc);
  return ReadPixels(oDest);
}

// Equal for integer pixels, within a few units of rounding for floating ones.
template <class TPixel>
void ExpectClose(const std::vector<TPixel>& vecGot, const std::vector<TPixel>& vecExpected, const std::string& strWhat)
{
  ASSERT_EQ(vecGot.size(), vecExpected.size()) << strWhat;
  const double dEps = std::is_integral<TPixel>::value ? 0.0 : 1e-5;
  for (std::size_t i = 0; i < vecGot.size(); ++i)
    ASSERT_NEAR(double(vecGot[i]), double(vecExpected[i]), dEps * (1.0 + std::abs(double(vecExpected[i]))))
      << strWhat << ", pixel " << i;
}

template <class TPixel>
class ResampleTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(ResampleTest, Orl::Test::TAllPixelTypes);

TYPED_TEST(ResampleTest, CopiesAtTheSameSizeKeepsConstantsAndAveragesBlocks)
{
  using TPixel = TypeParam;
  const unsigned nW = 16, nH = 10;
  const auto vecSrc = RandomPixels<TPixel>(nW * nH, 3, 0.0, 120.0);
  const auto oSrc = MakeBand<TPixel>(nW, nH, vecSrc);
  const auto oConstant = MakeBand<TPixel>(nW, nH, std::vector<TPixel>(nW * nH, TPixel(77)));
  for (const auto& oKernel : g_aKernels)
  {
    EXPECT_EQ(Resampled(oKernel.eKernel, oSrc, nW, nH), vecSrc) << oKernel.szName;
    for (const auto& oSize : {std::make_pair(5u, 11u), std::make_pair(29u, 3u), std::make_pair(40u, 33u)})
      ExpectClose(Resampled(oKernel.eKernel, oConstant, oSize.first, oSize.second),
                  std::vector<TPixel>(oSize.first * oSize.second, TPixel(77)),
                  oKernel.szName + std::to_string(oSize.first) + "x" + std::to_string(oSize.second));
  }
  // Integer means round half away from zero (the quarters here are exact), whatever the rounding mode.
  std::vector<TPixel> vecMeans;
  for (unsigned y = 0; y < nH; y += 2)
    for (unsigned x = 0; x < nW; x += 2)
    {
      const double dMean =
        (double(vecSrc[y * nW + x]) + vecSrc[y * nW + x + 1] + vecSrc[y * nW + nW + x] + vecSrc[y * nW + nW + x + 1]) / 4;
      vecMeans.push_back(TPixel(std::is_integral<TPixel>::value ? std::round(dMean) : dMean));
    }
  ExpectClose(Resampled(eResampleAverage, oSrc, nW / 2, nH / 2), vecMeans, "means of 2 x 2");
}

TEST(ResampleFilterTest, BilinearReproducesARampAwayFromTheBorder)
{
  const unsigned nW = 10, nH = 8, nFactor = 4;
  std::vector<double> vecRamp;
  for (unsigned y = 0; y < nH; ++y)
    for (unsigned x = 0; x < nW; ++x)
      vecRamp.push_back(3.0 * x - 2.0 * y + 1.0);
  const auto vecUp = Resampled(eResampleBilinear, MakeBand<double>(nW, nH, vecRamp), nW * nFactor, nH * nFactor);
  for (unsigned y = nFactor; y < (nH - 1) * nFactor; ++y)
    for (unsigned x = nFactor; x < (nW - 1) * nFactor; ++x)
    {
      const double u = (x + 0.5) / nFactor - 0.5, v = (y + 0.5) / nFactor - 0.5;
      ASSERT_NEAR(vecUp[y * nW * nFactor + x], 3.0 * u - 2.0 * v + 1.0, 1e-12) << x << "," << y;
    }
}

// A block of no-data changes no destination pixel whose kernel does not reach it, and never gives
// a valid pixel a value pulled towards the no-data value.
TEST(ResampleFilterTest, NoDataStaysWithinTheKernelsReach)
{
  const unsigned nW = 40, nH = 30, nX0 = 15, nX1 = 25, nY0 = 10, nY1 = 20;
  const float fNoData = -1000.0f;
  auto vecSrc = RandomPixels<float>(nW * nH, 9, 0.0, 10.0);
  const auto oFull = MakeBand<float>(nW, nH, vecSrc);
  for (unsigned y = nY0; y < nY1; ++y)
    for (unsigned x = nX0; x < nX1; ++x)
      vecSrc[y * nW + x] = fNoData;
  auto oHoled = MakeBand<float>(nW, nH, vecSrc);
  oHoled.SetNoDataValue(fNoData);
  for (const auto& oKernel : g_aKernels)
    for (const auto& oSize : {std::make_pair(17u, 13u), std::make_pair(40u, 30u), std::make_pair(97u, 61u)})
    {
      const unsigned nDW = oSize.first, nDH = oSize.second;
      const auto vecFull = Resampled(oKernel.eKernel, oFull, nDW, nDH);
      const auto vecHoled = Resampled(oKernel.eKernel, oHoled, nDW, nDH);
      const auto fnReaches = [&](unsigned nD, unsigned nDest, unsigned nSrc, unsigned nLow, unsigned nHigh) {
        const double s = double(nSrc) / nDest, u = (nD + 0.5) * s - 0.5;
        const double dReach = oKernel.dRadius * std::max(1.0, s) + 0.5;
        return u + dReach > nLow - 0.5 && u - dReach < nHigh - 0.5;
      };
      for (unsigned y = 0; y < nDH; ++y)
      {
        for (unsigned x = 0; x < nDW; ++x)
        {
          const float fGot = vecHoled[y * nDW + x];
          if (!fnReaches(x, nDW, nW, nX0, nX1) || !fnReaches(y, nDH, nH, nY0, nY1))
          {
            ASSERT_EQ(fGot, vecFull[y * nDW + x]) << oKernel.szName << " at " << x << "," << y;
          }
          else if (fGot != SNoDataValueHint<float>::ms_tNoDataValue)
          {
            ASSERT_GT(fGot, -5.0f) << oKernel.szName << " at " << x << "," << y;
          }
        }
      }
    }
}

TEST(ResampleFilterTest, TilesEqualMemoryAndEmptySourcesAreRejected)
{
  const Orl::Test::CTileBudget oBudget(2u << 20);
  const unsigned nW = 1100, nH = 600;
  auto vecSrc = RandomPixels<unsigned char>(nW * nH, 4, 0.0, 255.0);
  auto oMem = MakeBand<unsigned char>(nW, nH, vecSrc);
  auto oTile = MakeBand<unsigned char, STileTag>(nW, nH, vecSrc);
  oMem.SetNoDataValue(0);
  oTile.SetNoDataValue(0);
  for (const auto& oKernel : g_aKernels)
    EXPECT_EQ(Resampled(oKernel.eKernel, oMem, 407, 1300), Resampled(oKernel.eKernel, oTile, 407, 1300))
      << oKernel.szName;
  CBand<float, SMemoryTag> oEmpty(0, 3), oDest(2, 2);
  EXPECT_THROW(CResampleFilter().Apply(oDest, oEmpty), Orl::Harnel::CBasicException);
}

// ---------------------------------------------------------------------------------------------------
// Histogram equalization

template <class TPixel, class TTag = SMemoryTag>
CBand<TPixel, TTag> Equalized(const CBand<TPixel, TTag>& oSrc)
{
  CBand<TPixel, TTag> oDest(oSrc.GetWidth(), oSrc.GetHeight());
  CHistogramEqualizationFilter().Apply(oDest, oSrc);
  return oDest;
}

TEST(HistogramEqualizationFilterTest, UnsignedCharIsTheClassicDefinitionOnMemoryAndTiles)
{
  const Orl::Test::CTileBudget oBudget(2u << 20);
  const unsigned nW = 1500, nH = 700;
  std::mt19937 oRng(12);
  std::normal_distribution<double> oDist(90.0, 20.0);
  std::vector<unsigned char> vecSrc(nW * nH);
  for (auto& t : vecSrc)
    t = (unsigned char)std::clamp(oDist(oRng), 3.0, 250.0);
  auto oMem = MakeBand<unsigned char>(nW, nH, vecSrc);
  auto oTile = MakeBand<unsigned char, STileTag>(nW, nH, vecSrc);
  oMem.SetNoDataValue(90); // the most frequent value, left out of the histogram
  oMem.SetHistogramBins(256);
  oTile.SetNoDataValue(90);
  oTile.SetHistogramBins(256);

  std::vector<unsigned long> vecCdf(256, 0);
  for (unsigned char t : vecSrc)
    vecCdf[t] += t != 90;
  for (int i = 1; i < 256; ++i)
    vecCdf[i] += vecCdf[i - 1];
  const unsigned long nN = vecCdf[255], nCdfMin = vecCdf[3];
  std::vector<unsigned char> vecExpected;
  for (unsigned char t : vecSrc)
  {
    const double dShare = double(vecCdf[t] - nCdfMin) / double(nN - nCdfMin);
    vecExpected.push_back(t == 90 ? SNoDataValueHint<unsigned char>::ms_tNoDataValue
                                  : (unsigned char)std::round(dShare * 255.0));
  }

  const auto oMemOut = Equalized(oMem);
  EXPECT_EQ(ReadPixels(oMemOut), vecExpected);
  EXPECT_EQ(ReadPixels(Equalized(oTile)), vecExpected);
  EXPECT_TRUE(oMemOut.HasNoDataValue());
  EXPECT_THROW(CHistogramEqualizationFilter().Apply(oMem, MakeBand<unsigned char>(3, 3, std::vector<unsigned char>(9))),
               Orl::Harnel::CBasicException);
}

template <class TPixel>
class HistogramEqualizationTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(HistogramEqualizationTest, Orl::Test::TAllPixelTypes);

// Monotone onto the documented range; two values go to its ends; constant bands stay; all no-data
// stays no-data.
TYPED_TEST(HistogramEqualizationTest, MonotoneOntoItsRange)
{
  using TPixel = TypeParam;
  constexpr bool bFullRange = std::is_integral<TPixel>::value && sizeof(TPixel) <= 2;
  const TPixel tLo = bFullRange ? std::numeric_limits<TPixel>::lowest() : TPixel(20);
  const TPixel tHi = bFullRange ? std::numeric_limits<TPixel>::max() : TPixel(100);

  const auto vecSrc = RandomPixels<TPixel>(64 * 40, 17, 20.0, 100.0);
  auto oSrc = MakeBand<TPixel>(64, 40, vecSrc);
  const auto vecOut = ReadPixels(Equalized(oSrc));
  TPixel tMin, tMax;
  oSrc.GetMinMax(tMin, tMax);
  std::vector<std::size_t> vecOrder(vecSrc.size());
  for (std::size_t i = 0; i < vecOrder.size(); ++i)
    vecOrder[i] = i;
  std::sort(vecOrder.begin(), vecOrder.end(), [&](std::size_t a, std::size_t b) { return vecSrc[a] < vecSrc[b]; });
  for (std::size_t i = 1; i < vecOrder.size(); ++i)
    ASSERT_LE(vecOut[vecOrder[i - 1]], vecOut[vecOrder[i]]) << "monotone";
  EXPECT_EQ(*std::max_element(vecOut.begin(), vecOut.end()), bFullRange ? tHi : tMax);

  std::vector<TPixel> vecTwo(30, TPixel(20));
  std::fill(vecTwo.begin() + 10, vecTwo.end(), TPixel(100));
  const auto vecTwoOut = ReadPixels(Equalized(MakeBand<TPixel>(6, 5, vecTwo)));
  EXPECT_EQ(vecTwoOut.front(), tLo);
  EXPECT_EQ(vecTwoOut.back(), tHi);

  const std::vector<TPixel> vecConstant(30, TPixel(42));
  EXPECT_EQ(ReadPixels(Equalized(MakeBand<TPixel>(6, 5, vecConstant))), vecConstant);
  auto oNoData = MakeBand<TPixel>(6, 5, vecConstant);
  oNoData.SetNoDataValue(TPixel(42));
  const auto oNoDataOut = Equalized(oNoData);
  EXPECT_EQ(ReadPixels(oNoDataOut), std::vector<TPixel>(30, oNoDataOut.GetNoDataValue()));
}

// ---------------------------------------------------------------------------------------------------
// Gradient orientation

template <class TPolicy = SInvalidatePolicy, class TDestPixel = float, class TSrcPixel, class TTag>
CBand<TDestPixel, TTag> Orientations(const CBand<TSrcPixel, TTag>& oSrc, unsigned nWidth, unsigned nHeight)
{
  CBand<TDestPixel, TTag> oDest(nWidth, nHeight);
  CGradientOrientationFilter().Apply<TPolicy>(oDest, oSrc);
  return oDest;
}

double AngleDistance(double a, double b)
{
  const double d = std::fmod(std::abs(a - b), M_PI);
  return std::min(d, M_PI - d);
}

template <class TPixel>
class GradientOrientationTest : public ::testing::Test
{
};
using TGradientSources = ::testing::Types<unsigned char, unsigned short, short, float>;
TYPED_TEST_SUITE(GradientOrientationTest, TGradientSources);

// Ramps in eight directions and their negations, at the source's size (inner pixels: the replicated
// edge bends the border's gradients) and reduced by 8 (inner cells).
TYPED_TEST(GradientOrientationTest, RampsGiveTheirDirection)
{
  using TPixel = TypeParam;
  const unsigned nSize = 40;
  for (int a = -1; a <= 1; ++a)
    for (int b = -1; b <= 1; ++b)
    {
      if (a == 0 && b == 0)
        continue;
      std::vector<TPixel> vecRamp;
      for (unsigned y = 0; y < nSize; ++y)
        for (unsigned x = 0; x < nSize; ++x)
          vecRamp.push_back(TPixel(100 + a * int(x) + b * int(y)));
      const double dExpected = std::fmod(std::atan2(double(b), double(a)) + 2 * M_PI, M_PI);
      const auto vecFull = ReadPixels(Orientations(MakeBand<TPixel>(nSize, nSize, vecRamp), nSize, nSize));
      for (unsigned y = 1; y + 1 < nSize; ++y)
        for (unsigned x = 1; x + 1 < nSize; ++x)
        {
          ASSERT_LT(AngleDistance(vecFull[y * nSize + x], dExpected), 1e-5) << a << "," << b << " at " << x << "," << y;
          ASSERT_GE(vecFull[y * nSize + x], 0.0f);
          ASSERT_LT(vecFull[y * nSize + x], float(M_PI));
        }
      const auto vecSmall = ReadPixels(Orientations(MakeBand<TPixel>(nSize, nSize, vecRamp), 5, 5));
      for (unsigned y = 1; y < 4; ++y)
        for (unsigned x = 1; x < 4; ++x)
          ASSERT_LT(AngleDistance(vecSmall[y * 5 + x], dExpected), 1e-5) << a << "," << b << " reduced";
    }
}

// One no-data pixel in a ramp: Invalidate loses its 3 x 3 neighbourhood, SkipNonCenter the pixel
// alone, Ignore nothing.
TEST(GradientOrientationFilterTest, NoDataPolicies)
{
  const unsigned nSize = 9;
  std::vector<float> vecRamp;
  for (unsigned y = 0; y < nSize; ++y)
    for (unsigned x = 0; x < nSize; ++x)
      vecRamp.push_back(float(x + 2 * y));
  vecRamp[4 * nSize + 4] = -1.0f;
  auto oSrc = MakeBand<float>(nSize, nSize, vecRamp);
  oSrc.SetNoDataValue(-1.0f);
  const auto fnInvalid = [](const CBand<float, SMemoryTag>& oBand) {
    const auto vec = ReadPixels(oBand);
    return oBand.HasNoDataValue() ? std::count(vec.begin(), vec.end(), oBand.GetNoDataValue()) : 0;
  };
  EXPECT_EQ(fnInvalid(Orientations<SInvalidatePolicy>(oSrc, nSize, nSize)), 9);
  EXPECT_EQ(fnInvalid(Orientations<SSkipNonCenterNoDataPolicy>(oSrc, nSize, nSize)), 1);
  EXPECT_EQ(fnInvalid(Orientations<SIgnoreNoDataPolicy>(oSrc, nSize, nSize)), 0);
  EXPECT_EQ(fnInvalid(Orientations<SInvalidatePolicy>(oSrc, 3, 3)), 1); // the centre cell is the lost 3 x 3
  EXPECT_EQ(fnInvalid(Orientations<SInvalidatePolicy>(oSrc, 2, 2)), 0); // each cell keeps valid pixels
  EXPECT_EQ(CGradientOrientationFilter().GetName(), "Gradient Orientation Resample Filter");
}

TEST(GradientOrientationFilterTest, TilesEqualMemory)
{
  const Orl::Test::CTileBudget oBudget(2u << 20);
  const unsigned nW = 1100, nH = 600;
  auto vecSrc = RandomPixels<float>(nW * nH, 21, 0.0, 50.0);
  for (std::size_t i = 0; i < vecSrc.size(); i += 97)
    vecSrc[i] = -1.0f;
  auto oMem = MakeBand<float>(nW, nH, vecSrc);
  auto oTile = MakeBand<float, STileTag>(nW, nH, vecSrc);
  oMem.SetNoDataValue(-1.0f);
  oTile.SetNoDataValue(-1.0f);
  EXPECT_EQ(ReadPixels(Orientations(oMem, 407, 1300)), ReadPixels(Orientations(oTile, 407, 1300)));
  EXPECT_EQ(ReadPixels(Orientations<SSkipNonCenterNoDataPolicy>(oMem, 133, 77)),
            ReadPixels(Orientations<SSkipNonCenterNoDataPolicy>(oTile, 133, 77)));
}

// ---------------------------------------------------------------------------------------------------
// Colour conversion

template <class TPixel, class TTag = SMemoryTag>
using TTriple = std::array<CBand<TPixel, TTag>, 3>;

template <class TPixel, class TTag>
TTriple<TPixel, TTag> Converted(EColorConversion e, const TTriple<TPixel, TTag>& aSrc)
{
  const unsigned nW = aSrc[0].GetWidth(), nH = aSrc[0].GetHeight();
  TTriple<TPixel, TTag> aDest{CBand<TPixel, TTag>(nW, nH), CBand<TPixel, TTag>(nW, nH), CBand<TPixel, TTag>(nW, nH)};
  CColorConversionFilter(e).Apply(aDest[0], aDest[1], aDest[2], aSrc[0], aSrc[1], aSrc[2]);
  return aDest;
}

// Every 17th level of each channel, one colour per pixel, as bytes or as floats in [0, 1].
template <class TPixel, class TTag = SMemoryTag>
TTriple<TPixel, TTag> ColourGrid()
{
  std::array<std::vector<TPixel>, 3> aPixels;
  for (int i = 0; i < 16 * 16 * 16; ++i)
    for (int c = 0; c < 3; ++c)
    {
      const int nLevel = (c == 0 ? i / 256 : c == 1 ? i / 16 : i) % 16 * 17;
      aPixels[c].push_back(std::is_integral<TPixel>::value ? TPixel(nLevel) : TPixel(nLevel / 255.0));
    }
  return {MakeBand<TPixel, TTag>(64, 64, aPixels[0]), MakeBand<TPixel, TTag>(64, 64, aPixels[1]),
          MakeBand<TPixel, TTag>(64, 64, aPixels[2])};
}

TEST(ColorConversionFilterTest, ReferenceColours)
{
  const struct
  {
    const char* szName;
    EColorConversion e;
    std::array<float, 3> aRgb, aExpected;
    float fTolerance;
  } aCases[] = {
    {"red HSV", eRgbToHsv, {1, 0, 0}, {0, 1, 1}, 1e-6f},
    {"white HSV", eRgbToHsv, {1, 1, 1}, {0, 0, 1}, 1e-6f},
    {"blue HSV", eRgbToHsv, {0, 0, 1}, {240, 1, 1}, 1e-4f},
    {"red HSL", eRgbToHsl, {1, 0, 0}, {0, 1, 0.5f}, 1e-6f},
    {"mid gray HSL", eRgbToHsl, {0.5f, 0.5f, 0.5f}, {0, 0, 0.5f}, 1e-6f},
    {"red YCbCr", eRgbToYCbCr, {1, 0, 0}, {0.299f, -0.168736f, 0.5f}, 1e-5f},
    {"white YCbCr", eRgbToYCbCr, {1, 1, 1}, {1, 0, 0}, 1e-5f},
    {"red Lab", eRgbToLab, {1, 0, 0}, {53.2408f, 80.0925f, 67.2032f}, 2e-2f},
    {"white Lab", eRgbToLab, {1, 1, 1}, {100, 0, 0}, 2e-2f},
    {"mid gray Lab", eRgbToLab, {0.5f, 0.5f, 0.5f}, {53.3890f, 0, 0}, 2e-2f},
  };
  for (const auto& oCase : aCases)
  {
    TTriple<float> aSrc{MakeBand<float>(1, 1, {oCase.aRgb[0]}), MakeBand<float>(1, 1, {oCase.aRgb[1]}),
                        MakeBand<float>(1, 1, {oCase.aRgb[2]})};
    const auto aOut = Converted(oCase.e, aSrc);
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(ReadPixels(aOut[c])[0], oCase.aExpected[c], oCase.fTolerance) << oCase.szName << " band " << c;
  }
  auto oRed = MakeBand<unsigned char>(1, 1, {255}), oZero = MakeBand<unsigned char>(1, 1, {0}), oGray = oZero;
  CColorConversionFilter(eRgbToGray).Apply(oGray, oRed, oZero, oZero);
  EXPECT_EQ(ReadPixels(oGray)[0], 76); // 0.299 * 255
  EXPECT_THROW(CColorConversionFilter(eRgbToHsv).Apply(oGray, oRed, oZero, oZero), Orl::Harnel::CBasicException);
}

template <class TPixel>
class ColorConversionTest : public ::testing::Test
{
};
using TColourPixels = ::testing::Types<unsigned char, float>;
TYPED_TEST_SUITE(ColorConversionTest, TColourPixels);

TYPED_TEST(ColorConversionTest, RoundTripsWithinTheirTolerance)
{
  using TPixel = TypeParam;
  const bool bBytes = std::is_integral<TPixel>::value;
  const struct
  {
    EColorConversion eThere, eBack;
    double dByteTolerance;
  } aCases[] = {
    {eRgbToHsv, eHsvToRgb, 4}, {eRgbToHsl, eHslToRgb, 4}, {eRgbToYCbCr, eYCbCrToRgb, 1}, {eRgbToLab, eLabToRgb, 17}};
  const auto aGrid = ColourGrid<TPixel>();
  for (const auto& oCase : aCases)
  {
    const auto aBack = Converted(oCase.eBack, Converted(oCase.eThere, aGrid));
    for (int c = 0; c < 3; ++c)
    {
      const auto vecGot = ReadPixels(aBack[c]), vecExpected = ReadPixels(aGrid[c]);
      for (std::size_t i = 0; i < vecGot.size(); ++i)
        ASSERT_NEAR(double(vecGot[i]), double(vecExpected[i]), bBytes ? oCase.dByteTolerance : 1e-4)
          << "conversion " << oCase.eThere << " band " << c << " pixel " << i;
    }
  }
}

// No-data in one source band is no-data in all destinations; tile bands give the memory results.
TEST(ColorConversionFilterTest, NoDataAndTiles)
{
  auto aMem = ColourGrid<unsigned char>();
  auto aTile = ColourGrid<unsigned char, STileTag>();
  aMem[1].SetNoDataValue(34);
  aTile[1].SetNoDataValue(34);
  const auto aOut = Converted(eRgbToLab, aMem);
  const auto aTileOut = Converted(eRgbToLab, aTile);
  const auto vecGreen = ReadPixels(aMem[1]);
  for (int c = 0; c < 3; ++c)
  {
    const auto vecOut = ReadPixels(aOut[c]);
    ASSERT_TRUE(aOut[c].HasNoDataValue());
    for (std::size_t i = 0; i < vecOut.size(); ++i)
    {
      if (vecGreen[i] == 34)
      {
        ASSERT_EQ(vecOut[i], aOut[c].GetNoDataValue()) << "band " << c << " pixel " << i;
      }
    }
    EXPECT_EQ(vecOut, ReadPixels(aTileOut[c]));
  }
}

} // namespace
