#include "Band/TileCache.h"

#include "Support/ScratchFiles.h"
#include "TileTestSupport.h"

#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

using namespace Orl::Test;
using Orl::Harnel::CBasicException;
using Orl::Ostrel::Band::CTileCache;

namespace {

// A band as the tile band drives the cache: every cache call under the band's lock. Pixel access is
// kept to one thread per tile by the test's own tile locks, as tasks keep to different pixels.
struct SBand
{
  boost::mutex m_oMutex;
  std::vector<unsigned int> m_vecIds;
  std::vector<std::uint64_t> m_vecSeeds;
  std::unique_ptr<std::mutex[]> m_pTileLocks;
  std::function<boost::shared_ptr<CTileBase>()> m_fnMakeTile;
};

EContent _ContentOf(std::uint64_t nSeed)
{
  return nSeed % 3 == 0 ? EContent::eNoise : EContent::eConstant;
}

} // namespace

TEST(TileCacheStressTest, ThreadsGettingWritingAndReplacingTilesUnderConstantSpilling)
{
  CScratchDirectory oDirectory;
  CTileCache oCache;
  oCache.SetSpillDirectory(oDirectory.GetPath());
  constexpr std::uint64_t nBlock = 65536;
  oCache.SetMemoryBudget(16 * nBlock);

  // Three bands of different pixel types, 24 tiles of one 64 KiB block each, edge tiles included.
  constexpr unsigned int nTilesPerBand = 24;
  const std::vector<std::function<boost::shared_ptr<CTileBase>()> > vecMakers = {
    [] { return MakeTile<unsigned char>(256, 256); }, [] { return MakeTile<float>(128, 128); },
    [] { return MakeTile<double>(100, 70); }};
  std::atomic<std::uint64_t> nNextSeed{1};
  const auto fnRefill = [&](CTileBase& oTile) { // new contents under a new seed, which it returns
    const std::uint64_t nSeed = nNextSeed++;
    Fill(oTile, nSeed, _ContentOf(nSeed));
    return nSeed;
  };
  std::vector<std::unique_ptr<SBand> > vecBands;
  for (const auto& fnMake : vecMakers)
  {
    std::unique_ptr<SBand> pBand(new SBand);
    pBand->m_fnMakeTile = fnMake;
    pBand->m_pTileLocks.reset(new std::mutex[nTilesPerBand]);
    for (unsigned int t = 0; t < nTilesPerBand; ++t)
    {
      const auto pTile = fnMake();
      pBand->m_vecSeeds.push_back(fnRefill(*pTile));
      pBand->m_vecIds.push_back(oCache.RegisterTile(pTile));
    }
    vecBands.push_back(std::move(pBand));
  }

  std::atomic<int> nLost{0};
  const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  auto fnWork = [&](unsigned int nThread) {
    std::mt19937 oRandom(nThread);
    std::deque<boost::shared_ptr<CTileBase> > qHeld;  // like an iterator's few tiles: pinned for a while
    for (long nStep = 0; nStep < 200000 && std::chrono::steady_clock::now() < tEnd; ++nStep)
    {
      SBand& oBand = *vecBands[oRandom() % vecBands.size()];
      const unsigned int nTile = oRandom() % nTilesPerBand;
      const unsigned int nAction = oRandom() % 100;
      try
      {
        std::lock_guard<std::mutex> oTileLock(oBand.m_pTileLocks[nTile]);
        if (nAction < 3)
        {
          // Replace the tile, as a band dies and another is made.
          const auto pTile = oBand.m_fnMakeTile();
          const std::uint64_t nSeed = fnRefill(*pTile);
          boost::unique_lock<boost::mutex> oLock(oBand.m_oMutex);
          oCache.ReleaseTile(oBand.m_vecIds[nTile]);
          oBand.m_vecIds[nTile] = oCache.RegisterTile(pTile);
          oBand.m_vecSeeds[nTile] = nSeed;
          continue;
        }
        if (nAction < 4)
        {
          oCache.SetMemoryBudget((nStep % 2 ? 8 : 16) * nBlock);
          continue;
        }
        if (nAction < 6)
        {
          // A walk's hint: the band's tiles come back on the cache's threads while others go out.
          boost::unique_lock<boost::mutex> oLock(oBand.m_oMutex);
          oCache.ReadAhead(oBand.m_vecIds.data(), oBand.m_vecIds.size());
          continue;
        }
        const bool bWrite = nAction < 40;
        boost::shared_ptr<CTileBase> pTile;
        {
          boost::unique_lock<boost::mutex> oLock(oBand.m_oMutex);
          pTile = oCache.GetTile(oBand.m_vecIds[nTile], bWrite);
        }
        if (!Holds(*pTile, oBand.m_vecSeeds[nTile], _ContentOf(oBand.m_vecSeeds[nTile])))
          ++nLost;
        if (bWrite)
          oBand.m_vecSeeds[nTile] = fnRefill(*pTile);
        qHeld.push_back(pTile);
        if (qHeld.size() > 3)
          qHeld.pop_front();
      }
      catch (const CBasicException& oError)
      {
        ADD_FAILURE() << oError;
      }
    }
  };
  std::vector<std::thread> vecThreads;
  for (unsigned int nThread = 0; nThread < 4; ++nThread)
    vecThreads.emplace_back(fnWork, nThread);
  for (std::thread& oThread : vecThreads)
    oThread.join();

  EXPECT_EQ(0, nLost.load());
  const auto oCounters = oCache.GetCounters();
  EXPECT_EQ(vecBands.size() * nTilesPerBand, oCounters.m_nTiles);
  EXPECT_EQ(oCounters.m_nTiles, oCounters.m_nResidentTiles + oCounters.m_nSpilledTiles);
  EXPECT_GT(oCounters.m_nRecordsWritten, 100u);
  EXPECT_GT(oCounters.m_nRecordsRead, 100u);
  for (const auto& pBand : vecBands)
    for (unsigned int t = 0; t < nTilesPerBand; ++t)
    {
      EXPECT_TRUE(Holds(*oCache.GetTile(pBand->m_vecIds[t], false), pBand->m_vecSeeds[t],
                        _ContentOf(pBand->m_vecSeeds[t])));
      oCache.ReleaseTile(pBand->m_vecIds[t]);
    }
  EXPECT_EQ(0u, oCache.GetCounters().m_nFileBytes);
}
