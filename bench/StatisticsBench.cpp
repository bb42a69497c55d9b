// Band statistics against plain reference loops over the same pixels, in the same run.
//
// Min/max/mean/variance in one traversal (CalcMinMaxMeanVar) on a float 8192 x 8192 band and an
// unsigned char 16384 x 16384 band (256 MiB each), with and without no-data, in the default arena and
// in a one-thread arena; the references are single-pass loops that only sum the same pixels: on one
// thread, and split over the default arena the same way. The histogram (1024 bins wanted) and
// CalcMeanVar's serial pass are reported per pixel. Each benchmark reports ns_per_pixel; compare
// medians of the repetitions.
//
// Ratios measured alternately in one loop, so that load on a shared machine hits both sides alike:
// - BM_MomentsToPlainLoop: CalcMinMaxMeanVar on the float band against the parallel plain sum, with
//   one thread and with all (threads:0).
// - BM_HistogramToMoments: on a float 16384 x 16384 band (1 GiB, made on first use), the histogram
//   with 256 and 1024 bins against CalcMinMaxMeanVar.
//   StatisticsBench --benchmark_filter='Ratio|ToPlain|ToMoments' --benchmark_repetitions=5
//
//   StatisticsBench --benchmark_repetitions=12 --benchmark_enable_random_interleaving=true
//                   --benchmark_report_aggregates_only=true
// Interleaving the repetitions keeps a shared machine's load from favouring one side of a ratio.
#include "Band/Band.h"

#include <benchmark/benchmark.h>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_reduce.h>
#include <tbb/task_arena.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <type_traits>

namespace {

using namespace Orl::Ostrel::Band;

template <class TPixel>
struct SBandSize;
template <>
struct SBandSize<float>
{
  static constexpr unsigned ms_nSize = 8192;
};
template <>
struct SBandSize<unsigned char>
{
  static constexpr unsigned ms_nSize = 16384;
};

// Two bands per pixel type, made on first use, with the same pixels: values spread over the type's
// usual range and every 97th pixel 0, which is the no-data value of the second band.
template <class TPixel>
CBand<TPixel, SMemoryTag> MakeBand(bool bNoData)
{
  const unsigned n = SBandSize<TPixel>::ms_nSize;
  CBand<TPixel, SMemoryTag> oBand(n, n);
  TPixel* p = oBand.GetRep().GetDataLocation();
  std::uint32_t nState = 12345;
  for (std::size_t i = 0; i < std::size_t(n) * n; ++i)
  {
    nState = nState * 1664525u + 1013904223u;
    p[i] = std::is_floating_point<TPixel>::value ? TPixel(float(nState >> 8) * (1.0f / 65536.0f)) : TPixel(nState >> 24);
    if (i % 97 == 0)
      p[i] = TPixel(0);
  }
  if (bNoData)
    oBand.SetNoDataValue(TPixel(0));
  return oBand;
}

template <class TPixel>
const CBand<TPixel, SMemoryTag>& Band(bool bNoData)
{
  if (bNoData)
  {
    static const auto s_oBand = MakeBand<TPixel>(true);
    return s_oBand;
  }
  static const auto s_oBand = MakeBand<TPixel>(false);
  return s_oBand;
}

template <class TPixel>
std::int64_t Pixels()
{
  return std::int64_t(SBandSize<TPixel>::ms_nSize) * SBandSize<TPixel>::ms_nSize;
}

template <class TPixel>
void SetPerPixel(benchmark::State& state)
{
  state.counters["ns_per_pixel"] =
    benchmark::Counter(double(Pixels<TPixel>()) * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * Pixels<TPixel>() * std::int64_t(sizeof(TPixel)));
}

// The sum type of the references: what the functors sum in.
template <class TPixel>
using TRefSum = std::conditional_t<std::is_floating_point<TPixel>::value, double, std::uint64_t>;

// A plain loop summing n pixels. Floating sums use four running sums so that the loop is not held up
// by the latency of one chain of additions (a single double sum cannot be vectorised without
// reassociation); integer sums vectorise by themselves.
template <class TPixel>
TRefSum<TPixel> PlainSum(const TPixel* p, std::size_t n)
{
  if constexpr (std::is_floating_point<TPixel>::value)
  {
    double a0 = 0, a1 = 0, a2 = 0, a3 = 0;
    const std::size_t nVector = n & ~std::size_t(3);
    std::size_t i = 0;
    for (; i < nVector; i += 4)
    {
      a0 += p[i];
      a1 += p[i + 1];
      a2 += p[i + 2];
      a3 += p[i + 3];
    }
    for (; i < n; ++i)
      a0 += p[i];
    return (a0 + a1) + (a2 + a3);
  }
  else
  {
    std::uint64_t nSum = 0;
    for (std::size_t i = 0; i < n; ++i)
      nSum += p[i];
    return nSum;
  }
}

template <class TPixel>
void BM_ReferenceSumOneThread(benchmark::State& state)
{
  const TPixel* p = Band<TPixel>(false).GetRep().GetDataLocation();
  for (auto _ : state)
    benchmark::DoNotOptimize(PlainSum(p, std::size_t(Pixels<TPixel>())));
  SetPerPixel<TPixel>(state);
}

// The same loop over row blocks of the band's block hint, in parallel.
template <class TPixel>
void BM_ReferenceSumParallel(benchmark::State& state)
{
  const auto& oBand = Band<TPixel>(false);
  const TPixel* p = oBand.GetRep().GetDataLocation();
  const std::size_t nWidth = oBand.GetWidth();
  const auto nGrain = oBand.GetRep().GetBlockHint().second;
  for (auto _ : state)
    benchmark::DoNotOptimize(tbb::parallel_reduce(
      tbb::blocked_range<std::size_t>(0, oBand.GetHeight(), nGrain), TRefSum<TPixel>(0),
      [&](const tbb::blocked_range<std::size_t>& r, TRefSum<TPixel> tSum) {
        return tSum + PlainSum(p + r.begin() * nWidth, r.size() * nWidth);
      },
      std::plus<TRefSum<TPixel>>()));
  SetPerPixel<TPixel>(state);
}

template <class TPixel>
void RunMinMaxMeanVar(const CBand<TPixel, SMemoryTag>& oBand)
{
  TPixel tMin, tMax;
  unsigned long nValid, nInvalid;
  double dMean, dVariance;
  oBand.GetRep().GetStatistics().m_pCalculator->CalcMinMaxMeanVar(tMin, tMax, nValid, dMean, dVariance, nInvalid, false,
                                                                  boost::shared_ptr<Orl::Harnel::Progress::CLogger>());
  benchmark::DoNotOptimize(dVariance);
}

template <class TPixel>
void BM_MinMaxMeanVar(benchmark::State& state)
{
  const auto& oBand = Band<TPixel>(state.range(0) != 0);
  for (auto _ : state)
    RunMinMaxMeanVar(oBand);
  SetPerPixel<TPixel>(state);
}

template <class TPixel>
void BM_MinMaxMeanVarOneThread(benchmark::State& state)
{
  const auto& oBand = Band<TPixel>(state.range(0) != 0);
  tbb::task_arena oArena(1);
  for (auto _ : state)
    oArena.execute([&] { RunMinMaxMeanVar(oBand); });
  SetPerPixel<TPixel>(state);
}

// CalcMeanVar without no-data: the serial for-each, which adds floating pixels one at a time in row
// order (a chain of dependent additions), and runs the row loops for integer pixels.
template <class TPixel>
void BM_MeanVarSerial(benchmark::State& state)
{
  const auto& oBand = Band<TPixel>(false);
  for (auto _ : state)
  {
    double dMean, dVariance;
    unsigned long nValid, nInvalid;
    oBand.GetRep().GetStatistics().m_pCalculator->CalcMeanVar(dMean, dVariance, nValid, nInvalid, false, {});
    benchmark::DoNotOptimize(dVariance);
  }
  SetPerPixel<TPixel>(state);
}

template <class TPixel>
void BM_Histogram1024(benchmark::State& state)
{
  const auto& oBand = Band<TPixel>(state.range(0) != 0);
  auto& oCalc = *oBand.GetRep().GetStatistics().m_pCalculator;
  TPixel tMin, tMax;
  unsigned long nValid, nInvalid, nMaxCount;
  oCalc.CalcMinMax(tMin, tMax, nValid, nInvalid, false, {});
  for (auto _ : state)
  {
    std::vector<unsigned long> vecHistogram;
    double dMedian, dMode, dBinWidth, dBinStep;
    unsigned int nBins = 1024;
    oCalc.CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dBinWidth, dBinStep, nValid, nInvalid, tMin, tMax,
                    false, {});
    benchmark::DoNotOptimize(dMedian);
  }
  SetPerPixel<TPixel>(state);
}

using TClock = std::chrono::steady_clock;

// The plain parallel sum of BM_ReferenceSumParallel, once.
template <class TPixel>
TRefSum<TPixel> ParallelPlainSum(const CBand<TPixel, SMemoryTag>& oBand)
{
  const TPixel* p = oBand.GetRep().GetDataLocation();
  const std::size_t nWidth = oBand.GetWidth();
  return tbb::parallel_reduce(
    tbb::blocked_range<std::size_t>(0, oBand.GetHeight(), oBand.GetRep().GetBlockHint().second), TRefSum<TPixel>(0),
    [&](const tbb::blocked_range<std::size_t>& r, TRefSum<TPixel> tSum) {
      return tSum + PlainSum(p + r.begin() * nWidth, r.size() * nWidth);
    },
    std::plus<TRefSum<TPixel>>());
}

void SetRatio(benchmark::State& state, TClock::duration oOurs, TClock::duration oReference, double dPixels)
{
  state.counters["ratio"] = double(oOurs.count()) / double(oReference.count());
  dPixels *= double(state.iterations());
  state.counters["ours_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oOurs).count() / dPixels;
  state.counters["reference_ns_per_pixel"] = std::chrono::duration<double, std::nano>(oReference).count() / dPixels;
}

// Min/max/mean/variance on the float band against the plain sum; range(0) threads, 0 for all.
void BM_MomentsToPlainLoop(benchmark::State& state)
{
  const auto& oBand = Band<float>(false);
  tbb::task_arena oArena(state.range(0) == 0 ? int(tbb::task_arena::automatic) : int(state.range(0)));
  TClock::duration oOurs{}, oReference{};
  for (auto _ : state)
    oArena.execute([&] {
      const TClock::time_point t0 = TClock::now();
      RunMinMaxMeanVar(oBand);
      const TClock::time_point t1 = TClock::now();
      benchmark::DoNotOptimize(ParallelPlainSum(oBand));
      oOurs += t1 - t0;
      oReference += TClock::now() - t1;
    });
  SetRatio(state, oOurs, oReference, double(Pixels<float>()));
}

// The histogram of range(0) bins against min/max/mean/variance, on the same float 16384 x 16384 band.
void BM_HistogramToMoments(benchmark::State& state)
{
  static const auto s_oBand = [] {
    constexpr unsigned n = 16384;
    CBand<float, SMemoryTag> oBand(n, n);
    float* p = oBand.GetRep().GetDataLocation();
    tbb::parallel_for(tbb::blocked_range<unsigned>(0, n), [&](const tbb::blocked_range<unsigned>& r) {
      for (unsigned y = r.begin(); y != r.end(); ++y)
      {
        std::uint32_t nState = 12345u + y * 7919u;
        for (unsigned x = 0; x < n; ++x)
        {
          nState = nState * 1664525u + 1013904223u;
          p[std::size_t(y) * n + x] = float(nState >> 8) * (1.0f / 65536.0f);
        }
      }
    });
    return oBand;
  }();
  auto& oCalc = *s_oBand.GetRep().GetStatistics().m_pCalculator;
  float fMin, fMax;
  unsigned long nValid, nInvalid, nMaxCount;
  oCalc.CalcMinMax(fMin, fMax, nValid, nInvalid, false, {});
  TClock::duration oOurs{}, oReference{};
  for (auto _ : state)
  {
    const TClock::time_point t0 = TClock::now();
    std::vector<unsigned long> vecHistogram;
    double dMedian, dMode, dBinWidth, dBinStep;
    unsigned int nBins = unsigned(state.range(0));
    oCalc.CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dBinWidth, dBinStep, nValid, nInvalid, fMin, fMax,
                    false, {});
    benchmark::DoNotOptimize(dMedian);
    const TClock::time_point t1 = TClock::now();
    RunMinMaxMeanVar(s_oBand);
    oOurs += t1 - t0;
    oReference += TClock::now() - t1;
  }
  SetRatio(state, oOurs, oReference, 16384.0 * 16384.0);
}

BENCHMARK(BM_MomentsToPlainLoop)->ArgName("threads")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_HistogramToMoments)->ArgName("bins")->Arg(256)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();

#define ORL_STATISTICS_BENCH(T)                                                                         \
  BENCHMARK_TEMPLATE(BM_ReferenceSumOneThread, T)->Unit(benchmark::kMillisecond)->UseRealTime();         \
  BENCHMARK_TEMPLATE(BM_ReferenceSumParallel, T)->Unit(benchmark::kMillisecond)->UseRealTime();          \
  BENCHMARK_TEMPLATE(BM_MinMaxMeanVar, T)->ArgName("nodata")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime(); \
  BENCHMARK_TEMPLATE(BM_MinMaxMeanVarOneThread, T)->ArgName("nodata")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime(); \
  BENCHMARK_TEMPLATE(BM_MeanVarSerial, T)->Unit(benchmark::kMillisecond)->UseRealTime();                 \
  BENCHMARK_TEMPLATE(BM_Histogram1024, T)->ArgName("nodata")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
ORL_STATISTICS_BENCH(float)
ORL_STATISTICS_BENCH(unsigned char)

} // namespace

BENCHMARK_MAIN();
