#pragma once

// Generic definitions of CMinMaxBinaryFilter, for the units that instantiate it.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/MinMaxBinaryFilter.h"

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

template <class TPixel>
struct SMinMaxKernel
{
  SNoDataTest<TPixel> m_oNoDataA;
  SNoDataTest<TPixel> m_oNoDataB;
  TPixel m_tNoDataMin;
  TPixel m_tNoDataMax;

  template <class TUnused>
  void operator()(int n, TPixel* const* ppDest, TUnused, const TPixel* pA, const TPixel* pB) const
  {
    TPixel* pMin = ppDest[0];
    TPixel* pMax = ppDest[1];
    const SNoDataTest<TPixel> oNoDataA = m_oNoDataA, oNoDataB = m_oNoDataB;
    const TPixel tNoDataMin = m_tNoDataMin, tNoDataMax = m_tNoDataMax;
    for (int i = 0; i < n; ++i)
    {
      const TPixel a = pA[i], b = pB[i];
      const bool bInvalid = oNoDataA(a) | oNoDataB(b) | (a != a) | (b != b);
      const TPixel tMin = b < a ? b : a, tMax = a < b ? b : a;
      pMin[i] = bInvalid ? tNoDataMin : tMin;
      pMax[i] = bInvalid ? tNoDataMax : tMax;
    }
  }
};

} // namespace Detail

template <class TDest, class TSrc>
void CMinMaxBinaryFilter::Apply(TDest& oDestMin, TDest& oDestMax, const TSrc& oA, const TSrc& oB) const
{
  using TPixel = typename TDest::TPixel;
  static_assert(std::is_same<TPixel, typename TSrc::TPixel>::value, "all bands share a pixel type");
  Detail::CheckSameExtent(oDestMin, oDestMax, m_strName);
  Detail::CheckSameExtent(oDestMin, oA, m_strName);
  Detail::CheckSameExtent(oDestMin, oB, m_strName);
  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Min Max Binary Filter", oDestMin.GetHeight());
  const Detail::SMinMaxKernel<TPixel> oKernel{Detail::NoDataTest(oA), Detail::NoDataTest(oB),
                                              Detail::GetOutputNoDataValue(oDestMin),
                                              Detail::GetOutputNoDataValue(oDestMax)};
  const std::vector<decltype(Detail::BeginOf(oDestMin))> vecDest{Detail::BeginOf(oDestMin), Detail::BeginOf(oDestMax)};
  Detail::WalkPixelwise(int(oDestMin.GetWidth()), int(oDestMin.GetHeight()), vecDest, decltype(vecDest)(), oKernel,
                        m_pLogger, "Perform Min Max Binary Filter in several tasks", Detail::BeginOf(oA),
                        Detail::BeginOf(oB));
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
