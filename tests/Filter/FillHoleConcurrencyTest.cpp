// The fill-hole filter's wavefront on plain threads, and the filter on four threads against one: the
// same bits. Also built under ThreadSanitizer, where the cells' own ordering is what it checks.
#include "FillHoleReference.h"
#include "Filter/Detail/LinearFillHoleBlocks.h"

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#ifdef ORL_THREAD_SANITIZER
// libtbb is not instrumented: see tests/Band/StatisticsConcurrencyTest.cpp.
extern "C" const char* __tsan_default_suppressions()
{
  return "race_top:tbb::detail::\n"
         "race_top:/oneapi/tbb/\n"
         "race_top:std::__atomic_base<\n"
         "called_from_lib:libtbb.so\n";
}
#endif

namespace {

using Orl::Ostrel::Filter::Detail::CFillHoleWavefront;
using namespace Orl::Test::FillHole;

// Runs Work on nThreads plain threads; the exceptions that leave it, counted.
template <class TFn>
int RunOnThreads(CFillHoleWavefront& oWavefront, int nThreads, const TFn& fn)
{
  std::atomic<int> nThrown{0};
  std::vector<std::thread> vecThreads;
  for (int n = 0; n < nThreads; ++n)
    vecThreads.emplace_back([&] {
      try
      {
        oWavefront.Work(fn);
      }
      catch (const std::runtime_error&)
      {
        ++nThrown;
      }
    });
  for (std::thread& o : vecThreads)
    o.join();
  return nThrown.load();
}

// Every cell once, after its left neighbour and the upper right one; the marks are plain bytes, so
// that a missing order is also a data race.
TEST(FillHoleWavefront, EachCellRunsOnceAfterTheCellsItReads)
{
  struct SRow
  {
    const char* m_pName;
    std::uint32_t m_nRows, m_nBlocks;
  };
  for (const SRow& o : {SRow{"one block", 50, 1}, SRow{"one row", 1, 9}, SRow{"tall", 400, 3},
                        SRow{"wide", 40, 17}})
  {
    std::vector<unsigned char> vecRun(std::size_t(o.m_nRows) * o.m_nBlocks, 0);
    std::atomic<int> nOutOfOrder{0};
    const auto fnRun = [&](std::uint32_t r, std::uint32_t k) -> unsigned char& {
      return vecRun[std::size_t(r) * o.m_nBlocks + k];
    };
    CFillHoleWavefront oWavefront(o.m_nRows, o.m_nBlocks);
    RunOnThreads(oWavefront, 4, [&](std::uint32_t r, std::uint32_t k) {
      const bool bLeft = k == 0 || fnRun(r, k - 1);
      const bool bUpperRight = r == 0 || fnRun(r - 1, std::min(k + 1, o.m_nBlocks - 1));
      nOutOfOrder += !bLeft || !bUpperRight || fnRun(r, k);
      ++fnRun(r, k);
    });
    EXPECT_EQ(nOutOfOrder.load(), 0) << o.m_pName;
    EXPECT_EQ(std::count(vecRun.begin(), vecRun.end(), 1), std::ptrdiff_t(vecRun.size())) << o.m_pName;
  }
}

// A cell that throws stops the others: the exception leaves one thread, and every thread returns.
TEST(FillHoleWavefront, AThrowingCellStopsEveryThread)
{
  CFillHoleWavefront oWavefront(1000, 6);
  std::atomic<int> nAfter{0};
  const int nThrown = RunOnThreads(oWavefront, 3, [&](std::uint32_t r, std::uint32_t k) {
    if (r == 20 && k == 2)
      throw std::runtime_error("cell");
    nAfter += r > 40;
  });
  EXPECT_EQ(nThrown, 1);
  EXPECT_EQ(nAfter.load(), 0); // no cell below the one that threw runs: it waits for it
}

// Memory and tile bands wider than two blocks, four threads on any number of cores.
TEST(FillHoleWavefront, FourThreadsGiveTheBitsOfOne)
{
  std::mt19937 oRng(99);
  for (const EPattern ePattern : {eScattered, eBlobs})
  {
    const SParams oParams{2, 9.0f, true, false, 0.0, 0.0};
    const auto oCase = MakeCase<float, unsigned char>(oRng, 700, 40, ePattern, oParams);
    const auto oOne = tbb::task_arena(1).execute([&] { return RunFilter<Orl::Ostrel::Band::SMemoryTag>(oCase, oParams); });
    tbb::task_arena(4).execute([&] {
      ExpectSame(oOne, RunFilter<Orl::Ostrel::Band::SMemoryTag>(oCase, oParams), "memory");
      ExpectSame(oOne, RunFilter<Orl::Ostrel::Band::STileTag>(oCase, oParams), "tiles");
    });
  }
}

} // namespace
