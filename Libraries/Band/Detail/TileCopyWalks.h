#pragma once

// Copy2D's walks for tile bands on either side. A tile iterator stepped pixel by pixel pays a border
// test and memory-held state on every step; these walks copy row runs instead (see RowRuns.h), one
// tight loop per tile stretch, strip by strip, so that each tile is read and written as one stream.
// Included by Copy2D.h.

#include "Band/Detail/RowRuns.h"
#include "Band/TileBandIterator.h"

#include <boost/utility/enable_if.hpp>

#include <algorithm>
#include <cassert>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

template <class TPixel, class TCoord, bool bMutable>
struct SAllowIteratorUnrolling<CTileBandIterator<TPixel, TCoord, bMutable> >
{
  static constexpr bool BALLOWUNROLLING = true;
};
template <class TPixel, class TCoord>
struct SAllowIteratorUnrolling<CMutableTileBandIterator<TPixel, TCoord> >
{
  static constexpr bool BALLOWUNROLLING = true;
};

template <class TSrcIterator, class TDestIterator>
using TTileWalk = typename boost::enable_if_c<SUseRunWalks<TSrcIterator, TDestIterator>::value, void>::type;

// Neither iterator moves past the rectangle's last row or column, so the copy bounded by the source and
// the one bounded by the destination are the same walk. A destination without runs is written pixel
// by pixel, in rows.
template <class TSrcIterator, class TDestIterator>
void CopyRectRuns(const TSrcIterator& itSrc, const TDestIterator& itDest, int nWidth, int nHeight)
{
  assert(nWidth >= 0 && nHeight >= 0 && "blocks are copied towards increasing X and Y");
  if constexpr (SRowRuns<TDestIterator>::value)
    WalkRectRunStrips(itSrc, itDest, nWidth, nHeight,
                      [](const auto* pSrc, auto* pDest, int nRun) { CopyRun(pSrc, pDest, nRun); });
  else
  {
    TDestIterator itD = itDest;
    WalkRectRuns(
      itSrc, nWidth, nHeight,
      [&](const auto* pSrc, int nRun) {
        for (int i = 0; i < nRun; ++i, ++itD.X)
          *itD = pSrc[i];
      },
      [&] {
        itD += Pravik::GraphObject2d::CPoint<int>(-nWidth, 1);
      });
  }
}

template <class TSrcIterator, class TDestIterator>
TTileWalk<TSrcIterator, TDestIterator> DoCopy2D(TSrcIterator itSrc, TSrcIterator itSrcEnd, TDestIterator itDest)
{
  CopyRectRuns(itSrc, itDest, itSrcEnd.X - itSrc.X, itSrcEnd.Y - itSrc.Y);
}

template <class TSrcIterator, class TDestIterator>
TTileWalk<TSrcIterator, TDestIterator> DoCopy2DIterDest(TSrcIterator itSrc, TDestIterator itDest,
                                                        TDestIterator itDestEnd)
{
  CopyRectRuns(itSrc, itDest, itDestEnd.X - itDest.X, itDestEnd.Y - itDest.Y);
}

// Columns outside: nothing to gain from runs, the plain walks' steps.
template <class TSrcIterator, class TDestIterator>
TTileWalk<TSrcIterator, TDestIterator> DoCopy2DColumnsFirst(TSrcIterator itSrc, TSrcIterator itSrcEnd,
                                                            TDestIterator itDest)
{
  for (; itSrc.X != itSrcEnd.X; ++itSrc.X, ++itDest.X)
  {
    TSrcIterator itS = itSrc;
    TDestIterator itD = itDest;
    for (; itS.Y != itSrcEnd.Y; ++itS.Y, ++itD.Y)
      *itD = *itS;
  }
}

template <class TSrcIterator, class TDestIterator>
TTileWalk<TSrcIterator, TDestIterator> DoCopy2DIterDestColumnsFirst(TSrcIterator itSrc, TDestIterator itDest,
                                                                    TDestIterator itDestEnd)
{
  for (bool bFirst = true; itDest.X != itDestEnd.X; ++itDest.X, bFirst = false)
  {
    if (!bFirst)
      ++itSrc.X; // only when another column follows
    TSrcIterator itS = itSrc;
    TDestIterator itD = itDest;
    for (bool bFirstRow = true; itD.Y != itDestEnd.Y; ++itD.Y, bFirstRow = false)
    {
      if (!bFirstRow)
        ++itS.Y;
      *itD = *itS;
    }
  }
}

}}}} // namespace Orl::Ostrel::Band::Detail

namespace Orl { namespace Ostrel { namespace Band {

// Tile band to tile band of one pixel type.
#define ORL_TILE_COPY2D_EXTERN(T)                                                                       \
  extern template void Copy2D<Detail::CTileBandIterator<T, int, false>, Detail::CMutableTileBandIterator<T, int>>( \
    const boost::tuples::tuple<Detail::CTileBandIterator<T, int, false>, Detail::CTileBandIterator<T, int, false>>&, \
    boost::tuples::tuple<Detail::CMutableTileBandIterator<T, int>, Detail::CMutableTileBandIterator<T, int>>,     \
    boost::shared_ptr<Harnel::Progress::CLogger>, SAllowParallelFor);
ORL_FOR_EACH_PIXEL_TYPE(ORL_TILE_COPY2D_EXTERN)
#undef ORL_TILE_COPY2D_EXTERN

}}} // namespace Orl::Ostrel::Band
