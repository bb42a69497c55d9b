#include "Band/TileAlloc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using namespace Orl::Ostrel::Band::Detail;

namespace {

// Gives back every free growth step and restarts the count, so that pools hold only blocks in use.
void _ResetPools()
{
  boost::unique_lock<boost::mutex> oLock(g_oAllocatorMutex);
  for (auto& oEntry : g_oTileAllocator)
    oEntry.second->release_memory();
  g_nTileAllocReclaimCounter = 0;
}

// The block size of the pool that holds pBlock, or 0.
unsigned int _PoolOf(const void* pBlock)
{
  boost::unique_lock<boost::mutex> oLock(g_oAllocatorMutex);
  for (const auto& oEntry : g_oTileAllocator)
    if (oEntry.second->is_from(const_cast<void*>(pBlock)))
      return oEntry.first;
  return 0;
}

} // namespace

TEST(TileAllocTest, RoundsRequestsToBlocksFromFourPoolsOrTheHeap)
{
  // Request, block, blocks per growth step of its pool (0: from the heap).
  const unsigned int aCases[][3] = {
    {1, 4096, 0},          {4096, 4096, 0},         {4097, 8192, 0},         {32768, 32768, 0},
    {60000, 65536, 2048},  {76800, 131072, 1024},   {262144, 262144, 512},   {524287, 524288, 256},
    {1048577, 2097152, 0}, {2097152, 2097152, 0},   {2097153, 2097153, 0}};
  for (const auto& aCase : aCases)
  {
    EXPECT_EQ(aCase[1], GetTileBlockSize(aCase[0])) << aCase[0];
    EXPECT_EQ(aCase[2], GetTilePoolStep(aCase[1])) << aCase[0];
  }
}

TEST(TileAllocTest, EveryTwentyFirstPooledReleaseGivesFreeStepsBack)
{
  _ResetPools();
  unsigned int nAllocSizeX = 0, nAllocBytes = 0;
  std::vector<unsigned char*> vecBlocks;
  for (int i = 0; i < 21; ++i)
    vecBlocks.push_back(CDefaultTileAlloc<unsigned char>::Allocate(256, 256, nAllocSizeX, nAllocBytes));
  EXPECT_EQ(65536u, nAllocBytes);
  // An edge tile whose rounded block is below the pools comes from the heap, and its release does not count.
  unsigned char* pHeap = CDefaultTileAlloc<unsigned char>::Allocate(100, 256, nAllocSizeX, nAllocBytes);
  EXPECT_EQ(100u, nAllocSizeX);
  EXPECT_EQ(32768u, nAllocBytes);
  EXPECT_EQ(0u, _PoolOf(pHeap));
  CDefaultTileAlloc<unsigned char>::Release(pHeap, 100, 256, 100, nAllocBytes);
  for (int i = 0; i < 20; ++i)
    CDefaultTileAlloc<unsigned char>::Release(vecBlocks[i], 256, 256, 256, nAllocBytes);
  EXPECT_EQ(65536u, _PoolOf(vecBlocks[0])) << "given back too early";
  CDefaultTileAlloc<unsigned char>::Release(vecBlocks[20], 256, 256, 256, nAllocBytes);
  EXPECT_EQ(0u, _PoolOf(vecBlocks[0])) << "the free growth step was kept";
  EXPECT_EQ(0, g_nTileAllocReclaimCounter);
}

TEST(TileAllocTest, PoolsGrowByOneConstantStepAtATime)
{
  _ResetPools();
  // Three steps of full float tiles and one more block: with doubling steps (256, 512, 1024 blocks) that
  // is three runs of adjacent blocks, with constant steps four, none longer than a step.
  unsigned int nAllocSizeX = 0, nAllocBytes = 0;
  std::vector<float*> vecBlocks;
  for (unsigned int i = 0; i < 3 * 256 + 1; ++i)
    vecBlocks.push_back(CDefaultTileAlloc<float>::Allocate(512, 256, nAllocSizeX, nAllocBytes));
  std::vector<const char*> vecSorted;
  for (const float* pBlock : vecBlocks)
    vecSorted.push_back(reinterpret_cast<const char*>(pBlock));
  std::sort(vecSorted.begin(), vecSorted.end());
  std::vector<unsigned int> vecRuns(1, 1);
  for (std::size_t i = 1; i < vecSorted.size(); ++i)
    if (vecSorted[i] == vecSorted[i - 1] + 524288)
      ++vecRuns.back();
    else
      vecRuns.push_back(1);
  EXPECT_EQ(4u, vecRuns.size());
  EXPECT_LE(*std::max_element(vecRuns.begin(), vecRuns.end()), 256u);
  for (float* pBlock : vecBlocks)
    CDefaultTileAlloc<float>::Release(pBlock, 512, 256, 512, nAllocBytes);
}
