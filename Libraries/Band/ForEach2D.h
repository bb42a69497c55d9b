#pragma once

// ForEach2D and ForEach2DIf: hand every pixel of a rectangle to a functor and give the functor back
// with the result.
//
// The parallel forms are a tbb::parallel_reduce over a blocked_range2d of offsets from the begin
// iterator, with the iterators' block hint as the grain on each axis (not doubled: a block of about
// one hint is small enough that a band splits into enough tasks, and big enough that a task's few
// iterator and functor copies vanish against its pixels). Each task runs a functor of its own; split
// tasks start from the empty state and are joined pairwise, so the caller's start state is counted
// exactly once. Whether a call is parallel is chosen by the overload (the SAllowParallelReduce tag),
// never at run time.
//
// Required of TIterator: copy, *it, it.X and it.Y compared and stepped with ++, it += CPoint<int>,
// it.GetBlockHintX(), it.GetBlockHintY(), and X - X, Y - Y as int.
// Required of TFunctor: see Math/StatisticFunctors.h (copy, empty state, operator(), Join).
// Required of TPredicate: bool operator()(pixel) const.
//
// Exceptions from a task (a tile load, memory for a functor copy) come out of the call in the
// calling thread; the progress layer then stays pushed, as with every layer.

#include "Band/Detail/RowWalk.h"
#include "Band/Detail/ThreadSanitizer.h"
#include "Foundation/Logger.h"
#include "Foundation/Point.h"
#include "Internationalisation/Translator.h"
#include "Math/StatisticFunctors.h"

#include <boost/shared_ptr.hpp>
#include <boost/tuple/tuple.hpp>

#include <tbb/blocked_range2d.h>
#include <tbb/parallel_reduce.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include <cstdint>
#include <cstdlib>
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

// The body of the reduction. m_oFunctor is kept unchanged as the pattern that split bodies take
// their empty state from; m_oResult is the running result, and the only thing operator() changes.
template <class TIterator, class TPredicate, class TFunctor>
class CApplyForEachIf : private SHandOver
{
public:
  using TLoggerPtr = boost::shared_ptr<Harnel::Progress::CLogger>;

  CApplyForEachIf(const TIterator& itBegin, const TIterator& itEnd, const TPredicate& oPredicate,
                  const TFunctor& oFunctor, const TLoggerPtr& pLogger)
    : m_itBegin(itBegin), m_itEnd(itEnd), m_oPredicate(oPredicate), m_oFunctor(oFunctor), m_oResult(oFunctor),
      m_pLogger(pLogger)
  {
    ORL_TSAN_RELEASE(this);
  }
  // A split body never copies the running values: they would be counted twice at the join.
  CApplyForEachIf(CApplyForEachIf& oOther, tbb::split)
    : SHandOver(&oOther), m_itBegin(oOther.m_itBegin), m_itEnd(oOther.m_itEnd), m_oPredicate(oOther.m_oPredicate),
      m_oFunctor(oOther.m_oFunctor, Harnel::Math::SEmptyState()), m_oResult(m_oFunctor), m_pLogger(oOther.m_pLogger)
  {
    ORL_TSAN_RELEASE(this);
  }
  CApplyForEachIf(const CApplyForEachIf&) = delete;
  CApplyForEachIf& operator=(const CApplyForEachIf&) = delete;
  ~CApplyForEachIf() { ORL_TSAN_ACQUIRE(this); }

  void operator()(const tbb::blocked_range2d<int, int>& oRange) const
  {
    using Pravik::GraphObject2d::CPoint;
    ORL_TSAN_ACQUIRE(this);
    TIterator itRow = m_itBegin;
    itRow += CPoint<int>(oRange.cols().begin(), oRange.rows().begin());
    TIterator itStop = m_itBegin;
    itStop += CPoint<int>(oRange.cols().end(), oRange.rows().end());
    TFunctor oLocal(m_oResult); // a body given several blocks goes on summing
    WalkRows(itRow, itStop, oLocal, m_oPredicate);
    m_oResult = std::move(oLocal);
    if (m_pLogger) // every pixel walked counts, also those the predicate left out
      m_pLogger->IncrementProgress(double(std::uint64_t(oRange.rows().size())) *
                                   double(std::uint64_t(oRange.cols().size())));
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
  mutable TFunctor m_oResult;
  TLoggerPtr m_pLogger;
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
  const Pravik::GraphObject2d::CPoint<int> oExtent(itEnd.X - itBegin.X, itEnd.Y - itBegin.Y);
  CApplyForEachIf<TIterator, TPredicate, TFunctor> oBody(itBegin, itEnd, oPredicate, oFunctor, pLogger);
  if (pLogger)
    pLogger->Push(Harnel::Internationalisation::CTranslator::Translate(pLayerText), double(oExtent.y),
                  double(oExtent.x) * double(oExtent.y), 0.0, false, Progress::eLayerParallel, Progress::eLayerPublic,
                  std::string());
  const int nRows = std::abs(oExtent.y);
  const int nColumns = std::abs(oExtent.x);
  if (nRows != 0 && nColumns != 0)
  {
    const tbb::blocked_range2d<int, int> oRange(0, nRows, itBegin.GetBlockHintY(), 0, nColumns, itBegin.GetBlockHintX());
    tbb::task_group_context oContext; // bound to the caller's, exceptions propagate exactly
    tbb::parallel_reduce(oRange, oBody, tbb::auto_partitioner(), oContext);
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

// Every pixel of the rectangle on the calling thread, rows from top to bottom. Pushes no layer: one
// IncrementProgress() per row lands in the layer the caller has open. The order of the additions
// is fixed, so two runs over the same band give the same bits.
template <class TIterator, class TFunctor>
TFunctor ForEach2D(const boost::tuples::tuple<TIterator, TIterator>& oRange2D, TFunctor oFunctor,
                   boost::shared_ptr<Harnel::Progress::CLogger> pLogger)
{
  TIterator itRow = boost::tuples::get<0>(oRange2D);
  const TIterator& itEnd = boost::tuples::get<1>(oRange2D);
  for (; itRow.Y != itEnd.Y; ++itRow.Y)
  {
    Detail::WalkRow(itRow, itEnd, oFunctor, Harnel::Math::SAcceptAll());
    if (pLogger)
      pLogger->IncrementProgress();
  }
  return oFunctor;
}

}}} // namespace Orl::Ostrel::Band
