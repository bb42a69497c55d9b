#pragma once

// The statistic functors: small values that take in pixels, start empty in a split task and join
// another task's result. They know nothing of bands, no-data or progress.
//
// Required interface (what ForEach2D and ForEach2DIf use):
//   TFunctor(const TFunctor& oPattern, SEmptyState)  the empty state, with oPattern's parameters
//   oFunctor(tPixel)                                  take in one pixel
//   oFunctor.Join(oRight)                             take in another task's result
//   oFunctor.ApplyRow(pRow, nLength, oPredicate)      optional: a contiguous run, only the pixels
//                                                     oPredicate accepts; the result may differ from
//                                                     pixel by pixel only in rounding, and depends on
//                                                     the run's pixels alone
//   oFunctor.FlushRows()                              optional: completes the public fields after
//                                                     ApplyRow calls (a row loop may count into
//                                                     scratch first); the walks call it at the end of
//                                                     every task's stretch and of a serial walk
//   TFunctor::ms_bOrderFree                           optional, false if absent: true when the result
//                                                     does not depend on the order of the pixels, on
//                                                     how they are grouped into runs or on the order
//                                                     of joins (counts, exact integer sums, extremes of
//                                                     integers)
//
// Sum types. Floating pixels sum in TAcc (double), each pixel widened before it is added or squared.
// Integer pixels sum exactly: sums in 64 bits (signed for signed pixels), sums of squares in 64 bits
// for 8- and 16-bit pixels and in 128 bits for 32-bit pixels. On a band of up to 2^32 pixels none of
// them can overflow: |sum| <= 2^32 * 2^32, and a 32-bit square times 2^32 needs 96 bits.

#include "Foundation/Export.h"
#include "Foundation/PixelTypes.h"
#include "Math/Detail/RowKernels.h"

#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>
#include <limits>
#include <numeric>
#include <type_traits>
#include <vector>

namespace Orl { namespace Harnel { namespace Math {

// Throws CBasicException unless 0 <= dPercent <= 100 (NaN included). Refused rather than clamped: a
// percent outside the range is a caller's mistake, and a clamped answer would hide it.
ORL_HARNEL_API void CheckPercent(double dPercent);

// Tag of the constructors that build the empty state of a split task.
struct SEmptyState
{
};

// The predicate of unconditional row loops.
struct SAcceptAll
{
  template <class T>
  constexpr bool operator()(const T&) const
  {
    return true;
  }
};

// TFunctor::ms_bOrderFree where the functor has it, else false: the walks keep a fixed order for every
// functor that does not say otherwise.
template <class TFunctor, class = void>
struct SOrderFree : std::false_type
{
};
template <class TFunctor>
struct SOrderFree<TFunctor, std::enable_if_t<TFunctor::ms_bOrderFree>> : std::true_type
{
};

template <class TFunctor, class = void>
struct SHasFlushRows : std::false_type
{
};
template <class TFunctor>
struct SHasFlushRows<TFunctor, std::void_t<decltype(std::declval<TFunctor&>().FlushRows())>> : std::true_type
{
};

// oFunctor.FlushRows() where the functor has it.
template <class TFunctor>
inline void FlushRows(TFunctor& oFunctor)
{
  if constexpr (SHasFlushRows<TFunctor>::value)
    oFunctor.FlushRows();
  else
    (void)oFunctor;
}

template <class TAcc, class TPixel, class = void>
struct SSumTypes
{
  using TSum = TAcc;
  using TSumSquares = TAcc;
};

template <class TAcc, class TPixel>
struct SSumTypes<TAcc, TPixel, std::enable_if_t<std::is_integral<TPixel>::value>>
{
  using TSum = std::conditional_t<std::is_signed<TPixel>::value, std::int64_t, std::uint64_t>;
  using TSumSquares = std::conditional_t<(sizeof(TPixel) <= 2), std::uint64_t, Detail::TUInt128>;
};

template <class TPixel>
class CCountFunctor
{
public:
  static constexpr bool ms_bOrderFree = true;

  explicit CCountFunctor(std::uint64_t nCount = 0) : m_nCount(nCount) {}
  CCountFunctor(const CCountFunctor&, SEmptyState) {}

  void operator()(TPixel) { ++m_nCount; }
  template <class TPredicate>
  void ApplyRow(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate)
  {
    TPixel tDummy{};
    int nDummy = 0;
    Detail::AccumulateRow<false, false>(pRow, nLength, oPredicate, m_nCount, tDummy, tDummy, nDummy, nDummy);
  }
  void Join(const CCountFunctor& oRight) { m_nCount += oRight.m_nCount; }

  std::uint64_t m_nCount = 0;
};

// Extremes by the exact comparison forms p < min and p > max: a NaN pixel is counted but never
// becomes an extreme. The empty state has the largest finite value as its minimum and the lowest as
// its maximum (not the infinities), so that joining it changes nothing.
template <class TPixel>
class CMinMaxFunctor
{
public:
  // Floating extremes: which of +0 and -0 is kept depends on the order.
  static constexpr bool ms_bOrderFree = std::is_integral<TPixel>::value;

  explicit CMinMaxFunctor(TPixel tMin = std::numeric_limits<TPixel>::max(),
                          TPixel tMax = std::numeric_limits<TPixel>::lowest(), std::uint64_t nCount = 0)
    : m_tMin(tMin), m_tMax(tMax), m_nCount(nCount)
  {
  }
  CMinMaxFunctor(const CMinMaxFunctor&, SEmptyState) : CMinMaxFunctor() {}

  void operator()(TPixel tValue)
  {
    m_tMin = tValue < m_tMin ? tValue : m_tMin;
    m_tMax = tValue > m_tMax ? tValue : m_tMax;
    ++m_nCount;
  }
  template <class TPredicate>
  void ApplyRow(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate)
  {
    int nDummy = 0;
    Detail::AccumulateRow<true, false>(pRow, nLength, oPredicate, m_nCount, m_tMin, m_tMax, nDummy, nDummy);
  }
  void Join(const CMinMaxFunctor& oRight)
  {
    m_tMin = oRight.m_tMin < m_tMin ? oRight.m_tMin : m_tMin;
    m_tMax = oRight.m_tMax > m_tMax ? oRight.m_tMax : m_tMax;
    m_nCount += oRight.m_nCount;
  }

  TPixel m_tMin;
  TPixel m_tMax;
  std::uint64_t m_nCount;
};

// Raw one-pass sums: no shift of origin, so that a join is a plain addition in any order.
template <class TAcc, class TPixel>
class CMeanVarianceFunctor
{
public:
  static constexpr bool ms_bOrderFree = std::is_integral<TPixel>::value; // floating sums round by order
  using TSum = typename SSumTypes<TAcc, TPixel>::TSum;
  using TSumSquares = typename SSumTypes<TAcc, TPixel>::TSumSquares;

  explicit CMeanVarianceFunctor(std::uint64_t nCount = 0, TSum tSum = TSum(), TSumSquares tSumSquares = TSumSquares())
    : m_nCount(nCount), m_tSum(tSum), m_tSumSquares(tSumSquares)
  {
  }
  CMeanVarianceFunctor(const CMeanVarianceFunctor&, SEmptyState) : CMeanVarianceFunctor() {}

  void operator()(TPixel tValue)
  {
    ++m_nCount;
    m_tSum += TSum(tValue);
    m_tSumSquares += Detail::Square<TSumSquares>(tValue);
  }
  template <class TPredicate>
  void ApplyRow(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate)
  {
    TPixel tDummy{};
    Detail::AccumulateRow<false, true>(pRow, nLength, oPredicate, m_nCount, tDummy, tDummy, m_tSum, m_tSumSquares);
  }
  void Join(const CMeanVarianceFunctor& oRight)
  {
    m_nCount += oRight.m_nCount;
    m_tSum += oRight.m_tSum;
    m_tSumSquares += oRight.m_tSumSquares;
  }

  std::uint64_t m_nCount;
  TSum m_tSum;
  TSumSquares m_tSumSquares;
};

template <class TAcc, class TPixel>
class CMinMaxMeanVarianceFunctor
{
public:
  static constexpr bool ms_bOrderFree = std::is_integral<TPixel>::value;
  using TSum = typename SSumTypes<TAcc, TPixel>::TSum;
  using TSumSquares = typename SSumTypes<TAcc, TPixel>::TSumSquares;

  explicit CMinMaxMeanVarianceFunctor(TPixel tMin = std::numeric_limits<TPixel>::max(),
                                      TPixel tMax = std::numeric_limits<TPixel>::lowest(), std::uint64_t nCount = 0,
                                      TSum tSum = TSum(), TSumSquares tSumSquares = TSumSquares())
    : m_tMin(tMin), m_tMax(tMax), m_nCount(nCount), m_tSum(tSum), m_tSumSquares(tSumSquares)
  {
  }
  CMinMaxMeanVarianceFunctor(const CMinMaxMeanVarianceFunctor&, SEmptyState) : CMinMaxMeanVarianceFunctor() {}

  void operator()(TPixel tValue)
  {
    m_tMin = tValue < m_tMin ? tValue : m_tMin;
    m_tMax = tValue > m_tMax ? tValue : m_tMax;
    ++m_nCount;
    m_tSum += TSum(tValue);
    m_tSumSquares += Detail::Square<TSumSquares>(tValue);
  }
  template <class TPredicate>
  void ApplyRow(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate)
  {
    Detail::AccumulateRow<true, true>(pRow, nLength, oPredicate, m_nCount, m_tMin, m_tMax, m_tSum, m_tSumSquares);
  }
  void Join(const CMinMaxMeanVarianceFunctor& oRight)
  {
    m_tMin = oRight.m_tMin < m_tMin ? oRight.m_tMin : m_tMin;
    m_tMax = oRight.m_tMax > m_tMax ? oRight.m_tMax : m_tMax;
    m_nCount += oRight.m_nCount;
    m_tSum += oRight.m_tSum;
    m_tSumSquares += oRight.m_tSumSquares;
  }

  TPixel m_tMin;
  TPixel m_tMax;
  std::uint64_t m_nCount;
  TSum m_tSum;
  TSumSquares m_tSumSquares;
};

// Counts pixels in m_nBins bins over the fixed range [m_tMin, m_tMax].
//
// Two widths on purpose: pixels are binned with m_dBinStep, which makes both ends of the range bin
// centres, while GetPercentile reads the counters with m_dBinWidth, as if the bins shared the range
// evenly. Nothing is filtered: a pixel above the range lands in the last bin, and so does one that
// rounds below it, because its negative index taken as unsigned 32 bits is huge and then clamped.
// A NaN pixel lands in the first bin.
//
// The row loop gives the same counts as the pixel-by-pixel rule (see SFastBins), but counts into
// sub-histograms of 32-bit counters first: m_vecBins is complete after FlushRows(), which the walks
// call. m_nCount is always complete.
template <class TAcc, class TPixel>
class CHistoFunctor
{
public:
  static constexpr bool ms_bOrderFree = true;

  CHistoFunctor(TPixel tMin, TPixel tMax, std::uint32_t nBins)
    : m_vecBins(nBins, 0), m_tMin(tMin), m_tMax(tMax), m_nBins(nBins),
      m_dBinStep(TAcc((double(tMax) - double(tMin)) / (nBins > 1 ? double(nBins - 1) : 1.0))),
      m_dBinWidth(TAcc((double(tMax) - double(tMin)) / double(nBins)))
  {
    _MakeValueBins();
  }
  // A histogram whose counters are known already, as a cache holds them; the count is their sum.
  CHistoFunctor(TPixel tMin, TPixel tMax, std::vector<std::uint64_t> vecBins)
    : CHistoFunctor(tMin, tMax, std::uint32_t(vecBins.size()))
  {
    m_vecBins = std::move(vecBins);
    m_nCount = std::accumulate(m_vecBins.begin(), m_vecBins.end(), std::uint64_t(0));
  }
  CHistoFunctor(const CHistoFunctor& oPattern, SEmptyState)
    : m_vecBins(oPattern.m_nBins, 0), m_tMin(oPattern.m_tMin), m_tMax(oPattern.m_tMax), m_nBins(oPattern.m_nBins),
      m_dBinStep(oPattern.m_dBinStep), m_dBinWidth(oPattern.m_dBinWidth), m_pValueBins(oPattern.m_pValueBins)
  {
  }

  void operator()(TPixel tValue)
  {
    ++m_vecBins[GetBinIndex(tValue)];
    ++m_nCount;
  }
  template <class TPredicate>
  void ApplyRow(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate);
  void Join(const CHistoFunctor& oRight)
  {
    m_nCount += oRight.m_nCount;
    for (std::uint32_t i = 0; i < m_nBins; ++i)
      m_vecBins[i] += oRight.m_vecBins[i];
    _AddLanes(oRight.m_vecLanes);
  }
  // Adds the sub-histograms of the row loop to m_vecBins.
  void FlushRows()
  {
    _AddLanes(m_vecLanes);
    std::fill(m_vecLanes.begin(), m_vecLanes.end(), 0u);
    m_nPending = 0;
  }

  std::uint32_t GetBinIndex(TPixel tValue) const
  {
    assert(m_nBins > 0 && "a histogram without bins cannot take pixels");
    const std::uint32_t nIndex = Detail::RoundToBinNumber((double(tValue) - double(m_tMin)) / double(m_dBinStep));
    return nIndex < m_nBins - 1 ? nIndex : m_nBins - 1;
  }

  // Linear interpolation between the order statistics floor(pos) and floor(pos) + 1, pos being
  // m_nCount * dPercent / 100, each placed inside its bin as if a bin's pixels spread evenly over its
  // width. Percentiles that give pos < 1 return the low end of the range. dPercent outside [0, 100]
  // or NaN throws (CheckPercent).
  double GetPercentile(double dPercent) const;

  std::vector<std::uint64_t> m_vecBins;
  TPixel m_tMin;
  TPixel m_tMax;
  std::uint32_t m_nBins;
  std::uint64_t m_nCount = 0;
  TAcc m_dBinStep;
  TAcc m_dBinWidth;

private:
  // One-byte pixels: the bin of each of the 256 values, worked out once with GetBinIndex and shared
  // read-only by all split copies. A long row is then counted by value first, and the 256 value
  // counts are added to their bins.
  using TValueBins = std::array<std::uint32_t, 256>;
  static constexpr std::size_t ms_nValueCountRow = 1024; // shorter rows go pixel by pixel

  // Four sub-histograms up to this many bins (2 MiB of counters), one above: a histogram with millions
  // of bins gains nothing from lanes that are far apart anyway.
  static constexpr std::uint32_t ms_nLaneBins = 131072;

  void _MakeValueBins();
  std::size_t _GetLaneCount() const { return m_nBins <= ms_nLaneBins ? 4 : 1; }
  void _AddLanes(const std::vector<std::uint32_t>& vecLanes)
  {
    if (vecLanes.empty())
      return;
    const std::size_t nStride = std::size_t(m_nBins) + 1;
    for (std::size_t nLane = 0; nLane < vecLanes.size() / nStride; ++nLane)
      for (std::uint32_t i = 0; i < m_nBins; ++i)
        m_vecBins[i] += vecLanes[nLane * nStride + i];
  }
  // The stopping bin of the walk for the nTarget-th pixel: its number counted from 1, the cumulated
  // count there, and its counter.
  void _FindBin(std::uint64_t nTarget, std::uint64_t& nBinNumber, std::uint64_t& nCum, std::uint64_t& nBin) const;

  boost::shared_ptr<const TValueBins> m_pValueBins;
  // The row loop's sub-histograms: _GetLaneCount() lanes of m_nBins + 1 counters, the last of each for
  // rejected pixels; empty until the first long row. m_nPending bounds every counter.
  std::vector<std::uint32_t> m_vecLanes;
  std::uint64_t m_nPending = 0;
};

template <class TAcc, class TPixel>
void CHistoFunctor<TAcc, TPixel>::_MakeValueBins()
{
  if constexpr (sizeof(TPixel) == 1)
  {
    if (m_nBins == 0)
      return;
    auto pValueBins = boost::shared_ptr<TValueBins>(new TValueBins);
    for (unsigned nValue = 0; nValue < 256; ++nValue)
      (*pValueBins)[nValue] = GetBinIndex(TPixel(nValue));
    m_pValueBins = pValueBins;
  }
}

template <class TAcc, class TPixel>
template <class TPredicate>
void CHistoFunctor<TAcc, TPixel>::ApplyRow(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate)
{
  if constexpr (sizeof(TPixel) == 1)
  {
    if (nLength >= ms_nValueCountRow && m_pValueBins)
    {
      // Four tables, so that runs of equal pixels do not wait on each other's increments.
      std::uint32_t aanCounts[4][256] = {};
      std::size_t i = 0;
      for (; i + 4 <= nLength; i += 4)
      {
        ++aanCounts[0][std::uint8_t(pRow[i])];
        ++aanCounts[1][std::uint8_t(pRow[i + 1])];
        ++aanCounts[2][std::uint8_t(pRow[i + 2])];
        ++aanCounts[3][std::uint8_t(pRow[i + 3])];
      }
      for (; i < nLength; ++i)
        ++aanCounts[0][std::uint8_t(pRow[i])];
      const TValueBins& anValueBins = *m_pValueBins;
      for (unsigned nValue = 0; nValue < 256; ++nValue)
      {
        const std::uint64_t nCount =
          std::uint64_t(aanCounts[0][nValue]) + aanCounts[1][nValue] + aanCounts[2][nValue] + aanCounts[3][nValue];
        if (nCount != 0 && oPredicate(TPixel(nValue)))
        {
          m_vecBins[anValueBins[nValue]] += nCount;
          m_nCount += nCount;
        }
      }
      return;
    }
  }
  else
  {
    if (m_nBins == 0 || nLength < 16) // short runs: not worth the lanes
    {
      for (std::size_t i = 0; i < nLength; ++i)
      {
        const TPixel tValue = Detail::LoadPixel(pRow + i);
        if (oPredicate(tValue))
          (*this)(tValue);
      }
      return;
    }
    const std::size_t nStride = std::size_t(m_nBins) + 1, nLanes = _GetLaneCount();
    if (m_vecLanes.empty())
      m_vecLanes.assign(nLanes * nStride, 0u);
    if (m_nPending + nLength > std::numeric_limits<std::uint32_t>::max())
      FlushRows();
    m_nPending += nLength;
    const Detail::SFastBins oBins(double(m_tMin), double(m_dBinStep), m_nBins);
    const auto fnExact = [this](TPixel tValue) { return GetBinIndex(tValue); };
#ifdef ORL_HAS_AVX2_DISPATCH
    if constexpr (std::is_same<TPixel, float>::value && Detail::ms_bVectorPredicate<TPredicate>)
      if (nLanes == 4 && oBins.HasFloatForm() && Detail::HasAvx2())
      {
        m_nCount +=
          Detail::FloatBinRowAvx2(pRow, nLength, oPredicate, oBins, m_vecLanes.data(), nStride, fnExact);
        return;
      }
#endif
    m_nCount += Detail::BinRowScalar(pRow, nLength, oPredicate, oBins, m_vecLanes.data(), nStride, nLanes, fnExact);
    return;
  }
  for (std::size_t i = 0; i < nLength; ++i)
    if (oPredicate(pRow[i]))
      (*this)(pRow[i]);
}

template <class TAcc, class TPixel>
void CHistoFunctor<TAcc, TPixel>::_FindBin(std::uint64_t nTarget, std::uint64_t& nBinNumber, std::uint64_t& nCum,
                                           std::uint64_t& nBin) const
{
  assert(m_nBins > 0 && "a percentile needs bins");
  nCum = 0;
  std::uint32_t i = 0;
  for (;;)
  {
    nBin = m_vecBins[i];
    nCum += nBin;
    if (nCum >= nTarget || i + 1 >= m_nBins)
      break;
    ++i;
  }
  nBinNumber = std::uint64_t(i) + 1;
}

template <class TAcc, class TPixel>
double CHistoFunctor<TAcc, TPixel>::GetPercentile(double dPercent) const
{
  CheckPercent(dPercent);
  const double dPos = double(m_nCount) * dPercent / 100.0;
  const auto nLow = std::uint64_t(dPos);
  if (nLow == 0)
    return double(m_tMin);
  std::uint64_t nNumber, nCum, nBin;
  _FindBin(nLow, nNumber, nCum, nBin);
  // nCum - nLow in unsigned 64 bits on purpose: it only wraps for percentages above 100.
  const double dLow = (double(nNumber) - double(nCum - nLow) / double(nBin)) * double(m_dBinWidth) + double(m_tMin);
  const auto nHigh = std::uint64_t(dPos + 1.0);
  if (m_nCount < nHigh)
    return dLow;
  _FindBin(nHigh, nNumber, nCum, nBin);
  const double dHigh = double(m_tMin) + double(m_dBinWidth) * (double(nNumber) - double(nCum - nHigh) / double(nBin));
  const double dFrac = dPos - double(nLow);
  return dLow * (1.0 - dFrac) + dHigh * dFrac;
}

#define ORL_STATISTIC_FUNCTORS_EXTERN(T)                                                                \
  extern template class CCountFunctor<T>;                                                               \
  extern template class CMinMaxFunctor<T>;                                                              \
  extern template class CMeanVarianceFunctor<double, T>;                                                \
  extern template class CMinMaxMeanVarianceFunctor<double, T>;                                          \
  extern template class CHistoFunctor<double, T>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_STATISTIC_FUNCTORS_EXTERN)
#undef ORL_STATISTIC_FUNCTORS_EXTERN

}}} // namespace Orl::Harnel::Math
