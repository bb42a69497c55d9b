#pragma once

#include "Band/Detail/RowRuns.h"
#include "Band/MemoryBandIterator.h"
#include "Band/TileBandIterator.h"
#include "Foundation/BadArgument.h"
#include "Foundation/Logger.h"
#include "Foundation/PixelTypes.h"
#include "Foundation/Point.h"
#include "Internationalisation/Translator.h"

#include <boost/shared_ptr.hpp>
#include <boost/tuple/tuple.hpp>
#include <boost/utility/enable_if.hpp>
#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <type_traits>

namespace Orl { namespace Ostrel { namespace Band {

// Selects the parallel overloads of the 2-D walks. Passed by value.
struct SAllowParallelFor
{
};

namespace Detail {

// Whether a walk may be written with an unrolled inner loop for this iterator type: false for every
// iterator of the library. The walks below get their speed from the row runs (Detail/RowRuns.h)
// instead, asked with if constexpr inside each walk.
template <class TIterator>
struct SAllowIteratorUnrolling
{
  static constexpr bool BALLOWUNROLLING = false;
};

template <class TSrcIterator>
using TPlainWalk = typename boost::disable_if_c<SAllowIteratorUnrolling<TSrcIterator>::BALLOWUNROLLING, void>::type;

// Copies nWidth x nHeight pixels by runs, from either side that has them. Neither iterator moves past
// the rectangle's last row or column, so the copy bounded by the source and the one bounded by the
// destination are the same walk. Both sides with runs go strip by strip, a tile column at a time:
// the order of a copy does not matter, and each tile is then read and written as one stream.
template <class TSrcIterator, class TDestIterator>
void CopyRectRuns(const TSrcIterator& itSrc, const TDestIterator& itDest, int nWidth, int nHeight)
{
  using Pravik::GraphObject2d::CPoint;
  assert(nWidth >= 0 && nHeight >= 0 && "blocks are copied towards increasing X and Y");
  if constexpr (SRowRuns<TSrcIterator>::value && SRowRuns<TDestIterator>::value)
    WalkRectRunStrips(itSrc, itDest, nWidth, nHeight,
                      [](const auto* pSrc, auto* pDest, int nRun) { CopyRun(pSrc, pDest, nRun); });
  else
  {
    // One side by runs, the other stepped along, never past the last pixel.
    constexpr bool bSrcRuns = SRowRuns<TSrcIterator>::value;
    auto itOther = [&] {
      if constexpr (bSrcRuns)
        return itDest;
      else
        return itSrc;
    }();
    int nColumn = 0, nRow = 0;
    const auto fnRowEnd = [&] {
      nColumn = 0;
      if (++nRow < nHeight && nWidth > 0)
        itOther += CPoint<int>(1 - nWidth, 1);
    };
    const auto fnRun = [&](auto* pRun, int nRun) {
      for (int i = 0; i < nRun; ++i)
      {
        if constexpr (bSrcRuns)
          *itOther = pRun[i];
        else
          pRun[i] = *itOther;
        if (++nColumn < nWidth)
          ++itOther.X;
      }
    };
    if constexpr (bSrcRuns)
      WalkRectRuns(itSrc, nWidth, nHeight, fnRun, fnRowEnd);
    else
      WalkRectRuns(itDest, nWidth, nHeight, fnRun, fnRowEnd);
  }
}

template <class TSrcIterator, class TDestIterator>
constexpr bool g_bCopyRuns = SRowRuns<TSrcIterator>::value || SRowRuns<TDestIterator>::value;

// The four walks of one block. Required of the iterators: *it (assignable on the destination),
// ++it.X, ++it.Y, it.X != it.X, it.Y != it.Y, and it += CPoint<int> where one side has row runs.
// All take their iterators by value and move them.
//
// Rows outside, columns inside, bounded by the source.
template <class TSrcIterator, class TDestIterator>
TPlainWalk<TSrcIterator> DoCopy2D(TSrcIterator itSrc, TSrcIterator itSrcEnd, TDestIterator itDest)
{
  if constexpr (g_bCopyRuns<TSrcIterator, TDestIterator>)
    CopyRectRuns(itSrc, itDest, itSrcEnd.X - itSrc.X, itSrcEnd.Y - itSrc.Y);
  else
    while (itSrc.Y != itSrcEnd.Y)
    {
      TSrcIterator itS = itSrc;
      TDestIterator itD = itDest;
      for (; itS.X != itSrcEnd.X; ++itS.X, ++itD.X)
        *itD = *itS;
      ++itSrc.Y;
      ++itDest.Y;
    }
}

// Columns outside, rows inside, bounded by the source. Nothing to gain from runs here.
template <class TSrcIterator, class TDestIterator>
TPlainWalk<TSrcIterator> DoCopy2DColumnsFirst(TSrcIterator itSrc, TSrcIterator itSrcEnd, TDestIterator itDest)
{
  while (itSrc.X != itSrcEnd.X)
  {
    TSrcIterator itS = itSrc;
    TDestIterator itD = itDest;
    for (; itS.Y != itSrcEnd.Y; ++itS.Y, ++itD.Y)
      *itD = *itS;
    ++itSrc.X;
    ++itDest.X;
  }
}

// Bounded by the destination. The source steps only when another pixel is known to follow, so it
// never moves past the last pixel it gives: safe for a source with no room beyond its end.
template <class TSrcIterator, class TDestIterator>
TPlainWalk<TSrcIterator> DoCopy2DIterDest(TSrcIterator itSrc, TDestIterator itDest, TDestIterator itDestEnd)
{
  if constexpr (g_bCopyRuns<TSrcIterator, TDestIterator>)
    CopyRectRuns(itSrc, itDest, itDestEnd.X - itDest.X, itDestEnd.Y - itDest.Y);
  else
  {
    if (itDest.Y == itDestEnd.Y)
      return;
    for (;;)
    {
      TSrcIterator itS = itSrc;
      TDestIterator itD = itDest;
      if (itD.X != itDestEnd.X)
      {
        *itD = *itS;
        ++itD.X;
        while (itD.X != itDestEnd.X)
        {
          ++itS.X;
          *itD = *itS;
          ++itD.X;
        }
      }
      ++itDest.Y;
      if (itDest.Y == itDestEnd.Y)
        return;
      ++itSrc.Y;
    }
  }
}

// The same with columns outside.
template <class TSrcIterator, class TDestIterator>
TPlainWalk<TSrcIterator> DoCopy2DIterDestColumnsFirst(TSrcIterator itSrc, TDestIterator itDest,
                                                      TDestIterator itDestEnd)
{
  if (itDest.X == itDestEnd.X)
    return;
  for (;;)
  {
    TSrcIterator itS = itSrc;
    TDestIterator itD = itDest;
    if (itD.Y != itDestEnd.Y)
    {
      *itD = *itS;
      ++itD.Y;
      while (itD.Y != itDestEnd.Y)
      {
        ++itS.Y;
        *itD = *itS;
        ++itD.Y;
      }
    }
    ++itDest.X;
    if (itDest.X == itDestEnd.X)
      return;
    ++itSrc.X;
  }
}

// The body of the parallel copy. The scheduler copies it on every split; operator() only reads it
// and may run on many threads at once. Range values are offsets from the begin iterators; rows are
// Y, columns X.
template <class TSrcIterator, class TDestIterator>
class CApplyCopy
{
public:
  CApplyCopy(const TSrcIterator& itSrcBegin, const TSrcIterator& itSrcEnd, const TDestIterator& itDestBegin,
             const TDestIterator& itDestEnd, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger,
             bool bIterDest, bool bColumnsFirst)
    : m_itSrcBegin(itSrcBegin), m_itSrcEnd(itSrcEnd), m_itDestBegin(itDestBegin), m_itDestEnd(itDestEnd),
      m_pLogger(pLogger), m_bIterDest(bIterDest), m_bColumnsFirst(bColumnsFirst)
  {
  }

  void operator()(const tbb::blocked_range2d<int, int>& oRange) const
  {
    using Pravik::GraphObject2d::CPoint;
    const CPoint<int> oBlockStart(oRange.cols().begin(), oRange.rows().begin());
    const CPoint<int> oBlockEnd(oRange.cols().end(), oRange.rows().end());

    TSrcIterator itSrc = m_itSrcBegin;
    itSrc += oBlockStart;
    TDestIterator itDest = m_itDestBegin;
    itDest += oBlockStart;
    if (m_bIterDest)
    {
      TDestIterator itDestEnd = m_itDestBegin;
      itDestEnd += oBlockEnd;
      if (m_bColumnsFirst)
        DoCopy2DIterDestColumnsFirst(itSrc, itDest, itDestEnd);
      else
        DoCopy2DIterDest(itSrc, itDest, itDestEnd);
    }
    else
    {
      TSrcIterator itSrcEnd = m_itSrcBegin;
      itSrcEnd += oBlockEnd;
      if (m_bColumnsFirst)
        DoCopy2DColumnsFirst(itSrc, itSrcEnd, itDest);
      else
        DoCopy2D(itSrc, itSrcEnd, itDest);
    }
    if (m_pLogger)
      m_pLogger->IncrementProgress(double(std::uint64_t(oRange.rows().size())) *
                                   double(std::uint64_t(oRange.cols().size())));
  }

private:
  TSrcIterator m_itSrcBegin;
  TSrcIterator m_itSrcEnd;
  TDestIterator m_itDestBegin;
  TDestIterator m_itDestEnd;
  boost::shared_ptr<Harnel::Progress::CLogger> m_pLogger;
  bool m_bIterDest;
  bool m_bColumnsFirst;
};

} // namespace Detail

// Throws CBasicException when a copy of oExtent (the source's end minus begin; a negative axis counts
// by its size) would not fit from itDestBegin to itDestEnd. An empty extent fits anywhere.
template <class TDestIterator>
void CheckCopy2DRoom(const Pravik::GraphObject2d::CPoint<int>& oExtent, const TDestIterator& itDestBegin,
                     const TDestIterator& itDestEnd)
{
  const std::int64_t nColumns = std::abs(std::int64_t(oExtent.x)), nRows = std::abs(std::int64_t(oExtent.y));
  const std::int64_t nRoomX = std::int64_t(itDestEnd.X) - itDestBegin.X, nRoomY = std::int64_t(itDestEnd.Y) - itDestBegin.Y;
  if (nColumns != 0 && nRows != 0 && (nRoomX < nColumns || nRoomY < nRows))
    Harnel::ThrowBadArgument(__FILE__, __LINE__,
                             "Copy2D of %1% x %2% pixels into a destination of %3% x %4% pixels: it does not fit",
                             nColumns, nRows, nRoomX, nRoomY);
}

// Copies the source's rectangle to the destination, pixel by pixel, on all processors.
//
// Required of both iterator types: the iterator contract (*it, X and Y movers, it += CPoint<int>,
// GetBlockHintX(), GetBlockHintY()); the destination's *it is assignable from the source's.
//
// The extent is the source's end minus its begin; the source rectangle, which runs that many pixels
// forward from the begin iterator also on a reversed axis, must lie inside the source band, and the
// destination pair must have room for it (else
// CBasicException, before any pixel is written), and must not overlap the source. There is no serial path: the scheduler splits the
// rectangle down to a grain of twice the smaller block hint of the two bands on each axis, so a
// rectangle within the grain runs as one block. An exception from a block reaches the caller after
// the running blocks have finished; the logger's layer then stays pushed.
template <class TSrcIterator, class TDestIterator>
void Copy2D(const boost::tuples::tuple<TSrcIterator, TSrcIterator>& oSource,
            boost::tuples::tuple<TDestIterator, TDestIterator> oDest,
            boost::shared_ptr<Harnel::Progress::CLogger> pLogger, SAllowParallelFor)
{
  const TSrcIterator& oSrcBegin = boost::get<0>(oSource);
  const TSrcIterator& oSrcEnd = boost::get<1>(oSource);
  const TDestIterator& oDestBegin = boost::get<0>(oDest);
  const Pravik::GraphObject2d::CPoint<int> oExtent(int(oSrcEnd.X - oSrcBegin.X), int(oSrcEnd.Y - oSrcBegin.Y));
  Detail::CheckSourceInside(oSrcBegin, oSrcEnd);
  CheckCopy2DRoom(oExtent, oDestBegin, boost::get<1>(oDest));

  const std::uint32_t nHintX = std::min<std::uint32_t>(oSrcBegin.GetBlockHintX(), oDestBegin.GetBlockHintX());
  const std::uint32_t nHintY = std::min<std::uint32_t>(oSrcBegin.GetBlockHintY(), oDestBegin.GetBlockHintY());

  const Detail::CApplyCopy<TSrcIterator, TDestIterator> oBody(oSrcBegin, oSrcEnd, oDestBegin, boost::get<1>(oDest),
                                                              pLogger, false, false);
  if (pLogger)
    pLogger->Push(Harnel::Internationalisation::CTranslator::Translate("Perform Copy2D in several tasks"),
                  double(oExtent.y), double(oExtent.x) * double(oExtent.y), 0.0, false,
                  Harnel::Progress::ELayerClass(2), Harnel::Progress::ELayerSecrecy(0), std::string());

  // A reversed axis gives a negative extent: the layer keeps the signed numbers, the copy runs that
  // many pixels forward from the begin iterator.
  const int nRows = std::abs(oExtent.y);
  const int nColumns = std::abs(oExtent.x);
  if (nRows != 0 && nColumns != 0)
  {
    const tbb::blocked_range2d<int, int> oRange(0, nRows, std::size_t(2) * nHintY, 0, nColumns,
                                                std::size_t(2) * nHintX);
    tbb::parallel_for(oRange, oBody, tbb::auto_partitioner());
  }

  if (pLogger)
    pLogger->Pop();
}

#define ORL_COPY2D_EXTERN(T)                                                                            \
  extern template void Copy2D<Detail::CMemoryBandIterator<T, int>, Detail::CMutableMemoryBandIterator<T, int>>( \
    const boost::tuples::tuple<Detail::CMemoryBandIterator<T, int>, Detail::CMemoryBandIterator<T, int>>&,     \
    boost::tuples::tuple<Detail::CMutableMemoryBandIterator<T, int>, Detail::CMutableMemoryBandIterator<T, int>>, \
    boost::shared_ptr<Harnel::Progress::CLogger>, SAllowParallelFor);                                           \
  extern template void Copy2D<Detail::CTileBandIterator<T, int, false>, Detail::CMutableTileBandIterator<T, int>>( \
    const boost::tuples::tuple<Detail::CTileBandIterator<T, int, false>, Detail::CTileBandIterator<T, int, false>>&, \
    boost::tuples::tuple<Detail::CMutableTileBandIterator<T, int>, Detail::CMutableTileBandIterator<T, int>>,     \
    boost::shared_ptr<Harnel::Progress::CLogger>, SAllowParallelFor);
ORL_FOR_EACH_PIXEL_TYPE(ORL_COPY2D_EXTERN)
#undef ORL_COPY2D_EXTERN

}}} // namespace Orl::Ostrel::Band
