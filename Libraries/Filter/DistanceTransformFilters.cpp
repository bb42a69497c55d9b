// The distance transform filters: the exact one of Meijster, Roerdink and Hesselink and the two-pass
// chamfer transform.
//
// Both start from a class image of one byte per pixel (0 background, 1 foreground, 2 invalid), read
// from the source in parallel row blocks, tile by tile on tile bands. From there on the work is on
// plain arrays, so memory and tile bands give the same bits:
// - Meijster: the column phase writes the vertical distance g (int32, one per pixel) in parallel over
//   strips of columns, each strip scanned down and up a row at a time so that the loops run along
//   rows and vectorise. The row phase runs per destination block of rows: for each row the lower
//   envelope of the parabolas (or cones) x -> f(x, i), converted to the destination's type into a
//   block buffer that is then written to the band's runs. Integer arithmetic in 64 bits throughout:
//   g is below width + 2 * height, so g * g and every Sep numerator fit.
// - Chamfer: one forward and one backward scan over a padded int32 image; each row first takes the
//   rows above (below) in a loop that vectorises, then the left (right) neighbour in a sequential one.

#include "Filter/Detail/BandBlocks.h"
#include "Filter/Detail/DistanceTransform.h"
#include "Filter/Detail/PixelConversion.h"
#include "Filter/FilterBase.h"

#include <tbb/parallel_for.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <type_traits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

namespace {

using std::int64_t;

// Column phase: g(x, y) = distance to the nearest background pixel of column x, or more than
// nInfinite if there is none.
template <class TG>
void ColumnPhase(const std::uint8_t* pClass, int nWidth, int nHeight, TG* pG, const CProgressLayer& oProgress)
{
  const TG nInfinite = TG(nWidth + nHeight);
  constexpr int nStrip = 256;
  const int nStrips = (nWidth + nStrip - 1) / nStrip;
  tbb::parallel_for(0, nStrips, [&](int nS) {
    const int nX0 = nS * nStrip, nX1 = std::min(nWidth, nX0 + nStrip);
    const std::ptrdiff_t w = nWidth;
    for (int x = nX0; x < nX1; ++x)
      pG[x] = pClass[x] == 0 ? 0 : nInfinite;
    for (int y = 1; y < nHeight; ++y)
    {
      const std::uint8_t* __restrict pC = pClass + y * w;
      TG* __restrict pRow = pG + y * w;
      const TG* __restrict pAbove = pRow - w;
      for (int x = nX0; x < nX1; ++x)
        pRow[x] = pC[x] == 0 ? TG(0) : TG(pAbove[x] + 1);
    }
    for (int y = nHeight - 2; y >= 0; --y)
    {
      TG* __restrict pRow = pG + y * w;
      const TG* __restrict pBelow = pRow + w;
      for (int x = nX0; x < nX1; ++x)
        pRow[x] = std::min(pRow[x], TG(pBelow[x] + 1));
    }
    oProgress.Increment(double(nHeight) * (nX1 - nX0) / nWidth);
  });
}

// The metrics in integers of type I: 32 bits where every value fits (see ApplyDistanceTransform),
// else 64.
template <class I>
struct SEuclidean
{
  static I F(I x, I i, I g) { return (x - i) * (x - i) + g * g; }
  static I Sep(I i, I u, I gi, I gu) { return (u * u - i * i + gu * gu - gi * gi) / (2 * (u - i)); }
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

// One row of the row phase: pOut[x] = min over i of F(x, i, g[i]). pS and pT hold nWidth entries.
template <class TMetric, class TG, class I>
void RowPhase(const TG* pG, int nWidth, I* pOut, std::int32_t* pS, std::int32_t* pT)
{
  int q = 0;
  pS[0] = 0;
  pT[0] = 0;
  for (int u = 1; u < nWidth; ++u)
  {
    while (q >= 0 && TMetric::F(pT[q], pS[q], pG[pS[q]]) > TMetric::F(pT[q], u, pG[u]))
      --q;
    if (q < 0)
    {
      q = 0;
      pS[0] = u;
    }
    else
    {
      const auto w = 1 + TMetric::Sep(pS[q], u, pG[pS[q]], pG[u]);
      if (w < nWidth)
      {
        ++q;
        pS[q] = u;
        pT[q] = std::int32_t(w);
      }
    }
  }
  for (int u = nWidth - 1; u >= 0; --u)
  {
    pOut[u] = TMetric::F(u, pS[q], pG[pS[q]]);
    if (u == pT[q])
      --q;
  }
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

} // namespace

template <class TDest, class TSrc>
void ApplyDistanceTransform(EDistanceMethod eMethod, EDistanceTransformMode eMode,
                            const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger, const char* pAction,
                            TDest& oDest, const TSrc& oSrc)
{
  using TPixel = typename TSrc::TPixel;
  using TOut = typename TDest::TPixel;
  CheckSameSize(oDest, oSrc, pAction);
  const int nWidth = int(oSrc.GetWidth()), nHeight = int(oSrc.GetHeight());
  if (nWidth == 0 || nHeight == 0)
    return;
  const CProgressLayer oProgress(pLogger, pAction, 3.0 * nHeight);
  const std::ptrdiff_t w = nWidth;
  std::vector<std::uint8_t> vecClass(std::size_t(w) * std::size_t(nHeight));
  std::atomic<bool> bBackground(false), bInvalid(false);
  const SValidTest<TPixel> oValid(oSrc);
  ParallelRuns(oSrc, oProgress, [&](int nX, int nY, const TPixel* pRun, int nRun) {
    std::uint8_t* pTo = vecClass.data() + nY * w + nX;
    std::uint8_t nZero = 0, nBad = 0;
    for (int i = 0; i < nRun; ++i)
    {
      const std::uint8_t nInvalid = !oValid(pRun[i]), nForeground = pRun[i] != TPixel(0);
      pTo[i] = nInvalid ? std::uint8_t(2) : nForeground;
      nZero |= !(nInvalid | nForeground);
      nBad |= nInvalid;
    }
    const bool bZero = nZero, bBad = nBad;
    if (bZero)
      bBackground.store(true, std::memory_order_relaxed);
    if (bBad)
      bInvalid.store(true, std::memory_order_relaxed);
  });

  const TOut tNoData = GetOutputNoDataValue(oDest);
  const bool bEuclidean = eMode == eDistanceTransformEuclidean || eMode == eDistanceTransformSquaredEuclidean;
  // Converts the metric values of a row (squared for the Euclidean modes) into pTo: one loop per
  // mode, without branches, then the invalid pixels.
  const bool bAnyInvalid = bInvalid;
  auto fnConvert = [&](const auto* pFrom, const std::uint8_t* pClass, TOut* pTo) {
    if (eMode == eDistanceTransformEuclidean)
      for (int x = 0; x < nWidth; ++x)
        pTo[x] = RoundToPixel<TOut>(std::sqrt(double(pFrom[x])));
    else
      for (int x = 0; x < nWidth; ++x)
        pTo[x] = RoundToPixel<TOut>(double(pFrom[x]));
    if (bAnyInvalid)
      for (int x = 0; x < nWidth; ++x)
        pTo[x] = pClass[x] == 2 ? tNoData : pTo[x];
  };

  if (!bBackground)
  {
    ParallelRuns(oDest, oProgress, [&](int, int, TOut* pRun, int nRun) { std::fill(pRun, pRun + nRun, tNoData); });
    oProgress.Increment(double(nHeight));
  }
  else if (eMethod == EDistanceMethod::eMeijster)
  {
    // g is below width + 2 * height: 16 bits when that fits; the metric in 32 bits while its largest
    // values (squares of g and of the width, and their sums) do.
    const std::int64_t nMaxG = std::int64_t(nWidth) + 2 * std::int64_t(nHeight) + 1;
    const bool bNarrow = nMaxG < 65535, bInt32 = 4 * nMaxG * nMaxG < std::numeric_limits<std::int32_t>::max();
    auto fnRun = [&](auto* pTypeG, auto nTypeI) {
      using TG = std::remove_pointer_t<decltype(pTypeG)>;
      using I = decltype(nTypeI);
      std::vector<TG> vecG(vecClass.size());
      ColumnPhase(vecClass.data(), nWidth, nHeight, vecG.data(), oProgress);
      ParallelBlockRuns(oDest, oProgress, [&](int nY0, int nRows) {
        std::vector<TOut> vecBlock(std::size_t(nRows) * std::size_t(w));
        std::vector<I> vecRow(nWidth);
        std::vector<std::int32_t> vecS(nWidth), vecT(nWidth);
        for (int r = 0; r < nRows; ++r)
        {
          const TG* pG = vecG.data() + (nY0 + r) * w;
          if (bEuclidean)
            RowPhase<SEuclidean<I>>(pG, nWidth, vecRow.data(), vecS.data(), vecT.data());
          else if (eMode == eDistanceTransformCityBlock)
            RowPhase<SCityBlock<I>>(pG, nWidth, vecRow.data(), vecS.data(), vecT.data());
          else
            RowPhase<SChessboard<I>>(pG, nWidth, vecRow.data(), vecS.data(), vecT.data());
          fnConvert(vecRow.data(), vecClass.data() + (nY0 + r) * w, vecBlock.data() + r * w);
        }
        return [&, nY0, vecBlock = std::move(vecBlock)](int nX, int nY, TOut* pRun, int nRun) {
          Band::Detail::CopyRun(vecBlock.data() + (nY - nY0) * w + nX, pRun, nRun);
        };
      });
    };
    if (bNarrow && bInt32)
      fnRun(static_cast<std::uint16_t*>(nullptr), std::int32_t());
    else
      fnRun(static_cast<std::int32_t*>(nullptr), std::int64_t());
  }
  else
  {
    const std::ptrdiff_t s = w + 4;
    const std::int32_t nInfinite = std::numeric_limits<std::int32_t>::max() / 2;
    std::vector<std::int32_t> vecD(std::size_t(s) * std::size_t(nHeight + 4), nInfinite);
    for (int y = 0; y < nHeight; ++y)
      for (int x = 0; x < nWidth; ++x)
        if (vecClass[y * w + x] == 0)
          vecD[(y + 2) * s + x + 2] = 0;
    if (bEuclidean)
      Chamfer(vecD.data(), nWidth, nHeight, 5, 7, 11, oProgress);
    else if (eMode == eDistanceTransformCityBlock)
      Chamfer(vecD.data(), nWidth, nHeight, 1, 2, 0, oProgress);
    else
      Chamfer(vecD.data(), nWidth, nHeight, 1, 1, 0, oProgress);
    const double dScale = bEuclidean ? 0.2 : 1.0;
    ParallelBlockRuns(oDest, oProgress, [&](int nY0, int nRows) {
      std::vector<TOut> vecBlock(std::size_t(nRows) * std::size_t(w));
      std::vector<int64_t> vecRow(nWidth);
      for (int r = 0; r < nRows; ++r)
      {
        const std::int32_t* pD = vecD.data() + (nY0 + r + 2) * s + 2;
        for (int x = 0; x < nWidth; ++x)
          vecRow[x] = pD[x];
        if (eMode == eDistanceTransformSquaredEuclidean)
          for (int x = 0; x < nWidth; ++x)
          {
            const double d = double(pD[x]) * dScale;
            vecBlock[r * w + x] = vecClass[(nY0 + r) * w + x] == 2 ? tNoData : RoundToPixel<TOut>(d * d);
          }
        else if (eMode == eDistanceTransformEuclidean)
          for (int x = 0; x < nWidth; ++x)
            vecBlock[r * w + x] =
              vecClass[(nY0 + r) * w + x] == 2 ? tNoData : RoundToPixel<TOut>(double(pD[x]) * dScale);
        else
          fnConvert(vecRow.data(), vecClass.data() + (nY0 + r) * w, vecBlock.data() + r * w);
      }
      return [&, nY0, vecBlock = std::move(vecBlock)](int nX, int nY, TOut* pRun, int nRun) {
        Band::Detail::CopyRun(vecBlock.data() + (nY - nY0) * w + nX, pRun, nRun);
      };
    });
  }
  if ((bInvalid || !bBackground) && !oDest.HasNoDataValue())
    oDest.SetNoDataValue(tNoData);
  oProgress.Done();
}

#define ORL_DISTANCE_INSTANTIATE(TDestPixel, TSrcPixel, Tag) template ORL_DISTANCE_APPLY(TDestPixel, TSrcPixel, Tag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_INSTANTIATE, Band::SMemoryTag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_INSTANTIATE, Band::SIPPTag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_INSTANTIATE, Band::STileTag)

}}}} // namespace Orl::Ostrel::Filter::Detail
