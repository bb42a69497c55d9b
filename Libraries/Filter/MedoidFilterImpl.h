#pragma once

// Generic definitions of CMedoidFilter, for the units that instantiate it.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/MedoidFilter.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// N members of B values each, a chunk of pixels at a time: the members' values and validity go into
// chunk-wide arrays first (validity as 0 or 1 in the value type, so that the selects stay as wide as
// the values; invalid values as 0). Each pair of members is then measured once across the whole chunk
// and the distance added to both sums, in plain loops that the compiler vectorises. A member's sum
// takes the others in stack order, as a loop over all others would. The work is N * (N - 1) / 2 * B
// per pixel: for the stacks of compositing (a few dozen members at most) that beats sorting, and it
// is the same code for one value and for several. The medoid's values are kept as they are chosen,
// so that no member is read twice; the conversions to TCompute and back are exact.
template <class TPixel, bool BScalar>
struct SMedoidKernel
{
  using TCompute = TComputeOf<TPixel>;
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
          if (BScalar)
          {
            const TCompute* __restrict pM = fnRow(vecValues, m);
            const TCompute* __restrict pO = fnRow(vecValues, o);
            for (int i = 0; i < nCount; ++i)
              atDistance[i] = std::fabs(pM[i] - pO[i]);
          }
          else
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
          }
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
          const bool bTake = (pValid[i] != TCompute(0)) & (pSum[i] < atBest[i]);
          const TCompute tSum = pSum[i];
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
  SMedoidKernel<TPixel, BScalar> oKernel{NoDataTests(vecMembers), {}, int(vecMembers.size() / vecDest.size())};
  std::vector<decltype(BeginOf(*vecDest.front()))> vecDestBegins;
  for (TDest* pDest : vecDest)
  {
    oKernel.m_vecDestNoData.push_back(GetOutputNoDataValue(*pDest));
    vecDestBegins.push_back(BeginOf(*pDest));
  }
  const CFilterProgress oProgress(pLogger, "Apply Medoid Filter", vecDest.front()->GetHeight());
  WalkPixelwise(int(vecDest.front()->GetWidth()), int(vecDest.front()->GetHeight()), vecDestBegins,
                BeginsOf(vecMembers), oKernel, pLogger, "Perform Medoid Filter in several tasks");
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
