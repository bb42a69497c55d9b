#pragma once

// Row loops of the statistic functors: one contiguous run of pixels at a time.
//
// For integer pixels the loops are exact: they give what the per-pixel operations give, whatever the
// lane layout. For floating pixels a run's sums are formed in eight lanes that are joined in a fixed
// tree, so they round differently from pixel-by-pixel sums, but they are a function of the run's
// pixels alone: the same run gives the same bits on every processor and at every optimisation level.
// Callers that need the order of pixel-by-pixel sums use the functors' operator() instead (see
// Band/ForEach2D.h); minimum, maximum and count are the same either way, the sign of a zero extreme
// aside.
//
// The vector loops are written with GCC vector extensions rather than intrinsics: they compile on any
// target GCC or Clang supports, and on x86-64 without -march flags they become SSE2 code (pminub,
// pmaxub, punpck*, pmullw, minps, cvtps2pd...). Auto-vectorisation was not reliable here: the
// predicated minimum and the widening sums stayed scalar.
//
// Every pixel is loaded with memcpy (LoadPixel, or a vector at a time), never through a typed
// reference: a run may start at any address. Files mapped in place put 4- and 8-byte pixels wherever
// their format does, GeoTIFF strips often at 2 bytes past an aligned address; the loads cost the same.

#include "Math/Detail/CpuFeatures.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace Orl { namespace Harnel { namespace Math {

struct SAcceptAll;

namespace Detail {

__extension__ typedef unsigned __int128 TUInt128;

// The pixel at p, wherever p points: one plain load, also where p is not aligned for TPixel.
template <class TPixel>
inline TPixel LoadPixel(const TPixel* p)
{
  TPixel tValue;
  std::memcpy(&tValue, p, sizeof tValue);
  return tValue;
}

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
  {
    const TPixel tValue = LoadPixel(pRow + i);
    if (oPredicate(tValue))
      TakeIn<bMinMax, bSums>(tValue, nCount, tMin, tMax, tSum, tSumSquares);
  }
}

// ---- floating pixels: 8 lanes, each with its own double sums --------------------------------------
//
// Lane j takes the pixels j, j + 8, j + 16... of the run, in order. At the end of the run the eight
// lanes are added in one fixed tree (FoldLanes), and the last nLength % 8 pixels follow one by one.
// The lanes are the same whatever the instruction set (two SSE2 registers of four floats per step, or
// one AVX2 register of eight), so a run gives the same bits on every x86-64 processor.

// How far ahead of the pixels being taken in the float loops ask for the cache lines of their run:
// 2 KiB, the distance that keeps them fed when two cores stream a large band from memory at once (the
// hardware prefetcher alone leaves them waiting on memory for a third to a half of the time). The
// address is formed as an integer: past the end of a run it is only a hint, often the next run.
constexpr std::uintptr_t g_nFloatPrefetchBytes = 2048;
inline void PrefetchAhead(const float* p)
{
  __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(p) + g_nFloatPrefetchBytes));
}

typedef float TV4F __attribute__((vector_size(16)));
typedef std::int32_t TV4I __attribute__((vector_size(16)));
typedef double TV2D __attribute__((vector_size(16)));
typedef std::int64_t TV2L __attribute__((vector_size(16)));

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

inline double FoldLanes(const double* adLanes)
{
  return ((adLanes[0] + adLanes[1]) + (adLanes[2] + adLanes[3])) + ((adLanes[4] + adLanes[5]) + (adLanes[6] + adLanes[7]));
}

// The end of a float run, shared by both instruction sets. Lanes arrive as plain arrays: no vector
// crosses a call, so the kernels are right however much the compiler inlines (a Debug build too).
template <bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
inline void FinishFloatRow(const float* pRow, std::size_t nLength, std::size_t nVector, std::uint64_t nRejected,
                           const float* afMin, const float* afMax, const double* adSum, const double* adSq,
                           const TPredicate& oPredicate, std::uint64_t& nCount, float& tMin, float& tMax, TSum& tSum,
                           TSumSquares& tSumSquares)
{
  nCount += nVector - nRejected;
  if constexpr (bMinMax)
    for (int j = 0; j < 8; ++j)
    {
      tMin = afMin[j] < tMin ? afMin[j] : tMin;
      tMax = afMax[j] > tMax ? afMax[j] : tMax;
    }
  if constexpr (bSums)
  {
    tSum += TSum(FoldLanes(adSum));
    tSumSquares += TSumSquares(FoldLanes(adSq));
  }
  ScalarRow<bMinMax, bSums>(pRow + nVector, nLength - nVector, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
}

template <bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
inline void FloatRowSse2(const float* pRow, std::size_t nLength, const TPredicate& oPredicate, std::uint64_t& nCount,
                         float& tMin, float& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
  TV4F vMin0 = TV4F{} + tMin, vMax0 = TV4F{} + tMax, vMin1 = vMin0, vMax1 = vMax0;
  TV2D vSum0 = {}, vSum1 = {}, vSum2 = {}, vSum3 = {}, vSq0 = {}, vSq1 = {}, vSq2 = {}, vSq3 = {};
  TV4I vRejected = {};
  const std::size_t nVector = nLength & ~std::size_t(7);
  for (std::size_t i = 0; i < nVector; i += 8)
  {
    PrefetchAhead(pRow + i);
    TV4F v0, v1;
    std::memcpy(&v0, pRow + i, sizeof v0);
    std::memcpy(&v1, pRow + i + 4, sizeof v1);
    const TV4I vReject0 = RejectedMask<TV4F, TV4I, float>(v0, oPredicate);
    const TV4I vReject1 = RejectedMask<TV4F, TV4I, float>(v1, oPredicate);
    vRejected -= vReject0 + vReject1;
    if constexpr (bMinMax)
    {
      const TV4F vCandidate0 = TV4F(TV4I(v0) | vReject0), vCandidate1 = TV4F(TV4I(v1) | vReject1);
      vMin0 = vCandidate0 < vMin0 ? vCandidate0 : vMin0;
      vMax0 = vCandidate0 > vMax0 ? vCandidate0 : vMax0;
      vMin1 = vCandidate1 < vMin1 ? vCandidate1 : vMin1;
      vMax1 = vCandidate1 > vMax1 ? vCandidate1 : vMax1;
    }
    if constexpr (bSums)
    {
      const TV4F vTaken0 = TV4F(TV4I(v0) & ~vReject0), vTaken1 = TV4F(TV4I(v1) & ~vReject1); // rejected: +0.0
      const TV2D vLane01 = __builtin_convertvector(__builtin_shufflevector(vTaken0, vTaken0, 0, 1), TV2D);
      const TV2D vLane23 = __builtin_convertvector(__builtin_shufflevector(vTaken0, vTaken0, 2, 3), TV2D);
      const TV2D vLane45 = __builtin_convertvector(__builtin_shufflevector(vTaken1, vTaken1, 0, 1), TV2D);
      const TV2D vLane67 = __builtin_convertvector(__builtin_shufflevector(vTaken1, vTaken1, 2, 3), TV2D);
      vSum0 += vLane01;
      vSum1 += vLane23;
      vSum2 += vLane45;
      vSum3 += vLane67;
      vSq0 += vLane01 * vLane01;
      vSq1 += vLane23 * vLane23;
      vSq2 += vLane45 * vLane45;
      vSq3 += vLane67 * vLane67;
    }
  }
  float afMin[8], afMax[8];
  std::memcpy(afMin, &vMin0, 16);
  std::memcpy(afMin + 4, &vMin1, 16);
  std::memcpy(afMax, &vMax0, 16);
  std::memcpy(afMax + 4, &vMax1, 16);
  const TV2D avSum[4] = {vSum0, vSum1, vSum2, vSum3}, avSq[4] = {vSq0, vSq1, vSq2, vSq3};
  double adSum[8], adSq[8];
  std::memcpy(adSum, avSum, sizeof adSum);
  std::memcpy(adSq, avSq, sizeof adSq);
  FinishFloatRow<bMinMax, bSums>(pRow, nLength, nVector,
                                 std::uint64_t(vRejected[0]) + vRejected[1] + vRejected[2] + vRejected[3], afMin, afMax,
                                 adSum, adSq, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
}

#ifdef ORL_HAS_AVX2_DISPATCH
// The float loop adds two doubles per pixel, which keeps SSE2's add units busier than memory is.
// Where the processor has AVX2 (asked once, at run time; nothing is built with -march) the same lanes
// run in one register. All vector code stays inside the functions compiled for AVX2 (and the load
// they share, always inlined into them); what they call takes plain arrays.

typedef float TV8F __attribute__((vector_size(32)));
typedef std::int32_t TV8I __attribute__((vector_size(32)));
typedef double TV4D __attribute__((vector_size(32)));

// Eight pixels from p; vReject gets all bits set in the lanes the predicate excludes, which
// vRejected counts (as -1 per lane). Always inlined into its AVX2 callers.
template <class TPredicate>
__attribute__((target("avx2"), always_inline)) inline TV8F LoadFloat8(const float* p, const TPredicate& oPredicate,
                                                                      TV8I& vReject, TV8I& vRejected)
{
  TV8F v;
  std::memcpy(&v, p, sizeof v);
  vReject = TV8I{};
  if constexpr (!std::is_same<TPredicate, SAcceptAll>::value)
    vReject = TV8I(v == float(oPredicate.GetExcludedValue()));
  vRejected -= vReject;
  return v;
}

template <bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
__attribute__((target("avx2"))) void FloatRowAvx2(const float* pRow, std::size_t nLength,
                                                  const TPredicate& oPredicate, std::uint64_t& nCount, float& tMin,
                                                  float& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
  TV8F vMin = TV8F{} + tMin, vMax = TV8F{} + tMax;
  TV4D vSum0 = {}, vSum1 = {}, vSq0 = {}, vSq1 = {};
  TV8I vRejected = {};
  const std::size_t nVector = nLength & ~std::size_t(7);
  for (std::size_t i = 0; i < nVector; i += 8)
  {
    PrefetchAhead(pRow + i);
    TV8I vReject;
    const TV8F v = LoadFloat8(pRow + i, oPredicate, vReject, vRejected);
    if constexpr (bMinMax)
    {
      const TV8F vCandidate = TV8F(TV8I(v) | vReject);
      vMin = vCandidate < vMin ? vCandidate : vMin;
      vMax = vCandidate > vMax ? vCandidate : vMax;
    }
    if constexpr (bSums)
    {
      const TV8F vTaken = TV8F(TV8I(v) & ~vReject);
      const TV4D vLow = __builtin_ia32_cvtps2pd256(__builtin_shufflevector(vTaken, vTaken, 0, 1, 2, 3));
      const TV4D vHigh = __builtin_ia32_cvtps2pd256(__builtin_shufflevector(vTaken, vTaken, 4, 5, 6, 7));
      vSum0 += vLow;
      vSum1 += vHigh;
      vSq0 += vLow * vLow;
      vSq1 += vHigh * vHigh;
    }
  }
  float afMin[8], afMax[8];
  std::memcpy(afMin, &vMin, sizeof afMin);
  std::memcpy(afMax, &vMax, sizeof afMax);
  double adSum[8], adSq[8];
  std::memcpy(adSum, &vSum0, 32);
  std::memcpy(adSum + 4, &vSum1, 32);
  std::memcpy(adSq, &vSq0, 32);
  std::memcpy(adSq + 4, &vSq1, 32);
  std::uint64_t nRejected = 0;
  for (int j = 0; j < 8; ++j)
    nRejected += std::uint32_t(vRejected[j]);
  FinishFloatRow<bMinMax, bSums>(pRow, nLength, nVector, nRejected, afMin, afMax, adSum, adSq, oPredicate, nCount,
                                 tMin, tMax, tSum, tSumSquares);
}
#endif

template <bool bMinMax, bool bSums, class TSum, class TSumSquares, class TPredicate>
inline void FloatRow(const float* pRow, std::size_t nLength, const TPredicate& oPredicate, std::uint64_t& nCount,
                     float& tMin, float& tMax, TSum& tSum, TSumSquares& tSumSquares)
{
#ifdef ORL_HAS_AVX2_DISPATCH
  if (HasAvx2())
    return FloatRowAvx2<bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
#endif
  FloatRowSse2<bMinMax, bSums>(pRow, nLength, oPredicate, nCount, tMin, tMax, tSum, tSumSquares);
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

// The bin of a pixel without a division. The rule stays RoundToBinNumber((v - min) / step), clamped
// to the last bin; here the quotient comes from a multiply by the reciprocal. In double,
// t = (v - min) * (1 / step) + 0.5 lies within (nBins + 2) * 2^-50 of the rule's rounded q + 0.5; in
// float (float pixels: v - min, the product and the sum each round by at most 2^-24 relative) within
// (nBins + 2) * 2^-22. Where t is more than m_dEpsilon (m_fEpsilon) from an integer, in [0, limit),
// truncating it gives the rule's bin; every other pixel (near a bin edge, outside the range, NaN)
// takes the rule itself. Past the limit too, the truncation clamped to the last bin is the rule's bin:
// the errors are relative, so such a t stands for a quotient past the last bin.
struct SFastBins
{
  SFastBins(double dMin, double dStep, std::uint32_t nBins)
    : m_dMin(dMin), m_dInverse(1.0 / dStep), m_dLimit(std::min(double(nBins) + 1.0, 2147483647.0)),
      m_dEpsilon((double(nBins) + 2.0) * 0x1p-46), m_fMin(float(dMin)), m_fInverse(float(1.0 / dStep)),
      m_fEpsilon(float((double(nBins) + 2.0) * 0x1p-20)), m_nLastBin(nBins - 1)
  {
  }

  // The bin, or nLastBin + 2 (no bin) when the rule has to decide.
  std::uint32_t Bin(double dValue) const
  {
    const double dT = (dValue - m_dMin) * m_dInverse + 0.5;
    if (dT >= 0.0 && dT < m_dLimit)
    {
      const auto nBin = std::uint32_t(dT);
      const double dFraction = dT - double(nBin);
      if (dFraction >= m_dEpsilon && dFraction <= 1.0 - m_dEpsilon)
        return std::min(nBin, m_nLastBin);
    }
    return m_nLastBin + 2;
  }

  // The float form pays where the margin leaves most pixels to it: up to 65536 bins (margin 2^-4).
  bool HasFloatForm() const { return m_nLastBin < 65536; }

  double m_dMin, m_dInverse, m_dLimit, m_dEpsilon;
  float m_fMin, m_fInverse, m_fEpsilon; // m_fMin exact for float pixels
  std::uint32_t m_nLastBin;
};

// Counts the pixels of a run that oPredicate accepts into nLanes (1 or 4) sub-histograms of nStride
// counters at pLanes: pixel i into lane i % nLanes, so that repeated bins do not wait on each other's
// increments. Counter nBins of each lane (past the last bin) takes the rejected pixels of the vector
// loop. fnExact(v) is the bin rule. Returns the number of pixels taken in.
template <class TPixel, class TPredicate, class TExact>
inline std::uint64_t BinRowScalar(const TPixel* pRow, std::size_t nLength, const TPredicate& oPredicate,
                                  const SFastBins& oBins, std::uint32_t* pLanes, std::size_t nStride,
                                  std::size_t nLanes, const TExact& fnExact)
{
  std::uint64_t nTaken = 0;
  const std::size_t nLaneMask = nLanes - 1;
  for (std::size_t i = 0; i < nLength; ++i)
  {
    const TPixel tValue = LoadPixel(pRow + i);
    if (!oPredicate(tValue))
      continue;
    std::uint32_t nBin = oBins.Bin(double(tValue));
    if (nBin > oBins.m_nLastBin)
      nBin = fnExact(tValue);
    ++pLanes[(i & nLaneMask) * nStride + nBin];
    ++nTaken;
  }
  return nTaken;
}

#ifdef ORL_HAS_AVX2_DISPATCH
// Float pixels, eight per step in float (the float form of SFastBins, which needs HasFloatForm()),
// into four lanes: pixel i of the run into lane i % 4. The pixels near an edge go by
// the rule, then eight scalar increments. Rejected pixels go to the counter past the last bin. Returns
// the number of pixels taken in.
//
// The eight counter offsets leave the vector register as four 64-bit halves (vmovq / vpextrq), each
// holding two offsets, rather than through a stored array that each increment reads back: that store
// and its eight loads cost about a quarter of the loop. Eight lanes were measured a little slower, on uniform values and on smooth surfaces alike (twice the counters in L1, while
// the increments of a repeated bin still follow one another closely).
template <class TPredicate, class TExact>
__attribute__((target("avx2"))) std::uint64_t FloatBinRowAvx2(const float* pRow, std::size_t nLength,
                                                              const TPredicate& oPredicate, const SFastBins& oBins,
                                                              std::uint32_t* pLanes, std::size_t nStride,
                                                              const TExact& fnExact)
{
  typedef std::uint64_t TV4Q __attribute__((vector_size(32)));
  const TV8F vMin = TV8F{} + oBins.m_fMin, vInverse = TV8F{} + oBins.m_fInverse, vHalf = TV8F{} + 0.5f;
  const TV8F vEpsilon = TV8F{} + oBins.m_fEpsilon;
  const TV8F vOneLess = TV8F{} + (1.0f - oBins.m_fEpsilon);
  const TV8I vLast = TV8I{} + std::int32_t(oBins.m_nLastBin), vNoBin = vLast + 1;
  const std::int32_t nS = std::int32_t(nStride);
  const TV8I vOffsets = {0, nS, 2 * nS, 3 * nS, 0, nS, 2 * nS, 3 * nS};
  constexpr std::size_t nLanes = 4;
  const std::size_t nVector = nLength & ~std::size_t(7);
  TV8I vRejected = {};
  for (std::size_t i = 0; i < nVector; i += 8)
  {
    PrefetchAhead(pRow + i);
    TV8I vReject;
    const TV8F v = LoadFloat8(pRow + i, oPredicate, vReject, vRejected);
    // No range test: the hardware conversion gives INT_MIN for NaN and values beyond 2^31, whose
    // fraction is then NaN or far from [0, 1); t < 0 truncates towards zero, which leaves a negative
    // fraction; and t >= limit with a good fraction is past the last bin, where the rule clamps too.
    const TV8F vT = (v - vMin) * vInverse + vHalf;
    const TV8I vBin = __builtin_ia32_cvttps2dq256(vT);
    const TV8F vFraction = vT - __builtin_convertvector(vBin, TV8F);
    const TV8I vOk = (TV8I(vFraction >= vEpsilon) & TV8I(vFraction <= vOneLess)) | vReject;
    TV8I vIndex = vBin < vLast ? vBin : vLast;
    vIndex = (vReject != 0 ? vNoBin : vIndex) + vOffsets;
    const int nOk = __builtin_ia32_movmskps256(TV8F(vOk));
    if (__builtin_expect(nOk == 0xff, 1))
    {
      const TV4Q vPairs = TV4Q(vIndex);
      const std::uint64_t n01 = vPairs[0], n23 = vPairs[1], n45 = vPairs[2], n67 = vPairs[3];
      ++pLanes[std::uint32_t(n01)];
      ++pLanes[n01 >> 32];
      ++pLanes[std::uint32_t(n23)];
      ++pLanes[n23 >> 32];
      ++pLanes[std::uint32_t(n45)];
      ++pLanes[n45 >> 32];
      ++pLanes[std::uint32_t(n67)];
      ++pLanes[n67 >> 32];
      continue;
    }
    std::int32_t anIndex[8];
    std::memcpy(anIndex, &vIndex, sizeof anIndex);
    for (int j = 0; j < 8; ++j)
      if (!((nOk >> j) & 1))
        anIndex[j] = std::int32_t(fnExact(LoadPixel(pRow + i + j)) + (std::size_t(j) % nLanes) * nStride);
    for (int j = 0; j < 8; ++j)
      ++pLanes[anIndex[j]];
  }
  std::uint64_t nRejected = 0;
  for (int j = 0; j < 8; ++j)
    nRejected += std::uint32_t(vRejected[j]);
  return (nVector - nRejected) +
         BinRowScalar(pRow + nVector, nLength - nVector, oPredicate, oBins, pLanes, nStride, nLanes, fnExact);
}
#endif

}}}} // namespace Orl::Harnel::Math::Detail
