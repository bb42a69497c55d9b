// The per-pixel filters on float 8192 x 8192 memory bands, all processors, each timed alternately
// with a plain loop that reads the same inputs and writes the same output (a tbb::parallel_for over
// rows, no no-data handling): the "ratio" counter, the filter's throughput over the plain loop's,
// should be at least 0.7. Medoid: ns per pixel over a stack of 8 bands of 4096 x 4096.
#include "Band/Band.h"
#include "Filter/ArithmeticBinaryFilter.h"
#include "Filter/CopyFilter.h"
#include "Filter/MaskFilter.h"
#include "Filter/MedoidFilter.h"

#include <benchmark/benchmark.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Ostrel::Filter;

constexpr unsigned ms_nSize = 8192;
constexpr std::size_t ms_nPixels = std::size_t(ms_nSize) * ms_nSize;

template <class T>
CBand<T, SMemoryTag> Filled(unsigned nSize, unsigned nSeed)
{
  CBand<T, SMemoryTag> oBand(nSize, nSize);
  T* p = oBand.GetRep().GetDataLocation();
  tbb::parallel_for(std::size_t(0), std::size_t(nSize), [&](std::size_t y) {
    for (std::size_t x = 0; x < nSize; ++x)
      p[y * nSize + x] = T(((x * 7 + y * 13 + nSeed * 31) % 1021) * (sizeof(T) == 1 ? 1 : 0.25));
  });
  oBand.SetNoDataValue(T(3));
  return oBand;
}

struct SBands
{
  CBand<float, SMemoryTag> m_oA = Filled<float>(ms_nSize, 1);
  CBand<float, SMemoryTag> m_oB = Filled<float>(ms_nSize, 2);
  CBand<float, SMemoryTag> m_oDest = Filled<float>(ms_nSize, 3);
  CBand<unsigned short, SMemoryTag> m_oDest16 = Filled<unsigned short>(ms_nSize, 4);
  CBand<unsigned char, SMemoryTag> m_oMask = Filled<unsigned char>(ms_nSize, 5);
};

SBands& Bands()
{
  static SBands s_oBands;
  return s_oBands;
}

// The plain loop: fn(row of output, row offset) for each row, in parallel.
template <class TFn>
void PlainRows(TFn fn)
{
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, ms_nSize, 16), [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t y = r.begin(); y != r.end(); ++y)
      fn(y * ms_nSize);
  });
}

void Finish(benchmark::State& state, std::size_t nPixels, std::size_t nBytesPerPixel)
{
  state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(nPixels));
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(nPixels * nBytesPerPixel));
}

// The filter and its plain loop alternately in each iteration: "ratio" is the filter's throughput
// over the plain loop's, a figure that survives a loaded machine better than either time alone.
template <class TFilterFn, class TPlainFn>
void RatioToPlain(benchmark::State& state, std::size_t nBytesPerPixel, TFilterFn fnFilter, TPlainFn fnPlain)
{
  using TClock = std::chrono::steady_clock;
  Bands(); // made before the timing starts
  TClock::duration oFilterTime{}, oPlainTime{};
  for (auto _ : state)
  {
    const TClock::time_point t0 = TClock::now();
    fnFilter(Bands());
    benchmark::ClobberMemory();
    const TClock::time_point t1 = TClock::now();
    PlainRows(fnPlain);
    benchmark::ClobberMemory();
    oFilterTime += t1 - t0;
    oPlainTime += TClock::now() - t1;
  }
  state.counters["ratio"] = double(oPlainTime.count()) / double(oFilterTime.count());
  const double dPixels = double(state.iterations()) * ms_nPixels;
  state.counters["filter_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oFilterTime).count() / dPixels;
  state.counters["plain_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oPlainTime).count() / dPixels;
  Finish(state, 2 * ms_nPixels, nBytesPerPixel);
}

void BM_Add(benchmark::State& state)
{
  const float* pA = Bands().m_oA.GetRep().GetDataLocation();
  const float* pB = Bands().m_oB.GetRep().GetDataLocation();
  float* pDest = Bands().m_oDest.GetRep().GetDataLocation();
  const CArithmeticBinaryFilter oFilter(eAdd);
  RatioToPlain(
    state, 12, [&](SBands& o) { oFilter.Apply(o.m_oDest, o.m_oA, o.m_oB); },
    [&](std::size_t o) {
      for (std::size_t x = o; x < o + ms_nSize; ++x)
        pDest[x] = pA[x] + pB[x];
    });
}

void BM_Divide(benchmark::State& state)
{
  const float* pA = Bands().m_oA.GetRep().GetDataLocation();
  const float* pB = Bands().m_oB.GetRep().GetDataLocation();
  float* pDest = Bands().m_oDest.GetRep().GetDataLocation();
  const CArithmeticBinaryFilter oFilter(eDivide);
  RatioToPlain(
    state, 12, [&](SBands& o) { oFilter.Apply(o.m_oDest, o.m_oA, o.m_oB); },
    [&](std::size_t o) {
      for (std::size_t x = o; x < o + ms_nSize; ++x)
        pDest[x] = pA[x] / pB[x];
    });
}

void BM_CopyToUInt16(benchmark::State& state)
{
  const float* pA = Bands().m_oA.GetRep().GetDataLocation();
  unsigned short* pDest = Bands().m_oDest16.GetRep().GetDataLocation();
  const CCopyFilter oFilter;
  RatioToPlain(
    state, 6, [&](SBands& o) { oFilter.Apply(o.m_oDest16, o.m_oA); },
    [&](std::size_t o) {
      for (std::size_t x = o; x < o + ms_nSize; ++x)
        pDest[x] = static_cast<unsigned short>(pA[x]);
    });
}

void BM_Mask(benchmark::State& state)
{
  const float* pA = Bands().m_oA.GetRep().GetDataLocation();
  const unsigned char* pMask = Bands().m_oMask.GetRep().GetDataLocation();
  float* pDest = Bands().m_oDest.GetRep().GetDataLocation();
  const CMaskFilter oFilter;
  RatioToPlain(
    state, 9, [&](SBands& o) { oFilter.Apply(o.m_oDest, o.m_oA, o.m_oMask); },
    [&](std::size_t o) {
      for (std::size_t x = o; x < o + ms_nSize; ++x)
        pDest[x] = pMask[x] ? pA[x] : 0.0f;
    });
}

void BM_Medoid8(benchmark::State& state)
{
  constexpr unsigned nSize = 4096;
  std::vector<CBand<float, SMemoryTag>> vecStack;
  for (unsigned k = 0; k < 8; ++k)
    vecStack.push_back(Filled<float>(nSize, 10 + k));
  CBand<float, SMemoryTag> oDest(nSize, nSize);
  const CMedoidFilter oFilter;
  for (auto _ : state)
  {
    oFilter.Apply(oDest, vecStack);
    benchmark::ClobberMemory();
  }
  Finish(state, std::size_t(nSize) * nSize, 36);
}

BENCHMARK(BM_Add)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Divide)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyToUInt16)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Mask)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Medoid8)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
