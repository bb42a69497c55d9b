#pragma once

// Walking the rows of a block with a functor: the inner loop of ForEach2D and ForEach2DIf.
//
// Where the iterator's rows are contiguous memory and the functor has a row loop (ApplyRow), each
// row goes to that loop as a pointer and a length; otherwise pixel by pixel through the iterator
// contract. Both give the same result (see Math/StatisticFunctors.h).

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
template <class TIterator, class TFunctor, class TPredicate>
inline void WalkRows(TIterator itRow, const TIterator& itStop, TFunctor& oFunctor, const TPredicate& oPredicate)
{
  for (; itRow.Y != itStop.Y; ++itRow.Y)
    WalkRow(itRow, itStop, oFunctor, oPredicate);
}

}}}} // namespace Orl::Ostrel::Band::Detail
