// The bodies of the parallel Copy2D and ForEach2D on tile bands that spill meanwhile, shared by plain
// threads that take blocks in turn as the scheduler's would, with the source's prefetch thread running
// too and every copied block reported to one logger. Also run under ThreadSanitizer, which does not
// see into Debian's oneTBB: hence std::thread.
#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Band/ForEach2D.h"
#include "Support/TileBands.h"

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using TLoggerPtr = boost::shared_ptr<Orl::Harnel::Progress::CLogger>;

struct SCountingSink : Orl::Harnel::Progress::CLoggerSink
{
  void OnProgress(double, const std::string&) override { ++m_nCalls; }
  void OnMessage(Orl::Harnel::Progress::_EVerbosityLevel, const std::string&) override {}
  int m_nCalls = 0; // under the logger's lock
};

TEST(TileBandConcurrencyTest, CopyAndForEachBodiesOnThreadsWhileTheBandsSpill)
{
  constexpr int nWidth = 2048 + 100, nHeight = 1024 + 30; // 32 float tiles, 9 MiB
  const Orl::Test::CTileBudget oBudget(2u << 20);
  CBand<float, STileTag> oSrc(nWidth, nHeight), oDest(nWidth, nHeight);
  std::vector<float> vecPixels;
  for (int y = 0; y < nHeight; ++y)
    for (int x = 0; x < nWidth; ++x)
      vecPixels.push_back(Orl::Test::PixelAt<float>(x, y));
  Orl::Test::WritePixels(oSrc, vecPixels);
  oSrc.GetRep().SetPrefetchPattern(ePrefetchNextTile);

  const auto pLogger = boost::make_shared<Orl::Harnel::Progress::CLogger>(
    boost::make_shared<SCountingSink>(), Orl::Harnel::Progress::_EVerbosityLevel(4), std::chrono::milliseconds(0));
  pLogger->Push("copy", 1.0, double(nWidth) * nHeight, 0.0, false, Orl::Harnel::Progress::ELayerClass(2),
                Orl::Harnel::Progress::ELayerSecrecy(0), std::string());
  const auto& oConstSrc = oSrc;
  const auto oSrcIts = oConstSrc.GetBandIterators(oConstSrc);
  const auto oDestIts = oDest.GetBandIterators(oDest);
  using TSrcIt = Detail::CTileBandIterator<float, int, false>;
  const Detail::CApplyCopy<TSrcIt, Detail::CMutableTileBandIterator<float, int>> oCopy(
    boost::get<0>(oSrcIts), boost::get<1>(oSrcIts), boost::get<0>(oDestIts), boost::get<1>(oDestIts), pLogger,
    false, false);
  using TMoments = Orl::Harnel::Math::CMinMaxMeanVarianceFunctor<double, float>;
  using TReduce = Detail::CApplyForEachIf<TSrcIt, Orl::Harnel::Math::SAcceptAll, TMoments>;
  TReduce oReduce(boost::get<0>(oSrcIts), boost::get<1>(oSrcIts), {}, TMoments(), TLoggerPtr());

  // Copy blocks of 300 x 200 pixels, off the tile grid; reduction cells as ForEach2D cuts them. Each
  // thread reduces into a split body of its own.
  constexpr int nColumns = (nWidth + 299) / 300, nBlocks = nColumns * ((nHeight + 199) / 200);
  const auto fnBlock = [&](int n) {
    const int nX = (n % nColumns) * 300, nY = (n / nColumns) * 200;
    return tbb::blocked_range2d<int, int>(nY, std::min(nY + 200, nHeight), 1, nX, std::min(nX + 300, nWidth), 1);
  };
  const int nCells = int(oReduce.GetCellCount());
  std::vector<std::unique_ptr<TReduce>> vecParts;
  for (int t = 0; t < 4; ++t)
    vecParts.emplace_back(new TReduce(oReduce, tbb::split()));
  std::atomic<int> nNextCopy(0), nNextReduce(0);
  std::vector<std::thread> vecThreads;
  for (int t = 0; t < 4; ++t)
    vecThreads.emplace_back([&, t] {
      for (int n; (n = nNextCopy++) < nBlocks;)
        oCopy(fnBlock(n));
      for (int n; (n = nNextReduce++) < nCells;)
        (*vecParts[t])(tbb::blocked_range<std::size_t>(n, n + 1));
    });
  for (auto& oThread : vecThreads)
    oThread.join();
  for (auto& pPart : vecParts)
    oReduce.join(*pPart);

  EXPECT_DOUBLE_EQ(pLogger->GetProgress(), 1.0);
  EXPECT_TRUE(Orl::Test::ReadPixels(oDest) == vecPixels);
  const TMoments oSerial = ForEach2D(oSrcIts, TMoments(), TLoggerPtr());
  const TMoments& oParallel = oReduce.m_oResult;
  EXPECT_EQ(oParallel.m_nCount, std::uint64_t(nWidth) * nHeight);
  // Small integer pixels: exact sums in any order.
  EXPECT_TRUE(oParallel.m_tMin == oSerial.m_tMin && oParallel.m_tMax == oSerial.m_tMax &&
              oParallel.m_tSum == oSerial.m_tSum && oParallel.m_tSumSquares == oSerial.m_tSumSquares);
  EXPECT_GT(Orl::Test::TileCache().GetCounters().m_nRecordsRead, 0u);
}

} // namespace
