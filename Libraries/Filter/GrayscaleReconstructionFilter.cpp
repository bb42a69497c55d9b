// Gray-scale reconstruction by Vincent's hybrid algorithm on padded in-memory images, in parallel
// stripes of rows, then one pass of the queue across the stripes' borders.
//
// Mask I and marker J are read once from the bands (parallel row blocks, tile by tile) into arrays
// with a frame of one pixel; the frame and the invalid pixels hold the type's lowest value in both,
// which no max lets through and no min raises, and since I == J there, the queue never takes them.
//
// Reconstruction is the one fixed point of J = min(I, 3 x 3 max of J) at or above the clipped marker,
// so any order of updates that ends where nothing can change gives the same bits. Each stripe first
// runs on its own, as if the rows around it did not exist: pairs of raster scans while they change
// many pixels, then a FIFO queue seeded by the last backward scan. A scan takes a row in one
// vectorised pass (ScanRow): the three pixels of the row already done, then the running maximum along
// the row as composed clamps. After the backward scan every pair of neighbours is stable except where
// a pixel q passed earlier in that scan has J(q) < J(p) and J(q) < I(q); those p seed the queue,
// found by a branch-free flag per pixel. When all stripes are done, only pairs across a border can be
// unstable: the two rows at each border seed one last queue over the whole image.
//
// The queue is a ring of 32-bit indices where the padded image allows, doubling when full.

#include "Filter/Detail/BandBlocks.h"
#include "Filter/Detail/WorkBuffer.h"
#include "Filter/GrayscaleReconstructionFilter.h"

#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

namespace {

// A FIFO of pixel indices in a ring buffer that doubles when full.
template <class TIndex>
class CIndexQueue
{
public:
  bool Empty() const { return m_nSize == 0; }
  // Room for n more without growing.
  void Reserve(std::size_t n)
  {
    while (m_nSize + n > m_vec.size())
      _Grow();
  }
  void Push(std::size_t n)
  {
    Reserve(1);
    PushIf(n, true);
  }
  // Pushes n if bPush, without a branch; there must be room for one more (Reserve).
  void PushIf(std::size_t n, bool bPush)
  {
    m_vec[(m_nHead + m_nSize) & m_nMask] = TIndex(n);
    m_nSize += bPush;
  }
  std::size_t Pop()
  {
    const std::size_t n = m_vec[m_nHead];
    m_nHead = (m_nHead + 1) & m_nMask;
    --m_nSize;
    return n;
  }

private:
  void _Grow()
  {
    std::vector<TIndex> vec(std::max<std::size_t>(4096, 2 * m_vec.size()));
    for (std::size_t i = 0; i < m_nSize; ++i)
      vec[i] = m_vec[(m_nHead + i) & m_nMask];
    m_vec.swap(vec);
    m_nHead = 0;
    m_nMask = m_vec.size() - 1;
  }

  std::vector<TIndex> m_vec;
  std::size_t m_nHead = 0, m_nSize = 0, m_nMask = 0;
};

// The sequential half of a raster scan on one row: J(x) = min(I(x), max(J(x), J(x - 1))) from left to
// right (bForward), or with J(x + 1) from right to left, from the frame pixel at the row's end on;
// returns whether a pixel changed. Each step is a clamp of the incoming value between J(x) <= I(x),
// and clamps compose into clamps: lo' = min(hi2, max(lo2, lo1)), hi' = min(hi2, max(lo2, hi1)). So a
// vector of 16 bytes composes its lanes' clamps in log2(lanes) shifted steps and applies them to the
// value carried from the previous vector, instead of a chain of two operations per pixel. Every
// shuffle below is one the compiler maps to a single SSE2 instruction (byte shifts, unpacks, pshufd,
// pshuflw/pshufhw); others would be expanded lane by lane.
#if defined(__GNUC__) && !defined(__clang__)
template <class T>
struct SLanes
{
  static constexpr int ms_nCount = int(16 / sizeof(T));
  typedef T TVector __attribute__((vector_size(16)));
  using TLane = std::conditional_t<sizeof(T) == 1, std::int8_t,
                                   std::conditional_t<sizeof(T) == 2, std::int16_t,
                                                      std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>>>;
  typedef TLane TMask __attribute__((vector_size(16)));

  // Every lane moved nShift lanes on (toward higher lanes when bUp), zeros coming in: the mask of a
  // shuffle with a zero vector, and the lanes that take the fill.
  template <int nShift, bool bUp, std::size_t... nLane>
  static constexpr TMask Shift(std::index_sequence<nLane...>)
  {
    return TMask{TLane(bUp ? (int(nLane) >= nShift ? int(nLane) - nShift : ms_nCount)
                           : (int(nLane) + nShift < ms_nCount ? int(nLane) + nShift : ms_nCount))...};
  }
  template <int nShift, bool bUp, std::size_t... nLane>
  static constexpr TMask Filled(std::index_sequence<nLane...>)
  {
    return TMask{TLane(bUp ? (int(nLane) < nShift ? -1 : 0) : (int(nLane) + nShift >= ms_nCount ? -1 : 0))...};
  }
  template <int nShift, bool bUp>
  static TVector ShiftIn(TVector v, TVector vFill)
  {
    constexpr TMask nShuffle = Shift<nShift, bUp>(std::make_index_sequence<ms_nCount>());
    constexpr TMask nFilled = Filled<nShift, bUp>(std::make_index_sequence<ms_nCount>());
    const TMask nShifted = TMask(__builtin_shuffle(v, TVector{}, nShuffle));
    return TVector((nShifted & ~nFilled) | (TMask(vFill) & nFilled));
  }

  // The last lane (bLast) or the first in every lane.
  template <bool bLast>
  static TVector Broadcast(TVector v)
  {
    typedef std::int16_t T16 __attribute__((vector_size(16)));
    typedef std::int32_t T32 __attribute__((vector_size(16)));
    typedef std::int64_t T64 __attribute__((vector_size(16)));
    if constexpr (sizeof(T) == 8)
      return TVector(__builtin_shuffle(T64(v), T64{bLast, bLast}));
    else
    {
      T32 v32;
      if constexpr (sizeof(T) == 4)
        v32 = T32(v);
      else
      {
        T16 v16;
        if constexpr (sizeof(T) == 2)
          v16 = T16(v);
        else
          v16 = T16(bLast ? __builtin_shuffle(v, v, TMask{8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31})
                          : __builtin_shuffle(v, v, TMask{0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23}));
        v32 = T32(bLast ? __builtin_shuffle(v16, T16{0, 1, 2, 3, 7, 7, 7, 7}) : __builtin_shuffle(v16, T16{0, 0, 0, 0, 4, 5, 6, 7}));
      }
      return TVector(bLast ? __builtin_shuffle(v32, T32{3, 3, 3, 3}) : __builtin_shuffle(v32, T32{0, 0, 0, 0}));
    }
  }
};
#endif

// One row of a raster scan: J(x) = min(I(x), max(J(x), the three pixels of pDone next to x, and the
// pixel just done on the row)), left to right (bForward) or right to left, pDone the row above or
// below already scanned. Returns the number of pixels changed.
template <bool bForward, class T>
std::size_t ScanRow(T* __restrict pRow, const T* __restrict pMask, const T* __restrict pDone, int nWidth)
{
  int x = 0; // pixels done from the row's start (bForward) or end
  std::size_t nChanged = 0;
#if defined(__GNUC__) && !defined(__clang__)
  using L = SLanes<T>;
  using V = typename L::TVector;
  using M = typename L::TMask;
  constexpr int N = L::ms_nCount;
  auto fnMin = [](V a, V b) { return a < b ? a : b; };
  auto fnMax = [](V a, V b) { return a > b ? a : b; };
  auto fnLoad = [](const T* p) {
    V v;
    __builtin_memcpy(&v, p, 16);
    return v;
  };
  const V vLowest = V{} + std::numeric_limits<T>::lowest(), vHighest = V{} + std::numeric_limits<T>::max();
  V vCarry = V{} + (bForward ? pRow[-1] : pRow[nWidth]);
  while (x + N <= nWidth)
  {
    M vCount = M{}; // up to 127 per lane before they are added up
    for (int n = 0; n < 127 && x + N <= nWidth; ++n, x += N)
    {
      const int nAt = bForward ? x : nWidth - N - x;
      const V vOld = fnLoad(pRow + nAt);
      V vHi = fnLoad(pMask + nAt);
      V vLo = fnMin(vHi, fnMax(fnMax(vOld, fnLoad(pDone + nAt)), fnMax(fnLoad(pDone + nAt - 1), fnLoad(pDone + nAt + 1))));
      auto fnStep = [&](auto oShift) {
        constexpr int nShift = decltype(oShift)::value;
        const V vLoIn = L::template ShiftIn<nShift, bForward>(vLo, vLowest);
        const V vHiIn = L::template ShiftIn<nShift, bForward>(vHi, vHighest);
        const V vNewLo = fnMin(vHi, fnMax(vLo, vLoIn));
        vHi = fnMin(vHi, fnMax(vLo, vHiIn));
        vLo = vNewLo;
      };
      fnStep(std::integral_constant<int, 1>());
      if constexpr (N > 2)
        fnStep(std::integral_constant<int, 2>());
      if constexpr (N > 4)
        fnStep(std::integral_constant<int, 4>());
      if constexpr (N > 8)
        fnStep(std::integral_constant<int, 8>());
      const V vOut = fnMin(vHi, fnMax(vLo, vCarry));
      vCount -= vOut != vOld; // true is -1
      __builtin_memcpy(pRow + nAt, &vOut, 16);
      vCarry = L::template Broadcast<bForward>(vOut);
    }
    for (int i = 0; i < N; ++i)
      nChanged += std::size_t(vCount[i]);
  }
#endif
  auto fnPixel = [&](int i, int nPrevious) {
    const T t = std::min(pMask[i], std::max(std::max(std::max(pRow[i], pRow[nPrevious]), pDone[i]), std::max(pDone[i - 1], pDone[i + 1])));
    nChanged += t != pRow[i];
    pRow[i] = t;
  };
  if (bForward)
    for (; x < nWidth; ++x)
      fnPixel(x, x - 1);
  else
    for (int i = nWidth - 1 - x; i >= 0; --i)
      fnPixel(i, i + 1);
  return nChanged;
}

template <class T>
struct SImages
{
  T* m_pI;
  T* m_pJ;
  std::ptrdiff_t m_nStride; // width + 2
  int m_nWidth;
};

// Raises the neighbours of the queue's pixels until nothing changes, only at padded indices in
// [nLow, nHigh).
template <class T, class TIndex>
void Propagate(const SImages<T>& o, CIndexQueue<TIndex>& oQueue, std::size_t nLow, std::size_t nHigh)
{
  const std::ptrdiff_t s = o.m_nStride;
  const std::ptrdiff_t aOffset[8] = {-s - 1, -s, -s + 1, -1, 1, s - 1, s, s + 1};
  T* __restrict pI = o.m_pI;
  T* __restrict pJ = o.m_pJ;
  while (!oQueue.Empty())
  {
    // Branch-free: whether a neighbour rises depends on the data, which a branch would guess badly.
    oQueue.Reserve(8);
    const std::size_t p = oQueue.Pop();
    const T j = pJ[p];
    for (const std::ptrdiff_t d : aOffset)
    {
      const std::size_t q = std::size_t(std::ptrdiff_t(p) + d);
      const bool bIn = q - nLow < nHigh - nLow;
      const std::size_t r = bIn ? q : p; // where J(r) < j cannot hold when q is out
      const T tJ = pJ[r], tI = pI[r];
      const bool bRaise = (tJ < j) & (tI != tJ);
      pJ[r] = bRaise ? std::min(j, tI) : tJ;
      oQueue.PushIf(r, bRaise);
    }
  }
}

// Reconstruction of rows [nY0, nY1) on their own. Pairs of scans go on while a forward scan changes
// more than one pixel in 64, up to 16 pairs: a pair costs about as much as a queue of a fiftieth of
// the pixels, and the changes shrink by about a half per pair on noisy masks. fnScanRows(n) is told
// of rows done by the first pair, half a unit each.
template <class T, class TIndex, class TProgressFn>
void ReconstructStripe(const SImages<T>& o, int nY0, int nY1, TProgressFn&& fnScanRows)
{
  const std::ptrdiff_t s = o.m_nStride;
  const int nWidth = o.m_nWidth;
  T* const pIBase = o.m_pI;
  T* const pJBase = o.m_pJ;
  const std::size_t nPixels = std::size_t(nWidth) * std::size_t(nY1 - nY0);
  // What the stripe's first and last rows see beyond the stripe: nothing.
  const std::vector<T> vecNothing(std::size_t(s), std::numeric_limits<T>::lowest());
  const T* const pNothing = vecNothing.data() + 1;
  CIndexQueue<TIndex> oQueue;
  std::vector<std::uint8_t> vecSeed(std::size_t(nWidth) + 8, 0);
  for (int nPair = 0;; ++nPair)
  {
    std::size_t nChanged = 0;
    for (int y = nY0; y < nY1; ++y)
    {
      T* pRow = pJBase + (y + 1) * s + 1;
      nChanged += ScanRow<true>(pRow, pIBase + (y + 1) * s + 1, y > nY0 ? pRow - s : pNothing, nWidth);
    }
    if (nPair == 0)
      fnScanRows(nY1 - nY0);
    const bool bLast = nPair == 15 || nChanged * 64 < nPixels;
    nChanged = 0;
    for (int y = nY1 - 1; y >= nY0; --y)
    {
      T* __restrict pRow = pJBase + (y + 1) * s + 1;
      const T* __restrict pMask = pIBase + (y + 1) * s + 1;
      const bool bBelow = y < nY1 - 1;
      nChanged += ScanRow<false>(pRow, pMask, bBelow ? pRow + s : pNothing, nWidth);
      if (!bLast)
        continue;
      // The seeds: a neighbour q passed earlier in this scan with J(q) < J(p) and J(q) < I(q).
      const T* __restrict pBelow = pRow + s;
      const T* __restrict pMaskBelow = pMask + s;
      std::uint8_t* __restrict pSeed = vecSeed.data();
      auto fnLow = [](T tJq, T tIq, T j) { return std::uint8_t((tJq < j) & (tJq < tIq)); };
      for (int x = 0; x < nWidth; ++x)
        pSeed[x] = fnLow(pRow[x + 1], pMask[x + 1], pRow[x]);
      if (bBelow)
        for (int x = 0; x < nWidth; ++x)
          pSeed[x] |= fnLow(pBelow[x - 1], pMaskBelow[x - 1], pRow[x]) | fnLow(pBelow[x], pMaskBelow[x], pRow[x]) |
                      fnLow(pBelow[x + 1], pMaskBelow[x + 1], pRow[x]);
      const std::size_t nRowStart = std::size_t((y + 1) * s + 1);
      for (int x = 0; x < nWidth; x += 8)
      {
        std::uint64_t nBits;
        std::memcpy(&nBits, pSeed + x, 8);
        for (; nBits; nBits &= nBits - 1)
          oQueue.Push(nRowStart + std::size_t(x + __builtin_ctzll(nBits) / 8));
      }
    }
    if (nPair == 0)
      fnScanRows(nY1 - nY0);
    if (nChanged == 0) // a backward scan that changes nothing after a forward one: stable
      return;
    if (bLast)
      break;
  }
  Propagate(o, oQueue, std::size_t((nY0 + 1) * s), std::size_t((nY1 + 1) * s));
}

template <class T, class TIndex>
void Reconstruct(const SImages<T>& o, int nHeight, const Detail::CProgressLayer& oProgress)
{
  const int nStripes = std::max(1, std::min(nHeight / 64, 2 * tbb::this_task_arena::max_concurrency()));
  auto fnStripeStart = [&](int n) { return int(std::int64_t(nHeight) * n / nStripes); };
  tbb::parallel_for(0, nStripes, [&](int n) {
    ReconstructStripe<T, TIndex>(o, fnStripeStart(n), fnStripeStart(n + 1), [&](int nRows) { oProgress.Increment(nRows / 2.0); });
  });
  if (nStripes == 1)
    return;
  CIndexQueue<TIndex> oQueue;
  const std::ptrdiff_t s = o.m_nStride;
  for (int n = 1; n < nStripes; ++n)
    for (int y = fnStripeStart(n) - 1; y <= fnStripeStart(n); ++y)
      for (int x = 0; x < o.m_nWidth; ++x)
        oQueue.Push(std::size_t((y + 1) * s + 1 + x));
  Propagate(o, oQueue, 0, std::size_t(s) * std::size_t(nHeight + 2));
}

} // namespace

template <class TDest, class TMarker, class TMask>
void CGrayscaleReconstructionFilter::Apply(TDest& oDest, const TMarker& oMarker, const TMask& oMask) const
{
  using T = typename TMask::TPixel;
  static_assert(std::is_same<T, typename TMarker::TPixel>::value && std::is_same<T, typename TDest::TPixel>::value,
                "one pixel type for the three bands");
  const char* const pAction = "Apply Grayscale Reconstruction Filter";
  Detail::CheckSameSize(oDest, oMarker, pAction);
  Detail::CheckSameSize(oDest, oMask, pAction);
  const int nWidth = int(oDest.GetWidth()), nHeight = int(oDest.GetHeight());
  if (nWidth == 0 || nHeight == 0)
    return;
  const Detail::CProgressLayer oProgress(m_pLogger, pAction, 4.0 * nHeight);
  const std::ptrdiff_t s = nWidth + 2;
  const T tLowest = std::numeric_limits<T>::lowest();
  const std::size_t nSize = std::size_t(s) * std::size_t(nHeight + 2);
  Detail::CWorkBuffer<T> oI(nSize), oJ(nSize);
  // The invalid pixels, flagged in oOut; integer bands without a no-data value have none, and skip it.
  const bool bFlags = std::is_floating_point<T>::value || oMask.HasNoDataValue() || oMarker.HasNoDataValue();
  Detail::CWorkBuffer<std::uint8_t> oOut(bFlags ? std::size_t(nWidth) * std::size_t(nHeight) : 0);
  for (T* p : {oI.data(), oJ.data()}) // the frame; the load writes the rest
  {
    std::fill(p, p + s, tLowest);
    std::fill(p + (nHeight + 1) * s, p + (nHeight + 2) * s, tLowest);
    for (int y = 1; y <= nHeight; ++y)
      p[y * s] = p[y * s + s - 1] = tLowest;
  }
  // The loops take their own copies of the tests and values, which they would otherwise read again per
  // pixel through the lambda's references.
  const Detail::SValidTest<T> oMaskValid(oMask), oMarkerValid(oMarker);
  Detail::ParallelRuns(oMask, oProgress, [&](int nX, int nY, const T* __restrict pRun, int nRun) {
    T* __restrict pTo = oI.data() + (nY + 1) * s + nX + 1;
    if (!bFlags)
      return Band::Detail::CopyRun(pRun, pTo, nRun);
    const Detail::SValidTest<T> oValid = oMaskValid;
    const T tOut = tLowest;
    std::uint8_t* __restrict pOut = oOut.data() + std::ptrdiff_t(nY) * nWidth + nX;
    for (int i = 0; i < nRun; ++i)
    {
      const T t = pRun[i];
      const std::uint8_t nOut = !oValid(t);
      pOut[i] = nOut;
      pTo[i] = nOut ? tOut : t;
    }
  });
  std::atomic<bool> bInvalid(false);
  Detail::ParallelRuns(oMarker, oProgress, [&](int nX, int nY, const T* __restrict pRun, int nRun) {
    const std::ptrdiff_t nAt = (nY + 1) * s + nX + 1;
    T* __restrict pI = oI.data() + nAt;
    T* __restrict pJ = oJ.data() + nAt;
    if (!bFlags)
    {
      for (int i = 0; i < nRun; ++i)
        pJ[i] = std::min(pRun[i], pI[i]);
      return;
    }
    const Detail::SValidTest<T> oValid = oMarkerValid;
    const T tOut = tLowest;
    std::uint8_t* __restrict pOut = oOut.data() + std::ptrdiff_t(nY) * nWidth + nX;
    std::uint8_t nAny = 0;
    for (int i = 0; i < nRun; ++i)
    {
      const T t = pRun[i], tMask = pI[i]; // both loaded whatever the flag: no branch
      const std::uint8_t nOut = std::uint8_t(pOut[i] | !oValid(t));
      const T tMarker = tMask < t ? tMask : t; // std::min(t, tMask)
      pOut[i] = nOut;
      pI[i] = nOut ? tOut : tMask;
      pJ[i] = nOut ? tOut : tMarker;
      nAny |= nOut;
    }
    if (nAny)
      bInvalid.store(true, std::memory_order_relaxed);
  });

  const SImages<T> oImages{oI.data(), oJ.data(), s, nWidth};
  if (nSize <= std::numeric_limits<std::uint32_t>::max())
    Reconstruct<T, std::uint32_t>(oImages, nHeight, oProgress);
  else
    Reconstruct<T, std::size_t>(oImages, nHeight, oProgress);

  const T tNoData = Detail::GetOutputNoDataValue(oDest);
  Detail::ParallelRuns(oDest, oProgress, [&](int nX, int nY, T* __restrict pRun, int nRun) {
    const T* __restrict pFrom = oJ.data() + (nY + 1) * s + nX + 1;
    if (!bFlags)
      return Band::Detail::CopyRun(pFrom, pRun, nRun);
    const std::uint8_t* __restrict pOut = oOut.data() + std::ptrdiff_t(nY) * nWidth + nX;
    const T tOut = tNoData;
    for (int i = 0; i < nRun; ++i)
    {
      const T t = pFrom[i];
      pRun[i] = pOut[i] ? tOut : t;
    }
  });
  if (bInvalid && !oDest.HasNoDataValue())
    oDest.SetNoDataValue(tNoData);
  oProgress.Done();
}

#define ORL_RECONSTRUCTION_MEMORY(TPixel) template ORL_RECONSTRUCTION_APPLY(TPixel, Band::SMemoryTag)
#define ORL_RECONSTRUCTION_IPP(TPixel) template ORL_RECONSTRUCTION_APPLY(TPixel, Band::SIPPTag)
#define ORL_RECONSTRUCTION_TILE(TPixel) template ORL_RECONSTRUCTION_APPLY(TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_TILE)

}}} // namespace Orl::Ostrel::Filter
