// Copy2D of a float 8192 x 8192 band against memcpy of the same bytes, in the same run. Copy2D runs on
// all processors; memcpy on one, as a caller without the library would write it.
#include "Band/Band.h"
#include "Band/Copy2D.h"

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

using namespace Orl::Ostrel::Band;
using TBand = CBand<float, SMemoryTag>;

constexpr unsigned ms_nSize = 8192;
constexpr std::int64_t ms_nBytes = std::int64_t(ms_nSize) * ms_nSize * sizeof(float);

struct SBands
{
  TBand m_oSrc{ms_nSize, ms_nSize};
  TBand m_oDest{ms_nSize, ms_nSize};
  SBands()
  {
    float* p = m_oSrc.GetRep().GetDataLocation();
    for (std::size_t i = 0; i < std::size_t(ms_nSize) * ms_nSize; ++i)
      p[i] = float(i % 1021) * 0.25f;
    m_oDest.Clear(0.0f); // every page touched before timing
  }
};

SBands& Bands()
{
  static SBands s_oBands;
  return s_oBands;
}

void BM_Memcpy(benchmark::State& state)
{
  const float* pSrc = static_cast<const TBand&>(Bands().m_oSrc).GetRep().GetDataLocation();
  float* pDest = Bands().m_oDest.GetRep().GetDataLocation();
  for (auto _ : state)
  {
    std::memcpy(pDest, pSrc, ms_nBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * ms_nBytes);
}

void BM_Copy2D(benchmark::State& state)
{
  const TBand& oSrc = Bands().m_oSrc;
  TBand& oDest = Bands().m_oDest;
  for (auto _ : state)
  {
    Copy2D(oSrc.GetBandIterators(oSrc), oDest.GetBandIterators(oDest), nullptr, SAllowParallelFor());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * ms_nBytes);
}

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Copy2D)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
