// Design notes.
//
// FFTW does the one-dimensional transforms; the band walks are ours. A real band's spectrum is
// Hermitian, so the forward pass transforms each source row real-to-complex (Nx / 2 + 1 outputs),
// then only the columns 0 to Nx / 2 complex-to-complex, and writes the other columns as conjugates:
// F(Nx - u, Ny - v) = conj F(u, v). Rows below the source's height are zero and never read. The
// destinations hold the row results between the passes, so no working band is needed forward; the
// reverse pass keeps its column results in two bands of the sources' storage kind, (Nx / 2 + 1) x height.
//
// Columns go in strips as wide as a tile: the strip is read row by row into a column-major buffer
// (each column padded to a multiple of 64 bytes, so that every column start has the alignment the
// plans were made with), transformed column by column and written back the same way. A strip then
// costs one pass over a column of tiles, and a band larger than memory streams through the tile
// cache.
//
// Plans: one per kind and length, made on first use with FFTW_MEASURE under a lock (the planner is
// not thread-safe) and kept until the process ends. Tasks execute them on their own buffers through the
// new-array functions, which are thread-safe.

#include "Filter/FftFilter.h"
#include "Filter/Detail/RowBuffers.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <map>
#include <mutex>
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
  static TPlan PlanC2C(int n, TComplex* p, int nSign, unsigned f) { return fftwf_plan_dft_1d(n, p, p, nSign, f); }
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
  static TPlan PlanC2C(int n, TComplex* p, int nSign, unsigned f) { return fftw_plan_dft_1d(n, p, p, nSign, f); }
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

template <class TReal>
typename SFftw<TReal>::TPlan GetPlan(EPlanKind eKind, int nLength)
{
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;
  // The plans live until the process ends, and go with it.
  struct SPlans
  {
    std::map<std::pair<int, int>, typename TFftw::TPlan> m_map;
    ~SPlans()
    {
      for (const auto& oEntry : m_map)
        if (oEntry.second)
          TFftw::Destroy(oEntry.second);
    }
  };
  static SPlans s_oPlans;

  std::lock_guard<std::mutex> oLock(g_oPlanMutex);
  auto& pPlan = s_oPlans.m_map[std::make_pair(int(eKind), nLength)];
  if (!pPlan)
  {
    // Measuring overwrites the arrays: scratch ones, of the alignment of every buffer used later.
    CFftBuffer<TReal, TReal> oReal(std::size_t(nLength) + 2);
    CFftBuffer<TComplex, TReal> oComplex(std::size_t(nLength) + 1);
    const unsigned nFlags = FFTW_MEASURE;
    switch (eKind)
    {
    case ePlanRealToComplex: pPlan = TFftw::PlanR2C(nLength, oReal.Get(), oComplex.Get(), nFlags); break;
    case ePlanComplexForward: pPlan = TFftw::PlanC2C(nLength, oComplex.Get(), FFTW_FORWARD, nFlags); break;
    case ePlanComplexBackward: pPlan = TFftw::PlanC2C(nLength, oComplex.Get(), FFTW_BACKWARD, nFlags); break;
    case ePlanComplexToReal: pPlan = TFftw::PlanC2R(nLength, oComplex.Get(), oReal.Get(), nFlags); break;
    }
    if (!pPlan)
      throw std::bad_alloc();
  }
  return pPlan;
}

// Complex values per column of a strip buffer: a multiple of 8, so that every column starts a
// multiple of 64 bytes after the buffer's aligned start, the widest SIMD alignment FFTW may plan for.
inline std::size_t ColumnStride(int nLength)
{
  return (std::size_t(nLength) + 7) & ~std::size_t(7);
}

// Columns per strip: a tile's width on tile bands (half the block hint), a few cache lines on memory.
template <class TIterator>
int StripWidth(const TIterator& it)
{
  return int(std::max<std::uint32_t>(8, std::min<std::uint32_t>(256, it.GetBlockHintX() / 2)));
}

// Strips of columns [0, nColumns): reads rows [0, nReadRows) of the two bands into a column-major
// buffer (rows up to nLength stay 0), transforms each column in place, and hands the buffer to
// fnWrite(x0, nWidth, pBuffer, nStride).
template <class TReal, class TItRe, class TItIm, class TWrite>
void TransformColumnStrips(const TItRe& itRe, const TItIm& itIm, int nColumns, int nReadRows, int nLength,
                           EPlanKind eKind, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger,
                           const TWrite& fnWrite)
{
  using TFftw = SFftw<TReal>;
  using TComplex = typename TFftw::TComplex;
  const auto pPlan = GetPlan<TReal>(eKind, nLength);
  const int nStrip = StripWidth(itRe);
  const std::size_t nStride = ColumnStride(nLength);
  const int nStrips = (nColumns + nStrip - 1) / nStrip;
  Detail::ParallelBlocks(nStrips, 1, [&](int nBegin, int nEnd) {
    CFftBuffer<TComplex, TReal> oBuffer(nStride * std::size_t(nStrip));
    std::vector<TReal> vecRe(static_cast<std::size_t>(nStrip)), vecIm(static_cast<std::size_t>(nStrip));
    TComplex* pBuffer = oBuffer.Get();
    for (int nS = nBegin; nS < nEnd; ++nS)
    {
      const int nX0 = nS * nStrip;
      const int nWidth = std::min(nStrip, nColumns - nX0);
      Detail::CRowCursor<TItRe> oRe(itRe, nX0, nWidth);
      Detail::CRowCursor<TItIm> oIm(itIm, nX0, nWidth);
      for (int nY = 0; nY < nReadRows; ++nY)
      {
        oRe.Read(nY, vecRe.data());
        oIm.Read(nY, vecIm.data());
        for (int j = 0; j < nWidth; ++j)
        {
          pBuffer[std::size_t(j) * nStride + nY][0] = vecRe[j];
          pBuffer[std::size_t(j) * nStride + nY][1] = vecIm[j];
        }
      }
      for (int j = 0; j < nWidth; ++j)
      {
        TComplex* pColumn = pBuffer + std::size_t(j) * nStride;
        TReal* pValues = reinterpret_cast<TReal*>(pColumn);
        std::fill(pValues + 2 * nReadRows, pValues + 2 * nLength, TReal(0)); // zero padding
        TFftw::C2C(pPlan, pColumn);
      }
      fnWrite(nX0, nWidth, pBuffer, nStride);
      if (pLogger)
        pLogger->IncrementProgress(double(nWidth));
    }
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

  const auto itSrc = Detail::BeginOf(oSrc);
  const auto itRe = Detail::MutableBeginOf(oDestRe);
  const auto itIm = Detail::MutableBeginOf(oDestIm);
  using TItRe = std::decay_t<decltype(itRe)>;
  using TItIm = std::decay_t<decltype(itIm)>;

  // Rows: source row y to columns [0, nHalf) of destination row y.
  const auto pRowPlan = GetPlan<TReal>(ePlanRealToComplex, nX);
  Detail::ParallelBlocks(nHeight, 16, [&](int nBegin, int nEnd) {
    CFftBuffer<TReal, TReal> oIn(static_cast<std::size_t>(nX) + 2);
    CFftBuffer<TComplex, TReal> oOut(static_cast<std::size_t>(nHalf));
    std::vector<TPixel> vecRow(static_cast<std::size_t>(nWidth));
    std::vector<TReal> vecRe(static_cast<std::size_t>(nHalf)), vecIm(static_cast<std::size_t>(nHalf));
    Detail::CRowCursor<std::decay_t<decltype(itSrc)>> oSrcRows(itSrc, 0, nWidth);
    Detail::CRowCursor<TItRe> oReRows(itRe, 0, nHalf);
    Detail::CRowCursor<TItIm> oImRows(itIm, 0, nHalf);
    TReal* pIn = oIn.Get();
    std::fill(pIn, pIn + nX, TReal(0));
    for (int y = nBegin; y < nEnd; ++y)
    {
      oSrcRows.Read(y, vecRow.data());
      for (int x = 0; x < nWidth; ++x)
        pIn[x] = Detail::IsValidPixel(vecRow[x], bHasNoData, tNoData) ? TReal(vecRow[x]) : TReal(0);
      TFftw::R2C(pRowPlan, pIn, oOut.Get());
      for (int u = 0; u < nHalf; ++u)
      {
        vecRe[u] = oOut.Get()[u][0];
        vecIm[u] = oOut.Get()[u][1];
      }
      oReRows.Write(y, vecRe.data());
      oImRows.Write(y, vecIm.data());
      if (pLogger)
        pLogger->IncrementProgress();
    }
  });

  // Columns [0, nHalf), each with its conjugate mirror column nX - u for 0 < u < nX / 2.
  TransformColumnStrips<TReal>(
    itRe, itIm, nHalf, nHeight, nY, ePlanComplexForward, pLogger,
    [&](int nX0, int nStripWidth, const TComplex* pBuffer, std::size_t nStride) {
      std::vector<TReal> vecRe(static_cast<std::size_t>(nStripWidth)), vecIm(static_cast<std::size_t>(nStripWidth));
      Detail::CRowCursor<TItRe> oRe(itRe, nX0, nStripWidth);
      Detail::CRowCursor<TItIm> oIm(itIm, nX0, nStripWidth);
      for (int v = 0; v < nY; ++v)
      {
        for (int j = 0; j < nStripWidth; ++j)
        {
          vecRe[j] = pBuffer[std::size_t(j) * nStride + v][0];
          vecIm[j] = pBuffer[std::size_t(j) * nStride + v][1];
        }
        oRe.Write(v, vecRe.data());
        oIm.Write(v, vecIm.data());
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
          const TComplex& oValue = pBuffer[std::size_t(nM1 - 1 - k - nX0) * nStride + nFrom];
          vecRe[k] = oValue[0];
          vecIm[k] = -oValue[1];
        }
        oMirrorRe.Write(v, vecRe.data());
        oMirrorIm.Write(v, vecIm.data());
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
  TransformColumnStrips<TReal>(
    Detail::BeginOf(oSrcRe), Detail::BeginOf(oSrcIm), nHalf, nY, nY, ePlanComplexBackward, pLogger,
    [&](int nX0, int nStripWidth, const TComplex* pBuffer, std::size_t nStride) {
      std::vector<TReal> vecRe(static_cast<std::size_t>(nStripWidth)), vecIm(static_cast<std::size_t>(nStripWidth));
      Detail::CRowCursor<TItWorkRe> oRe(itWorkRe, nX0, nStripWidth);
      Detail::CRowCursor<TItWorkIm> oIm(itWorkIm, nX0, nStripWidth);
      for (int y = 0; y < nHeight; ++y)
      {
        for (int j = 0; j < nStripWidth; ++j)
        {
          vecRe[j] = pBuffer[std::size_t(j) * nStride + y][0];
          vecIm[j] = pBuffer[std::size_t(j) * nStride + y][1];
        }
        oRe.Write(y, vecRe.data());
        oIm.Write(y, vecIm.data());
      }
    });

  // Rows complex-to-real, scaled and cropped.
  const auto pRowPlan = GetPlan<TReal>(ePlanComplexToReal, nX);
  const TReal tScale = TReal(1.0 / (double(nX) * double(nY)));
  const auto itDest = Detail::MutableBeginOf(oDest);
  Detail::ParallelBlocks(nHeight, 16, [&](int nBegin, int nEnd) {
    CFftBuffer<TComplex, TReal> oIn(static_cast<std::size_t>(nHalf));
    CFftBuffer<TReal, TReal> oOut(static_cast<std::size_t>(nX) + 2);
    std::vector<TReal> vecRe(static_cast<std::size_t>(nHalf)), vecIm(static_cast<std::size_t>(nHalf));
    Detail::CRowCursor<TItWorkRe> oRe(itWorkRe, 0, nHalf);
    Detail::CRowCursor<TItWorkIm> oIm(itWorkIm, 0, nHalf);
    Detail::CRowCursor<std::decay_t<decltype(itDest)>> oDestRows(itDest, 0, nWidth);
    TReal* pOut = oOut.Get();
    for (int y = nBegin; y < nEnd; ++y)
    {
      oRe.Read(y, vecRe.data());
      oIm.Read(y, vecIm.data());
      for (int u = 0; u < nHalf; ++u)
      {
        oIn.Get()[u][0] = vecRe[u];
        oIn.Get()[u][1] = vecIm[u];
      }
      TFftw::C2R(pRowPlan, oIn.Get(), pOut);
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
