// Fourier transforms, resampling, histogram equalization and gradient orientation: oracles and
// properties, on memory and tile bands.

#include "Filter/FftFilter.h"
#include "Foundation/BasicException.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <cmath>
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
  } aCases[] = {{0, 1}, {1, 1}, {2, 2}, {3, 4}, {5, 8}, {1000, 1024}, {1024, 1024}, {1025, 2048}, {2147483648u, 2147483648u}};
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

// Against the plain O(n^2) sum on the zero-padded source, no-data counting as 0; with an impulse at
// (a, b) the sum is the phase ramp exp(-2 pi i (u a / Nx + v b / Ny)) itself. Then back again.
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
                {17, 2, false}, {11, 5, true}, {16, 8, true}};
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
    for (unsigned v = 0; v < nY; ++v)
      for (unsigned u = 0; u < nX; ++u)
      {
        std::complex<double> oSum;
        for (unsigned y = 0; y < nH; ++y)
          for (unsigned x = 0; x < nW; ++x)
            oSum += double(vecSrc[y * nW + x]) *
                    std::polar(1.0, -2.0 * M_PI * (double(u * x) / nX + double(v * y) / nY));
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

// Bands of several tiles, spilled: tile results are the memory results to the bit, both ways.
TYPED_TEST(FftTest, TilesEqualMemory)
{
  using TPixel = typename TypeParam::TPixelType;
  if (std::is_same<typename TypeParam::TTagType, SMemoryTag>::value)
    GTEST_SKIP() << "memory is the reference";
  const Orl::Test::CTileBudget oBudget(3u << 20);
  const unsigned nW = 2 * Orl::Ostrel::Band::Detail::STileSize<TPixel>::ms_nX + 77, nH = 300;
  const unsigned nX = CFftForwardFilter::GetFftSize(nW), nY = CFftForwardFilter::GetFftSize(nH);
  const auto vecSrc = RandomPixels<TPixel>(nW * nH, 5);
  auto oMemSrc = MakeBand<TPixel>(nW, nH, vecSrc);
  auto oTileSrc = MakeBand<TPixel, STileTag>(nW, nH, vecSrc);
  CBand<TPixel, SMemoryTag> oMemRe(nX, nY), oMemIm(nX, nY), oMemBack(nW - 5, nH - 3);
  CBand<TPixel, STileTag> oTileRe(nX, nY), oTileIm(nX, nY), oTileBack(nW - 5, nH - 3);
  CFftForwardFilter().Apply(oMemRe, oMemIm, oMemSrc);
  CFftForwardFilter().Apply(oTileRe, oTileIm, oTileSrc);
  EXPECT_EQ(ReadPixels(oMemRe), ReadPixels(oTileRe));
  EXPECT_EQ(ReadPixels(oMemIm), ReadPixels(oTileIm));
  CFftReverseFilter().Apply(oMemBack, oMemRe, oMemIm);
  CFftReverseFilter().Apply(oTileBack, oTileRe, oTileIm);
  EXPECT_EQ(ReadPixels(oMemBack), ReadPixels(oTileBack));
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

} // namespace
