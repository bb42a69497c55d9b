#pragma once

// Generic definitions of CIndexSelectorFilter, and the selection that CMultiIndexSelectorFilter
// runs once per output.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/IndexSelectorFilter.h"

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

template <class TPixel, class TIndexPixel>
struct SIndexSelectorKernel
{
  std::vector<SNoDataTest<TPixel>> m_vecNoData;
  SNoDataTest<TIndexPixel> m_oIndexNoData;
  TPixel m_tNoData;

  // A gather: one member's pixel per position, read before dest's pixel is written.
  void operator()(int n, TPixel* const* ppDest, const TPixel* const* ppStack, const TIndexPixel* pIndex) const
  {
    TPixel* pDest = ppDest[0];
    const std::size_t nMembers = m_vecNoData.size();
    for (int i = 0; i < n; ++i)
    {
      const TIndexPixel tIndex = pIndex[i];
      TPixel tValue = m_tNoData;
      if (!m_oIndexNoData(tIndex) && std::size_t(tIndex) < nMembers)
      {
        const TPixel tMember = ppStack[tIndex][i];
        tValue = m_vecNoData[tIndex](tMember) ? m_tNoData : tMember;
      }
      pDest[i] = tValue;
    }
  }
};

// The checks and the walk of one selection, with the progress layer of the caller.
template <class TDest, class TIndex, class TSrc>
void SelectByIndex(TDest& oDest, const TIndex& oIndex, const std::vector<TSrc>& vecStack,
                   const TFilterLoggerPtr& pLogger, const char* pLayerText)
{
  const SIndexSelectorKernel<typename TDest::TPixel, typename TIndex::TPixel> oKernel{
    NoDataTests(vecStack), NoDataTest(oIndex), GetOutputNoDataValue(oDest)};
  const std::vector<decltype(BeginOf(oDest))> vecDest{BeginOf(oDest)};
  WalkPixelwise(int(oDest.GetWidth()), int(oDest.GetHeight()), vecDest, BeginsOf(vecStack), oKernel, pLogger,
                pLayerText, BeginOf(oIndex));
}

} // namespace Detail

template <class TDest, class TIndex, class TSrc>
void CIndexSelectorFilter::Apply(TDest& oDest, const TIndex& oIndex, const std::vector<TSrc>& vecStack) const
{
  static_assert(std::is_same<typename TDest::TPixel, typename TSrc::TPixel>::value,
                "dest and stack share a pixel type");
  Detail::CheckNotEmpty(vecStack, GetName());
  Detail::CheckSameExtent(oDest, oIndex, GetName());
  Detail::CheckSameExtent(oDest, vecStack, GetName());
  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Index Selector Filter", oDest.GetHeight());
  Detail::SelectByIndex(oDest, oIndex, vecStack, m_pLogger, "Perform Index Selector Filter in several tasks");
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
