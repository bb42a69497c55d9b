#pragma once

// ForEach2D and ForEach2DIf: hand every pixel of a rectangle to a functor and give the functor back
// with the result. Whether a call is parallel is chosen by the overload (the SAllowParallelReduce
// tag), never at run time.
//
// What the result may depend on. Counts, histograms, integer sums and integer extremes are exact, and
// so the same on every path. Floating sums round, and are guaranteed thus:
// - The serial ForEach2D takes the pixels one at a time, rows from the top, each row from the left:
//   its sums are those of a plain loop over the rectangle.
// - The parallel forms cut the rectangle on a fixed grid of the band (cells one tile down and up to 64
//   tiles across for the pixel type, counted from the band's origin, whether or not the band is
//   tiled: see SWalkGrid), take each cell row by row in pieces that end at tile borders, and join the
//   cells' results in a fixed tree over the cells in row order (tbb::parallel_deterministic_reduce).
//   Order-free functors skip the fixed tree: their bodies split only when a thread steals. The result
//   depends on the pixels, the rectangle and the pixel type only: not on the storage (memory or
//   tiles, spilled or not), the number of threads, or the processor. It differs from the serial one
//   in the last bits.
// A functor that says it is order-free (Math/StatisticFunctors.h) may be given longer runs instead.
//
// The rectangle walked must lie inside the band, also for a reversed begin/end pair (which walks
// |end - begin| pixels forward from begin): else CBasicException before any pixel is read.
//
// Required of TIterator: copy, *it, it.X and it.Y as int, ++it.X, ++it.Y, it += CPoint<int>,
// GetBandWidth(), GetBandHeight(); the
// row runs of Detail/RowRuns.h make the walk fast but are not required. The begin iterator's
// position is a band position: the grid is counted from (0, 0).
// Required of TFunctor: see Math/StatisticFunctors.h (copy, empty state, operator(), Join).
// Required of TPredicate: bool operator()(pixel) const.
//
// Exceptions from a task (a tile load, memory for a functor copy) come out of the call in the
// calling thread; the progress layer then stays pushed, as with every layer.

#include "Band/Detail/RowWalk.h"
#include "Band/Detail/ThreadSanitizer.h"
#include "Band/TileSize.h"
#include "Foundation/BadArgument.h"
#include "Foundation/Logger.h"
#include "Foundation/Point.h"
#include "Internationalisation/Translator.h"
#include "Math/StatisticFunctors.h"

#include <boost/shared_ptr.hpp>
#include <boost/tuple/tuple.hpp>

#include <tbb/blocked_range.h>
#include <tbb/parallel_reduce.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace Orl { namespace Ostrel { namespace Band {

// Selects the parallel overloads of ForEach2D and ForEach2DIf.
struct SAllowParallelReduce
{
};

namespace Detail {

// Leaves out the band's no-data pixels. The comparison is the plain one: for floating pixels a NaN
// pixel is valid, and with NaN as the no-data value every pixel is.
template <class TPixel>
struct SValidDataPredicate
{
  TPixel m_tNoDataValue;

  bool operator()(TPixel tValue) const { return tValue != m_tNoDataValue; }
  // Lets the functors' row loops test whole vectors.
  TPixel GetExcludedValue() const { return m_tNoDataValue; }
};

// The fixed cells of the parallel walks over a rectangle of nWidth x nHeight pixels at (nX, nY): the
// grid of SWalkGrid cells from the band's origin, cut by the rectangle, numbered in row order.
template <class TPixel>
class CCellGrid
{
public:
  static constexpr int ms_nWidth = int(SWalkGrid<TPixel>::ms_nCellX);
  static constexpr int ms_nHeight = int(SWalkGrid<TPixel>::ms_nCellY);

  CCellGrid(int nX, int nY, int nWidth, int nHeight)
    : m_nX(nX), m_nY(nY), m_nWidth(nWidth), m_nHeight(nHeight), m_nFirstColumn(_FloorDiv(nX, ms_nWidth)),
      m_nFirstRow(_FloorDiv(nY, ms_nHeight)),
      m_nColumns(nWidth > 0 ? _FloorDiv(std::int64_t(nX) + nWidth - 1, ms_nWidth) - m_nFirstColumn + 1 : 0),
      m_nRows(nHeight > 0 ? _FloorDiv(std::int64_t(nY) + nHeight - 1, ms_nHeight) - m_nFirstRow + 1 : 0)
  {
  }

  std::size_t GetCount() const { return std::size_t(m_nColumns * m_nRows); }

  // Cell nCell: its offset from the rectangle's start and its size.
  void GetCell(std::size_t nCell, int& nOffsetX, int& nOffsetY, int& nWidth, int& nHeight) const
  {
    const std::int64_t nLeft = (m_nFirstColumn + std::int64_t(nCell) % m_nColumns) * ms_nWidth;
    const std::int64_t nTop = (m_nFirstRow + std::int64_t(nCell) / m_nColumns) * ms_nHeight;
    const std::int64_t nX = std::max<std::int64_t>(nLeft, m_nX), nY = std::max<std::int64_t>(nTop, m_nY);
    nOffsetX = int(nX - m_nX);
    nOffsetY = int(nY - m_nY);
    nWidth = int(std::min<std::int64_t>(nLeft + ms_nWidth, std::int64_t(m_nX) + m_nWidth) - nX);
    nHeight = int(std::min<std::int64_t>(nTop + ms_nHeight, std::int64_t(m_nY) + m_nHeight) - nY);
  }

private:
  static std::int64_t _FloorDiv(std::int64_t n, std::int64_t d) { return n >= 0 ? n / d : -((-n + d - 1) / d); }

  int m_nX, m_nY, m_nWidth, m_nHeight;
  std::int64_t m_nFirstColumn, m_nFirstRow, m_nColumns, m_nRows;
};

// The body of the reduction, over ranges of cell numbers. m_oFunctor is kept unchanged as the pattern
// that split bodies take their empty state from; m_oResult is the running result, and the only thing
// operator() changes. A body takes in its ranges in place: a histogram's counters are made once per
// body, not once per cell.
template <class TIterator, class TPredicate, class TFunctor>
class CApplyForEachIf : private SHandOver
{
public:
  using TLoggerPtr = boost::shared_ptr<Harnel::Progress::CLogger>;
  using TPixel = std::decay_t<decltype(*std::declval<const TIterator&>())>;

  // The rectangle runs from itBegin over the absolute extent of itEnd - itBegin on each axis.
  CApplyForEachIf(const TIterator& itBegin, const TIterator& itEnd, const TPredicate& oPredicate,
                  const TFunctor& oFunctor, const TLoggerPtr& pLogger)
    : m_itBegin(itBegin), m_itEnd(itEnd), m_oPredicate(oPredicate), m_oFunctor(oFunctor), m_oResult(oFunctor),
      m_pLogger(pLogger), m_oCells(itBegin.X, itBegin.Y, std::abs(int(itEnd.X - itBegin.X)),
                                   std::abs(int(itEnd.Y - itBegin.Y)))
  {
    ORL_TSAN_RELEASE(this);
  }
  // A split body never copies the running values: they would be counted twice at the join.
  CApplyForEachIf(CApplyForEachIf& oOther, tbb::split)
    : SHandOver(&oOther), m_itBegin(oOther.m_itBegin), m_itEnd(oOther.m_itEnd), m_oPredicate(oOther.m_oPredicate),
      m_oFunctor(oOther.m_oFunctor, Harnel::Math::SEmptyState()), m_oResult(m_oFunctor), m_pLogger(oOther.m_pLogger),
      m_oCells(oOther.m_oCells)
  {
    ORL_TSAN_RELEASE(this);
  }
  CApplyForEachIf(const CApplyForEachIf&) = delete;
  CApplyForEachIf& operator=(const CApplyForEachIf&) = delete;
  ~CApplyForEachIf() { ORL_TSAN_ACQUIRE(this); }

  std::size_t GetCellCount() const { return m_oCells.GetCount(); }

  // The cells of oCells in turn, into m_oResult: a body given several ranges goes on summing.
  void operator()(const tbb::blocked_range<std::size_t>& oCells)
  {
    ORL_TSAN_ACQUIRE(this);
    for (std::size_t nCell = oCells.begin(); nCell != oCells.end(); ++nCell)
    {
      int nX, nY, nWidth, nHeight;
      m_oCells.GetCell(nCell, nX, nY, nWidth, nHeight);
      TIterator it = m_itBegin;
      it += Pravik::GraphObject2d::CPoint<int>(nX, nY);
      TakeInRect<eTilePieces>(it, nWidth, nHeight, m_oResult, m_oPredicate, [] {});
      if (m_pLogger) // every pixel walked counts, also those the predicate left out
        m_pLogger->IncrementProgress(double(nWidth) * double(nHeight));
    }
    Harnel::Math::FlushRows(m_oResult);
    ORL_TSAN_RELEASE(this);
  }

  void join(CApplyForEachIf& oRight)
  {
    ORL_TSAN_ACQUIRE(this);
    ORL_TSAN_ACQUIRE(&oRight);
    m_oResult.Join(oRight.m_oResult);
    ORL_TSAN_RELEASE(this);
  }

  TIterator m_itBegin;
  TIterator m_itEnd;
  TPredicate m_oPredicate;
  TFunctor m_oFunctor;
  TFunctor m_oResult;
  TLoggerPtr m_pLogger;
  CCellGrid<TPixel> m_oCells;
};

// ForEach2D's body: the same with a predicate that accepts every pixel and compiles away.
template <class TIterator, class TFunctor>
using CApplyForEach = CApplyForEachIf<TIterator, Harnel::Math::SAcceptAll, TFunctor>;

template <class TIterator, class TPredicate, class TFunctor>
TFunctor ParallelForEach(const boost::tuples::tuple<TIterator, TIterator>& oRange2D, const TPredicate& oPredicate,
                         const TFunctor& oFunctor, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger,
                         const char* pLayerText)
{
  namespace Progress = Harnel::Progress;
  const TIterator& itBegin = boost::tuples::get<0>(oRange2D);
  const TIterator& itEnd = boost::tuples::get<1>(oRange2D);
  CheckSourceInside(itBegin, itEnd);
  const Pravik::GraphObject2d::CPoint<int> oExtent(itEnd.X - itBegin.X, itEnd.Y - itBegin.Y);
  CApplyForEachIf<TIterator, TPredicate, TFunctor> oBody(itBegin, itEnd, oPredicate, oFunctor, pLogger);
  if (pLogger)
    pLogger->Push(Harnel::Internationalisation::CTranslator::Translate(pLayerText), double(oExtent.y),
                  double(oExtent.x) * double(oExtent.y), 0.0, false, Progress::eLayerParallel, Progress::eLayerPublic,
                  std::string());
  if (oBody.GetCellCount() != 0)
  {
    tbb::task_group_context oContext; // bound to the caller's, exceptions propagate exactly
    const tbb::blocked_range<std::size_t> oCells(0, oBody.GetCellCount(), 1);
    if constexpr (Harnel::Math::SOrderFree<TFunctor>::value)
      // Exact results: bodies split only where a thread steals work, so a functor with large state
      // (a histogram) is made and joined a few times per thread, not once per cell.
      tbb::parallel_reduce(oCells, oBody, tbb::auto_partitioner(), oContext);
    else
      // One cell per leaf; the tree of splits and joins depends on the number of cells alone.
      tbb::parallel_deterministic_reduce(oCells, oBody, tbb::simple_partitioner(), oContext);
    ORL_TSAN_ACQUIRE(&oBody);
  }
  if (pLogger)
    pLogger->Pop();
  return std::move(oBody.m_oResult);
}

} // namespace Detail

// Every pixel of the rectangle, in parallel. Returns the start state oFunctor with all pixels
// taken in.
template <class TIterator, class TFunctor>
TFunctor ForEach2D(const boost::tuples::tuple<TIterator, TIterator>& oRange2D, TFunctor oFunctor,
                   boost::shared_ptr<Harnel::Progress::CLogger> pLogger, SAllowParallelReduce)
{
  return Detail::ParallelForEach(oRange2D, Harnel::Math::SAcceptAll(), oFunctor, pLogger,
                                 "Perform ForEach2D in several tasks");
}

// The pixels of the rectangle for which oPredicate is true, in parallel. Progress counts every
// pixel walked.
template <class TIterator, class TPredicate, class TFunctor>
TFunctor ForEach2DIf(const boost::tuples::tuple<TIterator, TIterator>& oRange2D, TPredicate oPredicate,
                     TFunctor oFunctor, boost::shared_ptr<Harnel::Progress::CLogger> pLogger, SAllowParallelReduce)
{
  return Detail::ParallelForEach(oRange2D, oPredicate, oFunctor, pLogger, "Perform ForEach2DIf in several tasks");
}

// Every pixel of the rectangle on the calling thread, one at a time, rows from the top, each row from
// the left: floating sums are those of a plain loop. Pushes no layer: one IncrementProgress() per row
// lands in the layer the caller has open.
template <class TIterator, class TFunctor>
TFunctor ForEach2D(const boost::tuples::tuple<TIterator, TIterator>& oRange2D, TFunctor oFunctor,
                   boost::shared_ptr<Harnel::Progress::CLogger> pLogger)
{
  const TIterator& itBegin = boost::tuples::get<0>(oRange2D);
  const TIterator& itEnd = boost::tuples::get<1>(oRange2D);
  Detail::CheckSourceInside(itBegin, itEnd);
  Detail::TakeInRect<Detail::ePixelByPixel>(itBegin, std::abs(int(itEnd.X - itBegin.X)),
                                            std::abs(int(itEnd.Y - itBegin.Y)), oFunctor, Harnel::Math::SAcceptAll(),
                                            [&] {
                                              if (pLogger)
                                                pLogger->IncrementProgress();
                                            });
  Harnel::Math::FlushRows(oFunctor);
  return oFunctor;
}

}}} // namespace Orl::Ostrel::Band
