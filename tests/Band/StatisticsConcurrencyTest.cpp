// The statistics of memory and tile bands, on one thread and on all: the same bits everywhere. Also
// built under ThreadSanitizer.
#include "Band/Band.h"
#include "Band/Detail/ThreadSanitizer.h"
#include "Band/ForEach2D.h"
#include "BandTestSupport.h"
#include "Foundation/Logger.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <tbb/task_arena.h>

#include <iterator>
#include <thread>
#include <tuple>
#include <utility>
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

// A sub-rectangle off the tile grid, across tile borders on both axes.
template <class TPixel>
Orl::Test::CRect SubRect()
{
  return Orl::Test::CRect(Detail::STileSize<TPixel>::ms_nX / 2 + 3, 7, Detail::STileSize<TPixel>::ms_nX,
                          Detail::STileSize<TPixel>::ms_nY + 50);
}

// Everything the calculators answer, and the sums of the parallel and the serial for-each over a
// sub-rectangle that starts off the tile grid.
template <class TBand>
auto Compute(const TBand& oBand)
{
  using TPixel = typename TBand::TPixel;
  auto& oCalc = *oBand.GetRep().GetStatistics().m_pCalculator;
  unsigned long anValid[5], anInvalid[5], nMaxCount;
  TPixel atMin[2], atMax[2];
  double adMean[2], adVariance[2], dMedian, dMode, dWidth, dStep;
  std::vector<unsigned long> vecHistogram;
  unsigned int nBins = 1024;
  oCalc.CalcCounts(anValid[0], anInvalid[0], false, nullptr);
  oCalc.CalcMinMax(atMin[0], atMax[0], anValid[1], anInvalid[1], false, nullptr);
  oCalc.CalcMeanVar(adMean[0], adVariance[0], anValid[2], anInvalid[2], false, nullptr);
  oCalc.CalcMinMaxMeanVar(atMin[1], atMax[1], anValid[3], adMean[1], adVariance[1], anInvalid[3], false, nullptr);
  oCalc.CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dWidth, dStep, anValid[4], anInvalid[4], atMin[0],
                  atMax[0], false, nullptr);
  const auto oIts = oBand.GetBandIterators(SubRect<TPixel>());
  const auto oParallel = ForEach2D(oIts, Orl::Harnel::Math::CMinMaxMeanVarianceFunctor<double, TPixel>(), nullptr,
                                   SAllowParallelReduce());
  const auto oSerial = ForEach2D(oIts, Orl::Harnel::Math::CMeanVarianceFunctor<double, TPixel>(), nullptr);
  return std::make_tuple(std::vector<unsigned long>(anValid, anValid + 5),
                         std::vector<unsigned long>(anInvalid, anInvalid + 5), atMin[0], atMax[0], atMin[1], atMax[1],
                         adMean[0], adVariance[0], adMean[1], adVariance[1], vecHistogram, dMedian, dMode,
                         oParallel.m_tSum, oParallel.m_tSumSquares, oSerial.m_tSum, oSerial.m_tSumSquares);
}

constexpr const char* g_apFields[] = {"valid counts", "invalid counts", "CalcMinMax min", "CalcMinMax max",
                                      "CalcMinMaxMeanVar min", "CalcMinMaxMeanVar max", "CalcMeanVar mean",
                                      "CalcMeanVar variance", "CalcMinMaxMeanVar mean", "CalcMinMaxMeanVar variance",
                                      "histogram", "median", "mode", "parallel sum", "parallel sum of squares",
                                      "serial sum", "serial sum of squares"};

template <std::size_t I, class TTuple>
void ExpectFieldEqual(const TTuple& oExpected, const TTuple& oActual)
{
  EXPECT_TRUE(std::get<I>(oExpected) == std::get<I>(oActual)) << g_apFields[I];
}

template <class TTuple, std::size_t... I>
void ExpectFieldsEqual(const TTuple& oExpected, const TTuple& oActual, std::index_sequence<I...>)
{
  static_assert(sizeof...(I) == std::size(g_apFields), "one name per field");
  (ExpectFieldEqual<I>(oExpected, oActual), ...);
}

template <class TPixel>
class StatisticsConcurrencyTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(StatisticsConcurrencyTest, Orl::Test::TAllPixelTypes);

// Floating sums round, but the same pixels give the same bits on every storage and with any number of
// threads; the serial for-each adds one pixel at a time in row order. The bands span several cells of
// the parallel grid and several tiles, which spill under the small budget.
TYPED_TEST(StatisticsConcurrencyTest, SameBitsOnEveryStorageAndThreadCount)
{
  using TPixel = TypeParam;
  const unsigned nWidth = 2 * Detail::STileSize<TPixel>::ms_nX + 37, nHeight = 2 * Detail::STileSize<TPixel>::ms_nY + 5;
  const Orl::Test::CTileBudget oBudget(1u << 20);
  for (const bool bNoData : {false, true})
  {
    SCOPED_TRACE(bNoData ? "with no-data" : "without no-data");
    const auto oMemory = Orl::Test::MakeRandomBand<TPixel>(nWidth, nHeight, 5, bNoData);
    CBand<TPixel, STileTag> oTiles(nWidth, nHeight);
    Orl::Test::WritePixels(oTiles, Orl::Test::ReadPixels(oMemory));
    if (bNoData)
      oTiles.SetNoDataValue(oMemory.GetNoDataValue());
    const auto oExpected = Compute(oMemory);
    // The serial sum is the plain loop's.
    typename Orl::Harnel::Math::CMeanVarianceFunctor<double, TPixel>::TSum tSum{};
    const auto oRect = SubRect<TPixel>();
    for (unsigned y = oRect.GetStart().y; y < oRect.GetEnd().y; ++y)
      for (unsigned x = oRect.GetStart().x; x < oRect.GetEnd().x; ++x)
        tSum += Orl::Test::At(oMemory, x, y);
    EXPECT_TRUE(std::get<15>(oExpected) == tSum);
    const auto fnCheck = [&](const char* pWhat, const auto& oBand) {
      SCOPED_TRACE(pWhat);
      for (const int nThreads : {1, int(tbb::task_arena::automatic)})
        tbb::task_arena(nThreads).execute([&] {
          ExpectFieldsEqual(oExpected, Compute(oBand), std::make_index_sequence<std::tuple_size<decltype(oExpected)>::value>());
        });
    };
    fnCheck("memory band", oMemory);
    fnCheck("tile band", oTiles);
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
