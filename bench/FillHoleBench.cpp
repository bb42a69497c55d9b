// The linear fill-hole filter on a float 4096 x 4096 band, against a reference loop that makes two
// plain passes over the band (read source, write destination): the least that two sweeps can cost.
// Two cases: 10% single-pixel holes at random, and large discs.
#include "Band/Band.h"
#include "Filter/LinearFillHoleFilter.h"

#include <benchmark/benchmark.h>

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
  TBand m_oSrc{ms_nSize, ms_nSize};
  TBand m_oDest{ms_nSize, ms_nSize};
  unsigned m_nHoles = 0;

  explicit SCase(bool bDiscs)
  {
    float* p = m_oSrc.GetRep().GetDataLocation();
    std::mt19937 oRng(7);
    std::uniform_real_distribution<float> oNoise(-1.0f, 1.0f);
    for (unsigned y = 0; y < ms_nSize; ++y)
      for (unsigned x = 0; x < ms_nSize; ++x)
        p[std::size_t(y) * ms_nSize + x] = 500.0f + 80.0f * std::sin(x * 0.01f) * std::cos(y * 0.013f) + oNoise(oRng);
    if (bDiscs)
      for (int n = 0; n < 400; ++n) // radii 10 to 60: about 10% of the band
      {
        const int cx = int(oRng() % ms_nSize), cy = int(oRng() % ms_nSize), r = 10 + int(oRng() % 51);
        for (int y = std::max(0, cy - r); y < std::min(int(ms_nSize), cy + r + 1); ++y)
          for (int x = std::max(0, cx - r); x < std::min(int(ms_nSize), cx + r + 1); ++x)
            if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
              p[std::size_t(y) * ms_nSize + x] = ms_fNoData;
      }
    else
      for (std::size_t i = 0; i < std::size_t(ms_nSize) * ms_nSize; ++i)
        if (oRng() % 10 == 0)
          p[i] = ms_fNoData;
    for (std::size_t i = 0; i < std::size_t(ms_nSize) * ms_nSize; ++i)
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

void BM_LinearFillHole(benchmark::State& state)
{
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

BENCHMARK(BM_TwoPassReference)->Arg(0)->Arg(1)->ArgName("discs")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LinearFillHole)->Arg(0)->Arg(1)->ArgName("discs")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RatioToReference)->Arg(0)->Arg(1)->ArgName("discs")->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
