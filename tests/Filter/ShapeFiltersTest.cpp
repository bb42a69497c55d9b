// Skeletons, distance transforms and gray-scale reconstruction: against brute-force references and
// hand-worked shapes, on every storage kind, tile bands also while the cache spills.

#include "Filter/Detail/WorkBuffer.h"
#include "Filter/DistanceTransformFilter.h"
#include "Filter/DistanceTransformMeijsterFilter.h"
#include "Filter/GrayscaleReconstructionFilter.h"
#include "Filter/SkeletonGuoHallA1Filter.h"
#include "Filter/SkeletonGuoHallA2Filter.h"
#include "Filter/SkeletonSimpleFilter.h"
#include "Filter/SkeletonZhangSuenFilter.h"
#include "Foundation/BasicException.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace Orl::Ostrel;
using namespace Orl::Ostrel::Filter;
using Band::CBand;

// A picture in row order with its size; no-data as a flag per pixel.
template <class T>
struct SImage
{
  int m_nWidth = 0, m_nHeight = 0;
  std::vector<T> m_vec;
  T& At(int x, int y) { return m_vec[std::size_t(y) * m_nWidth + x]; }
  T At(int x, int y) const { return m_vec[std::size_t(y) * m_nWidth + x]; }
  bool In(int x, int y) const { return x >= 0 && y >= 0 && x < m_nWidth && y < m_nHeight; }
};

template <class T, class TTag>
CBand<T, TTag> MakeBand(const SImage<T>& oImage, bool bNoData, T tNoData)
{
  CBand<T, TTag> oBand(oImage.m_nWidth, oImage.m_nHeight);
  if (bNoData)
    oBand.SetNoDataValue(tNoData);
  Orl::Test::WritePixels(oBand, oImage.m_vec);
  return oBand;
}

template <class T>
bool SameBits(const std::vector<T>& a, const std::vector<T>& b)
{
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// Runs fn(dest band, src band) on every storage kind and checks that all give the memory result,
// which it returns; the destination starts as a copy of the source (in place when bInPlace).
template <class TDest, class TSrc, class TFn>
std::vector<TDest> OnEveryKind(const SImage<TSrc>& oSrc, bool bNoData, typename std::vector<TSrc>::value_type tNoData,
                               TFn fn, bool bInPlace = false)
{
  auto fnRun = [&](auto tag) {
    using TTag = decltype(tag);
    auto oSrcBand = MakeBand<TSrc, TTag>(oSrc, bNoData, tNoData);
    if constexpr (std::is_same<TDest, TSrc>::value)
      if (bInPlace)
      {
        fn(oSrcBand, oSrcBand);
        return Orl::Test::ReadPixels(oSrcBand);
      }
    CBand<TDest, TTag> oDest(oSrc.m_nWidth, oSrc.m_nHeight);
    fn(oDest, oSrcBand);
    return Orl::Test::ReadPixels(oDest);
  };
  const auto vecMemory = fnRun(Band::SMemoryTag());
  EXPECT_TRUE(SameBits(vecMemory, fnRun(Band::SIPPTag()))) << "IPP";
  EXPECT_TRUE(SameBits(vecMemory, fnRun(Band::STileTag()))) << "tiles";
  return vecMemory;
}

// Random blobs: discs of random radius, plus scattered single pixels.
SImage<unsigned char> Blobs(std::mt19937& oRng, int nWidth, int nHeight, int nDiscs, int nMaxRadius)
{
  SImage<unsigned char> o{nWidth, nHeight, std::vector<unsigned char>(std::size_t(nWidth) * nHeight, 0)};
  for (int d = 0; d < nDiscs; ++d)
  {
    const int cx = int(oRng() % nWidth), cy = int(oRng() % nHeight), r = 1 + int(oRng() % nMaxRadius);
    for (int y = std::max(0, cy - r); y < std::min(nHeight, cy + r + 1); ++y)
      for (int x = std::max(0, cx - r); x < std::min(nWidth, cx + r + 1); ++x)
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
          o.At(x, y) = 1;
  }
  for (int i = 0; i < nWidth * nHeight / 50; ++i)
    o.At(int(oRng() % nWidth), int(oRng() % nHeight)) ^= 1;
  return o;
}

// --- Distance transforms -----------------------------------------------------------------------------

template <class TOut>
TOut Rounded(double v)
{
  if (std::is_floating_point<TOut>::value)
    return TOut(v);
  return v >= double(std::numeric_limits<TOut>::max()) ? std::numeric_limits<TOut>::max() : TOut(std::llround(v));
}

const EDistanceTransformMode g_aModes[] = {eDistanceTransformEuclidean, eDistanceTransformSquaredEuclidean,
                                           eDistanceTransformCityBlock, eDistanceTransformChessboard};

// The exact distance of every pixel by exhaustive search, in the metric's own units (squared for the
// Euclidean modes); -1 for invalid pixels and everywhere when there is no background. Class: 0
// background, 1 foreground, 2 invalid.
std::vector<long long> BruteForce(const SImage<unsigned char>& oClass, EDistanceTransformMode eMode)
{
  std::vector<long long> vec(oClass.m_vec.size(), -1);
  for (std::size_t i = 0; i < vec.size(); ++i)
    for (std::size_t j = 0; j < vec.size() && oClass.m_vec[i] != 2; ++j)
    {
      const long long dx = std::abs(long(i % oClass.m_nWidth) - long(j % oClass.m_nWidth));
      const long long dy = std::abs(long(i / oClass.m_nWidth) - long(j / oClass.m_nWidth));
      const long long d = eMode == eDistanceTransformCityBlock    ? dx + dy
                          : eMode == eDistanceTransformChessboard ? std::max(dx, dy)
                                                                  : dx * dx + dy * dy;
      if (oClass.m_vec[j] == 0 && (vec[i] < 0 || d < vec[i]))
        vec[i] = d;
    }
  return vec;
}

template <class TPair>
struct DistanceTransformTest : ::testing::Test
{
};
using TDistancePairs = ::testing::Types<std::pair<unsigned char, unsigned char>, std::pair<short, short>,
                                        std::pair<unsigned int, unsigned int>, std::pair<int, int>,
                                        std::pair<float, float>, std::pair<double, double>,
                                        std::pair<float, unsigned char>, std::pair<float, short>,
                                        std::pair<float, double>, std::pair<unsigned short, unsigned short>>;
TYPED_TEST_SUITE(DistanceTransformTest, TDistancePairs);

TYPED_TEST(DistanceTransformTest, ExactAgainstExhaustiveSearchChamferWithinItsBound)
{
  using TOut = typename TypeParam::first_type;
  using TIn = typename TypeParam::second_type;
  std::mt19937 oRng(sizeof(TOut) * 7 + sizeof(TIn));
  const TIn tNoData = TIn(7);
  struct SCase
  {
    int w, h;
    double dBackground, dInvalid;
  } aCases[] = {{1, 1, 0.5, 0}, {1, 19, 0.1, 0}, {23, 1, 0.2, 0.1}, {37, 29, 0.02, 0.05},
                {40, 33, 0.3, 0}, {31, 17, 0, 0.1}, {25, 25, 0.002, 0}, {6, 40, 1, 0},
                {7, 203, 0.004, 0.01}}; // several blocks of rows, columns whose background is blocks away or absent
  for (const SCase& c : aCases)
  {
    SImage<unsigned char> oClass{c.w, c.h, std::vector<unsigned char>(std::size_t(c.w) * c.h)};
    SImage<TIn> oSrc{c.w, c.h, std::vector<TIn>(oClass.m_vec.size())};
    std::uniform_real_distribution<double> oUniform(0, 1);
    for (std::size_t i = 0; i < oSrc.m_vec.size(); ++i)
    {
      const double r = oUniform(oRng);
      oClass.m_vec[i] = r < c.dBackground ? 0 : r < c.dBackground + c.dInvalid ? 2 : 1;
      oSrc.m_vec[i] = oClass.m_vec[i] == 0 ? TIn(0) : oClass.m_vec[i] == 2 ? tNoData : TIn(1 + oRng() % 5);
      if (std::is_floating_point<TIn>::value && oClass.m_vec[i] == 2 && (i & 1))
        oSrc.m_vec[i] = std::numeric_limits<TIn>::quiet_NaN();
    }
    for (const auto eMode : g_aModes)
    {
      const std::string strWhat = std::to_string(c.w) + "x" + std::to_string(c.h) + " mode " + std::to_string(eMode);
      const auto vecExact = BruteForce(oClass, eMode);
      const TOut tOutNoData = TOut(Band::SNoDataValueHint<TOut>::ms_tNoDataValue);
      std::vector<TOut> vecExpected(vecExact.size());
      for (std::size_t i = 0; i < vecExact.size(); ++i)
        vecExpected[i] = vecExact[i] < 0 ? tOutNoData
                                         : Rounded<TOut>(eMode == eDistanceTransformEuclidean ? std::sqrt(double(vecExact[i]))
                                                                                             : double(vecExact[i]));
      const bool bInPlace = std::is_same<TOut, TIn>::value && (c.w & 1);
      const auto vecMeijster = OnEveryKind<TOut>(
        oSrc, true, tNoData,
        [&](auto& oDest, const auto& oBand) { CDistanceTransformMeijsterFilter(eMode).Apply(oDest, oBand); }, bInPlace);
      if constexpr (std::is_same<TOut, TIn>::value)
        if (bInPlace) // the destination's no-data value is the source's
          for (std::size_t i = 0; i < vecExact.size(); ++i)
            if (vecExact[i] < 0)
              vecExpected[i] = TOut(tNoData);
      EXPECT_TRUE(SameBits(vecExpected, vecMeijster)) << strWhat;

      const auto vecChamfer = OnEveryKind<TOut>(
        oSrc, true, tNoData, [&](auto& oDest, const auto& oBand) { CDistanceTransformFilter(eMode).Apply(oDest, oBand); },
        bInPlace);
      // Exact for city block and chessboard; else within 2 % of the distance (of its square: 4.04 %),
      // plus the rounding to the type. Where the exact result is no-data or saturated, all bits agree.
      const bool bEuclidean = eMode == eDistanceTransformEuclidean;
      for (std::size_t i = 0; i < vecExact.size(); ++i)
      {
        const double e = double(vecExact[i]), dChamfer = double(vecChamfer[i]);
        const double dBound = eMode == eDistanceTransformCityBlock || eMode == eDistanceTransformChessboard ? 0.0
                              : bEuclidean                                                              ? 0.02 * std::sqrt(e)
                                                                                                        : 0.0404 * e;
        if (vecExact[i] >= 0 && dChamfer >= double(std::numeric_limits<TOut>::max()))
          continue; // saturated
        if (vecExact[i] < 0 || dBound == 0.0)
          ASSERT_TRUE(SameBits(std::vector<TOut>{vecExpected[i]}, std::vector<TOut>{vecChamfer[i]})) << strWhat << " at " << i;
        else
          ASSERT_LE(std::fabs(dChamfer - (bEuclidean ? std::sqrt(e) : e)),
                    dBound + (std::is_floating_point<TOut>::value ? 1e-5 * (1 + e) : 0.5))
            << strWhat << " at " << i;
      }
    }
  }
}

// --- Skeletons ----------------------------------------------------------------------------------------

struct SSkeleton
{
  const char* m_pName;
  std::function<std::vector<unsigned char>(const SImage<unsigned char>&)> m_fnRun;
  bool m_bKeepsTopology;
  bool m_bReduced; // every pixel left is an end point or not simple: none can go alone
};

template <class TFilter>
SSkeleton Skeleton(const char* pName, bool bKeepsTopology, bool bReduced)
{
  return {pName,
          [](const SImage<unsigned char>& o) {
            return OnEveryKind<unsigned char>(o, false, 0, [](auto& d, const auto& s) { TFilter().Apply(d, s); });
          },
          bKeepsTopology, bReduced};
}

std::vector<SSkeleton> Skeletons()
{
  return {Skeleton<CSkeletonZhangSuenFilter>("ZhangSuen", false, false),
          Skeleton<CSkeletonGuoHallA1Filter>("GuoHallA1", true, false),
          Skeleton<CSkeletonGuoHallA2Filter>("GuoHallA2", true, true), Skeleton<CSkeletonSimpleFilter>("Simple", true, true)};
}

// The counts of the papers around pixel (x, y), pixels outside the picture background. P2 north,
// clockwise to P9 north-west, P10 = P2; x1 east, counter-clockwise to x8 south-east, x9 = x1. B:
// foreground neighbours; A: background-to-foreground steps from P2 round to P2; C: 8-connected
// foreground parts around the pixel, 1 exactly when the pixel is simple; N = min(N1, N2).
struct SNeighbourhood
{
  std::array<int, 11> P;
  std::array<int, 10> X;
  int B = 0, A = 0, C = 0, N = 0;

  SNeighbourhood(const SImage<unsigned char>& o, int x, int y)
  {
    auto fnAt = [&](int u, int v) { return int(o.In(u, v) && o.At(u, v) == 1); };
    P = {0, 0, fnAt(x, y - 1), fnAt(x + 1, y - 1), fnAt(x + 1, y), fnAt(x + 1, y + 1), fnAt(x, y + 1),
         fnAt(x - 1, y + 1), fnAt(x - 1, y), fnAt(x - 1, y - 1), fnAt(x, y - 1)};
    for (int i = 2; i <= 9; ++i)
    {
      B += P[i];
      A += !P[i] && P[i + 1];
    }
    X = {0, P[4], P[3], P[2], P[9], P[8], P[7], P[6], P[5], P[4]};
    int N1 = 0, N2 = 0;
    for (int i = 1; i <= 4; ++i)
    {
      C += !X[2 * i - 1] && (X[2 * i] || X[2 * i + 1]);
      N1 += X[2 * i - 1] || X[2 * i];
      N2 += X[2 * i] || X[2 * i + 1];
    }
    N = std::min(N1, N2);
  }
};

SImage<unsigned char> Parse(const std::vector<std::string>& vecRows)
{
  SImage<unsigned char> o{int(vecRows[0].size()), int(vecRows.size()), {}};
  for (const auto& str : vecRows)
    for (char c : str)
      o.m_vec.push_back(c == '#');
  return o;
}

// Components of the foreground (8-connected) and of the background (4-connected, the outside of the
// band included as one): the two numbers that thinning must keep.
std::pair<int, int> Topology(const SImage<unsigned char>& oImage)
{
  SImage<unsigned char> o{oImage.m_nWidth + 2, oImage.m_nHeight + 2, {}};
  o.m_vec.assign(std::size_t(o.m_nWidth) * o.m_nHeight, 0);
  for (int y = 0; y < oImage.m_nHeight; ++y)
    for (int x = 0; x < oImage.m_nWidth; ++x)
      o.At(x + 1, y + 1) = oImage.At(x, y) == 1;
  int aCount[2] = {0, 0};
  for (int y0 = 0; y0 < o.m_nHeight; ++y0)
    for (int x0 = 0; x0 < o.m_nWidth; ++x0)
    {
      const unsigned char v = o.At(x0, y0); // 2 + v once seen
      if (v > 1)
        continue;
      ++aCount[v];
      o.At(x0, y0) = 2 + v;
      for (std::vector<std::pair<int, int>> vecStack{{x0, y0}}; !vecStack.empty();)
      {
        const auto [x, y] = vecStack.back();
        vecStack.pop_back();
        for (int dy = -1; dy <= 1; ++dy)
          for (int dx = -1; dx <= 1; ++dx)
            if ((v == 1 || dx == 0 || dy == 0) && o.In(x + dx, y + dy) && o.At(x + dx, y + dy) == v)
            {
              o.At(x + dx, y + dy) = 2 + v;
              vecStack.push_back({x + dx, y + dy});
            }
      }
    }
  return {aCount[1], aCount[0]};
}

// Zhang-Suen (bZhangSuen) or Guo-Hall A1 as the papers run them: every pixel of the band tested in
// every subiteration, from the conditions in the filters' headers, until an iteration deletes nothing.
std::vector<unsigned char> PlainTwoSubiterationThinning(SImage<unsigned char> o, bool bZhangSuen)
{
  for (bool bChanged = true; bChanged;)
  {
    bChanged = false;
    for (int nSub = 0; nSub < 2; ++nSub)
    {
      std::vector<std::size_t> vecDelete;
      for (int y = 0; y < o.m_nHeight; ++y)
        for (int x = 0; x < o.m_nWidth; ++x)
        {
          const SNeighbourhood n(o, x, y);
          const auto& P = n.P;
          const auto& X = n.X;
          const bool bDelete =
            bZhangSuen ? n.B >= 2 && n.B <= 6 && n.A == 1 &&
                           (nSub == 0 ? !(P[2] && P[4] && P[6]) && !(P[4] && P[6] && P[8]) : !(P[2] && P[4] && P[8]) && !(P[2] && P[6] && P[8]))
                       : n.C == 1 && n.N >= 2 && n.N <= 3 && (nSub == 0 ? !((X[2] || X[3] || !X[8]) && X[1]) : !((X[6] || X[7] || !X[4]) && X[5]));
          if (o.At(x, y) == 1 && bDelete)
            vecDelete.push_back(std::size_t(y) * o.m_nWidth + x);
        }
      for (const std::size_t i : vecDelete)
        o.m_vec[i] = 0;
      bChanged |= !vecDelete.empty();
    }
  }
  return o.m_vec;
}

// Random blobs from single discs to dense overlapping ones pierced by single-pixel holes, on sizes about
// and across the thinning's 64-pixel words and its blocks of rows. Zhang-Suen and Guo-Hall A1 as the
// plain parallel run gives them; every result inside the foreground and stable; the topology kept where
// promised; no simple pixel left by the reduced ones.
TEST(SkeletonFilters, RandomBlobsAgainstThePlainRunAndProperties)
{
  std::mt19937 oRng(5);
  const auto vecSkeletons = Skeletons();
  for (int nCase = 0; nCase < 16; ++nCase)
  {
    const auto oImage = Blobs(oRng, 1 + int(oRng() % 200), 1 + int(oRng() % 150), 1 + nCase * nCase / 3, 3 + int(oRng() % (3 + 2 * nCase)));
    for (std::size_t a = 0; a < vecSkeletons.size(); ++a)
    {
      const SSkeleton& oSkeleton = vecSkeletons[a];
      const std::string strWhat = std::string(oSkeleton.m_pName) + " case " + std::to_string(nCase);
      SImage<unsigned char> oResult{oImage.m_nWidth, oImage.m_nHeight, oSkeleton.m_fnRun(oImage)};
      if (a < 2)
      {
        ASSERT_EQ(oResult.m_vec, PlainTwoSubiterationThinning(oImage, a == 0)) << strWhat;
      }
      for (std::size_t i = 0; i < oImage.m_vec.size(); ++i)
        ASSERT_LE(oResult.m_vec[i], oImage.m_vec[i]) << strWhat << ": outside the foreground at " << i;
      EXPECT_EQ(oSkeleton.m_fnRun(oResult), oResult.m_vec) << strWhat << ": not stable";
      EXPECT_TRUE(!oSkeleton.m_bKeepsTopology || Topology(oImage) == Topology(oResult)) << strWhat << ": topology changed";
      for (int y = 0; y < oImage.m_nHeight && oSkeleton.m_bReduced; ++y)
        for (int x = 0; x < oImage.m_nWidth; ++x)
        {
          const SNeighbourhood n(oResult, x, y);
          ASSERT_FALSE(oResult.At(x, y) && n.C == 1 && n.B >= 2) << strWhat << ": simple pixel left at " << x << "," << y;
        }
    }
  }
}

// Worked by hand from each algorithm's conditions (see the filters' headers); rows top to bottom,
// '#' foreground. Order of the expected results: ZhangSuen, GuoHallA1, GuoHallA2, Simple.
TEST(SkeletonFilters, WorkedShapes)
{
  struct SShape
  {
    const char* m_pName;
    std::vector<std::string> m_vecIn;
    std::vector<std::vector<std::string>> m_vecExpected;
  };
  const SShape aShapes[] = {
    // Zhang-Suen's flaw: all four pass the first subiteration at once. A1 keeps the south-west pixel;
    // A2 deletes the even subfield (x + y even: top-left, bottom-right); the north pass takes the top row.
    {"square 2x2",
     {"....", ".##.", ".##.", "...."},
     {{"....", "....", "....", "...."},
      {"....", "....", ".#..", "...."},
      {"....", "..#.", ".#..", "...."},
      {"....", "....", ".##.", "...."}}},
    // Zhang-Suen: the first subiteration leaves the top, the left and the centre, the second the
    // centre. A1: the first leaves a 2 x 2 block at the bottom left, the second its north-east pixel.
    // A2: corners, then edges. Directional: north row, south row, then the middle row is stable.
    {"square 3x3 at the band's corner",
     {"###.", "###.", "###.", "...."},
     {{"....", ".#..", "....", "...."},
      {"....", ".#..", "....", "...."},
      {"....", ".#..", "....", "...."},
      {"....", "###.", "....", "...."}}},
  };
  const auto vecSkeletons = Skeletons();
  for (const SShape& oShape : aShapes)
    for (std::size_t a = 0; a < vecSkeletons.size(); ++a)
      EXPECT_EQ(vecSkeletons[a].m_fnRun(Parse(oShape.m_vecIn)), Parse(oShape.m_vecExpected[a]).m_vec)
        << oShape.m_pName << ", " << vecSkeletons[a].m_pName;
}

// Zhang-Suen's other flaw: a staircase two pixels wide has no deletable pixel inside, but its ends
// are, again and again, until two pixels are left. The others keep a line from end to end.
TEST(SkeletonFilters, ZhangSuenErodesTwoPixelWideDiagonals)
{
  const int n = 12;
  SImage<unsigned char> oImage{n, n, std::vector<unsigned char>(n * n, 0)};
  for (int i = 0; i + 1 < n; ++i)
    oImage.At(i, i) = oImage.At(i + 1, i) = 1;
  for (const auto& oSkeleton : Skeletons())
  {
    const SImage<unsigned char> oResult{n, n, oSkeleton.m_fnRun(oImage)};
    const int nPixels = int(std::count(oResult.m_vec.begin(), oResult.m_vec.end(), 1));
    bool bSpans = true; // a pixel in every row but the first and the last of the staircase
    for (int y = 1; y + 2 < n; ++y)
      bSpans &= oResult.At(y, y) || oResult.At(y + 1, y);
    if (!oSkeleton.m_bKeepsTopology)
      EXPECT_EQ(nPixels, 2);
    else
      EXPECT_TRUE(bSpans && nPixels <= n) << oSkeleton.m_pName;
  }
}

template <class T>
struct ShapeFilterTypedTest : ::testing::Test
{
};
TYPED_TEST_SUITE(ShapeFilterTypedTest, Orl::Test::TAllPixelTypes);

// Any non-zero valid pixel is foreground; invalid ones are background and keep the no-data value.
TYPED_TEST(ShapeFilterTypedTest, SkeletonValuesAndNoData)
{
  std::mt19937 oRng(sizeof(TypeParam));
  const auto oBlobs = Blobs(oRng, 45, 30, 6, 8);
  SImage<TypeParam> oSrc{45, 30, std::vector<TypeParam>(oBlobs.m_vec.size())};
  SImage<unsigned char> oExpectedIn = oBlobs;
  const TypeParam tNoData = TypeParam(3);
  for (std::size_t i = 0; i < oSrc.m_vec.size(); ++i)
  {
    oSrc.m_vec[i] = oBlobs.m_vec[i] ? TypeParam(1 + oRng() % 100) : TypeParam(0);
    if (oSrc.m_vec[i] == tNoData || oRng() % 20 == 0)
    {
      oSrc.m_vec[i] = tNoData;
      oExpectedIn.m_vec[i] = 0;
    }
  }
  const auto vecExpected = Skeletons()[1].m_fnRun(oExpectedIn);
  const auto vecResult = OnEveryKind<TypeParam>(
    oSrc, true, tNoData, [](auto& d, const auto& s) { CSkeletonGuoHallA1Filter().Apply(d, s); }, true);
  for (std::size_t i = 0; i < vecResult.size(); ++i)
    ASSERT_EQ(vecResult[i], oSrc.m_vec[i] == tNoData ? tNoData : TypeParam(vecExpected[i])) << i;
}

// --- Reconstruction -----------------------------------------------------------------------------------

TYPED_TEST(ShapeFilterTypedTest, ReconstructionEqualsRepeatedGeodesicDilation)
{
  using T = TypeParam;
  std::mt19937 oRng(sizeof(T) + 3);
  const T tNoData = T(9);
  // Random pixels, and a maze: walls on odd columns with a gap at alternate ends, the marker high at
  // the entrance only, so that the raster scans cannot finish and the queue carries the rest.
  // Tall bands run in several stripes, the tall maze's paths crossing every stripe border many times.
  for (const auto& [w, h, bMaze] : {std::tuple<int, int, bool>{1, 1, false}, {1, 30, false}, {30, 1, false},
                                    {33, 27, false}, {64, 40, false}, {41, 23, true}, {23, 300, false}, {11, 290, true}})
  {
    SImage<T> oMask{w, h, std::vector<T>(std::size_t(w) * h)}, oMarker = oMask;
    for (std::size_t i = 0; i < oMask.m_vec.size(); ++i)
    {
      const int nLow = std::is_signed<T>::value ? -15 : 0, v = nLow + int(oRng() % 40);
      const int x = int(i % w), y = int(i / w), nGapRow = (x / 2) % 2 ? 0 : h - 1;
      const bool bWall = bMaze && x % 2 && y != nGapRow;
      oMask.m_vec[i] = T(bWall ? nLow : v == 9 ? 10 : v + 100 * bMaze);
      oMarker.m_vec[i] = T(bMaze ? (i == 0 ? 140 : nLow) : std::max(nLow, v + 4 - int(oRng() % 35))); // now and then above the mask
      if (!bMaze && oRng() % 30 == 0)
        (oRng() % 2 ? oMask : oMarker).m_vec[i] = tNoData;
      if (std::is_floating_point<T>::value && !bMaze && oRng() % 40 == 0)
        oMarker.m_vec[i] = std::numeric_limits<T>::quiet_NaN();
    }
    // Reference: out pixels take no part; J = min(mask, 3 x 3 max of J) until nothing changes.
    std::vector<char> vecOut(oMask.m_vec.size());
    SImage<T> oJ = oMask;
    for (std::size_t i = 0; i < vecOut.size(); ++i)
    {
      vecOut[i] = oMask.m_vec[i] == tNoData || !(oMarker.m_vec[i] == oMarker.m_vec[i]) || oMarker.m_vec[i] == tNoData;
      oJ.m_vec[i] = std::min(oMarker.m_vec[i], oMask.m_vec[i]);
    }
    for (bool bChanged = true; bChanged;)
    {
      bChanged = false;
      SImage<T> oNext = oJ;
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
        {
          if (vecOut[std::size_t(y) * w + x])
            continue;
          T tMax = oJ.At(x, y);
          for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
              if (oJ.In(x + dx, y + dy) && !vecOut[std::size_t(y + dy) * w + x + dx])
                tMax = std::max(tMax, oJ.At(x + dx, y + dy));
          oNext.At(x, y) = std::min(tMax, oMask.At(x, y));
          bChanged |= oNext.At(x, y) != oJ.At(x, y);
        }
      oJ = oNext;
    }
    for (std::size_t i = 0; i < vecOut.size(); ++i)
      if (vecOut[i])
        oJ.m_vec[i] = Band::SNoDataValueHint<T>::ms_tNoDataValue;
    const auto vecResult = OnEveryKind<T>(oMarker, true, tNoData, [&](auto& oDest, const auto& oMarkerBand) {
      using TTag = typename std::decay_t<decltype(oMarkerBand)>::TTagType;
      CGrayscaleReconstructionFilter().Apply(oDest, oMarkerBand, MakeBand<T, TTag>(oMask, true, tNoData));
    });
    EXPECT_TRUE(SameBits(oJ.m_vec, vecResult)) << w << "x" << h;
  }
}

// --- Common --------------------------------------------------------------------------------------------

// Working arrays of several megabytes go from one call to the next with the last call's values in
// them: a result must not depend on what the array held.
TEST(ShapeFilters, ReusedWorkArraysGiveTheFreshResult)
{
  const int w = 1500, h = 1500;
  std::mt19937 oRng(5);
  const SImage<unsigned char> oFirst = Blobs(oRng, w, h, 40, 300), oSecond = Blobs(oRng, w, h, 400, 40);
  const auto fnRun = [&](const SImage<unsigned char>& oImage) {
    SImage<float> oMask{w, h, std::vector<float>(oImage.m_vec.begin(), oImage.m_vec.end())}, oMarker = oMask;
    for (std::size_t i = 0; i < oMarker.m_vec.size(); i += 97)
      oMarker.m_vec[i] = 0.0f;
    CBand<float, Band::SMemoryTag> oDistance(w, h), oReconstruction(w, h);
    CDistanceTransformMeijsterFilter(eDistanceTransformEuclidean)
      .Apply(oDistance, MakeBand<unsigned char, Band::SMemoryTag>(oImage, false, 0));
    CGrayscaleReconstructionFilter().Apply(oReconstruction, MakeBand<float, Band::SMemoryTag>(oMarker, false, 0.0f),
                                           MakeBand<float, Band::SMemoryTag>(oMask, false, 0.0f));
    return std::make_pair(Orl::Test::ReadPixels(oDistance), Orl::Test::ReadPixels(oReconstruction));
  };
  Filter::Detail::CKeptArrays::Get().Release();
  const auto oFresh = fnRun(oSecond);
  fnRun(oFirst);
  const auto oReused = fnRun(oSecond);
  EXPECT_TRUE(SameBits(oFresh.first, oReused.first));
  EXPECT_TRUE(SameBits(oFresh.second, oReused.second));
}

// Bands of several tiles each under a budget of about two tiles: every filter gives the memory
// result while tiles go to the spill file and come back.
TEST(ShapeFilters, TileBandsThatSpillEqualMemoryBands)
{
  const int w = 3 * int(Band::Detail::STileSize<unsigned char>::ms_nX) - 100;
  const int h = 2 * int(Band::Detail::STileSize<unsigned char>::ms_nY) + 30;
  std::mt19937 oRng(11);
  const auto oBlobs = Blobs(oRng, w, h, 300, 60);
  SImage<unsigned char> oMask = oBlobs, oMarker = oBlobs;
  for (std::size_t i = 0; i < oMask.m_vec.size(); ++i)
  {
    oMask.m_vec[i] = (oBlobs.m_vec[i] * 200 + oRng() % 50) / 2;
    oMarker.m_vec[i] = oMask.m_vec[i] < 20 ? 0 : oMask.m_vec[i] - 20;
  }
  const Orl::Test::CTileBudget oBudget(1u << 20);
  const auto nReadBefore = Orl::Test::TileCache().GetCounters().m_nRecordsRead;
  for (const auto& oSkeleton : Skeletons())
    oSkeleton.m_fnRun(oBlobs);
  OnEveryKind<float>(oBlobs, false, 0, [](auto& d, const auto& s) {
    CDistanceTransformMeijsterFilter(eDistanceTransformEuclidean).Apply(d, s);
  });
  OnEveryKind<unsigned char>(oBlobs, false, 0, [](auto& d, const auto& s) {
    CDistanceTransformFilter(eDistanceTransformChessboard).Apply(d, s);
  });
  OnEveryKind<unsigned char>(oMask, false, 0, [&](auto& d, const auto& s) {
    using TTag = typename std::decay_t<decltype(s)>::TTagType;
    CGrayscaleReconstructionFilter().Apply(d, MakeBand<unsigned char, TTag>(oMarker, false, 0), s);
  });
  EXPECT_GT(Orl::Test::TileCache().GetCounters().m_nRecordsRead, nReadBefore);
}

TEST(ShapeFilters, SizeChecksAndProgress)
{
  // Sizes differ: an exception before any write, and the logger's layer stays pushed.
  CBand<float, Band::STileTag> oDest(5, 4), oSrc(5, 5);
  oDest.Clear(42.0f);
  oSrc.Clear(1.0f);
  const auto pLogger = boost::make_shared<Orl::Harnel::Progress::CLogger>();
  CSkeletonZhangSuenFilter oSkeleton;
  oSkeleton.SetLogger(pLogger);
  CDistanceTransformMeijsterFilter oDistance(eDistanceTransformEuclidean);
  oDistance.SetLogger(pLogger);
  using Orl::Harnel::CBasicException;
  EXPECT_THROW(oSkeleton.Apply(oDest, oSrc), CBasicException);
  EXPECT_THROW(oDistance.Apply(oDest, oSrc), CBasicException);
  EXPECT_THROW(CGrayscaleReconstructionFilter().Apply(oDest, oSrc, oDest), CBasicException);
  EXPECT_THROW(CGrayscaleReconstructionFilter().Apply(oDest, oDest, oSrc), CBasicException);
  for (float v : Orl::Test::ReadPixels(oDest))
    ASSERT_EQ(v, 42.0f);
  pLogger->PopTo(0);
  oSkeleton.Apply(oDest, oDest);
  oDistance.Apply(oDest, oDest);
  EXPECT_EQ(pLogger->GetDepth(), 0u);

  // Progress, told to the sink on every step: the fraction reaches 1 with the last step only. A pass
  // that counted more than its share would reach it early and report it again on each later step.
  struct SFractions : Orl::Harnel::Progress::CLoggerSink
  {
    std::vector<double> m_vec;
    void OnProgress(double dFraction, const std::string&) override { m_vec.push_back(dFraction); }
    void OnMessage(Orl::Harnel::Progress::_EVerbosityLevel, const std::string&) override {}
  };
  CBand<unsigned char, Band::SMemoryTag> oBand(7, 10), oOut(7, 10);
  oBand.Clear(1);
  oBand.GetRep().GetDataLocation()[30] = 0;
  using TLogger = boost::shared_ptr<Orl::Harnel::Progress::CLogger>;
  auto fnWith = [](auto oFilter, const TLogger& p) {
    oFilter.SetLogger(p);
    return oFilter;
  };
  const std::pair<const char*, std::function<void(const TLogger&)>> aRuns[] = {
    {"chamfer", [&](const TLogger& p) { fnWith(CDistanceTransformFilter(eDistanceTransformCityBlock), p).Apply(oOut, oBand); }},
    {"Meijster", [&](const TLogger& p) { fnWith(CDistanceTransformMeijsterFilter(eDistanceTransformCityBlock), p).Apply(oOut, oBand); }},
    {"skeleton", [&](const TLogger& p) { fnWith(CSkeletonGuoHallA2Filter(), p).Apply(oOut, oBand); }},
    {"reconstruction", [&](const TLogger& p) { fnWith(CGrayscaleReconstructionFilter(), p).Apply(oOut, oBand, oBand); }}};
  for (const auto& oRun : aRuns)
  {
    const auto pSink = boost::make_shared<SFractions>();
    const auto pCounting = boost::make_shared<Orl::Harnel::Progress::CLogger>(pSink, Orl::Harnel::Progress::eVerbosityInfo,
                                                                             std::chrono::milliseconds(0));
    oRun.second(pCounting);
    EXPECT_LE(std::count(pSink->m_vec.begin(), pSink->m_vec.end(), 1.0), 1) << oRun.first;
  }
}

} // namespace
