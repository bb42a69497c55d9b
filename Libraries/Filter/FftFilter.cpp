// Design notes.
//
// A real band's spectrum is Hermitian: only columns 0 to Nx / 2 are computed, and the others are
// written as conjugates, F(Nx - u, Ny - v) = conj F(u, v).
//
// Memory bands: one two-dimensional real-to-complex (or complex-to-real) FFTW plan, in place in a
// working array of Ny rows of Nx / 2 + 1 complex values. Forward, the source is copied in (padding
// and invalid pixels as 0, in parallel), the plan runs, and one parallel pass splits the half
// spectrum into the two destinations and mirrors it into their other columns. Reverse, one pass
// gathers the half spectrum from the two sources, the plan runs, and one pass scales and crops the
// rows into the destination. Measured at 4096 x 4096 float: FFTW's split-output plan of the same
// transform (guru split interface, writing straight into the destinations' rows) took two to four
// times the processor time of the interleaved one, far more than the separate split pass costs, so
// the interleaved layout it is; in place, since then one working array serves input and output.
// The working array is a CWorkBuffer, which starts large arrays on a 2 MB boundary and asks for huge
// pages (where the kernel grants them on request): in 4 kB pages, faulted in on every call, the
// forward filter took 1.5 times FFTW's own plan on a preallocated buffer instead of 1.1, and FFTW's
// column passes, which stride across the whole array, gain from the fewer TLB entries too. Arrays
// of up to 64 MiB are kept for the next call (CKeptArrays); a 4096 x 4096 float band's is larger
// and goes back to the system.
//
// Tile bands: rows, then columns in strips, through the destinations, so that a band larger than
// memory streams through the tile cache. The forward pass transforms the source rows real-to-complex
// into columns [0, Nx / 2] of the destinations, then those columns complex-to-complex. Rows below the
// source's height are zero and never read. The reverse pass keeps its column results, rows
// [0, height) of columns [0, Nx / 2], as complex values in a tile band twice Nx / 2 + 1 wide. A row
// is copied into a scratch row whose length is a multiple of 64 bytes and transformed there with a
// plan of one transform: at 4096 values a measured plan of 16 rows side by side (split output) took
// two fifths more time per row. Tasks take 16 rows at a time. Columns go in blocks of 256 bytes of a
// row (32 float or 16 double complex values): a block of a 4096-row band, about 1.3 MB with its row
// padding, stays in the L2 cache while FFTW transforms its columns in place. A strip is as many
// blocks as fill 256 columns or a tile's width, whichever is less: a double tile's whole width, half
// a float tile's (whose columns of tiles are then read by two strips).
//
// Plans: one per kind, shape and thread count, made on first use under a lock (the planner is not
// thread-safe) and kept until the process ends; they are executed on other arrays of the same
// alignment through the new-array functions, which are thread-safe. Transforms with an axis of
// g_nMeasuredLength (1024) values or more get FFTW_MEASURE plans, the others FFTW_ESTIMATE plans.
// One-dimensional plans at 4096 values, one core, buffers in cache: measured row plans took 0.77 ns
// per pixel against 2.0 for estimated ones, measured column plans (32 columns side by side) 0.9
// against 2.4. The two-dimensional in-place plan at 4096 x 4096 float: estimated, 1.45 times the
// processor time of the measured one. Measuring times the candidates, so two processes may pick
// different algorithms for one size and then differ in the last bits; within a process a shape has
// one plan. Memory and tile bands run different plans, so their results differ in the last bits.
//
// Threads: two-dimensional plans of 2^15 values or more are made for the arena's concurrency, and
// FFTW's threads hand their parallel loops to oneTBB (fftw_threads_set_callback), so that they run
// in the caller's arena, nest in outer parallel loops, and share the workers with the band passes.
// The loops are isolated: a thread waiting for them must not take an outer task that could ask for
// the plan lock it may hold (plans measured under the lock run through the same loops). The row and
// column passes of tile bands run one worker per core, each taking the next block of rows or the
// next strip until none is left; the workers' buffers are allocated once per pass on the calling
// thread, never inside a task.

#include "Filter/FftFilter.h"
#include "Filter/Detail/RowBuffers.h"
#include "Filter/Detail/WorkBuffer.h"

#include <fftw3.h>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <tuple>
#include <type_traits>

namespace Orl { namespace Ostrel { namespace Filter {

namespace {

// Transforms this long or longer get measured plans, shorter ones estimated plans (see the notes).
constexpr int g_nMeasuredLength = 1024;

enum EPlanKind
{
  ePlanRows, // real-to-complex, rows side by side
  ePlanColumnsForward, // complex in place, columns side by side
  ePlanColumnsBackward,
  ePlanRowsBackward, // complex-to-real
  ePlanWholeForward, // two-dimensional real-to-complex, in place
  ePlanWholeBackward // two-dimensional complex-to-real, in place
};

// What a plan transforms. Rows: m_nCount rows of m_nLength values, the complex ones m_nStep values
// apart and the real ones 2 * m_nStep. Columns: m_nCount adjacent columns of m_nLength complex values
// whose rows are m_nStep values apart, transformed in place. Whole: m_nCount rows of m_nLength real
// values, 2 * m_nStep apart (m_nStep = m_nLength / 2 + 1), transformed in place as one array on
// m_nThreads threads.
struct SPlanShape
{
  EPlanKind m_eKind;
  int m_nLength, m_nCount, m_nStep;
  int m_nThreads = 1;

  bool operator<(const SPlanShape& o) const
  {
    return std::tie(m_eKind, m_nLength, m_nCount, m_nStep, m_nThreads) <
           std::tie(o.m_eKind, o.m_nLength, o.m_nCount, o.m_nStep, o.m_nThreads);
  }
  bool IsRows() const { return m_eKind == ePlanRows || m_eKind == ePlanRowsBackward; }
  bool IsColumns() const { return m_eKind == ePlanColumnsForward || m_eKind == ePlanColumnsBackward; }
  bool IsWhole() const { return !IsRows() && !IsColumns(); }
  // Complex values of the arrays the plan works on (the real ones of row plans take as many pairs):
  // m_nLength rows of m_nStep for column plans, m_nCount rows of m_nStep for the others.
  std::size_t Extent() const { return std::size_t(m_nStep) * std::size_t(IsColumns() ? m_nLength : m_nCount); }
};

// FFTW's parallel loops as oneTBB tasks of the calling thread's arena. Isolated: a thread that waits
// for the jobs takes no outer task meanwhile, which could ask for the plan lock that thread holds.
void ParallelLoop(void* (*fnWork)(char*), char* pJobs, std::size_t nJobSize, int nJobs, void*)
{
  tbb::this_task_arena::isolate([&] {
    tbb::parallel_for(
      0, nJobs, [&](int i) { fnWork(pJobs + nJobSize * std::size_t(i)); }, tbb::simple_partitioner());
  });
}

std::mutex g_oPlanMutex;

template <class TReal>
struct SFftw;

template <>
struct SFftw<float>
{
  using TComplex = fftwf_complex;
  using TPlan = fftwf_plan;
  static TPlan PlanRows(const SPlanShape& o, float* pReal, TComplex* pComplex, unsigned f)
  {
    return fftwf_plan_many_dft_r2c(1, &o.m_nLength, o.m_nCount, pReal, nullptr, 1, 2 * o.m_nStep, pComplex, nullptr,
                                   1, o.m_nStep, f);
  }
  static TPlan PlanRowsBackward(const SPlanShape& o, TComplex* pComplex, float* pReal, unsigned f)
  {
    return fftwf_plan_many_dft_c2r(1, &o.m_nLength, o.m_nCount, pComplex, nullptr, 1, o.m_nStep, pReal, nullptr, 1,
                                   2 * o.m_nStep, f);
  }
  static TPlan PlanColumns(const SPlanShape& o, TComplex* p, int nSign, unsigned f)
  {
    return fftwf_plan_many_dft(1, &o.m_nLength, o.m_nCount, p, nullptr, o.m_nStep, 1, p, nullptr, o.m_nStep, 1, nSign,
                               f);
  }
  static void Rows(TPlan p, float* pIn, TComplex* pOut) { fftwf_execute_dft_r2c(p, pIn, pOut); }
  static void RowsBackward(TPlan p, TComplex* pIn, float* pOut) { fftwf_execute_dft_c2r(p, pIn, pOut); }
  static void Columns(TPlan p, TComplex* pInOut) { fftwf_execute_dft(p, pInOut, pInOut); }
  static void Destroy(TPlan p) { fftwf_destroy_plan(p); }
  static TPlan PlanWhole(const SPlanShape& o, TComplex* p, int nSign, unsigned f)
  {
    return nSign == FFTW_FORWARD
             ? fftwf_plan_dft_r2c_2d(o.m_nCount, o.m_nLength, reinterpret_cast<float*>(p), p, f)
             : fftwf_plan_dft_c2r_2d(o.m_nCount, o.m_nLength, p, reinterpret_cast<float*>(p), f);
  }
  static void InitThreads()
  {
    fftwf_init_threads();
    fftwf_threads_set_callback(&ParallelLoop, nullptr);
  }
  static int PlannerThreads() { return fftwf_planner_nthreads(); }
  static void PlanWithThreads(int n) { fftwf_plan_with_nthreads(n); }
};

template <>
struct SFftw<double>
{
  using TComplex = fftw_complex;
  using TPlan = fftw_plan;
  static TPlan PlanRows(const SPlanShape& o, double* pReal, TComplex* pComplex, unsigned f)
  {
    return fftw_plan_many_dft_r2c(1, &o.m_nLength, o.m_nCount, pReal, nullptr, 1, 2 * o.m_nStep, pComplex, nullptr,
                                  1, o.m_nStep, f);
  }
  static TPlan PlanRowsBackward(const SPlanShape& o, TComplex* pComplex, double* pReal, unsigned f)
  {
    return fftw_plan_many_dft_c2r(1, &o.m_nLength, o.m_nCount, pComplex, nullptr, 1, o.m_nStep, pReal, nullptr, 1,
                                  2 * o.m_nStep, f);
  }
  static TPlan PlanColumns(const SPlanShape& o, TComplex* p, int nSign, unsigned f)
  {
    return fftw_plan_many_dft(1, &o.m_nLength, o.m_nCount, p, nullptr, o.m_nStep, 1, p, nullptr, o.m_nStep, 1, nSign,
                              f);
  }
  static void Rows(TPlan p, double* pIn, TComplex* pOut) { fftw_execute_dft_r2c(p, pIn, pOut); }
  static void RowsBackward(TPlan p, TComplex* pIn, double* pOut) { fftw_execute_dft_c2r(p, pIn, pOut); }
  static void Columns(TPlan p, TComplex* pInOut) { fftw_execute_dft(p, pInOut, pInOut); }
  static void Destroy(TPlan p) { fftw_destroy_plan(p); }
  static TPlan PlanWhole(const SPlanShape& o, TComplex* p, int nSign, unsigned f)
  {
    return nSign == FFTW_FORWARD
             ? fftw_plan_dft_r2c_2d(o.m_nCount, o.m_nLength, reinterpret_cast<double*>(p), p, f)
             : fftw_plan_dft_c2r_2d(o.m_nCount, o.m_nLength, p, reinterpret_cast<double*>(p), f);
  }
  static void InitThreads()
  {
    fftw_init_threads();
    fftw_threads_set_callback(&ParallelLoop, nullptr);
  }
  static int PlannerThreads() { return fftw_planner_nthreads(); }
  static void PlanWithThreads(int n) { fftw_plan_with_nthreads(n); }
};

// The plan for oShape, made on first use and kept until the process ends.
template <class TReal>
typename SFftw<TReal>::TPlan GetPlan(const SPlanShape& oShape)
{
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;
  struct SPlans
  {
    std::map<SPlanShape, typename TFftw::TPlan> m_map;
    ~SPlans()
    {
      for (const auto& oEntry : m_map)
        if (oEntry.second)
          TFftw::Destroy(oEntry.second);
    }
  };
  static SPlans s_oPlans;

  std::lock_guard<std::mutex> oLock(g_oPlanMutex);
  static const bool s_bThreads = (TFftw::InitThreads(), true);
  (void)s_bThreads;
  auto& pPlan = s_oPlans.m_map[oShape];
  if (!pPlan)
  {
    // Arrays of the layout and alignment of every buffer the plan runs on later; the planner may
    // overwrite them.
    Detail::CWorkBuffer<TReal> oReal(oShape.IsRows() ? 2 * oShape.Extent() : 0);
    Detail::CWorkBuffer<TComplex> oComplex(oShape.Extent());
    const bool bMeasure = std::max(oShape.m_nLength, oShape.IsWhole() ? oShape.m_nCount : 0) >= g_nMeasuredLength;
    const unsigned nFlags = bMeasure ? FFTW_MEASURE : FFTW_ESTIMATE;
    const int nPreviousThreads = TFftw::PlannerThreads(); // the planner's setting is the process's
    TFftw::PlanWithThreads(oShape.m_nThreads);
    switch (oShape.m_eKind)
    {
    case ePlanRows: pPlan = TFftw::PlanRows(oShape, oReal.data(), oComplex.data(), nFlags); break;
    case ePlanColumnsForward: pPlan = TFftw::PlanColumns(oShape, oComplex.data(), FFTW_FORWARD, nFlags); break;
    case ePlanColumnsBackward: pPlan = TFftw::PlanColumns(oShape, oComplex.data(), FFTW_BACKWARD, nFlags); break;
    case ePlanRowsBackward: pPlan = TFftw::PlanRowsBackward(oShape, oComplex.data(), oReal.data(), nFlags); break;
    case ePlanWholeForward: pPlan = TFftw::PlanWhole(oShape, oComplex.data(), FFTW_FORWARD, nFlags); break;
    case ePlanWholeBackward: pPlan = TFftw::PlanWhole(oShape, oComplex.data(), FFTW_BACKWARD, nFlags); break;
    }
    TFftw::PlanWithThreads(nPreviousThreads);
    if (!pPlan)
      throw std::bad_alloc();
  }
  return pPlan;
}

// Values per scratch row: a multiple of 64 bytes, so that every row starts with the alignment of the
// buffer's start, the widest SIMD alignment FFTW may plan for, and 64 bytes more, so that
// power-of-two lengths do not map every row to the same cache sets.
template <class T>
int ScratchStride(int nCount)
{
  const int nLine = int(64 / sizeof(T));
  return (nCount + nLine - 1) / nLine * nLine + nLine;
}

// Rows per work item of the row passes.
constexpr int g_nRowBlock = 16;
// Columns per column transform: 256 bytes of each row (fewer for narrower spectra), so that a block
// of a 4096-row band stays within the L2 cache.
template <class TComplex>
int BlockColumns(int nColumns)
{
  return std::min(int(256 / sizeof(TComplex)), int(Detail::FftSize(unsigned(nColumns))));
}

// fn(nWorker, nItem) for every item of [0, nItems), on at most nWorkers workers at once, each taking
// the next item until none is left. nWorker < nWorkers indexes the scratch the caller made per worker.
template <class TFn>
void ForEachItem(int nWorkers, int nItems, const TFn& fn)
{
  std::atomic<int> nNext(0);
  tbb::parallel_for(0, nWorkers, [&](int nWorker) {
    for (int nItem = nNext++; nItem < nItems; nItem = nNext++)
      fn(nWorker, nItem);
  });
}

int WorkerCount(int nItems)
{
  return std::max(1, std::min(nItems, tbb::this_task_arena::max_concurrency()));
}

// A window of tile rows: Read(y) gives the window's pixels of row y, Write(y) where to put them and
// Done() stores what was put there, through a cursor and a row of scratch.
template <class TIterator, class TPixel>
class CTileRows
{
public:
  CTileRows(const TIterator& it, int nX, int nWidth, TPixel* pScratch) : m_oCursor(it, nX, nWidth), m_p(pScratch) {}
  const TPixel* Read(int nY)
  {
    m_oCursor.Read(nY, m_p);
    return m_p;
  }
  TPixel* Write(int nY)
  {
    m_nY = nY;
    return m_p;
  }
  void Done() { m_oCursor.Write(m_nY, m_p); }

private:
  Detail::CRowCursor<TIterator> m_oCursor;
  TPixel* m_p;
  int m_nY = 0;
};

template <class TBand>
constexpr bool IsTileBand()
{
  return std::is_same<typename std::remove_const_t<TBand>::TTagType, Band::STileTag>::value;
}

// fn(nX, nWidth, pScratch) makes a window of columns [nX, nX + nWidth) of the tile band oBand;
// pScratch holds nWidth pixels. Made on the calling thread, called in the tasks.
template <class TBand>
auto RowsOf(TBand& oBand)
{
  using TPixel = typename std::remove_const_t<TBand>::TPixel;
  const auto it = boost::get<0>(oBand.GetBandIterators(oBand.GetRect()));
  return [it](int nX, int nWidth, TPixel* pScratch) {
    return CTileRows<std::decay_t<decltype(it)>, TPixel>(it, nX, nWidth, pScratch);
  };
}

// A strip of columns in the scratch: blocks of m_nBlock columns, each m_nLength rows of m_nStep
// complex values; value (v, c) of the strip is Row(c / m_nBlock, v)[c % m_nBlock].
template <class TComplex>
struct SStrip
{
  TComplex* m_p;
  int m_nBlock, m_nStep, m_nLength;

  std::size_t BlockSize() const { return std::size_t(m_nStep) * std::size_t(m_nLength); }
  TComplex* Row(int nBlock, int nY) const
  {
    return m_p + std::size_t(nBlock) * BlockSize() + std::size_t(nY) * std::size_t(m_nStep);
  }
};

// The column pass over columns [0, nColumns) of two bands (the parts of the values): strips of
// nStripBlocks blocks, each block read from rows [0, nReadRows) (rows up to nLength are 0) into the
// scratch, transformed in place with the one plan of its shape, then handed as a whole strip to
// fnWrite(nX0, nWidth, oStrip, pRows), pRows scratch for four rows of the strip's width.
template <class TReal, class TRowsRe, class TRowsIm, class TWrite>
void TransformColumns(const TRowsRe& fnRe, const TRowsIm& fnIm, int nColumns, int nStripBlocks, int nReadRows,
                      int nLength, EPlanKind eKind, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger,
                      const TWrite& fnWrite)
{
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;
  const int nBlock = BlockColumns<TComplex>(nColumns);
  const int nStep = ScratchStride<TComplex>(nBlock);
  const auto pPlan = GetPlan<TReal>({eKind, nLength, nBlock, nStep});
  nStripBlocks = std::max(1, std::min(nStripBlocks, (nColumns + nBlock - 1) / nBlock));
  const int nStrip = nStripBlocks * nBlock;
  const int nStrips = (nColumns + nStrip - 1) / nStrip;
  const std::size_t nBlockSize = std::size_t(nStep) * std::size_t(nLength);
  const std::size_t nRowStride = std::size_t(ScratchStride<TReal>(nStrip));
  const std::size_t nScratch = nBlockSize * std::size_t(nStripBlocks) + 3 * nRowStride; // complex values
  const int nWorkers = WorkerCount(nStrips);
  Detail::CWorkBuffer<TComplex> oScratch(nScratch * std::size_t(nWorkers));
  ForEachItem(nWorkers, nStrips, [&](int nWorker, int nS) {
    const SStrip<TComplex> oStrip{oScratch.data() + nScratch * std::size_t(nWorker), nBlock, nStep, nLength};
    TReal* pRows = reinterpret_cast<TReal*>(oStrip.m_p + nBlockSize * std::size_t(nStripBlocks));
    const int nX0 = nS * nStrip;
    const int nWidth = std::min(nStrip, nColumns - nX0);
    const int nBlocks = (nWidth + nBlock - 1) / nBlock;
    auto oRe = fnRe(nX0, nWidth, pRows);
    auto oIm = fnIm(nX0, nWidth, pRows + nRowStride);
    for (int y = 0; y < nReadRows; ++y)
    {
      const TReal* pRe = oRe.Read(y);
      const TReal* pIm = oIm.Read(y);
      for (int k = 0; k < nBlocks; ++k)
      {
        TComplex* pTo = oStrip.Row(k, y);
        const int c0 = k * nBlock, nCount = std::min(nBlock, nWidth - c0);
        for (int j = 0; j < nCount; ++j)
        {
          pTo[j][0] = pRe[c0 + j];
          pTo[j][1] = pIm[c0 + j];
        }
        for (int j = nCount; j < nBlock; ++j)
          pTo[j][0] = pTo[j][1] = TReal(0);
      }
    }
    for (int k = 0; k < nBlocks; ++k)
    {
      for (int y = nReadRows; y < nLength; ++y) // zero padding
      {
        TReal* pRow = reinterpret_cast<TReal*>(oStrip.Row(k, y));
        std::fill(pRow, pRow + 2 * nBlock, TReal(0));
      }
      TFftw::Columns(pPlan, oStrip.Row(k, 0));
    }
    fnWrite(nX0, nWidth, oStrip, pRows + 2 * nRowStride);
    if (pLogger)
      pLogger->IncrementProgress(double(nWidth));
  });
}

// Blocks per column strip: 256 columns or a tile's width (half the block hint), whichever is less.
template <class TComplex, class TBand>
int StripBlocks(const TBand& oBand, int nColumns)
{
  const int nHint = int(std::min<std::uint32_t>(256, Detail::BeginOf(oBand).GetBlockHintX() / 2));
  return std::max(1, nHint / BlockColumns<TComplex>(nColumns));
}

template <class TDestBand, class TSrcBand>
void ForwardImpl(TDestBand& oDestRe, TDestBand& oDestIm, const TSrcBand& oSrc,
                 const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  using TReal = typename TDestBand::TPixel;
  using TPixel = typename TSrcBand::TPixel;
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;
  static_assert(std::is_same<TPixel, TReal>::value, "one pixel type in and out");

  const int nWidth = int(oSrc.GetWidth()), nHeight = int(oSrc.GetHeight());
  const int nX = int(oDestRe.GetWidth()), nY = int(oDestRe.GetHeight());
  const int nHalf = nX / 2 + 1;
  const bool bHasNoData = oSrc.HasNoDataValue();
  const TPixel tNoData = bHasNoData ? oSrc.GetNoDataValue() : TPixel(0);
  const auto fnSrc = RowsOf(oSrc);
  const auto fnRe = RowsOf(oDestRe);
  const auto fnIm = RowsOf(oDestIm);

  // Rows: source rows to columns [0, nHalf) of the destinations, in blocks of g_nRowBlock. A worker's
  // scratch: the padded row, its transform, three rows for the windows.
  const int nStep = ScratchStride<TComplex>(nHalf);
  const auto pRowPlan = GetPlan<TReal>({ePlanRows, nX, 1, nStep});
  const int nBlocks = (nHeight + g_nRowBlock - 1) / g_nRowBlock;
  const int nWorkers = WorkerCount(nBlocks);
  const std::size_t nRowStride = std::size_t(ScratchStride<TReal>(std::max(nWidth, nHalf)));
  const std::size_t nScratch = 4 * std::size_t(nStep) + 3 * nRowStride; // reals
  Detail::CWorkBuffer<TReal> oScratch(nScratch * std::size_t(nWorkers));
  ForEachItem(nWorkers, nBlocks, [&](int nWorker, int nBlock) {
    TReal* pIn = oScratch.data() + nScratch * std::size_t(nWorker);
    TComplex* pOut = reinterpret_cast<TComplex*>(pIn + 2 * std::size_t(nStep));
    TReal* pRows = pIn + 4 * std::size_t(nStep);
    auto oSrcRows = fnSrc(0, nWidth, pRows);
    auto oReRows = fnRe(0, nHalf, pRows + nRowStride);
    auto oImRows = fnIm(0, nHalf, pRows + 2 * nRowStride);
    std::fill(pIn + nWidth, pIn + nX, TReal(0)); // the padding
    for (int y = nBlock * g_nRowBlock, nEnd = std::min(nHeight, y + g_nRowBlock); y < nEnd; ++y)
    {
      const TPixel* pSrc = oSrcRows.Read(y);
      for (int x = 0; x < nWidth; ++x)
        pIn[x] = Detail::IsValidPixel(pSrc[x], bHasNoData, tNoData) ? pSrc[x] : TReal(0);
      TFftw::Rows(pRowPlan, pIn, pOut);
      TReal* pRe = oReRows.Write(y);
      TReal* pIm = oImRows.Write(y);
      for (int u = 0; u < nHalf; ++u)
      {
        pRe[u] = pOut[u][0];
        pIm[u] = pOut[u][1];
      }
      oReRows.Done();
      oImRows.Done();
      if (pLogger)
        pLogger->IncrementProgress();
    }
  });

  // Columns [0, nHalf), each with its conjugate mirror column nX - u for 0 < u < nX / 2.
  TransformColumns<TReal>(
    fnRe, fnIm, nHalf, StripBlocks<TComplex>(oDestRe, nHalf), nHeight, nY, ePlanColumnsForward, pLogger,
    [&](int nX0, int nStripWidth, const SStrip<TComplex>& oStrip, TReal* pRows) {
      const int nB = oStrip.m_nBlock, nBlockCount = (nStripWidth + nB - 1) / nB;
      const int nM0 = std::max(nX0, 1), nM1 = std::min(nX0 + nStripWidth, nX / 2); // mirrored u
      const int nMirror = std::max(0, nM1 - nM0);
      const std::size_t nWindow = std::size_t(ScratchStride<TReal>(nStripWidth));
      auto oRe = fnRe(nX0, nStripWidth, pRows);
      auto oIm = fnIm(nX0, nStripWidth, pRows + nWindow);
      const int nMirrorX = nMirror > 0 ? nX - nM1 + 1 : 0; // column nX - u at nM1 - 1 - u
      auto oMirrorRe = fnRe(nMirrorX, nMirror, pRows + 2 * nWindow);
      auto oMirrorIm = fnIm(nMirrorX, nMirror, pRows + 3 * nWindow);
      for (int v = 0; v < nY; ++v)
      {
        TReal* pRe = oRe.Write(v);
        TReal* pIm = oIm.Write(v);
        for (int k = 0; k < nBlockCount; ++k)
        {
          const TComplex* pFrom = oStrip.Row(k, v);
          const int c0 = k * nB, nCount = std::min(nB, nStripWidth - c0);
          for (int j = 0; j < nCount; ++j)
          {
            pRe[c0 + j] = pFrom[j][0];
            pIm[c0 + j] = pFrom[j][1];
          }
        }
        oRe.Done();
        oIm.Done();
        if (nMirror == 0)
          continue;
        const int nFrom = (nY - v) & (nY - 1);
        TReal* pMirrorRe = oMirrorRe.Write(v);
        TReal* pMirrorIm = oMirrorIm.Write(v);
        for (int k = 0; k < nBlockCount; ++k)
        {
          const int c0 = nX0 + k * nB; // u of the block's first column
          const int nU0 = std::max(c0, nM0), nU1 = std::min(c0 + nB, nM1);
          const TComplex* pFrom = oStrip.Row(k, nFrom) - c0;
          for (int u = nU0; u < nU1; ++u)
          {
            pMirrorRe[nM1 - 1 - u] = pFrom[u][0];
            pMirrorIm[nM1 - 1 - u] = -pFrom[u][1];
          }
        }
        oMirrorRe.Done();
        oMirrorIm.Done();
      }
    });
}

template <class TDestBand, class TSrcBand>
void ReverseImpl(TDestBand& oDest, const TSrcBand& oSrcRe, const TSrcBand& oSrcIm,
                 const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  using TReal = typename TSrcBand::TPixel;
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;

  const int nWidth = int(oDest.GetWidth()), nHeight = int(oDest.GetHeight());
  const int nX = int(oSrcRe.GetWidth()), nY = int(oSrcRe.GetHeight());
  const int nHalf = nX / 2 + 1;
  const int nStep = ScratchStride<TComplex>(nHalf);

  // Columns [0, nHalf) backward, rows [0, nHeight) kept as complex values in a tile band twice nHalf
  // wide, a row's real and imaginary parts side by side.
  Band::CBand<TReal, Band::STileTag> oWorkBand(2u * unsigned(nHalf), unsigned(nHeight));
  const auto fnWork = RowsOf(oWorkBand);

  TransformColumns<TReal>(
    RowsOf(oSrcRe), RowsOf(oSrcIm), nHalf, StripBlocks<TComplex>(oSrcRe, nHalf), nY, nY, ePlanColumnsBackward,
    pLogger, [&](int nX0, int nStripWidth, const SStrip<TComplex>& oStrip, TReal* pRows) {
      const int nB = oStrip.m_nBlock, nBlockCount = (nStripWidth + nB - 1) / nB;
      auto oWork = fnWork(2 * nX0, 2 * nStripWidth, pRows);
      for (int y = 0; y < nHeight; ++y)
      {
        TReal* pTo = oWork.Write(y);
        for (int k = 0; k < nBlockCount; ++k)
        {
          const TReal* pFrom = reinterpret_cast<const TReal*>(oStrip.Row(k, y));
          const int c0 = 2 * k * nB, nCount = 2 * std::min(nB, nStripWidth - k * nB);
          std::copy(pFrom, pFrom + nCount, pTo + c0);
        }
        oWork.Done();
      }
    });

  // Rows complex-to-real, scaled and cropped, in blocks of g_nRowBlock. A worker's scratch: the row,
  // its transform, two rows for the windows.
  const auto pRowPlan = GetPlan<TReal>({ePlanRowsBackward, nX, 1, nStep});
  const TReal tScale = TReal(1.0 / (double(nX) * double(nY)));
  const auto fnDest = RowsOf(oDest);
  const int nBlocks = (nHeight + g_nRowBlock - 1) / g_nRowBlock;
  const int nWorkers = WorkerCount(nBlocks);
  const std::size_t nRowStride = std::size_t(ScratchStride<TReal>(std::max(2 * nHalf, nWidth)));
  const std::size_t nScratch = 4 * std::size_t(nStep) + 2 * nRowStride; // reals
  Detail::CWorkBuffer<TReal> oScratch(nScratch * std::size_t(nWorkers));
  ForEachItem(nWorkers, nBlocks, [&](int nWorker, int nBlock) {
    TReal* pBase = oScratch.data() + nScratch * std::size_t(nWorker);
    TComplex* pIn = reinterpret_cast<TComplex*>(pBase);
    TReal* pOut = pBase + 2 * std::size_t(nStep);
    TReal* pRows = pBase + 4 * std::size_t(nStep);
    auto oWork = fnWork(0, 2 * nHalf, pRows);
    auto oDestRows = fnDest(0, nWidth, pRows + nRowStride);
    for (int y = nBlock * g_nRowBlock, nEnd = std::min(nHeight, y + g_nRowBlock); y < nEnd; ++y)
    {
      const TReal* pFrom = oWork.Read(y);
      std::copy(pFrom, pFrom + 2 * nHalf, reinterpret_cast<TReal*>(pIn));
      TFftw::RowsBackward(pRowPlan, pIn, pOut);
      TReal* pTo = oDestRows.Write(y);
      for (int x = 0; x < nWidth; ++x)
        pTo[x] = pOut[x] * tScale;
      oDestRows.Done();
      if (pLogger)
        pLogger->IncrementProgress();
    }
  });
}

// Threads of a whole-array plan: the arena's, for arrays of g_nThreadedValues values or more.
constexpr std::size_t g_nThreadedValues = std::size_t(1) << 15;
int WholeThreads(int nX, int nY)
{
  return std::size_t(nX) * std::size_t(nY) < g_nThreadedValues ? 1 : tbb::this_task_arena::max_concurrency();
}

// fn(y0, y1) for blocks of rows of [0, nRows), in parallel; a block holds up to about 16384 values
// of rows nLength long.
template <class TFn>
void ForEachRowBlock(int nRows, int nLength, const TFn& fn)
{
  Detail::ParallelBlocks(nRows, 16384 / std::max(1, nLength), fn);
}

// The forward transform of a memory band as one two-dimensional plan, in place in a working array
// of nY rows of nHalf complex values: the source copied in (padding and invalid pixels as 0), the
// plan run, then the half spectrum split into the two destinations and mirrored into their columns
// (nHalf, nX) in one pass.
template <class TDestBand, class TSrcBand>
void ForwardWhole(TDestBand& oDestRe, TDestBand& oDestIm, const TSrcBand& oSrc,
                  const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  using TReal = typename TDestBand::TPixel;
  using TComplex = typename SFftw<TReal>::TComplex;
  static_assert(std::is_same<typename TSrcBand::TPixel, TReal>::value, "one pixel type in and out");

  const int nWidth = int(oSrc.GetWidth()), nHeight = int(oSrc.GetHeight());
  const int nX = int(oDestRe.GetWidth()), nY = int(oDestRe.GetHeight());
  const int nHalf = nX / 2 + 1;
  const std::size_t nRow = 2 * std::size_t(nHalf); // reals per row of the working array
  const bool bHasNoData = oSrc.HasNoDataValue();
  const TReal tNoData = bHasNoData ? oSrc.GetNoDataValue() : TReal(0);
  const auto pPlan = GetPlan<TReal>({ePlanWholeForward, nX, nY, nHalf, WholeThreads(nX, nY)});
  Detail::CWorkBuffer<TComplex> oWork(std::size_t(nHalf) * std::size_t(nY));
  TReal* const pWork = reinterpret_cast<TReal*>(oWork.data());

  const TReal* const pSrc = oSrc.GetRep().GetDataLocation();
  ForEachRowBlock(nY, nX, [&](int y0, int y1) {
    for (int y = y0; y < y1; ++y)
    {
      TReal* pTo = pWork + std::size_t(y) * nRow;
      const int nValues = y < nHeight ? nWidth : 0;
      const TReal* pFrom = nValues > 0 ? pSrc + std::size_t(y) * std::size_t(nWidth) : pSrc;
      for (int x = 0; x < nValues; ++x)
        pTo[x] = Detail::IsValidPixel(pFrom[x], bHasNoData, tNoData) ? pFrom[x] : TReal(0);
      std::fill(pTo + nValues, pTo + nX, TReal(0));
    }
    if (pLogger && y0 < nHeight)
      pLogger->IncrementProgress(double(std::min(y1, nHeight) - y0));
  });

  SFftw<TReal>::Rows(pPlan, pWork, oWork.data());

  // F(u, v) for u < nHalf from row v; F(u, v) = conj F(nX - u, nY - v) beyond.
  TReal* const pRe = oDestRe.GetRep().GetDataLocation();
  TReal* const pIm = oDestIm.GetRep().GetDataLocation();
  ForEachRowBlock(nY, nX, [&](int v0, int v1) {
    for (int v = v0; v < v1; ++v)
    {
      const TReal* pFrom = pWork + std::size_t(v) * nRow;
      const TReal* pMirror = pWork + std::size_t((nY - v) & (nY - 1)) * nRow;
      TReal* pToRe = pRe + std::size_t(v) * std::size_t(nX);
      TReal* pToIm = pIm + std::size_t(v) * std::size_t(nX);
      for (int u = 0; u < nHalf; ++u)
      {
        pToRe[u] = pFrom[2 * u];
        pToIm[u] = pFrom[2 * u + 1];
      }
      for (int k = 1; k < nX - nHalf + 1; ++k) // u = nX - k from nX - 1 down to nHalf
      {
        pToRe[nX - k] = pMirror[2 * k];
        pToIm[nX - k] = -pMirror[2 * k + 1];
      }
    }
    if (pLogger)
      pLogger->IncrementProgress(double(nHalf) * double(v1 - v0) / double(nY));
  });
}

// The reverse transform of memory bands as one two-dimensional plan, in place in a working array of
// nY rows of nHalf complex values: the half spectrum gathered from the two sources, the plan run,
// then the destination's rows scaled out of it.
template <class TDestBand, class TSrcBand>
void ReverseWhole(TDestBand& oDest, const TSrcBand& oSrcRe, const TSrcBand& oSrcIm,
                  const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  using TReal = typename TSrcBand::TPixel;
  using TComplex = typename SFftw<TReal>::TComplex;

  const int nWidth = int(oDest.GetWidth()), nHeight = int(oDest.GetHeight());
  const int nX = int(oSrcRe.GetWidth()), nY = int(oSrcRe.GetHeight());
  const int nHalf = nX / 2 + 1;
  const std::size_t nRow = 2 * std::size_t(nHalf);
  const auto pPlan = GetPlan<TReal>({ePlanWholeBackward, nX, nY, nHalf, WholeThreads(nX, nY)});
  Detail::CWorkBuffer<TComplex> oWork(std::size_t(nHalf) * std::size_t(nY));
  TReal* const pWork = reinterpret_cast<TReal*>(oWork.data());

  const TReal* const pRe = oSrcRe.GetRep().GetDataLocation();
  const TReal* const pIm = oSrcIm.GetRep().GetDataLocation();
  ForEachRowBlock(nY, nX, [&](int v0, int v1) {
    for (int v = v0; v < v1; ++v)
    {
      TReal* pTo = pWork + std::size_t(v) * nRow;
      const TReal* pFromRe = pRe + std::size_t(v) * std::size_t(nX);
      const TReal* pFromIm = pIm + std::size_t(v) * std::size_t(nX);
      for (int u = 0; u < nHalf; ++u)
      {
        pTo[2 * u] = pFromRe[u];
        pTo[2 * u + 1] = pFromIm[u];
      }
    }
    if (pLogger)
      pLogger->IncrementProgress(double(nHalf) * double(v1 - v0) / double(nY));
  });

  SFftw<TReal>::RowsBackward(pPlan, oWork.data(), pWork);

  const TReal tScale = TReal(1.0 / (double(nX) * double(nY)));
  TReal* const pDest = oDest.GetRep().GetDataLocation();
  ForEachRowBlock(nHeight, nWidth, [&](int y0, int y1) {
    for (int y = y0; y < y1; ++y)
    {
      const TReal* pFrom = pWork + std::size_t(y) * nRow;
      TReal* pTo = pDest + std::size_t(y) * std::size_t(nWidth);
      for (int x = 0; x < nWidth; ++x)
        pTo[x] = pFrom[x] * tScale;
    }
    if (pLogger)
      pLogger->IncrementProgress(double(y1 - y0));
  });
}

bool IsPowerOfTwo(unsigned int n)
{
  return n != 0 && (n & (n - 1)) == 0;
}

} // namespace

template <class TDest, class TSrc>
void CFftForwardFilter::Apply(TDest& oDestReal, TDest& oDestImag, const TSrc& oSrc) const
{
  const unsigned nX = GetFftSize(oSrc.GetWidth()), nY = GetFftSize(oSrc.GetHeight());
  if (oDestReal.GetWidth() != nX || oDestReal.GetHeight() != nY || oDestImag.GetWidth() != nX ||
      oDestImag.GetHeight() != nY)
    Detail::ThrowBadArgument(__FILE__, __LINE__,
                             "%1%: the real and imaginary destinations must both have the padded size of the source",
                             m_strName);
  if (oSrc.GetWidth() == 0 || oSrc.GetHeight() == 0)
  {
    oDestReal.Clear(0);
    oDestImag.Clear(0);
    return;
  }
  // One unit per row of the row pass, one per column of the column pass.
  Detail::PushFilterLayer(m_pLogger, "Apply FFT Forward Filter", double(oSrc.GetHeight()) + double(nX / 2 + 1));
  if constexpr (IsTileBand<TSrc>())
    ForwardImpl(oDestReal, oDestImag, oSrc, m_pLogger);
  else
    ForwardWhole(oDestReal, oDestImag, oSrc, m_pLogger);
  if (m_pLogger)
    m_pLogger->Pop();
}

template <class TDest, class TSrc>
void CFftReverseFilter::Apply(TDest& oDest, const TSrc& oSrcReal, const TSrc& oSrcImag) const
{
  if (oSrcReal.GetWidth() != oSrcImag.GetWidth() || oSrcReal.GetHeight() != oSrcImag.GetHeight() ||
      !IsPowerOfTwo(oSrcReal.GetWidth()) || !IsPowerOfTwo(oSrcReal.GetHeight()) ||
      oDest.GetWidth() > oSrcReal.GetWidth() || oDest.GetHeight() > oSrcReal.GetHeight())
    Detail::ThrowBadArgument(
      __FILE__, __LINE__,
      "%1%: the real and imaginary sources must have one size, powers of two no smaller than the destination",
      m_strName);
  if (oDest.GetWidth() == 0 || oDest.GetHeight() == 0)
    return;
  Detail::PushFilterLayer(m_pLogger, "Apply FFT Reverse Filter",
                          double(oDest.GetHeight()) + double(oSrcReal.GetWidth() / 2 + 1));
  if constexpr (IsTileBand<TSrc>())
    ReverseImpl(oDest, oSrcReal, oSrcImag, m_pLogger);
  else
    ReverseWhole(oDest, oSrcReal, oSrcImag, m_pLogger);
  if (m_pLogger)
    m_pLogger->Pop();
}

#define ORL_FFT_INSTANTIATE(TPixel, Tag) ORL_FFT_DECLARE(TPixel, Tag, )
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_INSTANTIATE, Band::SMemoryTag)
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_INSTANTIATE, Band::SIPPTag)
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_INSTANTIATE, Band::STileTag)
#undef ORL_FFT_INSTANTIATE

}}} // namespace Orl::Ostrel::Filter
