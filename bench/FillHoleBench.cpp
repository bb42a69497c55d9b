// The linear fill-hole filter on a float 4096 x 4096 band, against a reference loop that makes two
// plain passes over the band (read source, write destination): the least that two sweeps can cost.
// Two cases: 10% single-pixel holes at random, and large discs. The filter sweeps on every thread of
// the arena; the thread-count arguments set a tbb::global_control limit, and BM_ThreadSpeedUp runs one
// thread and all of them in turn within one run. BM_LargeBand times a 16384 x 16384 band and the
// memory the filter adds to the process's peak.
#include "Band/Band.h"
#include "Filter/LinearFillHoleFilter.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include <chrono>
#include <cmath>
#include <random>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Ostrel::Filter;
using TBand = CBand<float, SMemoryTag>;

constexpr unsigned ms_nSize = 4096;
constexpr float ms_fNoData = -9999.0f;

struct SCase
{
  const unsigned m_nSize;
  TBand m_oSrc{m_nSize, m_nSize};
  TBand m_oDest{m_nSize, m_nSize};
  unsigned m_nHoles = 0;

  explicit SCase(bool bDiscs, unsigned nSize = 4096) : m_nSize(nSize)
  {
    float* p = m_oSrc.GetRep().GetDataLocation();
    std::mt19937 oRng(7);
    std::uniform_real_distribution<float> oNoise(-1.0f, 1.0f);
    for (unsigned y = 0; y < m_nSize; ++y)
      for (unsigned x = 0; x < m_nSize; ++x)
        p[std::size_t(y) * m_nSize + x] = 500.0f + 80.0f * std::sin(x * 0.01f) * std::cos(y * 0.013f) + oNoise(oRng);
    if (bDiscs)
      for (int n = 0; n < 400; ++n) // radii 10 to 60: about 10% of the band
      {
        const int cx = int(oRng() % m_nSize), cy = int(oRng() % m_nSize), r = 10 + int(oRng() % 51);
        for (int y = std::max(0, cy - r); y < std::min(int(m_nSize), cy + r + 1); ++y)
          for (int x = std::max(0, cx - r); x < std::min(int(m_nSize), cx + r + 1); ++x)
            if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
              p[std::size_t(y) * m_nSize + x] = ms_fNoData;
      }
    else
      for (std::size_t i = 0; i < std::size_t(m_nSize) * m_nSize; ++i)
        if (oRng() % 10 == 0)
          p[i] = ms_fNoData;
    for (std::size_t i = 0; i < std::size_t(m_nSize) * m_nSize; ++i)
      m_nHoles += p[i] == ms_fNoData;
    m_oSrc.SetNoDataValue(ms_fNoData);
    m_oDest.Clear(0.0f);
  }
};

SCase& Case(bool bDiscs)
{
  static SCase s_oSingle(false);
  static SCase s_oDiscs(true);
  return bDiscs ? s_oDiscs : s_oSingle;
}

void SetPixels(benchmark::State& state)
{
  state.counters["ns_per_pixel"] = benchmark::Counter(double(state.iterations()) * ms_nSize * ms_nSize,
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void TwoPasses(const SCase& oCase, float* pDest)
{
  const float* pSrc = static_cast<const TBand&>(oCase.m_oSrc).GetRep().GetDataLocation();
  for (int nPass = 0; nPass < 2; ++nPass)
  {
    for (std::size_t i = 0; i < std::size_t(ms_nSize) * ms_nSize; ++i)
      pDest[i] = pSrc[i];
    benchmark::ClobberMemory();
  }
}

void BM_TwoPassReference(benchmark::State& state)
{
  SCase& oCase = Case(state.range(0) != 0);
  for (auto _ : state)
    TwoPasses(oCase, oCase.m_oDest.GetRep().GetDataLocation());
  SetPixels(state);
}

unsigned Threads(const benchmark::State& state)
{
  return state.range(1) != 0 ? unsigned(state.range(1)) : unsigned(tbb::this_task_arena::max_concurrency());
}

void BM_LinearFillHole(benchmark::State& state)
{
  const tbb::global_control oLimit(tbb::global_control::max_allowed_parallelism, Threads(state));
  SCase& oCase = Case(state.range(0) != 0);
  const CLinearFillHoleFilter<SDefaultLineData> oFilter(oCase.m_nHoles, 1, 100.0f, false);
  for (auto _ : state)
  {
    oFilter.Apply(oCase.m_oDest, oCase.m_oSrc, oCase.m_oSrc);
    benchmark::ClobberMemory();
  }
  SetPixels(state);
}

// The filter and the reference in turn within each iteration, so that both see the same machine
// state: the ratio holds up on a busy machine where the two benchmarks above, run apart, drift.
void BM_RatioToReference(benchmark::State& state)
{
  using TClock = std::chrono::steady_clock;
  const tbb::global_control oLimit(tbb::global_control::max_allowed_parallelism, Threads(state));
  SCase& oCase = Case(state.range(0) != 0);
  const CLinearFillHoleFilter<SDefaultLineData> oFilter(oCase.m_nHoles, 1, 100.0f, false);
  TClock::duration oFilterTime{}, oReferenceTime{};
  for (auto _ : state)
  {
    const TClock::time_point t0 = TClock::now();
    oFilter.Apply(oCase.m_oDest, oCase.m_oSrc, oCase.m_oSrc);
    benchmark::ClobberMemory();
    const TClock::time_point t1 = TClock::now();
    TwoPasses(oCase, oCase.m_oDest.GetRep().GetDataLocation());
    oFilterTime += t1 - t0;
    oReferenceTime += TClock::now() - t1;
  }
  state.counters["ratio"] = double(oFilterTime.count()) / double(oReferenceTime.count());
  const double dPixels = double(state.iterations()) * ms_nSize * ms_nSize;
  state.counters["filter_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oFilterTime).count() / dPixels;
  state.counters["reference_ns_per_pixel"] =
    std::chrono::duration<double, std::nano>(oReferenceTime).count() / dPixels;
}

double ProcessCpuSeconds()
{
  rusage oUsage{};
  getrusage(RUSAGE_SELF, &oUsage);
  return double(oUsage.ru_utime.tv_sec + oUsage.ru_stime.tv_sec) +
         1e-6 * double(oUsage.ru_utime.tv_usec + oUsage.ru_stime.tv_usec);
}

// One thread and all threads in turn within each iteration: the speed-up holds up on a busy machine.
// Wall and process CPU time per pixel for both.
void BM_ThreadSpeedUp(benchmark::State& state)
{
  using TClock = std::chrono::steady_clock;
  SCase& oCase = Case(state.range(0) != 0);
  const CLinearFillHoleFilter<SDefaultLineData> oFilter(oCase.m_nHoles, 1, 100.0f, false);
  const unsigned nAll = unsigned(tbb::this_task_arena::max_concurrency());
  TClock::duration aWall[2]{};
  double adCpu[2] = {0.0, 0.0};
  for (auto _ : state)
    for (int n = 0; n < 2; ++n)
    {
      const tbb::global_control oLimit(tbb::global_control::max_allowed_parallelism, n == 0 ? 1u : nAll);
      const double dCpu = ProcessCpuSeconds();
      const TClock::time_point t0 = TClock::now();
      oFilter.Apply(oCase.m_oDest, oCase.m_oSrc, oCase.m_oSrc);
      benchmark::ClobberMemory();
      aWall[n] += TClock::now() - t0;
      adCpu[n] += ProcessCpuSeconds() - dCpu;
    }
  const double dPixels = double(state.iterations()) * ms_nSize * ms_nSize;
  state.counters["threads"] = nAll;
  state.counters["one_ns_per_pixel"] = std::chrono::duration<double, std::nano>(aWall[0]).count() / dPixels;
  state.counters["all_ns_per_pixel"] = std::chrono::duration<double, std::nano>(aWall[1]).count() / dPixels;
  state.counters["one_cpu_ns_per_pixel"] = 1e9 * adCpu[0] / dPixels;
  state.counters["all_cpu_ns_per_pixel"] = 1e9 * adCpu[1] / dPixels;
  state.counters["speed_up"] = double(aWall[0].count()) / double(aWall[1].count());
}

long PeakKiB()
{
  rusage oUsage{};
  getrusage(RUSAGE_SELF, &oUsage);
  return oUsage.ru_maxrss;
}

// 16384 x 16384 float, 10% single-pixel holes, all threads. extra_MB: how far the filter raised the
// process's peak resident memory above the two bands (measured on the first run, so run it first and
// alone: --benchmark_filter=BM_LargeBand).
void BM_LargeBand(benchmark::State& state)
{
  static SCase s_oCase(false, 16384);
  s_oCase.m_oDest.Clear(0.0f); // resident before the peak is taken
  const long nPeakBefore = PeakKiB();
  const CLinearFillHoleFilter<SDefaultLineData> oFilter(s_oCase.m_nHoles, 1, 100.0f, false);
  for (auto _ : state)
  {
    oFilter.Apply(s_oCase.m_oDest, s_oCase.m_oSrc, s_oCase.m_oSrc);
    benchmark::ClobberMemory();
  }
  state.counters["extra_MB"] = double(PeakKiB() - nPeakBefore) / 1024.0;
}

BENCHMARK(BM_TwoPassReference)->Arg(0)->Arg(1)->ArgName("discs")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LinearFillHole)
  ->ArgsProduct({{0, 1}, {1, 0}})
  ->ArgNames({"discs", "threads"})
  ->Unit(benchmark::kMillisecond)
  ->UseRealTime();
BENCHMARK(BM_RatioToReference)
  ->ArgsProduct({{0, 1}, {1, 0}})
  ->ArgNames({"discs", "threads"})
  ->Unit(benchmark::kMillisecond)
  ->UseRealTime();
BENCHMARK(BM_ThreadSpeedUp)->Arg(0)->Arg(1)->ArgName("discs")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LargeBand)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

} // namespace

BENCHMARK_MAIN();
