// Design notes.
//
// FFTW does the one-dimensional transforms; the band walks are ours. A real band's spectrum is
// Hermitian, so the forward pass transforms each source row real-to-complex (Nx / 2 + 1 outputs),
// then only the columns 0 to Nx / 2 complex-to-complex, and writes the other columns as conjugates:
// F(Nx - u, Ny - v) = conj F(u, v). Rows below the source's height are zero and never read. The
// destinations hold the row results between the passes, so no working band is needed forward; the
// reverse pass keeps its column results in two bands of the sources' storage kind, (Nx / 2 + 1) x height.
//
// Columns go in strips: the strip is read row by row into a row-major complex buffer whose rows are
// a multiple of 64 bytes long (the alignment the plans were made with) plus 64 bytes (so that a
// column's values do not all fall into the same cache sets), and FFTW transforms all its columns in
// place with one plan of that many transforms side by side, then the strip is written back row by
// row. On tile bands a strip is as wide as a tile: it costs one pass over a column of tiles, and a
// band larger than memory streams through the tile cache. On memory bands a strip is 128 columns:
// each of its rows is then a few cache lines of each band, and a 4096 x 4096 float forward
// transform took about half the processor time it took with 16-column strips (far fewer page and
// cache-line misses for the same pixels) and a tenth less than with 256.
//
// Plans: one per kind, length and strip width, made on first use with FFTW_ESTIMATE under a lock
// (the planner is not thread-safe) and kept until the process ends. Estimated plans depend on the
// length and the machine's instruction set only, not on timings, so every process computes the same
// bits; measured plans (FFTW_MEASURE) were 5 to 10 percent faster on 4096 x 4096 float but could
// differ in the last bits from run to run. Tasks execute the plans on their own buffers through the
// new-array functions, which are thread-safe.
//
// Scratch memory: the passes run one worker per core, each taking the next block of rows or the next
// strip until none is left; the workers' buffers are allocated once per pass on the calling thread,
// never inside a task.

#include "Filter/FftFilter.h"
#include "Filter/Detail/RowBuffers.h"

#include <fftw3.h>

#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <map>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Orl { namespace Ostrel { namespace Filter {

namespace {

enum EPlanKind
{
  ePlanRealToComplex,
  ePlanComplexForward, // in place
  ePlanComplexBackward, // in place
  ePlanComplexToReal
};

std::mutex g_oPlanMutex;

template <class TReal>
struct SFftw;

template <>
struct SFftw<float>
{
  using TComplex = fftwf_complex;
  using TPlan = fftwf_plan;
  static void* Malloc(std::size_t n) { return fftwf_malloc(n); }
  static void Free(void* p) { fftwf_free(p); }
  static TPlan PlanR2C(int n, float* pIn, TComplex* pOut, unsigned f) { return fftwf_plan_dft_r2c_1d(n, pIn, pOut, f); }
  static TPlan PlanC2R(int n, TComplex* pIn, float* pOut, unsigned f) { return fftwf_plan_dft_c2r_1d(n, pIn, pOut, f); }
  static TPlan PlanC2C(int n, int nCount, int nStep, TComplex* p, int nSign, unsigned f)
  {
    return fftwf_plan_many_dft(1, &n, nCount, p, nullptr, nStep, 1, p, nullptr, nStep, 1, nSign, f);
  }
  static void R2C(TPlan p, float* pIn, TComplex* pOut) { fftwf_execute_dft_r2c(p, pIn, pOut); }
  static void C2R(TPlan p, TComplex* pIn, float* pOut) { fftwf_execute_dft_c2r(p, pIn, pOut); }
  static void C2C(TPlan p, TComplex* pInOut) { fftwf_execute_dft(p, pInOut, pInOut); }
  static void Destroy(TPlan p) { fftwf_destroy_plan(p); }
};

template <>
struct SFftw<double>
{
  using TComplex = fftw_complex;
  using TPlan = fftw_plan;
  static void* Malloc(std::size_t n) { return fftw_malloc(n); }
  static void Free(void* p) { fftw_free(p); }
  static TPlan PlanR2C(int n, double* pIn, TComplex* pOut, unsigned f) { return fftw_plan_dft_r2c_1d(n, pIn, pOut, f); }
  static TPlan PlanC2R(int n, TComplex* pIn, double* pOut, unsigned f) { return fftw_plan_dft_c2r_1d(n, pIn, pOut, f); }
  static TPlan PlanC2C(int n, int nCount, int nStep, TComplex* p, int nSign, unsigned f)
  {
    return fftw_plan_many_dft(1, &n, nCount, p, nullptr, nStep, 1, p, nullptr, nStep, 1, nSign, f);
  }
  static void R2C(TPlan p, double* pIn, TComplex* pOut) { fftw_execute_dft_r2c(p, pIn, pOut); }
  static void C2R(TPlan p, TComplex* pIn, double* pOut) { fftw_execute_dft_c2r(p, pIn, pOut); }
  static void C2C(TPlan p, TComplex* pInOut) { fftw_execute_dft(p, pInOut, pInOut); }
  static void Destroy(TPlan p) { fftw_destroy_plan(p); }
};

// An array from FFTW's allocator: aligned as FFTW's plans like it.
template <class T, class TReal>
class CFftBuffer
{
public:
  explicit CFftBuffer(std::size_t nCount)
    : m_p(static_cast<T*>(SFftw<TReal>::Malloc(sizeof(T) * (nCount ? nCount : 1))))
  {
    if (!m_p)
      throw std::bad_alloc();
  }
  CFftBuffer(const CFftBuffer&) = delete;
  CFftBuffer& operator=(const CFftBuffer&) = delete;
  ~CFftBuffer() { SFftw<TReal>::Free(m_p); }
  T* Get() const { return m_p; }

private:
  T* m_p;
};

// The plan of one kind and length: for the complex kinds, nCount transforms in place whose values
// lie nStep apart, the transforms side by side (the columns of a row-major strip of nStep columns).
template <class TReal>
typename SFftw<TReal>::TPlan GetPlan(EPlanKind eKind, int nLength, int nCount = 1, int nStep = 1)
{
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;
  // The plans live until the process ends, and go with it.
  struct SPlans
  {
    std::map<std::tuple<int, int, int, int>, typename TFftw::TPlan> m_map;
    ~SPlans()
    {
      for (const auto& oEntry : m_map)
        if (oEntry.second)
          TFftw::Destroy(oEntry.second);
    }
  };
  static SPlans s_oPlans;

  std::lock_guard<std::mutex> oLock(g_oPlanMutex);
  auto& pPlan = s_oPlans.m_map[std::make_tuple(int(eKind), nLength, nCount, nStep)];
  if (!pPlan)
  {
    // Planning arrays of the alignment of every buffer used later (FFTW_ESTIMATE leaves them alone).
    CFftBuffer<TReal, TReal> oReal(std::size_t(nLength) + 2);
    CFftBuffer<TComplex, TReal> oComplex(std::size_t(nLength) * std::size_t(nStep) + 1);
    const unsigned nFlags = FFTW_ESTIMATE;
    switch (eKind)
    {
    case ePlanRealToComplex: pPlan = TFftw::PlanR2C(nLength, oReal.Get(), oComplex.Get(), nFlags); break;
    case ePlanComplexForward:
      pPlan = TFftw::PlanC2C(nLength, nCount, nStep, oComplex.Get(), FFTW_FORWARD, nFlags);
      break;
    case ePlanComplexBackward:
      pPlan = TFftw::PlanC2C(nLength, nCount, nStep, oComplex.Get(), FFTW_BACKWARD, nFlags);
      break;
    case ePlanComplexToReal: pPlan = TFftw::PlanC2R(nLength, oComplex.Get(), oReal.Get(), nFlags); break;
    }
    if (!pPlan)
      throw std::bad_alloc();
  }
  return pPlan;
}

// Values per scratch column or row: a multiple of 64 bytes, so that every one starts with the
// alignment of the buffer's start, the widest SIMD alignment FFTW may plan for, and 64 bytes more,
// so that power-of-two lengths do not map every column to the same cache sets.
template <class T>
std::size_t ScratchStride(std::size_t nCount)
{
  const std::size_t nLine = 64 / sizeof(T);
  return (nCount + nLine - 1) / nLine * nLine + nLine;
}

// Columns per strip: a tile's width on tile bands (half the block hint), 128 on memory bands.
template <class TIterator>
int StripWidth(const TIterator& it, bool bTiles)
{
  return bTiles ? int(std::max<std::uint32_t>(8, std::min<std::uint32_t>(256, it.GetBlockHintX() / 2))) : 128;
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

// Strips of columns [0, nColumns): reads rows [0, nReadRows) of the two bands into a row-major
// complex buffer of nStep values per row (rows up to nLength stay 0), transforms its columns in
// place with one plan for the strip, and hands the buffer to fnWrite(x0, nWidth, pBuffer, nStep, pRe,
// pIm): value (y, j) of the strip at pBuffer[y * nStep + j], pRe and pIm two scratch rows.
template <class TReal, class TItRe, class TItIm, class TWrite>
void TransformColumnStrips(const TItRe& itRe, const TItIm& itIm, bool bTiles, int nColumns, int nReadRows,
                           int nLength, EPlanKind eKind, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger,
                           const TWrite& fnWrite)
{
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;
  const int nStrip = std::min(StripWidth(itRe, bTiles), nColumns);
  const std::size_t nStep = ScratchStride<TComplex>(std::size_t(nStrip)); // rows off the cache sets
  const std::size_t nScratch = nStep * std::size_t(nLength) + nStep; // the strip, then two rows
  const int nStrips = (nColumns + nStrip - 1) / nStrip;
  const int nLast = nColumns - (nStrips - 1) * nStrip;
  const auto pPlan = GetPlan<TReal>(eKind, nLength, nStrip, int(nStep));
  const auto pLastPlan = GetPlan<TReal>(eKind, nLength, nLast, int(nStep));
  const int nWorkers = WorkerCount(nStrips);
  CFftBuffer<TComplex, TReal> oScratch(nScratch * std::size_t(nWorkers));
  ForEachItem(nWorkers, nStrips, [&](int nWorker, int nS) {
    TComplex* pBuffer = oScratch.Get() + nScratch * std::size_t(nWorker);
    TReal* pRe = reinterpret_cast<TReal*>(pBuffer + nStep * std::size_t(nLength));
    TReal* pIm = pRe + nStep;
    const int nX0 = nS * nStrip;
    const int nWidth = std::min(nStrip, nColumns - nX0);
    Detail::CRowCursor<TItRe> oRe(itRe, nX0, nWidth);
    Detail::CRowCursor<TItIm> oIm(itIm, nX0, nWidth);
    for (int nY = 0; nY < nReadRows; ++nY)
    {
      oRe.Read(nY, pRe);
      oIm.Read(nY, pIm);
      TComplex* pRow = pBuffer + std::size_t(nY) * nStep;
      for (int j = 0; j < nWidth; ++j)
      {
        pRow[j][0] = pRe[j];
        pRow[j][1] = pIm[j];
      }
    }
    for (int nY = nReadRows; nY < nLength; ++nY) // zero padding
    {
      TReal* pRow = reinterpret_cast<TReal*>(pBuffer + std::size_t(nY) * nStep);
      std::fill(pRow, pRow + 2 * nWidth, TReal(0));
    }
    TFftw::C2C(nWidth == nStrip ? pPlan : pLastPlan, pBuffer);
    fnWrite(nX0, nWidth, static_cast<const TComplex*>(pBuffer), nStep, pRe, pIm);
    if (pLogger)
      pLogger->IncrementProgress(double(nWidth));
  });
}

template <class TDestBand, class TSrcBand>
void ForwardImpl(TDestBand& oDestRe, TDestBand& oDestIm, const TSrcBand& oSrc,
                 const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  using TReal = typename TDestBand::TPixel;
  using TPixel = typename TSrcBand::TPixel;
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;

  const int nWidth = int(oSrc.GetWidth()), nHeight = int(oSrc.GetHeight());
  const int nX = int(oDestRe.GetWidth()), nY = int(oDestRe.GetHeight());
  const int nHalf = nX / 2 + 1;
  const bool bHasNoData = oSrc.HasNoDataValue();
  const TPixel tNoData = bHasNoData ? oSrc.GetNoDataValue() : TPixel(0);
  const bool bTiles = std::is_same<typename TSrcBand::TTagType, Band::STileTag>::value;

  const auto itSrc = Detail::BeginOf(oSrc);
  const auto itRe = Detail::MutableBeginOf(oDestRe);
  const auto itIm = Detail::MutableBeginOf(oDestIm);
  using TItRe = std::decay_t<decltype(itRe)>;
  using TItIm = std::decay_t<decltype(itIm)>;

  // Rows: source row y to columns [0, nHalf) of destination row y. A worker's scratch: the padded
  // input row, the transform and its two parts.
  static_assert(std::is_same<TPixel, TReal>::value, "one pixel type in and out");
  const auto pRowPlan = GetPlan<TReal>(ePlanRealToComplex, nX);
  const int nRowBlock = 16, nBlocks = (nHeight + nRowBlock - 1) / nRowBlock;
  const int nWorkers = WorkerCount(nBlocks);
  const std::size_t nInStride = ScratchStride<TReal>(std::size_t(nX) + 2);
  const std::size_t nPartStride = ScratchStride<TReal>(std::size_t(nHalf));
  const std::size_t nScratch = nInStride + 4 * nPartStride; // in, out (complex), real part, imaginary part
  CFftBuffer<TReal, TReal> oScratch(nScratch * std::size_t(nWorkers));
  std::vector<char> vecZeroed(static_cast<std::size_t>(nWorkers), 0);
  ForEachItem(nWorkers, nBlocks, [&](int nWorker, int nBlock) {
    TReal* pIn = oScratch.Get() + nScratch * std::size_t(nWorker);
    TComplex* pOut = reinterpret_cast<TComplex*>(pIn + nInStride);
    TReal* pRe = pIn + nInStride + 2 * nPartStride;
    TReal* pIm = pRe + nPartStride;
    if (!vecZeroed[std::size_t(nWorker)])
    {
      std::fill(pIn + nWidth, pIn + nX, TReal(0)); // the padding, never written after
      vecZeroed[std::size_t(nWorker)] = 1;
    }
    Detail::CRowCursor<std::decay_t<decltype(itSrc)>> oSrcRows(itSrc, 0, nWidth);
    Detail::CRowCursor<TItRe> oReRows(itRe, 0, nHalf);
    Detail::CRowCursor<TItIm> oImRows(itIm, 0, nHalf);
    const int nEnd = std::min(nHeight, (nBlock + 1) * nRowBlock);
    for (int y = nBlock * nRowBlock; y < nEnd; ++y)
    {
      oSrcRows.Read(y, pIn);
      for (int x = 0; x < nWidth; ++x)
        pIn[x] = Detail::IsValidPixel(pIn[x], bHasNoData, tNoData) ? pIn[x] : TReal(0);
      TFftw::R2C(pRowPlan, pIn, pOut);
      for (int u = 0; u < nHalf; ++u)
      {
        pRe[u] = pOut[u][0];
        pIm[u] = pOut[u][1];
      }
      oReRows.Write(y, pRe);
      oImRows.Write(y, pIm);
      if (pLogger)
        pLogger->IncrementProgress();
    }
  });

  // Columns [0, nHalf), each with its conjugate mirror column nX - u for 0 < u < nX / 2.
  TransformColumnStrips<TReal>(
    itRe, itIm, bTiles, nHalf, nHeight, nY, ePlanComplexForward, pLogger,
    [&](int nX0, int nStripWidth, const TComplex* pBuffer, std::size_t nStride, TReal* vecRe, TReal* vecIm) {
      Detail::CRowCursor<TItRe> oRe(itRe, nX0, nStripWidth);
      Detail::CRowCursor<TItIm> oIm(itIm, nX0, nStripWidth);
      for (int v = 0; v < nY; ++v)
      {
        for (int j = 0; j < nStripWidth; ++j)
        {
          vecRe[j] = pBuffer[std::size_t(v) * nStride + j][0];
          vecIm[j] = pBuffer[std::size_t(v) * nStride + j][1];
        }
        oRe.Write(v, vecRe);
        oIm.Write(v, vecIm);
      }
      const int nM0 = std::max(nX0, 1), nM1 = std::min(nX0 + nStripWidth, nX / 2); // mirrored u
      if (nM0 >= nM1)
        return;
      const int nCount = nM1 - nM0;
      Detail::CRowCursor<TItRe> oMirrorRe(itRe, nX - nM1 + 1, nCount);
      Detail::CRowCursor<TItIm> oMirrorIm(itIm, nX - nM1 + 1, nCount);
      for (int v = 0; v < nY; ++v)
      {
        const int nFrom = (nY - v) % nY;
        for (int k = 0; k < nCount; ++k) // destination column nX - nM1 + 1 + k mirrors u = nM1 - 1 - k
        {
          const TComplex& oValue = pBuffer[std::size_t(nFrom) * nStride + std::size_t(nM1 - 1 - k - nX0)];
          vecRe[k] = oValue[0];
          vecIm[k] = -oValue[1];
        }
        oMirrorRe.Write(v, vecRe);
        oMirrorIm.Write(v, vecIm);
      }
    });
}

template <class TTag>
using TWorkTag = std::conditional_t<std::is_same<TTag, Band::STileTag>::value, Band::STileTag, Band::SMemoryTag>;

template <class TDestBand, class TSrcBand>
void ReverseImpl(TDestBand& oDest, const TSrcBand& oSrcRe, const TSrcBand& oSrcIm,
                 const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  using TReal = typename TSrcBand::TPixel;
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;
  using TWork = Band::CBand<TReal, TWorkTag<typename TSrcBand::TTagType>>;

  const int nWidth = int(oDest.GetWidth()), nHeight = int(oDest.GetHeight());
  const int nX = int(oSrcRe.GetWidth()), nY = int(oSrcRe.GetHeight());
  const int nHalf = nX / 2 + 1;

  // Columns [0, nHalf) backward, rows [0, nHeight) kept.
  TWork oWorkRe(static_cast<unsigned>(nHalf), static_cast<unsigned>(nHeight));
  TWork oWorkIm(static_cast<unsigned>(nHalf), static_cast<unsigned>(nHeight));
  const auto itWorkRe = Detail::MutableBeginOf(oWorkRe);
  const auto itWorkIm = Detail::MutableBeginOf(oWorkIm);
  using TItWorkRe = std::decay_t<decltype(itWorkRe)>;
  using TItWorkIm = std::decay_t<decltype(itWorkIm)>;
  const bool bTiles = std::is_same<typename TSrcBand::TTagType, Band::STileTag>::value;
  TransformColumnStrips<TReal>(
    Detail::BeginOf(oSrcRe), Detail::BeginOf(oSrcIm), bTiles, nHalf, nY, nY, ePlanComplexBackward, pLogger,
    [&](int nX0, int nStripWidth, const TComplex* pBuffer, std::size_t nStride, TReal* vecRe, TReal* vecIm) {
      Detail::CRowCursor<TItWorkRe> oRe(itWorkRe, nX0, nStripWidth);
      Detail::CRowCursor<TItWorkIm> oIm(itWorkIm, nX0, nStripWidth);
      for (int y = 0; y < nHeight; ++y)
      {
        for (int j = 0; j < nStripWidth; ++j)
        {
          vecRe[j] = pBuffer[std::size_t(y) * nStride + j][0];
          vecIm[j] = pBuffer[std::size_t(y) * nStride + j][1];
        }
        oRe.Write(y, vecRe);
        oIm.Write(y, vecIm);
      }
    });

  // Rows complex-to-real, scaled and cropped.
  const auto pRowPlan = GetPlan<TReal>(ePlanComplexToReal, nX);
  const TReal tScale = TReal(1.0 / (double(nX) * double(nY)));
  const auto itDest = Detail::MutableBeginOf(oDest);
  // A worker's scratch: the two parts of a row, the row as complex values, the transform.
  const int nRowBlock = 16, nBlocks = (nHeight + nRowBlock - 1) / nRowBlock;
  const int nWorkers = WorkerCount(nBlocks);
  const std::size_t nPartStride = ScratchStride<TReal>(std::size_t(nHalf));
  const std::size_t nOutStride = ScratchStride<TReal>(std::size_t(nX) + 2);
  const std::size_t nScratch = 4 * nPartStride + nOutStride;
  CFftBuffer<TReal, TReal> oScratch(nScratch * std::size_t(nWorkers));
  ForEachItem(nWorkers, nBlocks, [&](int nWorker, int nBlock) {
    TReal* vecRe = oScratch.Get() + nScratch * std::size_t(nWorker);
    TReal* vecIm = vecRe + nPartStride;
    TComplex* pIn = reinterpret_cast<TComplex*>(vecIm + nPartStride);
    TReal* pOut = vecRe + 4 * nPartStride;
    Detail::CRowCursor<TItWorkRe> oRe(itWorkRe, 0, nHalf);
    Detail::CRowCursor<TItWorkIm> oIm(itWorkIm, 0, nHalf);
    Detail::CRowCursor<std::decay_t<decltype(itDest)>> oDestRows(itDest, 0, nWidth);
    const int nEnd = std::min(nHeight, (nBlock + 1) * nRowBlock);
    for (int y = nBlock * nRowBlock; y < nEnd; ++y)
    {
      oRe.Read(y, vecRe);
      oIm.Read(y, vecIm);
      for (int u = 0; u < nHalf; ++u)
      {
        pIn[u][0] = vecRe[u];
        pIn[u][1] = vecIm[u];
      }
      TFftw::C2R(pRowPlan, pIn, pOut);
      for (int x = 0; x < nWidth; ++x)
        pOut[x] *= tScale;
      oDestRows.Write(y, pOut);
      if (pLogger)
        pLogger->IncrementProgress();
    }
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
  ForwardImpl(oDestReal, oDestImag, oSrc, m_pLogger);
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
  ReverseImpl(oDest, oSrcReal, oSrcImag, m_pLogger);
  if (m_pLogger)
    m_pLogger->Pop();
}

#define ORL_FFT_INSTANTIATE(TPixel, Tag) ORL_FFT_DECLARE(TPixel, Tag, )
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_INSTANTIATE, Band::SMemoryTag)
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_INSTANTIATE, Band::SIPPTag)
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_INSTANTIATE, Band::STileTag)
#undef ORL_FFT_INSTANTIATE

}}} // namespace Orl::Ostrel::Filter
