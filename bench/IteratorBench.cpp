// Walking a float band through the iterator contract against a raw pointer loop over the same block.
// The generic walks are the library's own pattern (rows outside, columns inside, each row from a copy
// of the row-start iterator); on memory iterators they must compile to the raw loop.
#include "Band/Band.h"

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

using namespace Orl::Ostrel::Band;
using TBand = CBand<float, SMemoryTag>;

constexpr unsigned ms_nSize = 8192;

struct SBands
{
  TBand m_oSrc{ms_nSize, ms_nSize};
  TBand m_oDst{ms_nSize, ms_nSize};
  SBands()
  {
    float* p = m_oSrc.GetRep().GetDataLocation();
    for (std::size_t i = 0; i < std::size_t(ms_nSize) * ms_nSize; ++i)
      p[i] = float(i % 1021) * 0.25f;
    m_oDst.Clear(0.0f);
  }
};

SBands& Bands()
{
  static SBands s_oBands;
  return s_oBands;
}

template <class TSrcIt, class TDstIt>
void GenericCopy(const boost::tuples::tuple<TSrcIt, TSrcIt>& oSrc, TDstIt itDst)
{
  TSrcIt itRow = boost::get<0>(oSrc);
  const TSrcIt itEnd = boost::get<1>(oSrc);
  for (; itRow.Y != itEnd.Y; ++itRow.Y, ++itDst.Y)
  {
    TDstIt itD = itDst;
    for (TSrcIt it = itRow; it.X != itEnd.X; ++it.X, ++itD.X)
      *itD = *it;
  }
}

template <class TIt>
double GenericSum(const boost::tuples::tuple<TIt, TIt>& oIts)
{
  TIt itRow = boost::get<0>(oIts);
  const TIt itEnd = boost::get<1>(oIts);
  double dSum = 0;
  for (; itRow.Y != itEnd.Y; ++itRow.Y)
    for (TIt it = itRow; it.X != itEnd.X; ++it.X)
      dSum += *it;
  return dSum;
}

void SetBytes(benchmark::State& state, int nStreams)
{
  state.SetBytesProcessed(std::int64_t(state.iterations()) * nStreams * ms_nSize * ms_nSize * sizeof(float));
}

void BM_CopyRawPointer(benchmark::State& state)
{
  const TBand& oSrc = Bands().m_oSrc;
  for (auto _ : state)
  {
    const float* pSrc = oSrc.GetRep().GetDataLocation();
    float* pDst = Bands().m_oDst.GetRep().GetDataLocation();
    for (unsigned y = 0; y < ms_nSize; ++y)
      for (unsigned x = 0; x < ms_nSize; ++x)
        pDst[std::size_t(y) * ms_nSize + x] = pSrc[std::size_t(y) * ms_nSize + x];
    benchmark::ClobberMemory();
  }
  SetBytes(state, 2);
}

void BM_CopyIterators(benchmark::State& state)
{
  const TBand& oSrc = Bands().m_oSrc;
  for (auto _ : state)
  {
    GenericCopy(oSrc.GetBandIterators(oSrc), boost::get<0>(Bands().m_oDst.GetBandIterators(Bands().m_oDst)));
    benchmark::ClobberMemory();
  }
  SetBytes(state, 2);
}

void BM_SumRawPointer(benchmark::State& state)
{
  const float* pSrc = Bands().m_oSrc.GetRep().GetDataLocation();
  for (auto _ : state)
  {
    double dSum = 0;
    for (unsigned y = 0; y < ms_nSize; ++y)
      for (unsigned x = 0; x < ms_nSize; ++x)
        dSum += pSrc[std::size_t(y) * ms_nSize + x];
    benchmark::DoNotOptimize(dSum);
  }
  SetBytes(state, 1);
}

void BM_SumIterators(benchmark::State& state)
{
  const TBand& oSrc = Bands().m_oSrc;
  for (auto _ : state)
    benchmark::DoNotOptimize(GenericSum(oSrc.GetBandIterators(oSrc)));
  SetBytes(state, 1);
}

BENCHMARK(BM_CopyRawPointer)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyIterators)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SumRawPointer)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SumIterators)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
