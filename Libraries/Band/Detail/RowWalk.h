#pragma once

// Walking the rows of a block with a functor: the inner loop of ForEach2D and ForEach2DIf.
//
// Where the iterator's rows are contiguous memory and the functor has a row loop (ApplyRow), each
// row goes to that loop as a pointer and a length; otherwise pixel by pixel through the iterator
// contract. Both give the same result (see Math/StatisticFunctors.h). Tile iterators hand over a row
// run by run, one tile's stretch at a time (see RowRuns.h), to the row loop or pixel by pixel.

#include "Band/Detail/RowRuns.h"
#include "Band/MemoryBandIterator.h"

#include <cassert>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// True for iterators whose pixels from X to the end of a row are consecutive in memory starting at
// &*it. Other iterators (tiles) may break a row anywhere.
template <class TIterator>
struct SContiguousRows : std::false_type
{
};
template <class TPixel, class TCoord>
struct SContiguousRows<CMemoryBandIterator<TPixel, TCoord>> : std::true_type
{
};
template <class TPixel, class TCoord>
struct SContiguousRows<CMutableMemoryBandIterator<TPixel, TCoord>> : std::true_type
{
};

template <class TFunctor, class TPixel, class TPredicate, class = void>
struct SHasApplyRow : std::false_type
{
};
template <class TFunctor, class TPixel, class TPredicate>
struct SHasApplyRow<TFunctor, TPixel, TPredicate,
                    std::void_t<decltype(std::declval<TFunctor&>().ApplyRow(
                      std::declval<const TPixel*>(), std::size_t(), std::declval<const TPredicate&>()))>>
  : std::true_type
{
};

// Iterators other than the memory ones whose rows come in runs: tile iterators.
template <class TIterator>
constexpr bool g_bRunRows = SRowRuns<TIterator>::value && !SContiguousRows<TIterator>::value;

// The pixels of one run, through the row loop where the functor has one.
template <class TPixel, class TFunctor, class TPredicate>
inline void ApplyRun(const TPixel* pRun, int nLength, TFunctor& oFunctor, const TPredicate& oPredicate)
{
  if constexpr (SHasApplyRow<TFunctor, TPixel, TPredicate>::value)
    oFunctor.ApplyRow(pRun, std::size_t(nLength), oPredicate);
  else
    for (int i = 0; i < nLength; ++i)
    {
      const TPixel tValue = pRun[i];
      if (oPredicate(tValue))
        oFunctor(tValue);
    }
}

// One row: the pixels from itStart up to, not including, column itStop.X.
// Required: *it, it.X compared with itStop.X, ++it.X; for the row loop also &*it and X - X.
template <class TIterator, class TFunctor, class TPredicate>
inline void WalkRow(const TIterator& itStart, const TIterator& itStop, TFunctor& oFunctor, const TPredicate& oPredicate)
{
  using TPixel = std::decay_t<decltype(*itStart)>;
  if constexpr (SContiguousRows<TIterator>::value && SHasApplyRow<TFunctor, TPixel, TPredicate>::value)
  {
    const auto nLength = itStop.X - itStart.X;
    assert(nLength >= 0 && "rows are walked towards increasing X");
    if (nLength > 0)
      oFunctor.ApplyRow(&*itStart, std::size_t(nLength), oPredicate);
  }
  else if constexpr (g_bRunRows<TIterator>)
  {
    const int nLength = itStop.X - itStart.X;
    assert(nLength >= 0 && "rows are walked towards increasing X");
    TIterator it = itStart;
    ForEachRowRun(it, nLength, [&](const TPixel* pRun, int nRun) { ApplyRun(pRun, nRun, oFunctor, oPredicate); });
  }
  else
  {
    for (TIterator it = itStart; it.X != itStop.X; ++it.X)
    {
      const TPixel tValue = *it;
      if (oPredicate(tValue))
        oFunctor(tValue);
    }
  }
}

// Rows from itRow's Y up to, not including, itStop.Y, each from itRow's X to itStop.X.
// Tile iterators walk the block strip by strip, a tile column at a time (see RowRuns.h): each tile is
// read as one stream, and no row copy of the iterator fetches the block's tiles again. Only the order
// of the pixels changes, which the functors allow.
template <class TIterator, class TFunctor, class TPredicate>
inline void WalkRows(TIterator itRow, const TIterator& itStop, TFunctor& oFunctor, const TPredicate& oPredicate)
{
  if constexpr (g_bRunRows<TIterator>)
  {
    using TPixel = std::decay_t<decltype(*itRow)>;
    const int nWidth = itStop.X - itRow.X;
    const int nHeight = itStop.Y - itRow.Y;
    assert(nWidth >= 0 && nHeight >= 0 && "blocks are walked towards increasing X and Y");
    WalkRectRunStrips(itRow, nWidth, nHeight,
                      [&](const TPixel* pRun, int nRun) { ApplyRun(pRun, nRun, oFunctor, oPredicate); });
  }
  else
    for (; itRow.Y != itStop.Y; ++itRow.Y)
      WalkRow(itRow, itStop, oFunctor, oPredicate);
}

}}}} // namespace Orl::Ostrel::Band::Detail
