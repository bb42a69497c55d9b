#pragma once

// Row runs: the stretches of a row whose pixels lie one after the other in memory. A memory band's
// row is one run to its end; a tile band's row breaks at every tile border. This is the one question
// every fast walk of the library asks of an iterator, with if constexpr (SRowRuns<TIterator>::value):
// Copy2D, ForEach2D and the statistics row loops (Detail/RowWalk.h), the fill-hole filter's row
// buffers. They work on plain arrays, where the per-pixel tile iterator would pay its border test and
// its memory-held state on every step; iterators without runs are walked through the X and Y movers.
//
// SRowRuns<TIterator>: value true where the iterator offers runs, and then
//   Length(it)      pixels from the current one to the run's end (at least 1, while in the band)
//   Pointer(it)     &*it, const for read-only iterators
//   Advance(it, n)  n steps of ++it.X, n at most Length(it)
//   ms_bReadAhead, ReadAhead(it, n, y, bAlways)
//                   whether the storage reads ahead, and the hint of a row walk (see
//                   CTileBandIterator::ReadAheadOfWalk); a no-op where memory is all there is

#include "Band/MemoryBandIterator.h"
#include "Band/TileBandIterator.h"
#include "Foundation/BadArgument.h"
#include "Foundation/Point.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// Throws CBasicException unless the rectangle a begin/end pair walks lies inside the band: it runs
// |end - begin| pixels forward from begin on each axis, also where end is before begin. An empty
// rectangle is inside any band. Needs the band's size from the iterator (GetBandWidth/Height).
template <class TIterator>
void CheckSourceInside(const TIterator& itBegin, const TIterator& itEnd)
{
  const std::int64_t nX = itBegin.X, nY = itBegin.Y;
  const std::int64_t nColumns = std::abs(std::int64_t(itEnd.X) - nX), nRows = std::abs(std::int64_t(itEnd.Y) - nY);
  const std::int64_t nBandWidth = std::int64_t(itBegin.GetBandWidth()), nBandHeight = std::int64_t(itBegin.GetBandHeight());
  if (nColumns != 0 && nRows != 0 && (nX < 0 || nY < 0 || nX + nColumns > nBandWidth || nY + nRows > nBandHeight))
    Harnel::ThrowBadArgument(__FILE__, __LINE__,
                             "A source of %1% x %2% pixels at (%3%, %4%) reaches outside its band of %5% x %6% pixels",
                             nColumns, nRows, nX, nY, nBandWidth, nBandHeight);
}

template <class TIterator>
struct SRowRuns : std::false_type
{
};

template <class TIterator>
struct SMemoryRowRuns : std::true_type
{
  static int Length(const TIterator&) { return INT_MAX; }
  static auto Pointer(const TIterator& it) { return &*it; }
  static void Advance(TIterator& it, int nCount) { it.X += nCount; }
  static constexpr bool ms_bReadAhead = false;
  static void ReadAhead(const TIterator&, int, int, bool) {}
};

template <class TPixel, class TCoord>
struct SRowRuns<CMemoryBandIterator<TPixel, TCoord> > : SMemoryRowRuns<CMemoryBandIterator<TPixel, TCoord> >
{
};
template <class TPixel, class TCoord>
struct SRowRuns<CMutableMemoryBandIterator<TPixel, TCoord> >
  : SMemoryRowRuns<CMutableMemoryBandIterator<TPixel, TCoord> >
{
};

template <class TIterator>
struct STileRowRuns : std::true_type
{
  static int Length(const TIterator& it) { return it.GetRunLength(); }
  static auto Pointer(const TIterator& it) { return it.GetRunPointer(); }
  static void Advance(TIterator& it, int nCount) { it.AdvanceX(nCount); }
  static constexpr bool ms_bReadAhead = true;
  static void ReadAhead(const TIterator& it, int nCount, int nPreviousY, bool bAlways)
  {
    it.ReadAheadOfWalk(nCount, nPreviousY, bAlways);
  }
};

template <class TPixel, class TCoord, bool bMutable>
struct SRowRuns<CTileBandIterator<TPixel, TCoord, bMutable> >
  : STileRowRuns<CTileBandIterator<TPixel, TCoord, bMutable> >
{
};
template <class TPixel, class TCoord>
struct SRowRuns<CMutableTileBandIterator<TPixel, TCoord> > : STileRowRuns<CMutableTileBandIterator<TPixel, TCoord> >
{
};

// Copies a run, converting as an assignment would. Same-type runs go in 64-byte blocks that the
// compiler expands inline: the C library's memmove is on some machines several times slower for the
// few kilobytes of a tile's run than a plain vector loop.
template <class TFrom, class TTo>
inline void CopyRun(const TFrom* __restrict pFrom, TTo* __restrict pTo, int nCount)
{
  int i = 0;
  if constexpr (std::is_same<TFrom, TTo>::value && 64 % sizeof(TFrom) == 0)
  {
    constexpr int nBlock = int(64 / sizeof(TFrom));
    for (; i + nBlock <= nCount; i += nBlock)
      __builtin_memcpy(pTo + i, pFrom + i, 64);
  }
  for (; i < nCount; ++i)
    pTo[i] = pFrom[i];
}

// Calls fn(pointer, n) for the runs of the nCount pixels from it on, in order, and leaves it on the
// last of them: a step beyond would fetch the next tile for nothing.
template <class TIterator, class TFn>
inline void ForEachRowRun(TIterator& it, int nCount, TFn&& fn)
{
  using TRuns = SRowRuns<TIterator>;
  while (nCount > 0)
  {
    const int nRun = std::min(nCount, TRuns::Length(it));
    fn(TRuns::Pointer(it), nRun);
    nCount -= nRun;
    TRuns::Advance(it, nCount == 0 ? nRun - 1 : nRun);
  }
}

// The rows of an nWidth x nHeight rectangle from it, its top-left pixel: fnRun(pointer, n) for each run
// of a row in order, fnRowEnd() after each row. One iterator goes through the whole rectangle and never
// past its last column: it comes back to the next row's start with +=, so that a tile iterator finds
// the tiles of a block up to four tiles across in its own slots, row after row, instead of fetching
// them again as a fresh copy per row would.
template <class TIterator, class TRunFn, class TRowFn>
inline void WalkRectRuns(TIterator it, int nWidth, int nHeight, TRunFn&& fnRun, TRowFn&& fnRowEnd)
{
  using TRuns = SRowRuns<TIterator>;
  for (int nRow = 0; nRow < nHeight; ++nRow)
  {
    if (nRow != 0 && nWidth > 0)
      it += Pravik::GraphObject2d::CPoint<int>(1 - nWidth, 1);
    for (int nLeft = nWidth; nLeft > 0;)
    {
      const int nRun = std::min(nLeft, TRuns::Length(it));
      fnRun(TRuns::Pointer(it), nRun);
      nLeft -= nRun;
      TRuns::Advance(it, nLeft == 0 ? nRun - 1 : nRun);
    }
    fnRowEnd();
  }
}

// The same over two rectangles of one size, moving in step: fnRun(pointerA, pointerB, n).
template <class TIteratorA, class TIteratorB, class TRunFn>
inline void WalkRectRuns(TIteratorA itA, TIteratorB itB, int nWidth, int nHeight, TRunFn&& fnRun)
{
  using TRunsA = SRowRuns<TIteratorA>;
  using TRunsB = SRowRuns<TIteratorB>;
  for (int nRow = 0; nRow < nHeight && nWidth > 0; ++nRow)
  {
    if (nRow != 0)
    {
      itA += Pravik::GraphObject2d::CPoint<int>(1 - nWidth, 1);
      itB += Pravik::GraphObject2d::CPoint<int>(1 - nWidth, 1);
    }
    for (int nLeft = nWidth; nLeft > 0;)
    {
      const int nRun = std::min(nLeft, std::min(TRunsA::Length(itA), TRunsB::Length(itB)));
      fnRun(TRunsA::Pointer(itA), TRunsB::Pointer(itB), nRun);
      nLeft -= nRun;
      TRunsA::Advance(itA, nLeft == 0 ? nRun - 1 : nRun);
      TRunsB::Advance(itB, nLeft == 0 ? nRun - 1 : nRun);
    }
  }
}

// The same rectangle in strips instead of rows, where the order of the runs does not matter: a strip
// is a stretch of columns in which every row is one run (for tiles: one tile column, cut where another
// iterator's tile border falls), walked top to bottom with the Y mover, strip after strip. A tile's
// rows lie one after the other in memory, so a strip as wide as its tile reads the tile as one stream,
// where rows across the band would jump from tile to tile every few kilobytes.
template <class TIterator, class TRunFn>
inline void WalkRectRunStrips(const TIterator& it, int nWidth, int nHeight, TRunFn&& fnRun)
{
  using TRuns = SRowRuns<TIterator>;
  for (int nX = 0; nX < nWidth && nHeight > 0;)
  {
    TIterator itStrip = it;
    if (nX != 0)
      itStrip += Pravik::GraphObject2d::CPoint<int>(nX, 0);
    const int nRun = std::min(nWidth - nX, TRuns::Length(itStrip));
    for (int nRow = 0;;)
    {
      fnRun(TRuns::Pointer(itStrip), nRun);
      if (++nRow == nHeight)
        break;
      ++itStrip.Y;
    }
    nX += nRun;
  }
}

template <class TIteratorA, class TIteratorB, class TRunFn>
inline void WalkRectRunStrips(const TIteratorA& itA, const TIteratorB& itB, int nWidth, int nHeight, TRunFn&& fnRun)
{
  using TRunsA = SRowRuns<TIteratorA>;
  using TRunsB = SRowRuns<TIteratorB>;
  for (int nX = 0; nX < nWidth && nHeight > 0;)
  {
    TIteratorA itStripA = itA;
    TIteratorB itStripB = itB;
    if (nX != 0)
    {
      itStripA += Pravik::GraphObject2d::CPoint<int>(nX, 0);
      itStripB += Pravik::GraphObject2d::CPoint<int>(nX, 0);
    }
    const int nRun = std::min(nWidth - nX, std::min(TRunsA::Length(itStripA), TRunsB::Length(itStripB)));
    for (int nRow = 0;;)
    {
      fnRun(TRunsA::Pointer(itStripA), TRunsB::Pointer(itStripB), nRun);
      if (++nRow == nHeight)
        break;
      ++itStripA.Y;
      ++itStripB.Y;
    }
    nX += nRun;
  }
}

}}}} // namespace Orl::Ostrel::Band::Detail
