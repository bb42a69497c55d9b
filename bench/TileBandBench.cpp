// Tile bands against memory bands with the same pixels, in the same run, on float 4096 x 4096 bands
// (64 MiB):
//
//   Statistics   CalcMinMaxMeanVar (parallel), the calculator called directly so nothing is cached
//   Copy2D       band to band, parallel
//   FillHole     the linear fill-hole filter, 10% single-pixel holes
//   FillHoleSpilled  the same on tile bands with the tile cache's budget at a quarter of one band:
//                    the bands and the hole list go to the spill file and back; MiBRead and
//                    MiBWritten per run; with each prefetch pattern set on source and destination
//   FillHoleSpilled16384  float 16384 x 16384 bands under a 256 MiB budget, one run, with MiBRead
//                    and MiBWritten: run it alone (--benchmark_filter=16384)
//   SpilledRowWalk   a row-by-row read of a spilled band with each prefetch pattern
//
// Tile and memory variants of one benchmark differ only in the tag; compare medians:
//
//   TileBandBench --benchmark_repetitions=7 --benchmark_enable_random_interleaving=true
//                 --benchmark_report_aggregates_only=true
#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Band/Detail/RowRuns.h"
#include "Band/TileCache.h"
#include "Filter/LinearFillHoleFilter.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>

namespace {

using namespace Orl::Ostrel::Band;
using TLoggerPtr = boost::shared_ptr<Orl::Harnel::Progress::CLogger>;

constexpr unsigned g_nSize = 4096;
constexpr std::uint64_t g_nBandBytes = std::uint64_t(g_nSize) * g_nSize * sizeof(float);
constexpr float g_fNoData = -9999.0f;

CTileCache& GlobalCache()
{
  if (!g_oTileCache)
    CTileCache::InitGlobalTileCache();
  return *g_oTileCache;
}

// The cache's budget for the life of the object.
class CBudget
{
public:
  explicit CBudget(std::uint64_t nBytes) : m_nOld(GlobalCache().GetMemoryBudget()) { GlobalCache().SetMemoryBudget(nBytes); }
  ~CBudget() { GlobalCache().SetMemoryBudget(m_nOld); }

private:
  std::uint64_t m_nOld;
};

// A smooth surface with noise that LZ4 cannot shrink much, and with bHoles a tenth of the pixels set
// to the no-data value at random. Written run by run, so that tile and memory bands get the same.
template <class TBand>
void Fill(TBand& oBand, bool bHoles)
{
  std::mt19937 oRng(7);
  std::uniform_real_distribution<float> oNoise(-1.0f, 1.0f);
  unsigned nX = 0, nY = 0;
  Detail::WalkRectRuns(
    boost::get<0>(oBand.GetBandIterators(oBand)), int(oBand.GetWidth()), int(oBand.GetHeight()),
    [&](float* p, int n) {
      for (int i = 0; i < n; ++i, ++nX)
        p[i] = bHoles && oRng() % 10 == 0 ? g_fNoData
                                           : 500.0f + 80.0f * std::sin(nX * 0.01f) * std::cos(nY * 0.013f) + oNoise(oRng);
    },
    [&] {
      nX = 0;
      ++nY;
    });
  if (bHoles)
    oBand.SetNoDataValue(g_fNoData);
}

template <class TTag>
struct SBands
{
  CBand<float, TTag> m_oSrc{g_nSize, g_nSize};
  CBand<float, TTag> m_oDest{g_nSize, g_nSize};
  CBand<unsigned char, TTag> m_oMask{g_nSize, g_nSize}; // not read: the filter runs without a mask
  SBands()
  {
    Fill(m_oSrc, true);
    m_oDest.Clear(0.0f);
  }
};

// Resident: the default budget (a quarter of the memory) holds all of them. The resident benchmarks
// run their operation once before timing, so that tiles a spilled benchmark pushed out are back.
template <class TTag>
SBands<TTag>& Bands()
{
  static SBands<TTag> s_oBands;
  return s_oBands;
}

void ReportPixels(benchmark::State& oState)
{
  oState.counters["ns_per_pixel"] = benchmark::Counter(double(g_nSize) * g_nSize,
                                                      benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

struct SCacheTraffic
{
  STileCacheCounters m_oBefore = GlobalCache().GetCounters();

  void Report(benchmark::State& oState) const
  {
    const STileCacheCounters oAfter = GlobalCache().GetCounters();
    const double dRuns = double(oState.iterations());
    oState.counters["MiBRead"] = double(oAfter.m_nBytesRead - m_oBefore.m_nBytesRead) / dRuns / 1048576.0;
    oState.counters["MiBWritten"] = double(oAfter.m_nBytesWritten - m_oBefore.m_nBytesWritten) / dRuns / 1048576.0;
  }
};

// --- Statistics and Copy2D on resident bands ---------------------------------------------------------

template <class TTag>
void BM_Statistics(benchmark::State& oState)
{
  const auto& oBand = static_cast<const CBand<float, TTag>&>(Bands<TTag>().m_oSrc);
  auto& oCalculator = *oBand.GetRep().GetStatistics().m_pCalculator;
  const auto fnRun = [&] {
    float fMin, fMax;
    unsigned long nValid, nInvalid;
    double dMean, dVariance;
    oCalculator.CalcMinMaxMeanVar(fMin, fMax, nValid, dMean, dVariance, nInvalid, false, TLoggerPtr());
    benchmark::DoNotOptimize(dMean);
  };
  fnRun();
  for (auto _ : oState)
    fnRun();
  ReportPixels(oState);
}
BENCHMARK_TEMPLATE(BM_Statistics, SMemoryTag)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Statistics, STileTag)->Unit(benchmark::kMillisecond)->UseRealTime();

template <class TSrcTag, class TDestTag>
void BM_Copy2D(benchmark::State& oState)
{
  const auto& oSrc = Bands<TSrcTag>().m_oSrc;
  auto& oDest = Bands<TDestTag>().m_oDest;
  const auto fnRun = [&] {
    Copy2D(oSrc.GetBandIterators(oSrc), oDest.GetBandIterators(oDest), TLoggerPtr(), SAllowParallelFor());
  };
  fnRun();
  for (auto _ : oState)
    fnRun();
  ReportPixels(oState);
}
BENCHMARK_TEMPLATE(BM_Copy2D, SMemoryTag, SMemoryTag)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Copy2D, STileTag, STileTag)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Copy2D, SMemoryTag, STileTag)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Copy2D, STileTag, SMemoryTag)->Unit(benchmark::kMillisecond)->UseRealTime();

// The prefetch patterns the spilled benchmarks compare, none first.
void PrefetchPatterns(benchmark::internal::Benchmark* pBenchmark)
{
  pBenchmark->ArgName("prefetch")->Unit(benchmark::kMillisecond)->UseRealTime();
  for (const EPrefetchPattern ePattern : {ePrefetchNone, ePrefetchNextRow, ePrefetchRestOfRow, ePrefetchNextTile})
    pBenchmark->Arg(ePattern);
}

// --- Fill-hole ------------------------------------------------------------------------------------

using CFillHole = Orl::Ostrel::Filter::CLinearFillHoleFilter<Orl::Ostrel::Filter::SDefaultLineData>;
const CFillHole g_oFillHole(g_nSize * g_nSize / 8, 1, 100.0f, false);

template <class TTag>
void BM_FillHole(benchmark::State& oState)
{
  auto& oBands = Bands<TTag>();
  g_oFillHole.Apply(oBands.m_oDest, oBands.m_oSrc, oBands.m_oMask);
  for (auto _ : oState)
    g_oFillHole.Apply(oBands.m_oDest, oBands.m_oSrc, oBands.m_oMask);
  ReportPixels(oState);
}
BENCHMARK_TEMPLATE(BM_FillHole, SMemoryTag)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_FillHole, STileTag)->Unit(benchmark::kMillisecond)->UseRealTime();

// Bands of their own, made under the small budget so that they spill from the start.
void BM_FillHoleSpilled(benchmark::State& oState)
{
  const CBudget oBudget(g_nBandBytes / 4);
  SBands<STileTag> oBands;
  const auto ePattern = EPrefetchPattern(oState.range(0));
  oBands.m_oSrc.GetRep().SetPrefetchPattern(ePattern);
  oBands.m_oDest.GetRep().SetPrefetchPattern(ePattern);
  const SCacheTraffic oTraffic;
  for (auto _ : oState)
    g_oFillHole.Apply(oBands.m_oDest, oBands.m_oSrc, oBands.m_oMask);
  oTraffic.Report(oState);
  ReportPixels(oState);
}
BENCHMARK(BM_FillHoleSpilled)->Apply(PrefetchPatterns);

// The large case: float 16384 x 16384 source and destination (1 GiB each) under a budget of 256 MiB,
// made under it so that they spill from the start, the source doubling as the (unread) mask. One run
// per process: the setup alone writes 2 GiB of records.
void BM_FillHoleSpilled16384(benchmark::State& oState)
{
  constexpr unsigned nSize = 16384;
  const CBudget oBudget(std::uint64_t(256) << 20);
  CBand<float, STileTag> oSrc(nSize, nSize), oDest(nSize, nSize);
  Fill(oSrc, true);
  oDest.Clear(0.0f);
  const CFillHole oFillHole(nSize * (nSize / 8), 1, 10.0f, false);
  const SCacheTraffic oTraffic;
  for (auto _ : oState)
    oFillHole.Apply(oDest, oSrc, oSrc);
  oTraffic.Report(oState);
}
BENCHMARK(BM_FillHoleSpilled16384)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// --- A spilled band read row by row ------------------------------------------------------------------

// A band four times the budget, read over its full width, top to bottom, as the fill-hole sweeps
// read their source: each pass reloads every tile.
void BM_SpilledRowWalk(benchmark::State& oState)
{
  const CBudget oBudget(g_nBandBytes / 4);
  CBand<float, STileTag> oBand(g_nSize, g_nSize);
  Fill(oBand, false);
  oBand.GetRep().SetPrefetchPattern(EPrefetchPattern(oState.range(0)));
  const auto& oConst = oBand;
  const SCacheTraffic oTraffic;
  for (auto _ : oState)
  {
    const auto oIts = oConst.GetBandIterators(oConst);
    double dSum = 0;
    auto itRow = boost::get<0>(oIts);
    for (unsigned y = 0; y < g_nSize; ++y, ++itRow.Y)
    {
      auto it = itRow;
      Detail::ForEachRowRun(it, int(g_nSize), [&](const float* p, int n) {
        float fRun = 0;
        for (int i = 0; i < n; ++i)
          fRun += p[i];
        dSum += fRun;
      });
    }
    benchmark::DoNotOptimize(dSum);
  }
  oTraffic.Report(oState);
  ReportPixels(oState);
}
BENCHMARK(BM_SpilledRowWalk)->Apply(PrefetchPatterns);

} // namespace

BENCHMARK_MAIN();
