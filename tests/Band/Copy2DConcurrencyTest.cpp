#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Foundation/Logger.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Harnel::Progress::CLogger;

class CCountingSink : public Orl::Harnel::Progress::CLoggerSink
{
public:
  void OnProgress(double, const std::string&) override { ++m_nCalls; }
  void OnMessage(Orl::Harnel::Progress::_EVerbosityLevel, const std::string&) override {}

  int m_nCalls = 0;
};

// One body shared by several threads, each running blocks of its own, as the scheduler does: the
// body is only read, the blocks write disjoint pixels and all report to one logger.
TEST(Copy2DBody, RunsOnManyThreadsAtOnce)
{
  constexpr int nWidth = 300;
  constexpr int nHeight = 256;
  CBand<float, SMemoryTag> oSrc(nWidth, nHeight);
  CBand<float, SMemoryTag> oDest(nWidth, nHeight);
  float* pSrc = oSrc.GetRep().GetDataLocation();
  for (int i = 0; i < nWidth * nHeight; ++i)
    pSrc[i] = float(i);
  oDest.Clear(-1.0f);

  const auto pLogger = boost::make_shared<CLogger>(boost::make_shared<CCountingSink>(),
                                                   Orl::Harnel::Progress::_EVerbosityLevel(4),
                                                   std::chrono::milliseconds(0));
  pLogger->Push("copy", 1.0, double(nWidth) * nHeight, 0.0, false, Orl::Harnel::Progress::ELayerClass(2),
                Orl::Harnel::Progress::ELayerSecrecy(0), std::string());

  const auto oSrcIts = static_cast<const CBand<float, SMemoryTag>&>(oSrc).GetBandIterators(oSrc);
  const auto oDestIts = oDest.GetBandIterators(oDest);
  const Detail::CApplyCopy<Detail::CMemoryBandIterator<float, int>, Detail::CMutableMemoryBandIterator<float, int>>
    oBody(boost::get<0>(oSrcIts), boost::get<1>(oSrcIts), boost::get<0>(oDestIts), boost::get<1>(oDestIts), pLogger,
          false, false);

  // 16 x 3 blocks of 16 rows and 100 columns.
  std::atomic<int> nNext{0};
  std::vector<std::thread> vecThreads;
  for (int t = 0; t < 4; ++t)
    vecThreads.emplace_back([&] {
      for (int n; (n = nNext++) < 48;)
      {
        const int nRow = (n / 3) * 16;
        const int nColumn = (n % 3) * 100;
        oBody(tbb::blocked_range2d<int, int>(nRow, nRow + 16, 1, nColumn, nColumn + 100, 1));
      }
    });
  for (auto& oThread : vecThreads)
    oThread.join();

  EXPECT_DOUBLE_EQ(pLogger->GetProgress(), 1.0);
  pLogger->Pop();
  const float* pDest = oDest.GetRep().GetDataLocation();
  for (int i = 0; i < nWidth * nHeight; ++i)
    ASSERT_EQ(pDest[i], float(i)) << i;
}

} // namespace
