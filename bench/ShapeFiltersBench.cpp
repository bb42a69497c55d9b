// Shape filters on 4096 x 4096 bands of blobs (discs of radius 8 to 64 over about a third of the
// band), all cores: the exact and the chamfer distance transform (float), the four thinnings
// (unsigned char) and gray-scale reconstruction with marker = mask - 20 (unsigned char). The exact
// transform also against a reference loop of two plain passes over the band (read source, write
// destination), timed in turn within each iteration.
#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Filter/DistanceTransformFilter.h"
#include "Filter/DistanceTransformMeijsterFilter.h"
#include "Filter/GrayscaleReconstructionFilter.h"
#include "Filter/SkeletonGuoHallA1Filter.h"
#include "Filter/SkeletonGuoHallA2Filter.h"
#include "Filter/SkeletonSimpleFilter.h"
#include "Filter/SkeletonZhangSuenFilter.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <random>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Ostrel::Filter;

constexpr unsigned ms_nSize = 4096;

// Blobs as 1 on 0; the mask of the reconstruction is the blobs at 200 plus noise.
template <class T>
CBand<T, SMemoryTag> Blobs(bool bGray)
{
  CBand<T, SMemoryTag> oBand(ms_nSize, ms_nSize);
  T* p = oBand.GetRep().GetDataLocation();
  std::fill(p, p + std::size_t(ms_nSize) * ms_nSize, T(0));
  std::mt19937 oRng(3);
  std::size_t nCovered = 0;
  while (nCovered * 3 < std::size_t(ms_nSize) * ms_nSize)
  {
    const int cx = int(oRng() % ms_nSize), cy = int(oRng() % ms_nSize), r = 8 + int(oRng() % 57);
    for (int y = std::max(0, cy - r); y < std::min(int(ms_nSize), cy + r + 1); ++y)
      for (int x = std::max(0, cx - r); x < std::min(int(ms_nSize), cx + r + 1); ++x)
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r && p[std::size_t(y) * ms_nSize + x] == T(0))
        {
          p[std::size_t(y) * ms_nSize + x] = T(1);
          ++nCovered;
        }
  }
  if (bGray)
    for (std::size_t i = 0; i < std::size_t(ms_nSize) * ms_nSize; ++i)
      p[i] = T(p[i] * 200 + oRng() % 40);
  return oBand;
}

// CPU time of the whole process (all threads), for figures that hold on a busy machine: on an idle
// one, real time is about this divided by the cores where the work is parallel.
double ProcessCpuNs()
{
  timespec oTime{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &oTime);
  return double(oTime.tv_sec) * 1e9 + double(oTime.tv_nsec);
}

void SetCpu(benchmark::State& state, double dCpuNs)
{
  state.counters["cpu_ns_per_pixel"] = dCpuNs / (double(state.iterations()) * ms_nSize * ms_nSize);
}

void SetPixels(benchmark::State& state)
{
  state.counters["ns_per_pixel"] = benchmark::Counter(double(state.iterations()) * ms_nSize * ms_nSize,
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void TwoPasses(const float* pSrc, float* pDest)
{
  for (int nPass = 0; nPass < 2; ++nPass)
  {
    for (std::size_t i = 0; i < std::size_t(ms_nSize) * ms_nSize; ++i)
      pDest[i] = pSrc[i];
    benchmark::ClobberMemory();
  }
}

void BM_ExactEuclideanRatioToReference(benchmark::State& state)
{
  using TClock = std::chrono::steady_clock;
  static const auto oSrc = Blobs<float>(false);
  CBand<float, SMemoryTag> oDest(ms_nSize, ms_nSize);
  const CDistanceTransformMeijsterFilter oFilter(eDistanceTransformEuclidean);
  TClock::duration oFilterTime{}, oReferenceTime{};
  double dFilterCpu = 0.0, dReferenceCpu = 0.0;
  for (auto _ : state)
  {
    const double c0 = ProcessCpuNs();
    const TClock::time_point t0 = TClock::now();
    oFilter.Apply(oDest, oSrc);
    benchmark::ClobberMemory();
    const TClock::time_point t1 = TClock::now();
    const double c1 = ProcessCpuNs();
    TwoPasses(oSrc.GetRep().GetDataLocation(), oDest.GetRep().GetDataLocation());
    oFilterTime += t1 - t0;
    oReferenceTime += TClock::now() - t1;
    dFilterCpu += c1 - c0;
    dReferenceCpu += ProcessCpuNs() - c1;
  }
  state.counters["ratio"] = double(oFilterTime.count()) / double(oReferenceTime.count());
  state.counters["cpu_ratio"] = dFilterCpu / dReferenceCpu;
  SetCpu(state, dFilterCpu);
  const double dPixels = double(state.iterations()) * ms_nSize * ms_nSize;
  state.counters["filter_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oFilterTime).count() / dPixels;
  state.counters["reference_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oReferenceTime).count() / dPixels;
}

template <class TPixel, class TTag, class TFilter>
void RunFilter(benchmark::State& state, const TFilter& oFilter)
{
  static const auto oMemory = Blobs<TPixel>(false);
  CBand<TPixel, TTag> oSrc(ms_nSize, ms_nSize);
  Copy2D(oMemory.GetBandIterators(oMemory), oSrc.GetBandIterators(oSrc), nullptr, SAllowParallelFor());
  CBand<TPixel, TTag> oDest(ms_nSize, ms_nSize);
  const double dCpu0 = ProcessCpuNs();
  for (auto _ : state)
  {
    oFilter.Apply(oDest, oSrc);
    benchmark::ClobberMemory();
  }
  SetCpu(state, ProcessCpuNs() - dCpu0);
  SetPixels(state);
}

void BM_Reconstruction(benchmark::State& state)
{
  static const auto oMask = Blobs<unsigned char>(true);
  CBand<unsigned char, SMemoryTag> oMarker(ms_nSize, ms_nSize), oDest(ms_nSize, ms_nSize);
  const unsigned char* pMask = oMask.GetRep().GetDataLocation();
  unsigned char* pMarker = oMarker.GetRep().GetDataLocation();
  for (std::size_t i = 0; i < std::size_t(ms_nSize) * ms_nSize; ++i)
    pMarker[i] = pMask[i] < 20 ? 0 : pMask[i] - 20;
  const CGrayscaleReconstructionFilter oFilter;
  const double dCpu0 = ProcessCpuNs();
  for (auto _ : state)
  {
    oFilter.Apply(oDest, oMarker, oMask);
    benchmark::ClobberMemory();
  }
  SetCpu(state, ProcessCpuNs() - dCpu0);
  SetPixels(state);
}

} // namespace

#define ORL_SHAPE_BENCH(Name, TPixel, TTag, oFilter)                                                    \
  void BM_##Name(benchmark::State& state) { RunFilter<TPixel, TTag>(state, oFilter); }                   \
  BENCHMARK(BM_##Name)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK(BM_ExactEuclideanRatioToReference)->Unit(benchmark::kMillisecond)->UseRealTime();
ORL_SHAPE_BENCH(ExactEuclidean, float, SMemoryTag, CDistanceTransformMeijsterFilter(eDistanceTransformEuclidean))
ORL_SHAPE_BENCH(ExactEuclideanTiles, float, STileTag, CDistanceTransformMeijsterFilter(eDistanceTransformEuclidean))
ORL_SHAPE_BENCH(ChamferEuclidean, float, SMemoryTag, CDistanceTransformFilter(eDistanceTransformEuclidean))
ORL_SHAPE_BENCH(ZhangSuen, unsigned char, SMemoryTag, CSkeletonZhangSuenFilter())
ORL_SHAPE_BENCH(GuoHallA1, unsigned char, SMemoryTag, CSkeletonGuoHallA1Filter())
ORL_SHAPE_BENCH(GuoHallA2, unsigned char, SMemoryTag, CSkeletonGuoHallA2Filter())
ORL_SHAPE_BENCH(Simple, unsigned char, SMemoryTag, CSkeletonSimpleFilter())
ORL_SHAPE_BENCH(ZhangSuenTiles, unsigned char, STileTag, CSkeletonZhangSuenFilter())
BENCHMARK(BM_Reconstruction)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
