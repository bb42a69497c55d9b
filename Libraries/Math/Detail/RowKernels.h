#pragma once

// Row loops of the statistic functors: one contiguous run of pixels at a time.
//
// The per-pixel operations of the functors define the results; these loops compute the same results
// faster. For integer pixels they are exact, so the lane layout cannot show in a result. For floating
// pixels the sums are kept in several partial sums per row, which changes only the rounding of the
// additions (the same freedom the parallel split takes); minimum, maximum and count are exact.
//
// The vector loops are written with GCC vector extensions rather than intrinsics: they compile on any
// target GCC or Clang supports, and on x86-64 without -march flags they become SSE2 code (pminub,
// pmaxub, punpck*, pmullw, minps, cvtps2pd...). Auto-vectorisation was not reliable here: the
// predicated minimum and the widening sums stayed scalar.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace Orl { namespace Harnel { namespace Math {

struct SAcceptAll;

namespace Detail {

__extension__ typedef unsigned __int128 TUInt128;

// A predicate that accepts every value but one, and says which through GetExcludedValue(), can be
// evaluated on whole vectors. Any other predicate runs pixel by pixel.
template <class TPredicate, class = void>
struct SExcludesOneValue : std::false_type
{
};
template <class TPredicate>
struct SExcludesOneValue<TPredicate, std::void_t<decltype(std::declval<const TPredicate&>().GetExcludedValue())>>
  : std::true_type
{
};

template <class TPredicate>
constexpr bool ms_bVectorPredicate =
  std::is_same<TPredicate, SAcceptAll>::value || SExcludesOneValue<TPredicate>::value;

// The square of a pixel in the type of the sum of squares: exact for integers (the product of two
// 32-bit values is formed in 64 bits), widened before the product for floating pixels.
template <class TSumSquares, class TPixel>
inline TSumSquares Square(TPixel tValue)
{
  if constexpr (std::is_floating_point<TPixel>::value)
    return TSumSquares(tValue) * TSumSquares(tValue);
  else
  {
    using TWide = std::conditional_t<std::is_signed<TPixel>::value, std::int64_t, std::uint64_t>;
    return TSumSquares(TWide(tValue) * TWide(tValue));
  }
}

// One pixel: what the functors' operator() does, shared by the tails of the vector loops.
template <bool bMinMax, bool bSums, class TPixel, class TSum, class TSumSquares>
inline void TakeIn(TPixel tValue, std::uint64_t& nCount, TPixel& tMin, TPixel& tMax, TSum& tSum,
                   TSumSquares& tSumSquares)
{
  ++nCount;
  if constexpr (bMinMax)
  {
    tMin = tValue < tMin ? tValue : tMin;
    tMax = tValue > tMax ? tValue : tMax;
  }
  if constexpr (bSums)
  {
    tSum += TSum(tValue);
    tSumSquares += Square<TSumSquares>(tValue);
  }
}

template <bool bMinMax, bool bSums, class TPixel, class TSum, class TSumSquares, class TPredicate>
inline void ScalarRow(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate, std::uint64_t& nCount,
                      TPixel& tMin, TPixel& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
  for (std::size_t i = 0; i < nLength; ++i)
    if (oPredicate(pRow[i]))
      TakeIn<bMinMax, bSums>(pRow[i], nCount, tMin, tMax, tSum, tSumSquares);
}

// ---- floating pixels: 4 pixels per step, sums in 4 partial double sums ---------------------------

typedef float TV4F __attribute__((vector_size(16)));
typedef std::int32_t TV4I __attribute__((vector_size(16)));
typedef double TV2D __attribute__((vector_size(16)));
typedef std::int64_t TV2L __attribute__((vector_size(16)));
typedef double TV4D __attribute__((vector_size(32)));

template <class TVector, class TMask, class TPixel, class TPredicate>
inline TMask ValidMask(TVector vValues, const TPredicate& oPredicate)
{
  if constexpr (std::is_same<TPredicate, SAcceptAll>::value)
  {
    (void)vValues;
    (void)oPredicate;
    return TMask{} - 1;
  }
  else // != is true for NaN, as in the scalar predicate
    return TMask(vValues != TPixel(oPredicate.GetExcludedValue()));
}

// Floating lanes the predicate rejects: all bits set, which as a value is a NaN. That is what lets
// the extremes use the plain forms v < min ? v : min and v > max ? v : max (minps / maxps): a NaN,
// rejected or a real NaN pixel, never replaces an extreme, exactly as per pixel. With NaN as the
// excluded value nothing is rejected, since NaN == NaN is false.
template <class TVector, class TMask, class TPixel, class TPredicate>
inline TMask RejectedMask(TVector vValues, const TPredicate& oPredicate)
{
  if constexpr (std::is_same<TPredicate, SAcceptAll>::value)
  {
    (void)vValues;
    (void)oPredicate;
    return TMask{};
  }
  else
    return TMask(vValues == TPixel(oPredicate.GetExcludedValue()));
}

// Float lanes of one step: 4 in SSE2 registers, 8 where AVX2 is there at run time.
typedef float TV8F __attribute__((vector_size(32)));
typedef std::int32_t TV8I __attribute__((vector_size(32)));

struct SFloatLanes4
{
  using TFloats = TV4F;
  using TMask = TV4I;
  using THalf = TV2D; // half of the lanes widened to double
  static constexpr std::size_t ms_nLanes = 4;

  static void Widen(TV4F v, TV2D& vLow, TV2D& vHigh)
  {
    vLow = __builtin_convertvector(__builtin_shufflevector(v, v, 0, 1), TV2D);
    vHigh = __builtin_convertvector(__builtin_shufflevector(v, v, 2, 3), TV2D);
  }
};

#if defined(__x86_64__) && defined(__GNUC__)
// Only usable inside a function compiled for AVX2 (FloatRowAvx2).
struct SFloatLanes8
{
  using TFloats = TV8F;
  using TMask = TV8I;
  using THalf = TV4D;
  static constexpr std::size_t ms_nLanes = 8;

  // One vcvtps2pd per half: the generic conversion becomes four narrow ones and two inserts.
  __attribute__((target("avx2"))) static void Widen(TV8F v, TV4D& vLow, TV4D& vHigh)
  {
    vLow = __builtin_ia32_cvtps2pd256(__builtin_shufflevector(v, v, 0, 1, 2, 3));
    vHigh = __builtin_ia32_cvtps2pd256(__builtin_shufflevector(v, v, 4, 5, 6, 7));
  }
};
#endif

// The wide instance lives entirely inside FloatRowAvx2, which is compiled for AVX2 and inlines
// everything it calls.
template <class TLanes, bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
inline void FloatLanesRow(const float* pRow, std::size_t nLength, const TPredicate& oPredicate, std::uint64_t& nCount,
                          float& tMin, float& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
  using TFloats = typename TLanes::TFloats;
  using TMask = typename TLanes::TMask;
  using THalf = typename TLanes::THalf;
  constexpr std::size_t nLanes = TLanes::ms_nLanes;
  TFloats vMin = TFloats{} + tMin, vMax = TFloats{} + tMax;
  THalf vSum0 = {}, vSum1 = {}, vSq0 = {}, vSq1 = {};
  TMask vRejected = {};
  const std::size_t nVector = nLength - nLength % nLanes;
  for (std::size_t i = 0; i < nVector; i += nLanes)
  {
    TFloats v;
    std::memcpy(&v, pRow + i, sizeof v);
    TMask vReject = {};
    if constexpr (!std::is_same<TPredicate, SAcceptAll>::value)
      vReject = TMask(v == oPredicate.GetExcludedValue());
    vRejected -= vReject;
    if constexpr (bMinMax)
    {
      const TFloats vCandidate = TFloats(TMask(v) | vReject);
      vMin = vCandidate < vMin ? vCandidate : vMin;
      vMax = vCandidate > vMax ? vCandidate : vMax;
    }
    if constexpr (bSums)
    {
      THalf v0, v1;
      TLanes::Widen(TFloats(TMask(v) & ~vReject), v0, v1); // rejected lanes add +0.0
      vSum0 += v0;
      vSum1 += v1;
      vSq0 += v0 * v0;
      vSq1 += v1 * v1;
    }
  }
  std::uint64_t nRejected = 0;
  for (std::size_t j = 0; j < nLanes; ++j)
    nRejected += std::uint64_t(vRejected[j]);
  nCount += nVector - nRejected;
  if constexpr (bMinMax)
    for (std::size_t j = 0; j < nLanes; ++j)
    {
      tMin = vMin[j] < tMin ? vMin[j] : tMin;
      tMax = vMax[j] > tMax ? vMax[j] : tMax;
    }
  if constexpr (bSums)
  {
    const THalf vSum = vSum0 + vSum1, vSq = vSq0 + vSq1;
    double dSum = 0, dSq = 0;
    for (std::size_t j = 0; j < nLanes / 2; ++j)
    {
      dSum += vSum[j];
      dSq += vSq[j];
    }
    tSum += TSum(dSum);
    tSumSquares += TSumSquares(dSq);
  }
  ScalarRow<bMinMax, bSums>(pRow + nVector, nLength - nVector, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
}

#if defined(__x86_64__) && defined(__GNUC__)
// The float loop adds two doubles per pixel, which keeps SSE2's add units busier than memory is.
// Where the processor has AVX2 (asked once, at run time; nothing is built with -march) the same
// loop runs 8 lanes wide. Only the lane count differs, so only the rounding of the sums can.
inline bool HasAvx2()
{
  static const bool s_bHasAvx2 = __builtin_cpu_supports("avx2");
  return s_bHasAvx2;
}

template <bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
__attribute__((target("avx2"), flatten)) void FloatRowAvx2(const float* pRow, std::size_t nLength,
                                                            const TPredicate& oPredicate, std::uint64_t& nCount,
                                                            float& tMin, float& tMax, TSum& tSum,
                                                            TSumSquares& tSumSquares)
{
  FloatLanesRow<SFloatLanes8, bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
}
#endif

template <bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
inline void FloatRow(const float* pRow, std::size_t nLength, const TPredicate& oPredicate, std::uint64_t& nCount,
                     float& tMin, float& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
#if defined(__x86_64__) && defined(__GNUC__)
  if (HasAvx2())
    return FloatRowAvx2<bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
#endif
  FloatLanesRow<SFloatLanes4, bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
}

template <bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
inline void DoubleRow(const double* pRow, std::size_t nLength, const TPredicate& oPredicate, std::uint64_t& nCount,
                      double& tMin, double& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
  TV2D vMin0 = TV2D{} + tMin, vMax0 = TV2D{} + tMax, vMin1 = vMin0, vMax1 = vMax0;
  TV2D vSum0 = {}, vSum1 = {}, vSq0 = {}, vSq1 = {};
  TV2L vRejected = {};
  const std::size_t nVector = nLength & ~std::size_t(3);
  for (std::size_t i = 0; i < nVector; i += 4)
  {
    TV2D v0, v1;
    std::memcpy(&v0, pRow + i, sizeof v0);
    std::memcpy(&v1, pRow + i + 2, sizeof v1);
    const TV2L vReject0 = RejectedMask<TV2D, TV2L, double>(v0, oPredicate);
    const TV2L vReject1 = RejectedMask<TV2D, TV2L, double>(v1, oPredicate);
    vRejected -= vReject0 + vReject1;
    if constexpr (bMinMax)
    {
      const TV2D vCandidate0 = TV2D(TV2L(v0) | vReject0), vCandidate1 = TV2D(TV2L(v1) | vReject1);
      vMin0 = vCandidate0 < vMin0 ? vCandidate0 : vMin0;
      vMax0 = vCandidate0 > vMax0 ? vCandidate0 : vMax0;
      vMin1 = vCandidate1 < vMin1 ? vCandidate1 : vMin1;
      vMax1 = vCandidate1 > vMax1 ? vCandidate1 : vMax1;
    }
    if constexpr (bSums)
    {
      const TV2D vTaken0 = TV2D(TV2L(v0) & ~vReject0), vTaken1 = TV2D(TV2L(v1) & ~vReject1);
      vSum0 += vTaken0;
      vSum1 += vTaken1;
      vSq0 += vTaken0 * vTaken0;
      vSq1 += vTaken1 * vTaken1;
    }
  }
  nCount += nVector - std::uint64_t(vRejected[0] + vRejected[1]);
  if constexpr (bMinMax)
    for (int j = 0; j < 2; ++j)
    {
      tMin = vMin0[j] < tMin ? vMin0[j] : tMin;
      tMin = vMin1[j] < tMin ? vMin1[j] : tMin;
      tMax = vMax0[j] > tMax ? vMax0[j] : tMax;
      tMax = vMax1[j] > tMax ? vMax1[j] : tMax;
    }
  if constexpr (bSums)
  {
    tSum += TSum((vSum0[0] + vSum1[0]) + (vSum0[1] + vSum1[1]));
    tSumSquares += TSumSquares((vSq0[0] + vSq1[0]) + (vSq0[1] + vSq1[1]));
  }
  ScalarRow<bMinMax, bSums>(pRow + nVector, nLength - nVector, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
}

// ---- unsigned char: 16 pixels per step ------------------------------------------------------------
//
// Unsigned byte minimum and maximum, and widening adds: values and their squares (at most 255^2, so
// the byte product fits 16 bits) are widened to 16 and 32 bits with zero interleaves. Lane
// accumulators are flushed before they can overflow: the 16-bit sums and the byte counters after
// 128 steps, the 32-bit sums after 128 such blocks; the exact 64-bit totals take them from there.

typedef std::uint8_t TV16B __attribute__((vector_size(16)));
typedef std::uint16_t TV8H __attribute__((vector_size(16)));
typedef std::uint32_t TV4U __attribute__((vector_size(16)));

inline TV8H WidenLow(TV16B v)
{
  return TV8H(__builtin_shufflevector(v, TV16B{}, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23));
}
inline TV8H WidenHigh(TV16B v)
{
  return TV8H(__builtin_shufflevector(v, TV16B{}, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31));
}
inline TV4U WidenLow(TV8H v) { return TV4U(__builtin_shufflevector(v, TV8H{}, 0, 8, 1, 9, 2, 10, 3, 11)); }
inline TV4U WidenHigh(TV8H v) { return TV4U(__builtin_shufflevector(v, TV8H{}, 4, 12, 5, 13, 6, 14, 7, 15)); }
inline std::uint64_t LaneSum(TV4U v) { return std::uint64_t(v[0]) + v[1] + v[2] + v[3]; }

template <bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
inline void ByteRow(const std::uint8_t* pRow, std::size_t nLength, const TPredicate& oPredicate, std::uint64_t& nCount,
                    std::uint8_t& tMin, std::uint8_t& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
  constexpr bool bAll = std::is_same<TPredicate, SAcceptAll>::value;
  constexpr std::size_t nBlockSteps = 128;         // 16-bit lanes: 128 * 2 * 255 < 2^16
  constexpr std::size_t nChunkSteps = 128 * nBlockSteps; // 32-bit lanes: 4 * 255^2 per step
  TV16B vMin = TV16B{} + tMin, vMax = TV16B{} + tMax;
  const std::size_t nSteps = nLength / 16;
  std::size_t nStep = 0;
  while (nStep < nSteps)
  {
    const std::size_t nChunkEnd = nStep + std::min(nSteps - nStep, nChunkSteps);
    TV4U vSum32 = {}, vSq32 = {}, vCount32 = {};
    while (nStep < nChunkEnd)
    {
      const std::size_t nBlockEnd = nStep + std::min(nChunkEnd - nStep, nBlockSteps);
      TV8H vSum16 = {};
      TV16B vCount8 = {};
      for (; nStep < nBlockEnd; ++nStep)
      {
        TV16B v;
        std::memcpy(&v, pRow + nStep * 16, sizeof v);
        const TV16B vValid = TV16B(ValidMask<TV16B, TV16B, std::uint8_t>(v, oPredicate));
        if constexpr (bMinMax)
        {
          const TV16B vLow = v | ~vValid;  // invalid lanes: 255, neutral for the minimum
          const TV16B vHigh = v & vValid;  // invalid lanes: 0, neutral for the maximum
          vMin = vLow < vMin ? vLow : vMin;
          vMax = vHigh > vMax ? vHigh : vMax;
        }
        if constexpr (!bAll)
          vCount8 -= vValid;
        if constexpr (bSums)
        {
          const TV16B vTaken = v & vValid;
          const TV8H vLow = WidenLow(vTaken), vHigh = WidenHigh(vTaken);
          vSum16 += vLow + vHigh;
          const TV8H vLowSq = vLow * vLow, vHighSq = vHigh * vHigh;
          vSq32 += (WidenLow(vLowSq) + WidenHigh(vLowSq)) + (WidenLow(vHighSq) + WidenHigh(vHighSq));
        }
      }
      if constexpr (bSums)
        vSum32 += WidenLow(vSum16) + WidenHigh(vSum16);
      if constexpr (!bAll)
      {
        const TV8H vCount16 = WidenLow(vCount8) + WidenHigh(vCount8);
        vCount32 += WidenLow(vCount16) + WidenHigh(vCount16);
      }
    }
    if constexpr (bSums)
    {
      tSum += TSum(LaneSum(vSum32));
      tSumSquares += TSumSquares(LaneSum(vSq32));
    }
    if constexpr (!bAll)
      nCount += LaneSum(vCount32);
  }
  if constexpr (bAll)
    nCount += nSteps * 16;
  if constexpr (bMinMax)
    for (int j = 0; j < 16; ++j)
    {
      tMin = vMin[j] < tMin ? vMin[j] : tMin;
      tMax = vMax[j] > tMax ? vMax[j] : tMax;
    }
  ScalarRow<bMinMax, bSums>(pRow + nSteps * 16, nLength - nSteps * 16, oPredicate, nCount, tMin, tMax, tSum,
                            tSumSquares);
}

// The row loop of the counting, extreme and moment functors. bMinMax and bSums say which fields the
// functor has; the others are passed as dummies.
template <bool bMinMax, bool bSums, class TPixel, class TSum, class TSumSquares, class TPredicate>
inline void AccumulateRow(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate,
                          std::uint64_t& nCount, TPixel& tMin, TPixel& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
  if constexpr (!ms_bVectorPredicate<TPredicate>)
    ScalarRow<bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
  else if constexpr (!bMinMax && !bSums && std::is_same<TPredicate, SAcceptAll>::value)
    nCount += nLength;
  else if constexpr (std::is_same<TPixel, float>::value)
    FloatRow<bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
  else if constexpr (std::is_same<TPixel, double>::value)
    DoubleRow<bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
  else if constexpr (std::is_same<TPixel, unsigned char>::value)
    ByteRow<bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
  else
    ScalarRow<bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
}

// ---- histogram binning ----------------------------------------------------------------------------

// Rounds half away from zero and truncates to 64 bits, then keeps the low 32 bits: x + 0.5 (or
// x - 0.5) truncated is floor(x + 0.5) (ceil(x - 0.5)) exactly, without a library call. Values the
// 64-bit conversion cannot hold, NaN among them, give the integer 0x8000000000000000, whose low half is
// 0: they go to the first bin, as the hardware conversion would put them.
inline std::uint32_t RoundToBinNumber(double dX)
{
  const double dRounded = dX < 0.0 ? dX - 0.5 : dX + 0.5;
  const std::int64_t nIndex = (dRounded >= -9223372036854775808.0 && dRounded < 9223372036854775808.0)
                                ? std::int64_t(dRounded)
                                : std::numeric_limits<std::int64_t>::min();
  return std::uint32_t(std::uint64_t(nIndex));
}

}}}} // namespace Orl::Harnel::Math::Detail
