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
// chunk-wide arrays first (validity as 0 or 1 in the value type, so that the selects stay as wide
// as the values; invalid values as 0), then every
// pair of members is compared across the whole chunk, which the compiler turns into vector loops.
// The work is N * N * B per pixel; for the stacks of compositing (a few dozen members at most) that
// beats sorting, and it is the same code for one value and for several.
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
    const int nBands = int(m_vecDestNoData.size());
    std::vector<TCompute> vecValues(std::size_t(m_nMembers) * nBands * ms_nChunk);
    std::vector<TCompute> vecValid(std::size_t(m_nMembers) * ms_nChunk);
    TCompute atSum[ms_nChunk], atBest[ms_nChunk], atDistance[ms_nChunk];
    int anBest[ms_nChunk];
    for (int nStart = 0; nStart < n; nStart += ms_nChunk)
    {
      const int nCount = std::min(ms_nChunk, n - nStart);
      for (int m = 0; m < m_nMembers; ++m)
      {
        TCompute* __restrict pValid = &vecValid[std::size_t(m) * ms_nChunk];
        std::fill_n(pValid, nCount, TCompute(1));
        for (int b = 0; b < nBands; ++b)
        {
          const TPixel* __restrict pSrc = ppStack[m * nBands + b] + nStart;
          const SNoDataTest<TPixel> oNoData = m_vecNoData[std::size_t(m) * nBands + b];
          for (int i = 0; i < nCount; ++i)
            pValid[i] = (oNoData(pSrc[i]) | (pSrc[i] != pSrc[i])) ? TCompute(0) : pValid[i];
        }
        for (int b = 0; b < nBands; ++b)
        {
          const TPixel* __restrict pSrc = ppStack[m * nBands + b] + nStart;
          TCompute* __restrict pValue = &vecValues[(std::size_t(m) * nBands + b) * ms_nChunk];
          for (int i = 0; i < nCount; ++i)
            pValue[i] = pValid[i] != TCompute(0) ? TCompute(pSrc[i]) : TCompute(0);
        }
      }
      std::fill_n(atBest, nCount, std::numeric_limits<TCompute>::infinity());
      std::fill_n(anBest, nCount, -1);
      for (int m = 0; m < m_nMembers; ++m)
      {
        std::fill_n(atSum, nCount, TCompute(0));
        for (int o = 0; o < m_nMembers; ++o)
        {
          const TCompute* __restrict pValid = &vecValid[std::size_t(o) * ms_nChunk];
          if (BScalar)
          {
            const TCompute* __restrict pM = &vecValues[std::size_t(m) * ms_nChunk];
            const TCompute* __restrict pO = &vecValues[std::size_t(o) * ms_nChunk];
            for (int i = 0; i < nCount; ++i)
              atSum[i] += pValid[i] != TCompute(0) ? std::fabs(pM[i] - pO[i]) : TCompute(0);
          }
          else
          {
            std::fill_n(atDistance, nCount, TCompute(0));
            for (int b = 0; b < nBands; ++b)
            {
              const TCompute* __restrict pM = &vecValues[(std::size_t(m) * nBands + b) * ms_nChunk];
              const TCompute* __restrict pO = &vecValues[(std::size_t(o) * nBands + b) * ms_nChunk];
              for (int i = 0; i < nCount; ++i)
                atDistance[i] += (pM[i] - pO[i]) * (pM[i] - pO[i]);
            }
            for (int i = 0; i < nCount; ++i)
              atSum[i] += pValid[i] != TCompute(0) ? std::sqrt(atDistance[i]) : TCompute(0);
          }
        }
        const TCompute* __restrict pValid = &vecValid[std::size_t(m) * ms_nChunk];
        for (int i = 0; i < nCount; ++i)
        {
          const bool bTake = (pValid[i] != TCompute(0)) & (atSum[i] < atBest[i]);
          atBest[i] = bTake ? atSum[i] : atBest[i];
          anBest[i] = bTake ? m : anBest[i];
        }
      }
      // Every input of the chunk has been read: writing dest cannot change what was compared.
      for (int b = 0; b < nBands; ++b)
        for (int i = 0; i < nCount; ++i)
          ppDest[b][nStart + i] =
            anBest[i] < 0 ? m_vecDestNoData[b] : ppStack[anBest[i] * nBands + b][nStart + i];
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
