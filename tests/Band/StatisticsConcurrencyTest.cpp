// The statistics on one thread against the default arena: counts, extremes and histograms must be
// identical however the scheduler splits and joins; sums may differ only in rounding. Also built
// under ThreadSanitizer.
#include "Band/Band.h"
#include "Band/Detail/ThreadSanitizer.h"
#include "BandTestSupport.h"
#include "Foundation/Logger.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <tbb/task_arena.h>

#include <cmath>
#include <limits>
#include <thread>
#include <tuple>
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
using Orl::Test::TLoggerPtr;

// Counts, extremes and histogram, which must be identical in any split; then mean and variance.
template <class TPixel>
auto Compute(const Orl::Test::TMemBand<TPixel>& oBand, const TLoggerPtr& pLogger)
{
  auto& oCalc = *oBand.GetRep().GetStatistics().m_pCalculator;
  unsigned long anValid[4], anInvalid[4], nMaxCount;
  TPixel atMin[2], atMax[2];
  double dMean, dVariance, dMedian, dMode, dWidth, dStep;
  std::vector<unsigned long> vecHistogram;
  unsigned int nBins = 1024;
  oCalc.CalcCounts(anValid[0], anInvalid[0], false, pLogger);
  oCalc.CalcMinMax(atMin[0], atMax[0], anValid[1], anInvalid[1], false, pLogger);
  oCalc.CalcMinMaxMeanVar(atMin[1], atMax[1], anValid[2], dMean, dVariance, anInvalid[2], false, pLogger);
  oCalc.CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dWidth, dStep, anValid[3], anInvalid[3], atMin[0],
                  atMax[0], false, pLogger);
  return std::make_pair(std::make_tuple(std::vector<unsigned long>(anValid, anValid + 4),
                                        std::vector<unsigned long>(anInvalid, anInvalid + 4), atMin[0], atMax[0],
                                        atMin[1], atMax[1], vecHistogram, nMaxCount, dMedian, dMode),
                        std::make_pair(dMean, dVariance));
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
  decltype(Compute(oBand, pLogger)) oSerial;
  tbb::task_arena(1).execute([&] { oSerial = Compute(oBand, pLogger); });
  const auto oParallel = Compute(oBand, pLogger);
  EXPECT_EQ(pLogger->GetDepth(), 0u);
  EXPECT_TRUE(oParallel.first == oSerial.first);
  EXPECT_EQ(std::get<2>(oSerial.first), std::get<4>(oSerial.first)); // both minima agree
  if constexpr (std::is_floating_point<TPixel>::value)
    EXPECT_TRUE(std::isnan(oParallel.second.first) && std::isnan(oSerial.second.first)); // NaN pixels reach the sums
  else
    EXPECT_TRUE(oParallel.second == oSerial.second); // exact sums: the same bits in any order
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
