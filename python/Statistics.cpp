// orl.statistics and the partial statistics that orl.dask joins. Both end in _MakeResult, so a
// joined result is formed exactly like a single-machine one.
#include "Bindings.h"

#include "Band/ForEach2D.h"
#include "Band/StatisticCalculator.h"
#include "Math/StatisticFunctors.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <type_traits>
#include <vector>

namespace Orl { namespace Python {

namespace {

namespace Band = Ostrel::Band;
namespace Math = Harnel::Math;
__extension__ typedef unsigned __int128 TUInt128;

template <class T>
T NoDataOf(const py::object& oNoData)
{
  if constexpr (std::is_integral<T>::value)
  {
    const long long nValue = py::cast<long long>(py::int_(oNoData));
    if (double(nValue) != py::cast<double>(py::float_(oNoData)) || nValue < (long long)std::numeric_limits<T>::lowest() ||
        nValue > (long long)std::numeric_limits<T>::max())
      throw py::value_error("nodata: " + std::string(py::str(oNoData)) + " is not a value of the array's dtype");
    return T(nValue);
  }
  return T(py::cast<double>(py::float_(oNoData)));
}

template <class TSum>
py::object SumToPython(TSum tSum)
{
  if constexpr (std::is_same<TSum, TUInt128>::value)
    return py::int_(std::uint64_t(tSum >> 64)).attr("__lshift__")(64).attr("__or__")(py::int_(std::uint64_t(tSum)));
  else
    return py::cast(tSum);
}

template <class TSum>
TSum SumFromPython(const py::handle& oSum)
{
  if constexpr (std::is_same<TSum, TUInt128>::value)
  {
    const py::int_ oValue(py::reinterpret_borrow<py::object>(oSum));
    const auto nHigh = py::cast<std::uint64_t>(oValue.attr("__rshift__")(64));
    const auto nLow = py::cast<std::uint64_t>(oValue.attr("__and__")(py::int_(~std::uint64_t(0))));
    return (TUInt128(nHigh) << 64) | nLow;
  }
  else
    return py::cast<TSum>(oSum);
}

// The histogram part of a result: range, bins, median and mode, as the band's calculator forms them.
template <class T>
struct SHistogramResult
{
  std::vector<std::uint64_t> m_vecBins; // empty when at most two pixels are valid
  double m_dLow, m_dStep = 1.0, m_dWidth = 1.0, m_dMedian = 0.0, m_dMode = 0.0;
};

template <class T>
SHistogramResult<T> FinishHistogram(T tMin, T tMax, unsigned nBins, std::vector<std::uint64_t> vecBins)
{
  Band::Detail::FixHistogramRange(tMin, tMax, nBins);
  SHistogramResult<T> oResult;
  oResult.m_dLow = double(tMin);
  const std::uint64_t nCount = std::accumulate(vecBins.begin(), vecBins.end(), std::uint64_t(0));
  if (nCount <= 2)
    return oResult;
  const Math::CHistoFunctor<double, T> oHisto(tMin, tMax, vecBins);
  const auto itMax = std::max_element(vecBins.begin(), vecBins.end());
  oResult.m_dStep = double(oHisto.m_dBinStep);
  oResult.m_dWidth = double(oHisto.m_dBinWidth);
  oResult.m_dMedian = oHisto.GetPercentile(50.0);
  oResult.m_dMode = double(itMax - vecBins.begin()) * double(oHisto.m_dBinStep) + double(oHisto.m_tMin);
  oResult.m_vecBins = std::move(vecBins);
  return oResult;
}

template <class T>
py::dict MakeResult(std::uint64_t nValid, std::uint64_t nInvalid, T tMin, T tMax, double dMean, double dVariance,
                    const SHistogramResult<T>& oHisto)
{
  py::dict oResult;
  oResult["count"] = nValid;
  oResult["invalid"] = nInvalid;
  oResult["min"] = tMin;
  oResult["max"] = tMax;
  oResult["mean"] = dMean;
  oResult["variance"] = dVariance;
  oResult["std"] = std::sqrt(std::max(dVariance, 0.0));
  oResult["median"] = oHisto.m_dMedian;
  oResult["mode"] = oHisto.m_dMode;
  oResult["histogram"] = py::array_t<std::uint64_t>(py::ssize_t(oHisto.m_vecBins.size()), oHisto.m_vecBins.data());
  oResult["bin_low"] = oHisto.m_dLow;
  oResult["bin_step"] = oHisto.m_dStep;
  oResult["bin_width"] = oHisto.m_dWidth;
  return oResult;
}

template <class T>
py::dict Statistics(const py::handle& oA, const py::object& oNoData, bool bApproximate, unsigned nBins,
                    const py::object& oProgress)
{
  auto oArray = ContiguousArray<T>(oA, "a");
  CPythonProgress oLogger(oProgress);
  const TMemBand<T> oBand = [&] {
    TMemBand<T> oMutable = ArrayBand(oArray);
    if (!oNoData.is_none())
      oMutable.SetNoDataValue(NoDataOf<T>(oNoData));
    oMutable.SetHistogramBins(nBins);
    return oMutable;
  }();
  unsigned long nValid, nInvalid, nMaxCount;
  T tMin, tMax;
  double dMean, dVariance, dLow;
  SHistogramResult<T> oHisto;
  std::vector<unsigned long> vecBins;
  RunReleased([&] {
    const auto& pLogger = oLogger.GetLogger();
    oBand.GetCounts(nValid, nInvalid, bApproximate, pLogger);
    oBand.GetMinMax(tMin, tMax, bApproximate, pLogger);
    oBand.GetMeanVariance(dMean, dVariance, bApproximate, pLogger);
    oBand.GetHistogram(vecBins, dLow, oHisto.m_dStep, oHisto.m_dWidth, nMaxCount, bApproximate, pLogger);
    oHisto.m_dLow = dLow;
    oHisto.m_dMedian = oBand.GetMedian(bApproximate, pLogger);
    oHisto.m_dMode = oBand.GetMode(bApproximate, pLogger);
    oHisto.m_vecBins.assign(vecBins.begin(), vecBins.end());
  });
  oLogger.Check();
  return MakeResult<T>(nValid, nInvalid, tMin, tMax, dMean, dVariance, oHisto);
}

// Runs oFunctor over the whole array, skipping no-data as the band's calculator does.
template <class T, class TFunctor>
TFunctor Accumulate(const TMemBand<T>& oBand, const py::object& oNoData, TFunctor oFunctor)
{
  const auto oIterators = oBand.GetBandIterators(oBand.GetRect());
  if (oNoData.is_none())
    return RunReleased([&] { return Band::ForEach2D(oIterators, oFunctor, {}, Band::SAllowParallelReduce()); });
  const Band::Detail::SValidDataPredicate<T> oValid{NoDataOf<T>(oNoData)};
  return RunReleased(
    [&] { return Band::ForEach2DIf(oIterators, oValid, oFunctor, {}, Band::SAllowParallelReduce()); });
}

template <class T>
py::tuple ChunkMoments(const py::handle& oA, const py::object& oNoData)
{
  auto oArray = ContiguousArray<T>(oA, "a");
  const TMemBand<T> oBand = ArrayBand(oArray);
  const auto oMoments = Accumulate(oBand, oNoData, Math::CMinMaxMeanVarianceFunctor<double, T>());
  return py::make_tuple(oMoments.m_nCount, std::uint64_t(oArray.size()) - oMoments.m_nCount, oMoments.m_tMin,
                        oMoments.m_tMax, SumToPython(oMoments.m_tSum), SumToPython(oMoments.m_tSumSquares));
}

template <class T>
py::array ChunkHistogram(const py::handle& oA, const py::object& oNoData, const py::handle& oMin,
                         const py::handle& oMax, unsigned nBins)
{
  auto oArray = ContiguousArray<T>(oA, "a");
  const TMemBand<T> oBand = ArrayBand(oArray);
  T tLow = py::cast<T>(oMin), tHigh = py::cast<T>(oMax);
  Band::Detail::FixHistogramRange(tLow, tHigh, nBins);
  const auto oHisto = Accumulate(oBand, oNoData, Math::CHistoFunctor<double, T>(tLow, tHigh, nBins));
  return py::array_t<std::uint64_t>(py::ssize_t(oHisto.m_vecBins.size()), oHisto.m_vecBins.data());
}

// The result from joined partials: counts, extremes, sums as ChunkMoments gives them, and the
// histogram over the joined extremes.
template <class T>
py::dict FinishStatistics(bool bHasNoData, std::uint64_t nValid, std::uint64_t nInvalid, const py::handle& oMin,
                          const py::handle& oMax, const py::handle& oSum, const py::handle& oSumSquares, unsigned nBins,
                          const py::array_t<std::uint64_t>& oBins)
{
  using TSums = Math::SSumTypes<double, T>;
  T tMin = py::cast<T>(oMin), tMax = py::cast<T>(oMax);
  double dMean = 0.0, dVariance = 1.0;
  if (nValid != 0)
    Band::Detail::FinishMoments(nValid, SumFromPython<typename TSums::TSum>(oSum),
                                SumFromPython<typename TSums::TSumSquares>(oSumSquares), dMean, dVariance);
  else if (bHasNoData)
    tMin = tMax = T(0);
  const std::vector<std::uint64_t> vecBins(oBins.data(), oBins.data() + oBins.size());
  return MakeResult<T>(nValid, nInvalid, tMin, tMax, dMean, dVariance, FinishHistogram<T>(tMin, tMax, nBins, vecBins));
}

unsigned CheckBins(long nBins)
{
  if (nBins < 1 || nBins > 1L << 24)
    throw py::value_error("bins: must lie in [1, 16777216]");
  return unsigned(nBins);
}

} // namespace

void BindStatistics(py::module_& oModule)
{
  oModule.def(
    "statistics",
    [](const py::handle& oA, const py::object& oNoData, bool bApproximate, long nBins, const py::object& oProgress) {
      const auto oArray = py::array::ensure(oA);
      if (!oArray)
        throw py::type_error("a: not an array");
      const unsigned nCheckedBins = CheckBins(nBins);
      return DispatchPixelType(oArray.dtype(), "a", [&](auto tPixel) {
        return Statistics<decltype(tPixel)>(oArray, oNoData, bApproximate, nCheckedBins, oProgress);
      });
    },
    py::arg("a"), py::arg("nodata") = py::none(), py::arg("approx") = false, py::arg("bins") = 1024,
    py::arg("progress") = py::none(),
    R"(Statistics of a raster, leaving out its no-data pixels.

Parameters
----------
a : array_like, 2-D, dtype uint8, uint16, int16, uint32, int32, float32 or float64
    The raster; a C-contiguous array is read in place, any other layout copied once.
nodata : scalar, optional
    Pixels equal to it are left out. NaN is not left out by itself: pass no-data explicitly.
approx : bool, default False
    Compute from a fixed sample of 32 full-width strips (about 1/16 of a raster beyond 4 Mpixels)
    instead of every pixel; counts then cover the sample.
bins : int, default 1024
    Histogram bins wanted; integer dtypes get at most one per value in [min, max], floating ones at
    most 4096.
progress : callable, optional
    ``progress(fraction, text)``, called with the GIL held at most every 0.1 s.

Returns
-------
dict
    ``count`` and ``invalid`` (valid and no-data pixels), ``min``, ``max`` (0 and 0 when nothing is
    valid), ``mean``, ``variance`` (population) and ``std`` (0 and 1 for the variance when nothing is
    valid), ``histogram`` (uint64 counts over [min, max]; empty for fewer than three valid pixels),
    ``bin_low`` (centre of the first bin), ``bin_step`` (distance of bin centres), ``bin_width``,
    ``median`` and ``mode`` (read from the histogram, 0 when it is empty). Integer sums are exact.

Notes
-----
The GIL is released while the statistics run.
)");

  oModule.def(
    "_chunk_moments",
    [](const py::handle& oA, const py::object& oNoData) {
      const auto oArray = py::array::ensure(oA);
      return DispatchPixelType(oArray.dtype(), "a",
                               [&](auto tPixel) { return ChunkMoments<decltype(tPixel)>(oArray, oNoData); });
    },
    py::arg("a"), py::arg("nodata") = py::none(),
    "(valid, invalid, min, max, sum, sum of squares) of one chunk; exact ints for integer dtypes.");
  oModule.def(
    "_chunk_histogram",
    [](const py::handle& oA, const py::object& oNoData, const py::object& oMin, const py::object& oMax, long nBins) {
      const auto oArray = py::array::ensure(oA);
      const unsigned nCheckedBins = CheckBins(nBins);
      return DispatchPixelType(oArray.dtype(), "a", [&](auto tPixel) {
        return ChunkHistogram<decltype(tPixel)>(oArray, oNoData, oMin, oMax, nCheckedBins);
      });
    },
    py::arg("a"), py::arg("nodata"), py::arg("min"), py::arg("max"), py::arg("bins"),
    "Histogram counts of one chunk over the joined [min, max], binned as statistics() bins.");
  oModule.def(
    "_finish_statistics",
    [](const py::dtype& oDtype, bool bHasNoData, std::uint64_t nValid, std::uint64_t nInvalid, const py::object& oMin,
       const py::object& oMax, const py::object& oSum, const py::object& oSumSquares, long nBins,
       const py::array_t<std::uint64_t, py::array::c_style | py::array::forcecast>& oBins) {
      const unsigned nCheckedBins = CheckBins(nBins);
      return DispatchPixelType(oDtype, "dtype", [&](auto tPixel) {
        return FinishStatistics<decltype(tPixel)>(bHasNoData, nValid, nInvalid, oMin, oMax, oSum, oSumSquares,
                                                  nCheckedBins, oBins);
      });
    },
    "The statistics() dictionary from joined partials.");
}

}} // namespace Orl::Python
