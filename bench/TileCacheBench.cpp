// Spilling and reloading through the tile cache against plain pwrite/pread of the same bytes to the same
// directory, for tiles that do not compress (noise) and for constant tiles; and the cost of a hit.
// The spill file and the reference file lie in the cache's default spill directory (ORL_TILE_CACHE_DIR,
// TMPDIR or /tmp), so both see the same file system and page cache.
#include "Band/TileCache.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <unistd.h>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Detail::CDefaultTileAlloc;
using Detail::CTile;
using Detail::CTileBase;
using Detail::CTileSourceInfo;

constexpr unsigned int g_nTiles = 64;             // 32 MiB of full float tiles
constexpr std::uint64_t g_nTileBytes = 524288;
constexpr std::uint64_t g_nNoLimit = std::numeric_limits<std::uint64_t>::max();

void _Fill(CTileBase& oTile, bool bNoise, std::uint64_t nSeed)
{
  char* p = static_cast<char*>(oTile.GetDataLocation());
  if (!bNoise)
  {
    std::memset(p, 1, oTile.GetMemorySize());
    return;
  }
  std::uint64_t nState = nSeed * 0x9E3779B97F4A7C15ull + 1;
  for (unsigned int i = 0; i < oTile.GetMemorySize(); i += 8)
  {
    nState ^= nState >> 12;
    nState ^= nState << 25;
    nState ^= nState >> 27;
    const std::uint64_t nValue = nState * 0x2545F4914F6CDD1Dull;
    std::memcpy(p + i, &nValue, 8);
  }
}

struct SCacheSetup
{
  CTileCache m_oCache;
  std::vector<unsigned int> m_vecIds;
  // One block held outside the cache keeps the pool's growth step in use, as the other tiles of a
  // working process do: otherwise spilling every tile frees the whole step, the allocator gives it
  // back, and the reload would time the page faults of a fresh step.
  boost::shared_ptr<CTileBase> m_pBallast;

  explicit SCacheSetup(bool bNoise)
  {
    m_oCache.SetMemoryBudget(g_nNoLimit);
    const auto pInfo = boost::make_shared<CTileSourceInfo>(0, 0, 0);
    m_pBallast = boost::make_shared<CTile<float, CDefaultTileAlloc<float> > >(512, 256, 0, 0, pInfo);
    for (unsigned int i = 0; i < g_nTiles; ++i)
    {
      const auto pTile = boost::make_shared<CTile<float, CDefaultTileAlloc<float> > >(512, 256, 0, 0, pInfo);
      _Fill(*pTile, bNoise, i + 1);
      m_vecIds.push_back(m_oCache.RegisterTile(pTile));
    }
  }
  ~SCacheSetup()
  {
    for (unsigned int nId : m_vecIds)
      m_oCache.ReleaseTile(nId);
  }
};

void _Report(benchmark::State& oState, const CTileCache& oCache)
{
  oState.SetBytesProcessed(static_cast<std::int64_t>(oState.iterations() * g_nTiles * g_nTileBytes));
  const STileCacheCounters oCounters = oCache.GetCounters();
  oState.counters["disk_bytes_per_tile"] =
    double(oCounters.m_nBytesWritten + oCounters.m_nBytesRead) /
    double(oCounters.m_nRecordsWritten + oCounters.m_nRecordsRead);
}

// Timed: every tile, modified, goes out (one record write each).
void BM_CacheSpill(benchmark::State& oState)
{
  SCacheSetup oSetup(oState.range(0) != 0);
  for (auto _ : oState)
  {
    oState.PauseTiming();
    oSetup.m_oCache.SetMemoryBudget(g_nNoLimit);
    for (unsigned int nId : oSetup.m_vecIds)
      oSetup.m_oCache.GetTile(nId, true);
    oState.ResumeTiming();
    oSetup.m_oCache.SetMemoryBudget(0);
  }
  _Report(oState, oSetup.m_oCache);
}
BENCHMARK(BM_CacheSpill)->ArgName("noise")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

// Timed: every tile comes back (one record read each).
void BM_CacheReload(benchmark::State& oState)
{
  SCacheSetup oSetup(oState.range(0) != 0);
  oSetup.m_oCache.SetMemoryBudget(0);
  for (auto _ : oState)
  {
    oState.PauseTiming();
    oSetup.m_oCache.SetMemoryBudget(0);  // clean tiles leave without a write
    oSetup.m_oCache.SetMemoryBudget(g_nNoLimit);
    oState.ResumeTiming();
    for (unsigned int nId : oSetup.m_vecIds)
      benchmark::DoNotOptimize(oSetup.m_oCache.GetTile(nId, false));
  }
  _Report(oState, oSetup.m_oCache);
}
BENCHMARK(BM_CacheReload)->ArgName("noise")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

// The reference: the pixel bytes of every tile written to, or read from, a slot of the same size as the
// cache's, with one pwrite or pread per tile, from and to memory that stays allocated.
struct SRawSetup
{
  int m_nFile = -1;
  std::vector<char> m_vecPixels;
  static constexpr std::uint64_t ms_nSlot = 524800;

  SRawSetup() : m_vecPixels(g_nTiles * g_nTileBytes)
  {
    const std::string strPath = CTileCache::GetDefaultSpillDirectory() + "/orl-bench-XXXXXX";
    std::string strTemplate = strPath;
    m_nFile = ::mkostemp(&strTemplate[0], O_CLOEXEC);
    ::unlink(strTemplate.c_str());
    for (std::size_t i = 0; i < m_vecPixels.size(); ++i)
      m_vecPixels[i] = static_cast<char>(i * 2654435761u >> 13);
  }
  ~SRawSetup() { ::close(m_nFile); }
};

void BM_RawPwrite(benchmark::State& oState)
{
  SRawSetup oSetup;
  for (auto _ : oState)
    for (unsigned int i = 0; i < g_nTiles; ++i)
      if (::pwrite(oSetup.m_nFile, oSetup.m_vecPixels.data() + i * g_nTileBytes, g_nTileBytes,
                   static_cast<off_t>(i * SRawSetup::ms_nSlot)) != static_cast<ssize_t>(g_nTileBytes))
        oState.SkipWithError("pwrite failed");
  oState.SetBytesProcessed(static_cast<std::int64_t>(oState.iterations() * g_nTiles * g_nTileBytes));
}
BENCHMARK(BM_RawPwrite)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RawPread(benchmark::State& oState)
{
  SRawSetup oSetup;
  for (unsigned int i = 0; i < g_nTiles; ++i)
    if (::pwrite(oSetup.m_nFile, oSetup.m_vecPixels.data() + i * g_nTileBytes, g_nTileBytes,
                 static_cast<off_t>(i * SRawSetup::ms_nSlot)) != static_cast<ssize_t>(g_nTileBytes))
      oState.SkipWithError("pwrite failed");
  for (auto _ : oState)
    for (unsigned int i = 0; i < g_nTiles; ++i)
      if (::pread(oSetup.m_nFile, oSetup.m_vecPixels.data() + i * g_nTileBytes, g_nTileBytes,
                  static_cast<off_t>(i * SRawSetup::ms_nSlot)) != static_cast<ssize_t>(g_nTileBytes))
        oState.SkipWithError("pread failed");
  oState.SetBytesProcessed(static_cast<std::int64_t>(oState.iterations() * g_nTiles * g_nTileBytes));
}
BENCHMARK(BM_RawPread)->Unit(benchmark::kMillisecond)->UseRealTime();

// A hit: the tile is in memory. Several threads share one cache, as tasks of different bands do.
SCacheSetup& HitSetup()
{
  static SCacheSetup s_oSetup(false);
  return s_oSetup;
}

void BM_CacheHit(benchmark::State& oState)
{
  SCacheSetup& oSetup = HitSetup();
  unsigned int i = static_cast<unsigned int>(oState.thread_index());
  for (auto _ : oState)
  {
    benchmark::DoNotOptimize(oSetup.m_oCache.GetTile(oSetup.m_vecIds[i % g_nTiles], false));
    ++i;
  }
  oState.SetItemsProcessed(oState.iterations());
}
BENCHMARK(BM_CacheHit)->Threads(1)->Threads(2)->UseRealTime();

// The floor of a hit: one uncontended lock and one shared pointer copy.
void BM_LockAndCopyReference(benchmark::State& oState)
{
  static boost::mutex s_oMutex;
  static const boost::shared_ptr<int> s_pValue = boost::make_shared<int>(1);
  for (auto _ : oState)
  {
    boost::shared_ptr<int> pCopy;
    {
      boost::unique_lock<boost::mutex> oLock(s_oMutex);
      pCopy = s_pValue;
    }
    benchmark::DoNotOptimize(pCopy);
  }
  oState.SetItemsProcessed(oState.iterations());
}
BENCHMARK(BM_LockAndCopyReference)->Threads(1)->Threads(2)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
