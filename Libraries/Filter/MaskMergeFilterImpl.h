#pragma once

// Generic definitions of CMaskMergeFilter, for the units that instantiate it.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/MaskMergeFilter.h"

#include <algorithm>
#include <numeric>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// Votes a chunk of pixels at a time, mask after mask, so that each inner loop is a plain vector
// loop; the chunk is voted in full before its destination pixels are written.
template <class TPixel>
struct SMaskMergeKernel
{
  static constexpr int ms_nChunk = 256;
  std::vector<double> m_vecWeights;
  std::vector<TPixel> m_vecMarkers;
  double m_dHalfTotal;
  TPixel m_tSet;
  TPixel m_tUnset;

  void operator()(int n, TPixel* const* ppDest, const TPixel* const* ppMasks) const
  {
    TPixel* pDest = ppDest[0];
    double adVote[ms_nChunk];
    for (int nStart = 0; nStart < n; nStart += ms_nChunk)
    {
      const int nCount = std::min(ms_nChunk, n - nStart);
      std::fill_n(adVote, nCount, 0.0);
      for (std::size_t k = 0; k < m_vecWeights.size(); ++k)
      {
        const TPixel* __restrict pMask = ppMasks[k] + nStart;
        const TPixel tMarker = m_vecMarkers[k];
        const double dWeight = m_vecWeights[k];
        for (int i = 0; i < nCount; ++i)
          adVote[i] += pMask[i] != tMarker ? dWeight : 0.0;
      }
      for (int i = 0; i < nCount; ++i)
        pDest[nStart + i] = adVote[i] >= m_dHalfTotal ? m_tSet : m_tUnset;
    }
  }
};

} // namespace Detail

template <class TDest, class TMask>
void CMaskMergeFilter::Apply(TDest& oDest, const std::vector<TMask>& vecMasks) const
{
  using TPixel = typename TDest::TPixel;
  static_assert(std::is_same<TPixel, typename TMask::TPixel>::value, "dest and masks share a pixel type");
  Detail::CheckNotEmpty(vecMasks, m_strName);
  if (!m_vecWeights.empty())
    Detail::CheckCount(m_vecWeights.size(), vecMasks.size(), "weights", m_strName);
  Detail::CheckSameExtent(oDest, vecMasks, m_strName);

  Detail::SMaskMergeKernel<TPixel> oKernel;
  oKernel.m_vecWeights = m_vecWeights.empty() ? std::vector<double>(vecMasks.size(), 1.0) : m_vecWeights;
  for (const TMask& oMask : vecMasks)
    oKernel.m_vecMarkers.push_back(Detail::GetMaskMarker(oMask));
  oKernel.m_dHalfTotal = 0.5 * std::accumulate(oKernel.m_vecWeights.begin(), oKernel.m_vecWeights.end(), 0.0);
  oKernel.m_tUnset = Detail::GetMaskMarker(oDest);
  oKernel.m_tSet = TPixel(oKernel.m_tUnset == TPixel(1) ? 0 : 1);

  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Mask Merge Filter", oDest.GetHeight());
  const std::vector<decltype(Detail::BeginOf(oDest))> vecDest{Detail::BeginOf(oDest)};
  Detail::WalkPixelwise(int(oDest.GetWidth()), int(oDest.GetHeight()), vecDest, Detail::BeginsOf(vecMasks), oKernel,
                        m_pLogger, "Perform Mask Merge Filter in several tasks");
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
