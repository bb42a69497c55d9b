#pragma once

// Generic definitions of CMaskFilter, for the units that instantiate it.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/MaskFilter.h"

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// The range comparator on the mask pixel converted to double: exact for every pixel type, so that
// the bounds need no rounding into the mask's type.
template <class TMaskPixel>
struct SOutsideRangeInDouble
{
  SOutsideRangeComparator<double> m_oRange;

  bool operator()(TMaskPixel tPixel) const { return m_oRange(double(tPixel)); }
};

template <class TPixel, class TMaskPixel, class TComparator>
struct SMaskKernel
{
  SNoDataTest<TPixel> m_oSrcNoData;
  TComparator m_oBlank;
  TPixel m_tNoData;

  void operator()(int n, TPixel* __restrict pDest, const TPixel* __restrict pSrc,
                  const TMaskPixel* __restrict pMask) const
  {
    const SNoDataTest<TPixel> oNoData = m_oSrcNoData;
    const TComparator oBlank = m_oBlank;
    const TPixel tNoData = m_tNoData;
    for (int i = 0; i < n; ++i)
    {
      const TPixel tValue = pSrc[i];
      pDest[i] = (oBlank(pMask[i]) | oNoData(tValue)) ? tNoData : tValue;
    }
  }
};

} // namespace Detail

template <class TDest, class TSrc, class TMask>
void CMaskFilter::Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask) const
{
  _Apply(oDest, oSrc, oMask, Detail::SEqualComparator<typename TMask::TPixel>{Detail::GetMaskMarker(oMask)});
}

template <class TDest, class TSrc, class TMask>
void CMaskFilter::Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask, double dLow, double dHigh) const
{
  _Apply(oDest, oSrc, oMask, Detail::SOutsideRangeInDouble<typename TMask::TPixel>{{dLow, dHigh}});
}

template <class TDest, class TSrc, class TMask, class TComparator>
void CMaskFilter::_Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask, const TComparator& oBlank) const
{
  using TPixel = typename TDest::TPixel;
  static_assert(std::is_same<TPixel, typename TSrc::TPixel>::value, "dest and src share a pixel type");
  Detail::CheckSameExtent(oDest, oSrc, m_strName);
  Detail::CheckSameExtent(oDest, oMask, m_strName);
  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Mask Filter", oDest.GetHeight());
  const Detail::SMaskKernel<TPixel, typename TMask::TPixel, TComparator> oKernel{
    Detail::NoDataTest(oSrc), oBlank, Detail::GetOutputNoDataValue(oDest)};
  Detail::WalkPixelwise(oDest, oKernel, m_pLogger, "Perform Mask Filter in several tasks", oSrc, oMask);
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
