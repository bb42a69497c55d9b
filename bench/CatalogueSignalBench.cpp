// The signal filters of the catalogue on a float 4096 x 4096 memory band, all cores. Each benchmark
// runs the filter and its reference in turn within every iteration, so that both see the same
// machine state, and reports both in nanoseconds per source pixel and their ratio:
// - the forward FFT against FFTW's own 2-D real-to-complex plan (threads on all cores) on a padded
//   buffer of the same size, the reverse FFT against the 2-D complex-to-real plan on the half
//   spectrum copied from the two bands (that plan consumes its input); once the filter has run, the
//   reference's threads run on oneTBB too (the filter hands FFTW's parallel loops to it);
// - resampling, equalization and gradient orientation against a plain two-pass copy (source to a
//   buffer, buffer to destination, rows split over the cores).
// ratio compares wall-clock times, cpu_ratio the processor time of all threads of the process.
#include "Band/Band.h"
#include "Filter/FftFilter.h"
#include "Filter/GradientOrientationFilter.h"
#include "Filter/HistogramEqualizationFilter.h"
#include "Filter/ResampleFilter.h"

#include <benchmark/benchmark.h>
#include <fftw3.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <chrono>
#include <ctime>
#include <cmath>
#include <random>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Ostrel::Filter;
using TBand = CBand<float, SMemoryTag>;
using TClock = std::chrono::steady_clock;

constexpr unsigned ms_nSize = 4096;
constexpr std::size_t ms_nPixels = std::size_t(ms_nSize) * ms_nSize;

template <class TPixel>
CBand<TPixel, SMemoryTag>& Source()
{
  static CBand<TPixel, SMemoryTag> s_oSrc = [] {
    CBand<TPixel, SMemoryTag> oBand(ms_nSize, ms_nSize);
    TPixel* p = oBand.GetRep().GetDataLocation();
    std::mt19937 oRng(7);
    std::uniform_real_distribution<float> oNoise(-10.0f, 10.0f);
    for (unsigned y = 0; y < ms_nSize; ++y)
      for (unsigned x = 0; x < ms_nSize; ++x)
        p[std::size_t(y) * ms_nSize + x] =
          TPixel(120.0f + 80.0f * std::sin(x * 0.01f) * std::cos(y * 0.013f) + oNoise(oRng));
    return oBand;
  }();
  return s_oSrc;
}

struct SCopyReference
{
  std::vector<float> m_vecBuffer = std::vector<float>(ms_nPixels);
  TBand m_oDest{ms_nSize, ms_nSize};

  void operator()()
  {
    const float* pSrc = static_cast<const TBand&>(Source<float>()).GetRep().GetDataLocation();
    float* pBuffer = m_vecBuffer.data();
    float* pDest = m_oDest.GetRep().GetDataLocation();
    const auto fnPass = [](const float* pFrom, float* pTo) {
      tbb::parallel_for(tbb::blocked_range<std::size_t>(0, ms_nSize, 16),
                        [&](const tbb::blocked_range<std::size_t>& r) {
                          for (std::size_t i = r.begin() * ms_nSize; i < r.end() * ms_nSize; ++i)
                            pTo[i] = pFrom[i];
                        });
      benchmark::ClobberMemory();
    };
    fnPass(pSrc, pBuffer);
    fnPass(pBuffer, pDest);
  }
};

// FFTW's 2-D real-to-complex plan over the padded source, on all cores.
struct SFftwReference
{
  float* m_pIn = static_cast<float*>(fftwf_malloc(sizeof(float) * ms_nPixels));
  fftwf_complex* m_pOut =
    static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * ms_nSize * (ms_nSize / 2 + 1)));
  fftwf_plan m_pPlan;

  SFftwReference()
  {
    fftwf_init_threads();
    fftwf_plan_with_nthreads(tbb::this_task_arena::max_concurrency());
    m_pPlan = fftwf_plan_dft_r2c_2d(int(ms_nSize), int(ms_nSize), m_pIn, m_pOut, FFTW_MEASURE);
  }
  ~SFftwReference()
  {
    fftwf_destroy_plan(m_pPlan);
    fftwf_free(m_pIn);
    fftwf_free(m_pOut);
  }
  void operator()()
  {
    const float* pSrc = static_cast<const TBand&>(Source<float>()).GetRep().GetDataLocation();
    std::copy(pSrc, pSrc + ms_nPixels, m_pIn); // the padded buffer: the padding is none at 4096
    fftwf_execute(m_pPlan);
    benchmark::ClobberMemory();
  }
};

// FFTW's 2-D complex-to-real plan over the half spectrum of oRe, oIm (columns 0 to size / 2), on all
// cores; the spectrum is copied in on every call, the plan destroys its input.
struct SFftwReverseReference
{
  static constexpr unsigned ms_nHalf = ms_nSize / 2 + 1;
  const TBand& m_oRe;
  const TBand& m_oIm;
  fftwf_complex* m_pIn = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * ms_nSize * ms_nHalf));
  float* m_pOut = static_cast<float*>(fftwf_malloc(sizeof(float) * ms_nPixels));
  fftwf_plan m_pPlan;

  SFftwReverseReference(const TBand& oRe, const TBand& oIm) : m_oRe(oRe), m_oIm(oIm)
  {
    fftwf_init_threads();
    fftwf_plan_with_nthreads(tbb::this_task_arena::max_concurrency());
    m_pPlan = fftwf_plan_dft_c2r_2d(int(ms_nSize), int(ms_nSize), m_pIn, m_pOut, FFTW_MEASURE);
  }
  ~SFftwReverseReference()
  {
    fftwf_destroy_plan(m_pPlan);
    fftwf_free(m_pIn);
    fftwf_free(m_pOut);
  }
  void operator()()
  {
    const float* pRe = m_oRe.GetRep().GetDataLocation();
    const float* pIm = m_oIm.GetRep().GetDataLocation();
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, ms_nSize, 16), [&](const tbb::blocked_range<std::size_t>& r) {
      for (std::size_t y = r.begin(); y < r.end(); ++y)
        for (std::size_t u = 0; u < ms_nHalf; ++u)
        {
          m_pIn[y * ms_nHalf + u][0] = pRe[y * ms_nSize + u];
          m_pIn[y * ms_nHalf + u][1] = pIm[y * ms_nSize + u];
        }
    });
    fftwf_execute(m_pPlan);
    benchmark::ClobberMemory();
  }
};

template <class TFilter, class TReference>
void RunRatio(benchmark::State& state, TFilter&& fnFilter, TReference&& fnReference)
{
  TClock::duration oFilterTime{}, oReferenceTime{};
  std::clock_t nFilterCpu = 0, nReferenceCpu = 0;
  for (auto _ : state)
  {
    const std::clock_t c0 = std::clock();
    const TClock::time_point t0 = TClock::now();
    fnFilter();
    benchmark::ClobberMemory();
    const TClock::time_point t1 = TClock::now();
    const std::clock_t c1 = std::clock();
    fnReference();
    oFilterTime += t1 - t0;
    oReferenceTime += TClock::now() - t1;
    nFilterCpu += c1 - c0;
    nReferenceCpu += std::clock() - c1;
  }
  const double dPixels = double(state.iterations()) * double(ms_nPixels);
  state.counters["ratio"] = double(oFilterTime.count()) / double(oReferenceTime.count());
  // The same from the process's processor time over all threads: steadier on a loaded machine.
  state.counters["cpu_ratio"] = double(nFilterCpu) / double(nReferenceCpu);
  state.counters["filter_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oFilterTime).count() / dPixels;
  state.counters["reference_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oReferenceTime).count() / dPixels;
}

// Runs fn outside the timing; its first run in the process makes the filter's plans, and its time
// is reported as first_call_s by every repetition.
template <class TFn>
void FirstCall(benchmark::State& state, double& dSeconds, TFn&& fnCall)
{
  const TClock::time_point t0 = TClock::now();
  fnCall();
  if (dSeconds == 0.0)
    dSeconds = std::chrono::duration<double>(TClock::now() - t0).count();
  state.counters["first_call_s"] = dSeconds;
}

void BM_FftForward(benchmark::State& state)
{
  static SFftwReference s_oReference;
  static double s_dFirstCall = 0.0;
  TBand oRe(ms_nSize, ms_nSize), oIm(ms_nSize, ms_nSize);
  const CFftForwardFilter oFilter;
  FirstCall(state, s_dFirstCall, [&] { oFilter.Apply(oRe, oIm, Source<float>()); });
  RunRatio(state, [&] { oFilter.Apply(oRe, oIm, Source<float>()); }, s_oReference);
}

void BM_FftReverse(benchmark::State& state)
{
  TBand oRe(ms_nSize, ms_nSize), oIm(ms_nSize, ms_nSize), oBack(ms_nSize, ms_nSize);
  CFftForwardFilter().Apply(oRe, oIm, Source<float>());
  const CFftReverseFilter oFilter;
  static double s_dFirstCall = 0.0;
  FirstCall(state, s_dFirstCall, [&] { oFilter.Apply(oBack, oRe, oIm); });
  SFftwReverseReference oReference(oRe, oIm);
  RunRatio(state, [&] { oFilter.Apply(oBack, oRe, oIm); }, oReference);
}

void BM_ResampleHalf(benchmark::State& state)
{
  const CResampleFilter oFilter(EResampleKernel(state.range(0)));
  TBand oDest(ms_nSize / 2, ms_nSize / 2);
  SCopyReference oReference;
  RunRatio(state, [&] { oFilter.Apply(oDest, Source<float>()); }, oReference);
}

// range(1): 1 to count the histogram in every iteration, 0 to map from the cached one.
template <class TPixel>
void BM_Equalization(benchmark::State& state)
{
  const CHistogramEqualizationFilter oFilter;
  CBand<TPixel, SMemoryTag> oDest(ms_nSize, ms_nSize);
  auto& oSrc = Source<TPixel>();
  SCopyReference oReference;
  RunRatio(
    state,
    [&] {
      if (state.range(0))
        oSrc.GetBandIterators(oSrc.GetRect()); // mutable access drops the cached histogram
      oFilter.Apply(oDest, static_cast<const CBand<TPixel, SMemoryTag>&>(oSrc));
    },
    oReference);
}

void BM_GradientOrientation(benchmark::State& state)
{
  const CGradientOrientationFilter oFilter;
  const unsigned nDest = ms_nSize / unsigned(state.range(0));
  TBand oDest(nDest, nDest);
  SCopyReference oReference;
  RunRatio(state, [&] { oFilter.Apply(oDest, Source<float>()); }, oReference);
}

BENCHMARK(BM_FftForward)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FftReverse)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ResampleHalf)->Arg(eResampleCubic)->Arg(eResampleBilinear)->Arg(eResampleLanczos3)->Arg(eResampleAverage)
  ->ArgName("kernel")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Equalization, float)
  ->Arg(1)->Arg(0)->ArgName("histogram")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Equalization, unsigned char)
  ->Arg(1)->Arg(0)->ArgName("histogram")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_GradientOrientation)->Arg(1)->Arg(4)->ArgName("reduction")->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
