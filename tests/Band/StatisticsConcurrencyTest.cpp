// The statistics on one thread against the default arena: counts, extremes and histograms must be
// identical however the scheduler splits and joins; sums may differ only in rounding. Also built
// under ThreadSanitizer.
#include "Band/Band.h"
#include "Band/Detail/ThreadSanitizer.h"
#include "Foundation/Logger.h"
#include "StatisticsSupport.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <tbb/task_arena.h>

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#ifdef ORL_THREAD_SANITIZER
// libtbb is not instrumented: races whose innermost frame is the scheduler's own header code (its
// partitioners and task nodes) are hand-overs TSan cannot see. Our bodies mark theirs (see
// Band/Detail/ThreadSanitizer.h); races in our code are still reported.
extern "C" const char* __tsan_default_suppressions()
{
  return "race_top:tbb::detail::\n"        // by name: the scheduler's task bodies, however symbolised
         "race_top:/oneapi/tbb/\n"          // by file: inlined frames are named without their namespace
         "race_top:std::__atomic_base<\n"  // the scheduler's node counters, inlined from <atomic>
         "called_from_lib:libtbb.so\n";    // its pools clear recycled task memory with memset
}
#endif

namespace {

using namespace Orl::Ostrel::Band;
using TLoggerPtr = boost::shared_ptr<Orl::Harnel::Progress::CLogger>;

template <class TPixel>
struct SResults
{
  unsigned long m_nCountValid = 0, m_nValid = 0, m_nInvalid = 0, m_nHistoValid = 0, m_nMaxCount = 0;
  TPixel m_tMin{}, m_tMax{}, m_tMin2{}, m_tMax2{};
  double m_dMean = 0, m_dVariance = 0, m_dMedian = 0, m_dMode = 0;
  std::vector<unsigned long> m_vecHistogram;
};

template <class TPixel>
SResults<TPixel> Compute(const CBand<TPixel, SMemoryTag>& oBand, const TLoggerPtr& pLogger)
{
  auto& oCalc = *oBand.GetRep().GetStatistics().m_pCalculator;
  SResults<TPixel> o;
  unsigned long nInvalid;
  oCalc.CalcCounts(o.m_nCountValid, nInvalid, false, pLogger);
  oCalc.CalcMinMax(o.m_tMin, o.m_tMax, o.m_nValid, o.m_nInvalid, false, pLogger);
  oCalc.CalcMinMaxMeanVar(o.m_tMin2, o.m_tMax2, o.m_nValid, o.m_dMean, o.m_dVariance, nInvalid, false, pLogger);
  unsigned int nBins = 1024;
  double dWidth, dStep;
  oCalc.CalcHisto(o.m_vecHistogram, o.m_dMedian, o.m_dMode, nBins, o.m_nMaxCount, dWidth, dStep, o.m_nHistoValid,
                  nInvalid, o.m_tMin, o.m_tMax, false, pLogger);
  return o;
}

template <class TPixel>
class StatisticsConcurrencyTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(StatisticsConcurrencyTest, Orl::Test::TAllPixelTypes);

TYPED_TEST(StatisticsConcurrencyTest, OneThreadAndDefaultArenaAgree)
{
  using TPixel = TypeParam;
  auto oBand = Orl::Test::MakeRandomBand<TPixel>(300, 700, 17, true); // about 100 rows per block: several tasks
  if constexpr (std::is_floating_point<TPixel>::value)
    for (unsigned i = 0; i < 300 * 700; i += 1009)
      oBand.GetRep().GetDataLocation()[i] = std::numeric_limits<TPixel>::quiet_NaN();
  const auto pLogger = boost::make_shared<Orl::Harnel::Progress::CLogger>(); // increments from every thread
  SResults<TPixel> oSerial;
  tbb::task_arena(1).execute([&] { oSerial = Compute(oBand, pLogger); });
  const SResults<TPixel> oParallel = Compute(oBand, pLogger);
  EXPECT_EQ(pLogger->GetDepth(), 0u);

  EXPECT_EQ(oParallel.m_nCountValid, oSerial.m_nCountValid);
  EXPECT_EQ(oParallel.m_nValid, oSerial.m_nValid);
  EXPECT_EQ(oParallel.m_nInvalid, oSerial.m_nInvalid);
  EXPECT_EQ(oParallel.m_tMin, oSerial.m_tMin);
  EXPECT_EQ(oParallel.m_tMax, oSerial.m_tMax);
  EXPECT_EQ(oParallel.m_tMin2, oSerial.m_tMin);
  EXPECT_EQ(oParallel.m_tMax2, oSerial.m_tMax);
  EXPECT_EQ(oParallel.m_vecHistogram, oSerial.m_vecHistogram);
  EXPECT_EQ(oParallel.m_nMaxCount, oSerial.m_nMaxCount);
  EXPECT_EQ(oParallel.m_dMedian, oSerial.m_dMedian);
  EXPECT_EQ(oParallel.m_dMode, oSerial.m_dMode);
  if constexpr (std::is_floating_point<TPixel>::value)
    EXPECT_TRUE(std::isnan(oParallel.m_dMean) && std::isnan(oSerial.m_dMean)); // NaN pixels reach the sums
  else
  {
    EXPECT_EQ(oParallel.m_dMean, oSerial.m_dMean); // exact sums: the same bits in any order
    EXPECT_EQ(oParallel.m_dVariance, oSerial.m_dVariance);
  }
}

// Bands asked for statistics from several threads at once, each band by one thread, while the
// computations themselves are parallel on the shared scheduler.
TEST(StatisticsConcurrencyTest, GettersOnSeparateBandsRunConcurrently)
{
  std::vector<CBand<float, SMemoryTag>> vecBands;
  for (unsigned i = 0; i < 6; ++i)
    vecBands.push_back(Orl::Test::MakeRandomBand<float>(200, 150 + i, i, i % 2 == 0));
  std::vector<double> vecMedians(vecBands.size());
  std::vector<std::thread> vecThreads;
  for (std::size_t nFirst = 0; nFirst < vecBands.size(); nFirst += 2)
    vecThreads.emplace_back([&, nFirst] {
      for (std::size_t i = nFirst; i < nFirst + 2; ++i)
      {
        double dMean, dVariance;
        vecBands[i].GetMeanVariance(dMean, dVariance);
        vecMedians[i] = vecBands[i].GetMedian();
      }
    });
  for (auto& oThread : vecThreads)
    oThread.join();
  for (std::size_t i = 0; i < vecBands.size(); ++i)
  {
    vecBands[i].GetBandIterators(vecBands[i]); // drop the cache, compute again on this thread
    EXPECT_EQ(vecBands[i].GetMedian(), vecMedians[i]);
  }
}

} // namespace
