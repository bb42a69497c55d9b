// Plain threads on shared tile bands under spilling: run under ThreadSanitizer as well, which does not
// see into Debian's oneTBB, so the parallel walks' pattern is reproduced here with std::thread: one
// unmoving master iterator per band, each thread walking its own copy over its own block.
#include "Band/Band.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Test::PixelAt;
using CPointI = Orl::Pravik::GraphObject2d::CPoint<int>;

constexpr int g_nWidth = 2048 + 100, g_nHeight = 1024 + 30;
constexpr int g_nBlocksX = 2, g_nBlocksY = 2;

// Block b of a band: the columns and rows of one quarter, borders off the tile grid.
CPointI BlockStart(int nBlock) { return CPointI((nBlock % g_nBlocksX) * 1037, (nBlock / g_nBlocksX) * 519); }
CPointI BlockEnd(int nBlock)
{
  return CPointI(nBlock % g_nBlocksX == g_nBlocksX - 1 ? g_nWidth : BlockStart(nBlock + 1).x,
                 nBlock / g_nBlocksX == g_nBlocksY - 1 ? g_nHeight : BlockStart(nBlock + g_nBlocksX).y);
}

template <class TIt>
void WalkBlock(const TIt& itMaster, int nBlock, int nVersion, std::atomic<long>& nWrong)
{
  const CPointI oStart = BlockStart(nBlock), oEnd = BlockEnd(nBlock);
  TIt itRow = itMaster;
  itRow += oStart;
  for (int y = oStart.y; y < oEnd.y; ++y, ++itRow.Y)
  {
    TIt it = itRow;
    for (int x = oStart.x; x < oEnd.x; ++x, ++it.X)
    {
      const float fExpected = PixelAt<float>(unsigned(x), unsigned(y)) + float(nVersion);
      if constexpr (std::is_const<std::remove_reference_t<decltype(*it)>>::value)
        nWrong += *it != fExpected;
      else
        *it = fExpected;
    }
  }
}

TEST(TileBandConcurrencyTest, ThreadsWriteAndReadBlocksOfSharedBandsWhileTheySpill)
{
  Orl::Test::CTileBudget oBudget(2u << 20);
  const auto oBefore = Orl::Test::TileCounters();
  std::vector<CBand<float, STileTag>> vecBands{CBand<float, STileTag>(g_nWidth, g_nHeight),
                                               CBand<float, STileTag>(g_nWidth, g_nHeight)};
  vecBands[1].GetRep().SetPrefetchPattern(ePrefetchNextTile);
  std::atomic<long> nWrong(0);

  for (int nVersion = 0; nVersion < 2; ++nVersion)
  {
    // Each thread writes its block of both bands; then each reads the block another one wrote.
    auto itWrite0 = boost::get<0>(vecBands[0].GetBandIterators(vecBands[0]));
    auto itWrite1 = boost::get<0>(vecBands[1].GetBandIterators(vecBands[1]));
    std::vector<std::thread> vecThreads;
    for (int nBlock = 0; nBlock < g_nBlocksX * g_nBlocksY; ++nBlock)
      vecThreads.emplace_back([&, nBlock] {
        WalkBlock(itWrite0, nBlock, nVersion, nWrong);
        WalkBlock(itWrite1, nBlock, nVersion, nWrong);
      });
    for (auto& oThread : vecThreads)
      oThread.join();
    vecThreads.clear();

    const auto& oRead0 = vecBands[0];
    const auto& oRead1 = vecBands[1];
    const auto itRead0 = boost::get<0>(oRead0.GetBandIterators(oRead0));
    const auto itRead1 = boost::get<0>(oRead1.GetBandIterators(oRead1));
    for (int nBlock = 0; nBlock < g_nBlocksX * g_nBlocksY; ++nBlock)
      vecThreads.emplace_back([&, nBlock] {
        WalkBlock(itRead1, (nBlock + 1) % 4, nVersion, nWrong);
        WalkBlock(itRead0, (nBlock + 2) % 4, nVersion, nWrong);
      });
    for (auto& oThread : vecThreads)
      oThread.join();
  }
  EXPECT_EQ(nWrong.load(), 0);
  EXPECT_GT(Orl::Test::TileCounters().m_nRecordsRead, oBefore.m_nRecordsRead);
}

} // namespace
