// The distance transform filters: the exact one of Meijster, Roerdink and Hesselink and the two-pass
// chamfer transform.
//
// Both start with one parallel pass over the source in blocks of g_nBlockRows rows (tile by tile on
// tile bands), SColumnSeeds: per pixel the distance down to the nearest background pixel above it in
// the same column and block (capped at the infinite value), per block and column the row of its first
// background pixel, and the invalid pixels, kept only for blocks that have some. From there on the
// work is on plain arrays, so memory and tile bands give the same bits.
//
// Meijster: the blocks' first and last rows chain the column distances across blocks in one short
// sequential step (a row per block, downward and upward). Then, per block in parallel, an upward walk
// through its rows, vectorised over whole rows, turns the seeds into the column distance g (the
// minimum of the distance down, the chained one from above and the distance up) in a block buffer
// that stays in the cache. The row phase then
// takes one row at a time: a background pixel (g == 0) at column a ends the envelope, since for x on
// its right every parabola or cone centred left of a is above the one at a. So a row falls into
// runs of background, skipped eight pixels at a time and written as zeros, and stretches of
// foreground between two background pixels
// (or the band's edge), each with its own lower envelope. The envelope is the paper's: a stack of
// centres and starts in small arrays reused for every row of the block, integer arithmetic, one
// division per centre pushed. The squared distances of a row are converted straight into the
// destination's row where the band's runs are whole rows, else into a block buffer that the runs
// then read. The column distances stay in 16 bits and the metric in 32 while every value fits
// (width + height below about 32600), else 32 and 64.
//
// Chamfer: one forward and one backward scan over a padded int32 image; each row first takes the
// rows above (below) in a loop that vectorises, then the left (right) neighbour in a sequential one.

#include "Filter/Detail/BandBlocks.h"
#include "Filter/Detail/DistanceTransform.h"
#include "Filter/Detail/PixelConversion.h"
#include "Filter/Detail/WorkBuffer.h"
#include "Filter/FilterBase.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

namespace {

// What the pass over the source leaves; TG holds column distances up to m_tInfinite + g_nBlockRows.
template <class TG>
struct SColumnSeeds
{
  SColumnSeeds(int nWidth, int nHeight)
    : m_nWidth(nWidth), m_nHeight(nHeight), m_nBlocks((nHeight + g_nBlockRows - 1) / g_nBlockRows),
      m_tInfinite(TG(nWidth + nHeight)), m_oDown(std::size_t(nWidth) * std::size_t(nHeight)),
      m_vecFirst(std::size_t(m_nBlocks) * std::size_t(nWidth), m_tInfinite), m_vecInvalid(std::size_t(m_nBlocks))
  {
  }

  // The invalid flags of row y, or nullptr when its block has no invalid pixel.
  const std::uint8_t* InvalidRow(int y) const
  {
    const std::vector<std::uint8_t>& vec = m_vecInvalid[std::size_t(y / g_nBlockRows)];
    return vec.empty() ? nullptr : vec.data() + std::ptrdiff_t(y % g_nBlockRows) * m_nWidth;
  }

  int m_nWidth, m_nHeight, m_nBlocks;
  TG m_tInfinite;                                      // above every true distance: width + height
  CWorkBuffer<TG> m_oDown;                           // per pixel: 0 on the background, else 1 + the one above, in its block
  std::vector<TG> m_vecFirst;                          // per block and column: the first background row in the block
  std::vector<std::vector<std::uint8_t>> m_vecInvalid; // per block: a flag per pixel, empty without invalid pixels
  bool m_bBackground = false, m_bInvalid = false;
};

template <class TG, class TSrc>
void SeedColumns(const TSrc& oSrc, const CProgressLayer& oProgress, SColumnSeeds<TG>& oSeeds)
{
  using TPixel = typename TSrc::TPixel;
  const std::ptrdiff_t w = oSeeds.m_nWidth;
  const TG tInfinite = oSeeds.m_tInfinite;
  const std::vector<TG> vecInfinite(std::size_t(w), tInfinite); // "above" the first row of a block
  const SValidTest<TPixel> oValid(oSrc);
  std::atomic<bool> bBackground(false), bInvalid(false);
  ParallelBlockRuns(oSrc, oProgress, [&](int nY0, int nRows) {
    const int nBlock = nY0 / g_nBlockRows;
    return [&, nY0, nRows, nBlock](int nX, int nY, const TPixel* __restrict pRun, int nRun) {
      TG* __restrict pDown = oSeeds.m_oDown.data() + nY * w + nX;
      const TG* __restrict pAbove = nY == nY0 ? vecInfinite.data() + nX : pDown - w;
      TG* __restrict pFirst = oSeeds.m_vecFirst.data() + nBlock * w + nX;
      const TG tRow = TG(nY - nY0);
      std::uint8_t nZero = 0, nBad = 0;
      for (int i = 0; i < nRun; ++i)
      {
        const std::uint8_t nValid = oValid(pRun[i]), nBackground = nValid & (pRun[i] == TPixel(0));
        const TG tDown = std::min(TG(pAbove[i] + 1), tInfinite), tFirst = std::min(pFirst[i], tRow);
        pDown[i] = nBackground ? TG(0) : tDown;
        pFirst[i] = nBackground ? tFirst : pFirst[i];
        nZero |= nBackground;
        nBad |= nValid ^ 1;
      }
      if (nZero)
        bBackground.store(true, std::memory_order_relaxed);
      if (!nBad)
        return;
      bInvalid.store(true, std::memory_order_relaxed);
      std::vector<std::uint8_t>& vecInvalid = oSeeds.m_vecInvalid[std::size_t(nBlock)];
      if (vecInvalid.empty())
        vecInvalid.assign(std::size_t(nRows) * std::size_t(w), 0);
      std::uint8_t* pInvalid = vecInvalid.data() + (nY - nY0) * w + nX;
      for (int i = 0; i < nRun; ++i)
        pInvalid[i] = !oValid(pRun[i]);
    };
  });
  oSeeds.m_bBackground = bBackground;
  oSeeds.m_bInvalid = bInvalid;
}

// The metrics in integers of type I: F(x, i, g) the distance from (x, y) to the nearest background
// pixel of column i at distance g, Sep(i, u, gi, gu) the last x where the one of column i < u is not
// beaten by the one of column u, called only where the one of i is not beaten at the envelope's
// current start, which makes the Euclidean numerator non-negative.
template <class I>
struct SEuclidean
{
  static I F(I x, I i, I g) { return (x - i) * (x - i) + g * g; }
  static I Sep(I i, I u, I gi, I gu)
  {
    using U = std::make_unsigned_t<I>;
    const I nNumerator = (u - i) * (u + i) + (gu - gi) * (gu + gi);
    assert(nNumerator >= 0);
    return I(U(nNumerator) / U(2 * (u - i)));
  }
};

template <class I>
struct SCityBlock
{
  static I F(I x, I i, I g) { return std::abs(x - i) + g; }
  static I Sep(I i, I u, I gi, I gu)
  {
    if (gu >= gi + u - i)
      return std::numeric_limits<I>::max() / 2;
    if (gi > gu + u - i)
      return -std::numeric_limits<I>::max() / 2;
    return (gu - gi + u + i) / 2;
  }
};

template <class I>
struct SChessboard
{
  static I F(I x, I i, I g) { return std::max(std::abs(x - i), g); }
  static I Sep(I i, I u, I gi, I gu) { return gi <= gu ? std::max(i + gu, (i + u) / 2) : std::min(u - gi, (i + u) / 2); }
};

// The stack of the lower envelope: centre s, start t, the centre's column distance g and F(t, s, g),
// as arrays of one row's length, reused row after row.
template <class I>
struct SEnvelopeStack
{
  explicit SEnvelopeStack(int nWidth) : m_vecS(std::size_t(nWidth)), m_vecT(std::size_t(nWidth)), m_vecG(std::size_t(nWidth)), m_vecF(std::size_t(nWidth)) {}
  std::vector<std::int32_t> m_vecS, m_vecT;
  std::vector<I> m_vecG, m_vecF;
};

// pOut[x] for a <= x <= b: the minimum of F(x, i, g[i]) over a <= i <= b.
template <class TMetric, class TG, class I>
void Envelope(const TG* __restrict pG, int a, int b, I* __restrict pOut, SEnvelopeStack<I>& oStack)
{
  std::int32_t* __restrict pS = oStack.m_vecS.data();
  std::int32_t* __restrict pT = oStack.m_vecT.data();
  I* __restrict pGs = oStack.m_vecG.data();
  I* __restrict pF = oStack.m_vecF.data();
  int q = 0;
  pS[0] = a;
  pT[0] = a;
  pGs[0] = pG[a];
  pF[0] = TMetric::F(a, a, pGs[0]);
  for (int u = a + 1; u <= b; ++u)
  {
    const I gu = pG[u];
    while (q >= 0 && pF[q] > TMetric::F(pT[q], u, gu))
      --q;
    if (q < 0)
    {
      q = 0;
      pS[0] = u;
      pGs[0] = gu;
      pF[0] = TMetric::F(a, u, gu);
    }
    else
    {
      const I w = 1 + TMetric::Sep(pS[q], u, pGs[q], gu);
      if (w <= b)
      {
        ++q;
        pS[q] = u;
        pT[q] = std::int32_t(w);
        pGs[q] = gu;
        pF[q] = TMetric::F(w, u, gu);
      }
    }
  }
  for (int u = b; u >= a; --u)
  {
    pOut[u] = TMetric::F(u, pS[q], pGs[q]);
    if (u == pT[q])
      --q;
  }
}

// One row of the row phase: pOut[x] = min over i of F(x, i, g[i]), stretch by stretch between the
// background pixels.
template <class TMetric, class TG, class I>
void RowPhase(const TG* __restrict pG, int nWidth, I* __restrict pOut, SEnvelopeStack<I>& oStack)
{
  for (int x = 0; x < nWidth;)
  {
    if (pG[x] == 0)
    {
      int e = x + 1; // the run of background, eight pixels at a time while they are all background
      for (; e + 8 <= nWidth; e += 8)
      {
        TG tAny = 0;
        for (int k = 0; k < 8; ++k)
          tAny |= pG[e + k];
        if (tAny)
          break;
      }
      while (e < nWidth && pG[e] == 0)
        ++e;
      std::fill(pOut + x, pOut + e, I(0));
      x = e;
      continue;
    }
    int e = x + 1;
    while (e < nWidth && pG[e] != 0)
      ++e;
    Envelope<TMetric>(pG, x > 0 ? x - 1 : 0, e < nWidth ? e : nWidth - 1, pOut, oStack);
    x = e;
  }
}

// Square roots of a row of squared distances into a float row: in float when every value of the row
// is exact in float, since the float root of such a value is also the double root rounded to float
// (double has more than twice float's precision), else in double.
template <class I>
void SquareRoots(const I* __restrict pFrom, float* __restrict pTo, int n)
{
  I nMax = 0;
  for (int x = 0; x < n; ++x)
    nMax = std::max(nMax, pFrom[x]);
  if (nMax >= I(1) << 24)
  {
    for (int x = 0; x < n; ++x)
      pTo[x] = float(std::sqrt(double(pFrom[x])));
    return;
  }
  int x = 0;
#if defined(__SSE2__)
  if constexpr (sizeof(I) == 4)
    for (; x + 4 <= n; x += 4)
      _mm_storeu_ps(pTo + x, _mm_sqrt_ps(_mm_cvtepi32_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pFrom + x)))));
#endif
  for (; x < n; ++x)
    pTo[x] = std::sqrt(float(pFrom[x]));
}

// A row of metric values (squared for the Euclidean modes) into pixels, the invalid ones as tNoData.
template <class TOut, class I>
void ConvertRow(EDistanceTransformMode eMode, const I* __restrict pFrom, const std::uint8_t* pInvalid, TOut tNoData,
                TOut* __restrict pTo, int n)
{
  if (eMode != eDistanceTransformEuclidean)
    for (int x = 0; x < n; ++x)
      pTo[x] = RoundToPixel<TOut>(double(pFrom[x]));
  else if constexpr (std::is_same<TOut, float>::value)
    SquareRoots(pFrom, pTo, n);
  else
    for (int x = 0; x < n; ++x)
      pTo[x] = RoundToPixel<TOut>(std::sqrt(double(pFrom[x])));
  if (pInvalid)
    for (int x = 0; x < n; ++x)
      pTo[x] = pInvalid[x] ? tNoData : pTo[x];
}

template <class TG, class I, class TDest>
void Meijster(EDistanceTransformMode eMode, SColumnSeeds<TG>& oSeeds, TDest& oDest, const CProgressLayer& oProgress)
{
  using TOut = typename TDest::TPixel;
  const int nWidth = oSeeds.m_nWidth, nBlocks = oSeeds.m_nBlocks;
  const std::ptrdiff_t w = nWidth;
  const TG tInfinite = oSeeds.m_tInfinite;
  auto fnRows = [&](int nBlock) { return std::min(g_nBlockRows, oSeeds.m_nHeight - nBlock * g_nBlockRows); };
  // Per block: the column distances down at the row above it, and up at the row below it.
  std::vector<TG> vecFromAbove(std::size_t(nBlocks) * std::size_t(w), tInfinite), vecFromBelow = vecFromAbove;
  for (int nBlock = 1; nBlock < nBlocks; ++nBlock)
  {
    const TG* pLast = oSeeds.m_oDown.data() + (nBlock * g_nBlockRows - 1) * w;
    const TG* pAbove = vecFromAbove.data() + (nBlock - 1) * w;
    TG* pTo = vecFromAbove.data() + nBlock * w;
    const TG nRows = TG(fnRows(nBlock - 1));
    for (int x = 0; x < nWidth; ++x)
      pTo[x] = std::min(pLast[x], std::min(TG(pAbove[x] + nRows), tInfinite));
  }
  for (int nBlock = nBlocks - 2; nBlock >= 0; --nBlock)
  {
    const TG* pFirst = oSeeds.m_vecFirst.data() + (nBlock + 1) * w;
    const TG* pBelow = vecFromBelow.data() + (nBlock + 1) * w;
    TG* pTo = vecFromBelow.data() + nBlock * w;
    const TG nRows = TG(fnRows(nBlock + 1));
    for (int x = 0; x < nWidth; ++x)
      pTo[x] = std::min(pFirst[x], std::min(TG(pBelow[x] + nRows), tInfinite));
  }

  const TOut tNoData = GetOutputNoDataValue(oDest);
  ParallelBlockRuns(oDest, oProgress, [&](int nY0, int nRows) {
    // The column distances of the block from its seeds, from the bottom row up, into a buffer that
    // stays in the cache for the row phase.
    const int nBlock = nY0 / g_nBlockRows;
    std::unique_ptr<TG[]> pBlockG(new TG[std::size_t(nRows) * std::size_t(w)]);
    std::vector<TG> vecUp(vecFromBelow.begin() + nBlock * w, vecFromBelow.begin() + (nBlock + 1) * w);
    const TG* __restrict pFromAbove = vecFromAbove.data() + nBlock * w;
    for (int r = nRows - 1; r >= 0; --r)
    {
      const TG* __restrict pSeed = oSeeds.m_oDown.data() + (nY0 + r) * w;
      TG* __restrict pRow = pBlockG.get() + r * w;
      TG* __restrict pUp = vecUp.data();
      const TG nDown = TG(r + 1);
      for (int x = 0; x < nWidth; ++x)
      {
        const TG tSeed = pSeed[x], tNext = std::min(TG(pUp[x] + 1), tInfinite); // loaded on both sides: no branch
        const TG tUp = tSeed == 0 ? TG(0) : tNext;
        pUp[x] = tUp;
        pRow[x] = std::min(std::min(tSeed, TG(pFromAbove[x] + nDown)), tUp);
      }
    }
    // The row phase, a row at a time when asked for whole rows, else the whole block at the first run.
    std::vector<I> vecRow(static_cast<std::size_t>(nWidth));
    SEnvelopeStack<I> oStack(nWidth);
    std::vector<TOut> vecBlock;
    return [&, pBlockG = std::move(pBlockG), nY0, nRows, vecRow = std::move(vecRow), oStack = std::move(oStack),
            vecBlock = std::move(vecBlock)](int nX, int nY, TOut* pRun, int nRun) mutable {
      auto fnRow = [&](int y, TOut* pTo) {
        const TG* pG = pBlockG.get() + (y - nY0) * w;
        if (eMode == eDistanceTransformEuclidean || eMode == eDistanceTransformSquaredEuclidean)
          RowPhase<SEuclidean<I>>(pG, nWidth, vecRow.data(), oStack);
        else if (eMode == eDistanceTransformCityBlock)
          RowPhase<SCityBlock<I>>(pG, nWidth, vecRow.data(), oStack);
        else
          RowPhase<SChessboard<I>>(pG, nWidth, vecRow.data(), oStack);
        ConvertRow(eMode, vecRow.data(), oSeeds.InvalidRow(y), tNoData, pTo, nWidth);
      };
      if (nX == 0 && nRun == nWidth)
        return fnRow(nY, pRun);
      if (vecBlock.empty())
      {
        vecBlock.resize(std::size_t(nRows) * std::size_t(w));
        for (int r = 0; r < nRows; ++r)
          fnRow(nY0 + r, vecBlock.data() + r * w);
      }
      Band::Detail::CopyRun(vecBlock.data() + (nY - nY0) * w + nX, pRun, nRun);
    };
  });
}

// The two-pass chamfer transform on pD, (nWidth + 4) x (nHeight + 4) with a frame of 2: 0 on the
// background, nInfinite elsewhere (frame included) on entry.
void Chamfer(std::int32_t* pD, int nWidth, int nHeight, int a, int b, int c, const CProgressLayer& oProgress)
{
  const std::ptrdiff_t s = nWidth + 4;
  // Half a progress unit per row and pass, passed on 64 rows at a time and the rest at a pass's end.
  int nRows = 0;
  auto fnRowDone = [&] {
    if (++nRows == 64)
    {
      oProgress.Increment(32.0);
      nRows = 0;
    }
  };
  auto fnPassDone = [&] {
    oProgress.Increment(nRows / 2.0);
    nRows = 0;
  };
  for (int y = 0; y < nHeight; ++y)
  {
    std::int32_t* __restrict p = pD + (y + 2) * s + 2;
    const std::int32_t* __restrict p1 = p - s;
    const std::int32_t* __restrict p2 = p - 2 * s;
    for (int x = 0; x < nWidth; ++x)
    {
      std::int32_t d = std::min(p[x], p1[x] + a);
      d = std::min(d, std::min(p1[x - 1], p1[x + 1]) + b);
      if (c)
        d = std::min(d, std::min(std::min(p2[x - 1], p2[x + 1]), std::min(p1[x - 2], p1[x + 2])) + c);
      p[x] = d;
    }
    for (int x = 0; x < nWidth; ++x)
      p[x] = std::min(p[x], p[x - 1] + a);
    fnRowDone();
  }
  fnPassDone();
  for (int y = nHeight - 1; y >= 0; --y)
  {
    std::int32_t* __restrict p = pD + (y + 2) * s + 2;
    const std::int32_t* __restrict p1 = p + s;
    const std::int32_t* __restrict p2 = p + 2 * s;
    for (int x = 0; x < nWidth; ++x)
    {
      std::int32_t d = std::min(p[x], p1[x] + a);
      d = std::min(d, std::min(p1[x - 1], p1[x + 1]) + b);
      if (c)
        d = std::min(d, std::min(std::min(p2[x - 1], p2[x + 1]), std::min(p1[x - 2], p1[x + 2])) + c);
      p[x] = d;
    }
    for (int x = nWidth - 1; x >= 0; --x)
      p[x] = std::min(p[x], p[x + 1] + a);
    fnRowDone();
  }
  fnPassDone();
}

// The chamfer transform from the seeds' background, converted block by block into the destination.
template <class TG, class TDest>
void ChamferTransform(EDistanceTransformMode eMode, const SColumnSeeds<TG>& oSeeds, TDest& oDest,
                      const CProgressLayer& oProgress)
{
  using TOut = typename TDest::TPixel;
  const int nWidth = oSeeds.m_nWidth, nHeight = oSeeds.m_nHeight;
  const std::ptrdiff_t w = nWidth, s = w + 4;
  const std::int32_t nInfinite = std::numeric_limits<std::int32_t>::max() / 2;
  std::vector<std::int32_t> vecD(std::size_t(s) * std::size_t(nHeight + 4), nInfinite);
  for (int y = 0; y < nHeight; ++y)
  {
    const TG* __restrict pDown = oSeeds.m_oDown.data() + y * w;
    std::int32_t* __restrict pD = vecD.data() + (y + 2) * s + 2;
    for (int x = 0; x < nWidth; ++x)
      pD[x] = pDown[x] == 0 ? 0 : nInfinite;
  }
  const bool bEuclidean = eMode == eDistanceTransformEuclidean || eMode == eDistanceTransformSquaredEuclidean;
  if (bEuclidean)
    Chamfer(vecD.data(), nWidth, nHeight, 5, 7, 11, oProgress);
  else if (eMode == eDistanceTransformCityBlock)
    Chamfer(vecD.data(), nWidth, nHeight, 1, 2, 0, oProgress);
  else
    Chamfer(vecD.data(), nWidth, nHeight, 1, 1, 0, oProgress);
  const TOut tNoData = GetOutputNoDataValue(oDest);
  ParallelBlockRuns(oDest, oProgress, [&](int nY0, int nRows) {
    std::vector<TOut> vecBlock(std::size_t(nRows) * std::size_t(w));
    for (int r = 0; r < nRows; ++r)
    {
      const std::int32_t* __restrict pD = vecD.data() + (nY0 + r + 2) * s + 2;
      TOut* __restrict pTo = vecBlock.data() + r * w;
      if (eMode == eDistanceTransformSquaredEuclidean)
        for (int x = 0; x < nWidth; ++x)
        {
          const double d = double(pD[x]) * 0.2;
          pTo[x] = RoundToPixel<TOut>(d * d);
        }
      else
        for (int x = 0; x < nWidth; ++x)
          pTo[x] = RoundToPixel<TOut>(double(pD[x]) * (bEuclidean ? 0.2 : 1.0));
      if (const std::uint8_t* pInvalid = oSeeds.InvalidRow(nY0 + r))
        for (int x = 0; x < nWidth; ++x)
          pTo[x] = pInvalid[x] ? tNoData : pTo[x];
    }
    return [&, nY0, vecBlock = std::move(vecBlock)](int nX, int nY, TOut* pRun, int nRun) {
      Band::Detail::CopyRun(vecBlock.data() + (nY - nY0) * w + nX, pRun, nRun);
    };
  });
}

} // namespace

template <class TDest, class TSrc>
void ApplyDistanceTransform(EDistanceMethod eMethod, EDistanceTransformMode eMode,
                            const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger, const char* pAction,
                            TDest& oDest, const TSrc& oSrc)
{
  using TOut = typename TDest::TPixel;
  CheckSameSize(oDest, oSrc, pAction);
  const int nWidth = int(oSrc.GetWidth()), nHeight = int(oSrc.GetHeight());
  if (nWidth == 0 || nHeight == 0)
    return;
  // A row of progress per row and pass: the seeds, the chamfer's scans, the output.
  const bool bMeijster = eMethod == EDistanceMethod::eMeijster;
  const CProgressLayer oProgress(pLogger, pAction, (bMeijster ? 2.0 : 3.0) * nHeight);
  auto fnRun = [&](auto tG, auto tI) {
    using TG = decltype(tG);
    using I = decltype(tI);
    SColumnSeeds<TG> oSeeds(nWidth, nHeight);
    SeedColumns(oSrc, oProgress, oSeeds);
    const TOut tNoData = GetOutputNoDataValue(oDest);
    if (!oSeeds.m_bBackground)
    {
      ParallelRuns(oDest, oProgress, [&](int, int, TOut* pRun, int nRun) { std::fill(pRun, pRun + nRun, tNoData); });
      if (!bMeijster)
        oProgress.Increment(double(nHeight));
    }
    else if (bMeijster)
      Meijster<TG, I>(eMode, oSeeds, oDest, oProgress);
    else
      ChamferTransform(eMode, oSeeds, oDest, oProgress);
    if ((oSeeds.m_bInvalid || !oSeeds.m_bBackground) && !oDest.HasNoDataValue())
      oDest.SetNoDataValue(tNoData);
  };
  // 16-bit column distances and a 32-bit metric while width + height and a block's rows fit in 16
  // bits: then every metric value, at most width^2 + (width + height)^2, fits in 32.
  if (std::int64_t(nWidth) + nHeight + 2 * g_nBlockRows < std::numeric_limits<std::int16_t>::max())
    fnRun(std::int16_t(), std::int32_t());
  else
    fnRun(std::int32_t(), std::int64_t());
  oProgress.Done();
}

#define ORL_DISTANCE_INSTANTIATE(TDestPixel, TSrcPixel, Tag) template ORL_DISTANCE_APPLY(TDestPixel, TSrcPixel, Tag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_INSTANTIATE, Band::SMemoryTag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_INSTANTIATE, Band::SIPPTag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_INSTANTIATE, Band::STileTag)

}}}} // namespace Orl::Ostrel::Filter::Detail
