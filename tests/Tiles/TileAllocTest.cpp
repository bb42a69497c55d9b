#include "Band/TileAlloc.h"

#include "TileTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using namespace Orl::Ostrel::Band::Detail;

namespace {

// Gives back every free growth step and restarts the reclaim count, so that a test starts from pools
// that hold only blocks in use.
void _ResetPools()
{
  boost::unique_lock<boost::mutex> oLock(g_oAllocatorMutex);
  for (auto& oEntry : g_oTileAllocator)
    oEntry.second->release_memory();
  g_nTileAllocReclaimCounter = 0;
}

int _ReclaimCounter()
{
  boost::unique_lock<boost::mutex> oLock(g_oAllocatorMutex);
  return g_nTileAllocReclaimCounter;
}

bool _PoolHolds(unsigned int nBlockSize, const void* pBlock)
{
  boost::unique_lock<boost::mutex> oLock(g_oAllocatorMutex);
  const auto itPool = g_oTileAllocator.find(nBlockSize);
  return itPool != g_oTileAllocator.end() && itPool->second->is_from(const_cast<void*>(pBlock));
}

} // namespace

TEST(TileAllocTest, RoundsRequestsToBlockSizes)
{
  const struct
  {
    unsigned int nBytes, nBlock;
  } aCases[] = {{0, 4096},           {1, 4096},           {4096, 4096},         {4097, 8192},
                {76800, 131072},     {131072, 131072},    {524287, 524288},     {1048577, 2097152},
                {2097152, 2097152},  {2097153, 2097153},  {3000000, 3000000}};
  for (const auto& oCase : aCases)
    EXPECT_EQ(oCase.nBlock, GetTileBlockSize(oCase.nBytes)) << oCase.nBytes;
}

TEST(TileAllocTest, FourPoolsGrowBy128MiBAndOtherSizesComeFromTheHeap)
{
  for (unsigned int nBlock : {65536u, 131072u, 262144u, 524288u})
    EXPECT_EQ(134217728u, GetTilePoolStep(nBlock) * nBlock) << nBlock;
  for (unsigned int nBlock : {4096u, 32768u, 1048576u, 2097152u, 2097153u})
    EXPECT_EQ(0u, GetTilePoolStep(nBlock)) << nBlock;
}

TEST(TileAllocTest, EdgeTilesTakeTheirRoundedBlockFromAPoolOrTheHeap)
{
  unsigned int nAllocSizeX = 0, nAllocBytes = 0;
  unsigned char* pPooled = CDefaultTileAlloc<unsigned char>::Allocate(300, 256, nAllocSizeX, nAllocBytes);
  EXPECT_EQ(300u, nAllocSizeX);
  EXPECT_EQ(131072u, nAllocBytes);
  EXPECT_TRUE(_PoolHolds(131072, pPooled));

  unsigned char* pHeap = CDefaultTileAlloc<unsigned char>::Allocate(100, 256, nAllocSizeX, nAllocBytes);
  EXPECT_EQ(32768u, nAllocBytes);
  for (unsigned int nBlock : {65536u, 131072u, 262144u, 524288u})
    EXPECT_FALSE(_PoolHolds(nBlock, pHeap));

  CDefaultTileAlloc<unsigned char>::Release(pPooled, 300, 256, 300, nAllocBytes);
  EXPECT_EQ(131072u, nAllocBytes);
  CDefaultTileAlloc<unsigned char>::Release(pHeap, 100, 256, 100, nAllocBytes);
  EXPECT_EQ(32768u, nAllocBytes);
}

TEST(TileAllocTest, EveryTwentyFirstPooledReleaseGivesFreeStepsBack)
{
  _ResetPools();
  unsigned int nAllocSizeX = 0, nAllocBytes = 0;
  std::vector<unsigned char*> vecBlocks;
  for (int i = 0; i < 21; ++i)
    vecBlocks.push_back(CDefaultTileAlloc<unsigned char>::Allocate(256, 256, nAllocSizeX, nAllocBytes));
  unsigned char* pHeap = CDefaultTileAlloc<unsigned char>::Allocate(64, 64, nAllocSizeX, nAllocBytes);

  CDefaultTileAlloc<unsigned char>::Release(pHeap, 64, 64, 64, nAllocBytes);
  EXPECT_EQ(0, _ReclaimCounter()) << "heap releases do not count";
  for (int i = 0; i < 20; ++i)
    CDefaultTileAlloc<unsigned char>::Release(vecBlocks[i], 256, 256, 256, nAllocBytes);
  EXPECT_EQ(20, _ReclaimCounter());
  EXPECT_TRUE(_PoolHolds(65536, vecBlocks[0])) << "given back too early";

  CDefaultTileAlloc<unsigned char>::Release(vecBlocks[20], 256, 256, 256, nAllocBytes);
  EXPECT_EQ(0, _ReclaimCounter());
  EXPECT_FALSE(_PoolHolds(65536, vecBlocks[0])) << "the free growth step was kept";
}

TEST(TileAllocTest, PoolsKeepGrowingByOneStepAtATime)
{
  _ResetPools();
  // Four steps' worth of full float tiles, plus one: with doubling steps (256, 512, 1024 blocks) that
  // would be three runs of contiguous blocks, with constant steps it is four, none longer than a step.
  constexpr unsigned int nStep = 256;
  unsigned int nAllocSizeX = 0, nAllocBytes = 0;
  std::vector<float*> vecBlocks;
  for (unsigned int i = 0; i < 3 * nStep + 1; ++i)
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
  EXPECT_LE(*std::max_element(vecRuns.begin(), vecRuns.end()), nStep);

  for (float* pBlock : vecBlocks)
    CDefaultTileAlloc<float>::Release(pBlock, 512, 256, 512, nAllocBytes);
}

TEST(TileAllocTest, TileMemoryComesAndGoesOnlyOnceAndCountsExactPixelBytes)
{
  const auto pTile = Orl::Test::MakeTile<unsigned char>(300, 256);
  void* const pData = pTile->GetDataLocation();
  ASSERT_NE(nullptr, pData);
  EXPECT_EQ(76800u, pTile->GetMemorySize());
  EXPECT_EQ(131072u, pTile->GetAllocBytes());
  pTile->AllocMemory();
  EXPECT_EQ(pData, pTile->GetDataLocation());
  pTile->FreeMemory();
  EXPECT_EQ(nullptr, pTile->GetDataLocation());
  pTile->FreeMemory();
  EXPECT_EQ(nullptr, pTile->GetDataLocation());
  pTile->AllocMemory();
  EXPECT_NE(nullptr, pTile->GetDataLocation());
}
