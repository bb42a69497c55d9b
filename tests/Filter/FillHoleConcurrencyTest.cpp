// The fill-hole filter on four threads against one: the same bits. Also built under ThreadSanitizer,
// which checks that the stripes share nothing but what they only read.
#include "FillHoleReference.h"
#include "Band/Detail/ThreadSanitizer.h"

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

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

using namespace Orl::Test::FillHole;

// Memory and tile bands tall enough for a dozen stripes, four threads on any number of cores; long
// lines of holes across the stripes' edges with the blobs and a far reach.
TEST(FillHoleStripes, FourThreadsGiveTheBitsOfOne)
{
  std::mt19937 oRng(99);
  for (const EPattern ePattern : {eScattered, eBlobs, eDense})
    for (const bool bMask : {false, true})
    {
      const SParams oParams{2, ePattern == eBlobs ? 500.0f : 9.0f, bMask, false, 0.0, 0.0};
      const auto oCase = MakeCase<float, unsigned char>(oRng, 300, 200, ePattern, oParams);
      const auto oOne =
        tbb::task_arena(1).execute([&] { return RunFilter<Orl::Ostrel::Band::SMemoryTag>(oCase, oParams); });
      tbb::task_arena(4).execute([&] {
        ExpectSame(oOne, RunFilter<Orl::Ostrel::Band::SMemoryTag>(oCase, oParams), "memory");
        ExpectSame(oOne, RunFilter<Orl::Ostrel::Band::STileTag>(oCase, oParams), "tiles");
      });
    }
}

} // namespace
