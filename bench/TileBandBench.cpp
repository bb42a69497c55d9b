// Tile bands against memory bands with the same pixels, in the same run: a spilled band walked with
// and without prefetching.
#include "Band/Band.h"
#include "Band/Detail/RowRuns.h"
#include "Band/TileCache.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>

namespace {

using namespace Orl::Ostrel::Band;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;

// Noise that LZ4 cannot shrink, so that spilled tiles cost their full records.
inline float NoiseAt(std::uint32_t nX, std::uint32_t nY)
{
  std::uint32_t n = nX * 0x9E3779B1u ^ (nY + 0x7F4A7C15u) * 0x85EBCA77u;
  n ^= n >> 15;
  n *= 0x2C1B3C6Du;
  n ^= n >> 12;
  return float(n >> 8) * (1.0f / 65536.0f);
}

template <class TBand>
void FillNoise(TBand& oBand)
{
  auto oIts = oBand.GetBandIterators(oBand);
  std::uint32_t nY = 0;
  std::uint32_t nX = 0;
  Detail::WalkRectRuns(
    boost::get<0>(oIts), int(oBand.GetWidth()), int(oBand.GetHeight()),
    [&](float* p, int n) {
      for (int i = 0; i < n; ++i)
        p[i] = NoiseAt(nX++, nY);
    },
    [&] {
      nX = 0;
      ++nY;
    });
}

CTileCache& GlobalCache()
{
  if (!g_oTileCache)
    CTileCache::InitGlobalTileCache();
  return *g_oTileCache;
}

void ReportCache(benchmark::State& oState, const STileCacheCounters& oBefore)
{
  const STileCacheCounters oAfter = GlobalCache().GetCounters();
  const double dRuns = double(oState.iterations());
  oState.counters["MiBRead"] = double(oAfter.m_nBytesRead - oBefore.m_nBytesRead) / dRuns / 1048576.0;
  oState.counters["MiBWritten"] = double(oAfter.m_nBytesWritten - oBefore.m_nBytesWritten) / dRuns / 1048576.0;
}

// --- Prefetching -----------------------------------------------------------------------------------

// A float band four times the budget, read row by row over its full width, top to bottom, as the
// fill-hole sweeps do: each pass reloads every tile.
constexpr unsigned g_nSpillSize = 4096;
constexpr std::uint64_t g_nSpillBudget = std::uint64_t(g_nSpillSize) * g_nSpillSize * sizeof(float) / 4;

void BM_SpilledRowWalk(benchmark::State& oState)
{
  const auto ePattern = EPrefetchPattern(oState.range(0));
  const std::uint64_t nOldBudget = GlobalCache().GetMemoryBudget();
  GlobalCache().SetMemoryBudget(g_nSpillBudget);
  {
    CBand<float, STileTag> oBand(g_nSpillSize, g_nSpillSize);
    FillNoise(oBand);
    oBand.GetRep().SetPrefetchPattern(ePattern);
    const auto& oConst = oBand;
    const STileCacheCounters oBefore = GlobalCache().GetCounters();
    for (auto _ : oState)
    {
      const auto oIts = oConst.GetBandIterators(oConst);
      double dSum = 0;
      auto itRow = boost::get<0>(oIts);
      for (unsigned y = 0; y < g_nSpillSize; ++y, ++itRow.Y)
      {
        auto it = itRow;
        Detail::ForEachRowRun(it, int(g_nSpillSize), [&](const float* p, int n) {
          float fRun = 0;
          for (int i = 0; i < n; ++i)
            fRun += p[i];
          dSum += fRun;
        });
      }
      benchmark::DoNotOptimize(dSum);
    }
    ReportCache(oState, oBefore);
  }
  GlobalCache().SetMemoryBudget(nOldBudget);
}
BENCHMARK(BM_SpilledRowWalk)
  ->Arg(ePrefetchNone)
  ->Arg(ePrefetchNextRow)
  ->Arg(ePrefetchRestOfRow)
  ->Arg(ePrefetchNextTile)
  ->Unit(benchmark::kMillisecond)
  ->UseRealTime();

} // namespace

BENCHMARK_MAIN();
