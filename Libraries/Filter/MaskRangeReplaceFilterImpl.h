#pragma once

// Generic definitions of CMaskRangeReplaceFilter, for the units that instantiate it.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/MaskRangeReplaceFilter.h"

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

template <class TPixel>
struct SRangeReplaceKernel
{
  SNoDataTest<TPixel> m_oSrcNoData;
  double m_dLow, m_dHigh;
  bool m_bInside;
  TPixel m_tReplacement;
  TPixel m_tNoData;

  // No __restrict: dest may be src.
  void operator()(int n, TPixel* pDest, const TPixel* pSrc) const
  {
    const SNoDataTest<TPixel> oNoData = m_oSrcNoData;
    const double dLow = m_dLow, dHigh = m_dHigh;
    const bool bInside = m_bInside;
    const TPixel tReplacement = m_tReplacement, tNoData = m_tNoData;
    for (int i = 0; i < n; ++i)
    {
      const TPixel v = pSrc[i];
      const double d = double(v);
      const bool bIn = (d >= dLow) & (d <= dHigh);
      const bool bOut = (d < dLow) | (d > dHigh);
      const bool bHit = (bInside & bIn) | (!bInside & bOut);
      pDest[i] = oNoData(v) ? tNoData : (bHit ? tReplacement : v);
    }
  }
};

} // namespace Detail

template <class TDest, class TSrc>
void CMaskRangeReplaceFilter::Apply(TDest& oDest, const TSrc& oSrc) const
{
  using TPixel = typename TDest::TPixel;
  static_assert(std::is_same<TPixel, typename TSrc::TPixel>::value, "dest and src share a pixel type");
  Detail::CheckSameExtent(oDest, oSrc, m_strName);
  const TPixel tNoData = Detail::GetOutputNoDataValue(oDest);
  const Detail::SRangeReplaceKernel<TPixel> oKernel{
    Detail::NoDataTest(oSrc), m_dLow, m_dHigh, m_bInside,
    Detail::ToPixel<TPixel>(m_dValue, m_bToNoData, tNoData), tNoData};
  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Mask Range Replace Filter", oDest.GetHeight());
  Detail::WalkPixelwise(oDest, oKernel, m_pLogger, "Perform Mask Range Replace Filter in several tasks", oSrc);
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
