#pragma once

// Handing the pixels of a rectangle to a functor: the walks under ForEach2D and ForEach2DIf.
//
// The rectangle is walked row by row from the top, each row from the left. Where the iterator has row
// runs (RowRuns.h) a row goes run by run; each run reaches the functor's row loop (ApplyRow) when the
// functor has one, else pixel by pixel. How runs are cut is the one thing that could make a result
// depend on the storage: a memory band's row is one run, a tile band's breaks at tile borders. So for
// a functor that is not order-free (see Math/StatisticFunctors.h) the row loop only ever sees pieces
// that end at band columns that are multiples of the pixel type's tile width (SWalkGrid): every storage hands the
// functor the same pieces, and the same bits come out.

#include "Band/Detail/RowRuns.h"
#include "Band/TileSize.h"
#include "Math/StatisticFunctors.h"

#include <algorithm>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

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

// How a functor that is not order-free takes in a run.
enum EPixelOrder
{
  ePixelByPixel, // operator() on each pixel in turn: the order of a plain loop over the rectangle
  eTilePieces    // the row loop on pieces cut at multiples of the tile width: the same on every storage
};

// The nCount pixels from pRun, whose first pixel stands in band column nColumn.
template <EPixelOrder eOrder, class TPixel, class TFunctor, class TPredicate>
inline void TakeInRun(const TPixel* pRun, int nCount, int nColumn, TFunctor& oFunctor, const TPredicate& oPredicate)
{
  constexpr bool bRowLoop = SHasApplyRow<TFunctor, TPixel, TPredicate>::value;
  if constexpr (bRowLoop && Harnel::Math::SOrderFree<TFunctor>::value)
    oFunctor.ApplyRow(pRun, std::size_t(nCount), oPredicate);
  else if constexpr (bRowLoop && eOrder == eTilePieces)
  {
    constexpr int nPiece = int(SWalkGrid<TPixel>::ms_nPieceX);
    for (int nLength; nCount > 0; pRun += nLength, nColumn += nLength, nCount -= nLength)
    {
      nLength = std::min(nCount, nPiece - ((nColumn % nPiece) + nPiece) % nPiece);
      oFunctor.ApplyRow(pRun, std::size_t(nLength), oPredicate);
    }
  }
  else
  {
    (void)nColumn;
    for (int i = 0; i < nCount; ++i)
    {
      const TPixel tValue = pRun[i];
      if (oPredicate(tValue))
        oFunctor(tValue);
    }
  }
}

// The nWidth x nHeight rectangle whose top-left pixel is under it, rows from the top, each from the
// left; fnRowEnd() after each row, also a row without pixels. The iterator never moves past the
// rectangle's last row or column.
// Required of TIterator: *it, it.X as int, ++it.X, ++it.Y, it += CPoint<int>; or the row runs.
template <EPixelOrder eOrder, class TIterator, class TFunctor, class TPredicate, class TRowFn>
inline void TakeInRect(const TIterator& it, int nWidth, int nHeight, TFunctor& oFunctor, const TPredicate& oPredicate,
                       TRowFn&& fnRowEnd)
{
  using TPixel = std::decay_t<decltype(*it)>;
  if constexpr (SRowRuns<TIterator>::value)
  {
    const int nFirstColumn = it.X;
    int nColumn = nFirstColumn;
    WalkRectRuns(
      it, nWidth, nHeight,
      [&](const TPixel* pRun, int nRun) {
        TakeInRun<eOrder>(pRun, nRun, nColumn, oFunctor, oPredicate);
        nColumn += nRun;
      },
      [&] {
        nColumn = nFirstColumn;
        fnRowEnd();
      });
  }
  else
  {
    TIterator itPixel = it;
    for (int nRow = 0; nRow < nHeight; ++nRow)
    {
      for (int nLeft = nWidth; nLeft > 0; --nLeft)
      {
        const TPixel tValue = *itPixel;
        if (oPredicate(tValue))
          oFunctor(tValue);
        if (nLeft > 1)
          ++itPixel.X;
      }
      if (nRow + 1 < nHeight && nWidth > 0)
        itPixel += Pravik::GraphObject2d::CPoint<int>(1 - nWidth, 1);
      fnRowEnd();
    }
  }
}

}}}} // namespace Orl::Ostrel::Band::Detail
