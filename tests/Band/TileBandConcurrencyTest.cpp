// Plain threads on shared tile bands under spilling: run under ThreadSanitizer as well, which does not
// see into Debian's oneTBB, so the parallel walks' pattern is reproduced here with std::thread: one
// unmoving master iterator per band, each thread walking its own copy over its own block.
#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Band/ForEach2D.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
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

// The bodies of the parallel Copy2D and ForEach2D, shared by plain threads that take blocks in turn as
// the scheduler's would, on tile bands that spill meanwhile: the copy is exact, and the per-thread
// functors joined give the single-threaded result.
TEST(TileBandConcurrencyTest, CopyAndForEachBodiesOnThreadsWhileTheBandsSpill)
{
  Orl::Test::CTileBudget oBudget(2u << 20);
  CBand<float, STileTag> oSrc(g_nWidth, g_nHeight), oDest(g_nWidth, g_nHeight);
  const auto itSrcWrite = boost::get<0>(oSrc.GetBandIterators(oSrc));
  for (int nBlock = 0; nBlock < g_nBlocksX * g_nBlocksY; ++nBlock)
  {
    std::atomic<long> nUnused(0);
    WalkBlock(itSrcWrite, nBlock, 0, nUnused);
  }
  const auto& oConstSrc = oSrc;
  const auto oSrcIts = oConstSrc.GetBandIterators(oConstSrc);
  const auto oDestIts = oDest.GetBandIterators(oDest);
  using TSrcIt = Detail::CTileBandIterator<float, int, false>;
  const Detail::CApplyCopy<TSrcIt, Detail::CMutableTileBandIterator<float, int>> oCopy(
    boost::get<0>(oSrcIts), boost::get<1>(oSrcIts), boost::get<0>(oDestIts), boost::get<1>(oDestIts),
    boost::shared_ptr<Orl::Harnel::Progress::CLogger>(), false, false);
  using TMoments = Orl::Harnel::Math::CMinMaxMeanVarianceFunctor<double, float>;
  using TReduce = Detail::CApplyForEachIf<TSrcIt, Orl::Harnel::Math::SAcceptAll, TMoments>;
  TReduce oReduce(boost::get<0>(oSrcIts), boost::get<1>(oSrcIts), Orl::Harnel::Math::SAcceptAll(), TMoments(),
                  boost::shared_ptr<Orl::Harnel::Progress::CLogger>());

  // Blocks of 300 x 200 pixels, off the tile grid.
  constexpr int nBlockW = 300, nBlockH = 200;
  constexpr int nColumns = (g_nWidth + nBlockW - 1) / nBlockW, nRows = (g_nHeight + nBlockH - 1) / nBlockH;
  const auto fnRange = [](int n) {
    const int nX = (n % nColumns) * nBlockW, nY = (n / nColumns) * nBlockH;
    return tbb::blocked_range2d<int, int>(nY, std::min(nY + nBlockH, g_nHeight), 1, nX,
                                          std::min(nX + nBlockW, g_nWidth), 1);
  };
  std::atomic<int> nNextCopy(0), nNextReduce(0);
  std::vector<std::unique_ptr<TReduce>> vecParts;
  for (int t = 0; t < 4; ++t)
    vecParts.emplace_back(new TReduce(oReduce, tbb::split()));
  std::vector<std::thread> vecThreads;
  for (int t = 0; t < 4; ++t)
    vecThreads.emplace_back([&, t] {
      for (int n; (n = nNextCopy++) < nColumns * nRows;)
        oCopy(fnRange(n));
      for (int n; (n = nNextReduce++) < nColumns * nRows;)
        (*vecParts[t])(fnRange(n));
    });
  for (auto& oThread : vecThreads)
    oThread.join();
  for (auto& pPart : vecParts)
    oReduce.join(*pPart);

  const auto& oConstDest = oDest;
  std::atomic<long> nWrong(0);
  for (int nBlock = 0; nBlock < g_nBlocksX * g_nBlocksY; ++nBlock)
    WalkBlock(boost::get<0>(oConstDest.GetBandIterators(oConstDest)), nBlock, 0, nWrong);
  EXPECT_EQ(nWrong.load(), 0);
  const TMoments oSerial = ForEach2D(oSrcIts, TMoments(), boost::shared_ptr<Orl::Harnel::Progress::CLogger>());
  EXPECT_EQ(oReduce.m_oResult.m_nCount, std::uint64_t(g_nWidth) * g_nHeight);
  EXPECT_EQ(oReduce.m_oResult.m_tMin, oSerial.m_tMin);
  EXPECT_EQ(oReduce.m_oResult.m_tMax, oSerial.m_tMax);
  EXPECT_EQ(oReduce.m_oResult.m_tSum, oSerial.m_tSum); // PixelAt values: small integers, exact sums
}

} // namespace
