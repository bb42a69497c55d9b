#pragma once

// Generic definitions of CMedoidFilter, for the units that instantiate it.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/MedoidFilter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// The scalar medoid by ranks, a chunk of pixels at a time. With distance |x - y| the sum of a
// member's distances to the n valid members is least exactly where at most n / 2 of them lie below
// its value and at most n / 2 above (the median members), so counting replaces summing: no
// rounding, no overflow, infinities included. Invalid members become NaN, which is neither below
// nor above anything. Each member is compared with the others four at a time across the chunk, its
// two counts held in chunk-wide arrays, in plain loops that vectorise: N * N compares of each kind
// per pixel, and the member is taken or not as soon as it is counted. Values and counts are as wide
// as each other (float and int for pixels of up to 16 bits and float, double and 64-bit counts for
// the rest), so the compare masks need no narrowing.
template <class TPixel>
struct SMedianMemberKernel
{
  using TValue = typename std::conditional<(sizeof(TPixel) <= 2 || std::is_same<TPixel, float>::value), float,
                                           double>::type;
  using TCount = typename std::conditional<sizeof(TValue) == 4, std::int32_t, std::int64_t>::type;
  static constexpr int ms_nChunk = 64;
  std::vector<SNoDataTest<TPixel>> m_vecNoData;
  TPixel m_tDestNoData;

  void operator()(int n, TPixel* const* ppDest, const TPixel* const* ppStack) const
  {
    const int nMembers = int(m_vecNoData.size());
    std::vector<TValue> vecValues(std::size_t(nMembers) * ms_nChunk);
    TCount anValid[ms_nChunk], anHalf[ms_nChunk], anFound[ms_nChunk], anBelow[ms_nChunk], anAbove[ms_nChunk];
    TValue atBest[ms_nChunk];
    for (int nStart = 0; nStart < n; nStart += ms_nChunk)
    {
      const int nCount = std::min(ms_nChunk, n - nStart);
      std::fill_n(anValid, nCount, TCount(0));
      for (int m = 0; m < nMembers; ++m)
      {
        const TPixel* __restrict pSrc = ppStack[m] + nStart;
        const SNoDataTest<TPixel> oNoData = m_vecNoData[std::size_t(m)];
        TValue* __restrict pValue = &vecValues[std::size_t(m) * ms_nChunk];
        for (int i = 0; i < nCount; ++i)
        {
          const TPixel t = pSrc[i];
          const bool bInvalid = oNoData(t) | (t != t);
          pValue[i] = bInvalid ? std::numeric_limits<TValue>::quiet_NaN() : TValue(t);
          anValid[i] += TCount(!bInvalid);
        }
      }
      for (int i = 0; i < nCount; ++i)
        anHalf[i] = anValid[i] / 2;
      std::fill_n(anFound, nCount, TCount(0));
      std::fill_n(atBest, nCount, TValue(0));
      for (int m = 0; m < nMembers; ++m)
      {
        const TValue* __restrict pM = &vecValues[std::size_t(m) * ms_nChunk];
        std::fill_n(anBelow, nCount, TCount(0));
        std::fill_n(anAbove, nCount, TCount(0));
        int o = 0;
        for (; o + 4 <= nMembers; o += 4)
        {
          const TValue* __restrict p0 = &vecValues[std::size_t(o) * ms_nChunk];
          const TValue* __restrict p1 = p0 + ms_nChunk;
          const TValue* __restrict p2 = p1 + ms_nChunk;
          const TValue* __restrict p3 = p2 + ms_nChunk;
          for (int i = 0; i < nCount; ++i)
          {
            const TValue x = pM[i];
            anBelow[i] += TCount(p0[i] < x) + TCount(p1[i] < x) + TCount(p2[i] < x) + TCount(p3[i] < x);
            anAbove[i] += TCount(p0[i] > x) + TCount(p1[i] > x) + TCount(p2[i] > x) + TCount(p3[i] > x);
          }
        }
        for (; o < nMembers; ++o)
        {
          const TValue* __restrict pO = &vecValues[std::size_t(o) * ms_nChunk];
          for (int i = 0; i < nCount; ++i)
          {
            anBelow[i] += TCount(pO[i] < pM[i]);
            anAbove[i] += TCount(pO[i] > pM[i]);
          }
        }
        for (int i = 0; i < nCount; ++i)
        {
          const TValue tValue = pM[i];
          const bool bTake = (anFound[i] == 0) & (tValue == tValue) & (anBelow[i] <= anHalf[i]) &
                             (anAbove[i] <= anHalf[i]);
          atBest[i] = bTake ? tValue : atBest[i];
          anFound[i] = bTake ? TCount(1) : anFound[i];
        }
      }
      // Every input of the chunk has been read: writing dest cannot change what was compared.
      TPixel* pDest = ppDest[0] + nStart;
      const TPixel tNoData = m_tDestNoData;
      for (int i = 0; i < nCount; ++i)
      {
        const TPixel tValue = TPixel(atBest[i]);
        pDest[i] = anFound[i] != 0 ? tValue : tNoData;
      }
    }
  }
};

// The vector medoid: N members of B values each, a chunk of pixels at a time, sums of Euclidean
// distances in double. The members' values and validity go into chunk-wide arrays first (validity
// as 0 or 1 in double, so that the selects stay as wide as the values; invalid values as 0). Each
// pair of members is then measured once across the whole chunk and the distance added to both sums,
// in plain loops that vectorise. A member's sum takes the others in stack order, as a loop over all
// others would. A sum that is not finite (double members beyond about 1e154, or infinite ones)
// ranks after every finite one, and a NaN sum as infinity: some valid member is always chosen. The
// medoid's values are kept as they are chosen, so that no member is read twice; the conversions to
// double and back are exact.
template <class TPixel>
struct SMedoidKernel
{
  using TCompute = double;
  static constexpr int ms_nChunk = 64;
  std::vector<SNoDataTest<TPixel>> m_vecNoData; // per band of the stack
  std::vector<TPixel> m_vecDestNoData;          // per destination
  int m_nMembers;

  void operator()(int n, TPixel* const* ppDest, const TPixel* const* ppStack) const
  {
    const int nBands = int(m_vecDestNoData.size()), nMembers = m_nMembers;
    const auto fnRow = [](std::vector<TCompute>& vec, std::size_t nRow) { return &vec[nRow * ms_nChunk]; };
    std::vector<TCompute> vecValues(std::size_t(nMembers) * nBands * ms_nChunk), vecValid(nMembers * ms_nChunk),
      vecSums(nMembers * ms_nChunk), vecBestValues(std::size_t(nBands) * ms_nChunk);
    TCompute atDistance[ms_nChunk], atBest[ms_nChunk], atFound[ms_nChunk], atTake[ms_nChunk];
    for (int nStart = 0; nStart < n; nStart += ms_nChunk)
    {
      const int nCount = std::min(ms_nChunk, n - nStart);
      for (int m = 0; m < nMembers; ++m)
      {
        TCompute* __restrict pValid = fnRow(vecValid, m);
        std::fill_n(pValid, nCount, TCompute(1));
        for (int b = 0; b < nBands; ++b)
        {
          const TPixel* __restrict pSrc = ppStack[m * nBands + b] + nStart;
          const SNoDataTest<TPixel> oNoData = m_vecNoData[std::size_t(m) * nBands + b];
          for (int i = 0; i < nCount; ++i)
          {
            const TPixel t = pSrc[i];
            const TCompute tValid = pValid[i];
            pValid[i] = (oNoData(t) | (t != t)) ? TCompute(0) : tValid;
          }
        }
        for (int b = 0; b < nBands; ++b)
        {
          const TPixel* __restrict pSrc = ppStack[m * nBands + b] + nStart;
          TCompute* __restrict pValue = fnRow(vecValues, std::size_t(m) * nBands + b);
          for (int i = 0; i < nCount; ++i)
          {
            const TCompute t = TCompute(pSrc[i]);
            pValue[i] = pValid[i] != TCompute(0) ? t : TCompute(0);
          }
        }
        std::fill_n(fnRow(vecSums, m), nCount, TCompute(0));
      }
      for (int m = 0; m < nMembers; ++m)
        for (int o = m + 1; o < nMembers; ++o)
        {
          std::fill_n(atDistance, nCount, TCompute(0));
          for (int b = 0; b < nBands; ++b)
          {
            const TCompute* __restrict pM = fnRow(vecValues, std::size_t(m) * nBands + b);
            const TCompute* __restrict pO = fnRow(vecValues, std::size_t(o) * nBands + b);
            for (int i = 0; i < nCount; ++i)
              atDistance[i] += (pM[i] - pO[i]) * (pM[i] - pO[i]);
          }
          for (int i = 0; i < nCount; ++i)
            atDistance[i] = std::sqrt(atDistance[i]);
          const TCompute* __restrict pValidM = fnRow(vecValid, m);
          const TCompute* __restrict pValidO = fnRow(vecValid, o);
          TCompute* __restrict pSumM = fnRow(vecSums, m);
          TCompute* __restrict pSumO = fnRow(vecSums, o);
          for (int i = 0; i < nCount; ++i)
          {
            const TCompute d = atDistance[i];
            const TCompute tSumM = pSumM[i] + d, tSumO = pSumO[i] + d;
            pSumM[i] = pValidO[i] != TCompute(0) ? tSumM : pSumM[i];
            pSumO[i] = pValidM[i] != TCompute(0) ? tSumO : pSumO[i];
          }
        }
      std::fill_n(atBest, nCount, std::numeric_limits<TCompute>::infinity());
      std::fill_n(atFound, nCount, TCompute(0));
      for (int m = 0; m < nMembers; ++m)
      {
        const TCompute* __restrict pValid = fnRow(vecValid, m);
        const TCompute* __restrict pSum = fnRow(vecSums, m);
        for (int i = 0; i < nCount; ++i)
        {
          const TCompute tSum = pSum[i] == pSum[i] ? pSum[i] : std::numeric_limits<TCompute>::infinity();
          const bool bTake = (pValid[i] != TCompute(0)) & ((atFound[i] == TCompute(0)) | (tSum < atBest[i]));
          atBest[i] = bTake ? tSum : atBest[i];
          atTake[i] = bTake ? TCompute(1) : TCompute(0);
          atFound[i] = bTake ? TCompute(1) : atFound[i];
        }
        for (int b = 0; b < nBands; ++b)
        {
          const TCompute* __restrict pValue = fnRow(vecValues, std::size_t(m) * nBands + b);
          TCompute* __restrict pBestValue = fnRow(vecBestValues, b);
          for (int i = 0; i < nCount; ++i)
          {
            const TCompute tValue = pValue[i], tBest = pBestValue[i];
            pBestValue[i] = atTake[i] != TCompute(0) ? tValue : tBest;
          }
        }
      }
      // Every input of the chunk has been read: writing dest cannot change what was compared.
      for (int b = 0; b < nBands; ++b)
      {
        const TCompute* __restrict pBestValue = fnRow(vecBestValues, b);
        const TPixel tNoData = m_vecDestNoData[b];
        TPixel* pDest = ppDest[b] + nStart;
        for (int i = 0; i < nCount; ++i)
        {
          const TPixel tValue = TPixel(pBestValue[i]);
          pDest[i] = atFound[i] != TCompute(0) ? tValue : tNoData;
        }
      }
    }
  }
};

template <bool BScalar, class TDest, class TSrc>
void ApplyMedoid(std::vector<TDest*> vecDest, const std::vector<TSrc>& vecMembers, const TFilterLoggerPtr& pLogger,
                 const std::string& strName)
{
  using TPixel = typename TDest::TPixel;
  static_assert(std::is_same<TPixel, typename TSrc::TPixel>::value, "dest and stack share a pixel type");
  CheckNotEmpty(vecMembers, strName);
  CheckSameExtent(*vecDest.front(), vecMembers, strName);
  for (TDest* pDest : vecDest)
    CheckSameExtent(*vecDest.front(), *pDest, strName);
  if (vecMembers.size() % vecDest.size() != 0)
    ThrowFilterError(__FILE__, __LINE__,
                     FormatMessage("%1%: %2% bands do not make members of %3% bands", strName, vecMembers.size(),
                                   vecDest.size()));
  std::vector<decltype(BeginOf(*vecDest.front()))> vecDestBegins;
  for (TDest* pDest : vecDest)
    vecDestBegins.push_back(BeginOf(*pDest));
  const CFilterProgress oProgress(pLogger, "Apply Medoid Filter", vecDest.front()->GetHeight());
  const auto fnWalk = [&](const auto& oKernel) {
    WalkPixelwise(int(vecDest.front()->GetWidth()), int(vecDest.front()->GetHeight()), vecDestBegins,
                  BeginsOf(vecMembers), oKernel, pLogger, "Perform Medoid Filter in several tasks");
  };
  if constexpr (BScalar)
    fnWalk(SMedianMemberKernel<TPixel>{NoDataTests(vecMembers), GetOutputNoDataValue(*vecDest.front())});
  else
  {
    SMedoidKernel<TPixel> oKernel{NoDataTests(vecMembers), {}, int(vecMembers.size() / vecDest.size())};
    for (TDest* pDest : vecDest)
      oKernel.m_vecDestNoData.push_back(GetOutputNoDataValue(*pDest));
    fnWalk(oKernel);
  }
  oProgress.End();
}

} // namespace Detail

template <class TDest, class TSrc>
void CMedoidFilter::Apply(TDest& oDest, const std::vector<TSrc>& vecStack) const
{
  Detail::ApplyMedoid<true>(std::vector<TDest*>{&oDest}, vecStack, m_pLogger, m_strName);
}

template <class TDest, class TSrc>
void CMedoidFilter::Apply(std::vector<TDest>& vecDest, const std::vector<TSrc>& vecMembers) const
{
  Detail::CheckNotEmpty(vecDest, m_strName);
  std::vector<TDest*> vecDestPointers;
  for (TDest& oDest : vecDest)
    vecDestPointers.push_back(&oDest);
  Detail::ApplyMedoid<false>(vecDestPointers, vecMembers, m_pLogger, m_strName);
}

}}} // namespace Orl::Ostrel::Filter
