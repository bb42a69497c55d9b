#pragma once

// Generic definitions of CCopyFilter, for the units that instantiate it.

#include "Filter/CopyFilter.h"
#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Math/Detail/CpuFeatures.h"

#include <type_traits>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

template <class TFrom, class TTo>
struct SCopyKernel
{
  SNoDataTest<TFrom> m_oSrcNoData;
  TTo m_tNoData;

  void operator()(int n, TTo* __restrict pDest, const TFrom* __restrict pSrc) const
  {
#ifdef ORL_HAS_AVX2_DISPATCH
    // Rounding to integers packs wide lanes into narrow ones: SSE2 has neither the truncating round
    // nor the unsigned pack, so there the loop costs several instructions a pixel.
    if constexpr (std::is_floating_point<TFrom>::value && std::is_integral<TTo>::value)
      if (Harnel::Math::Detail::HasAvx2())
        return _RunAvx2(n, pDest, pSrc);
#endif
    _Run(n, pDest, pSrc);
  }

private:
  __attribute__((always_inline)) inline void _Run(int n, TTo* __restrict pDest, const TFrom* __restrict pSrc) const
  {
    using TConvert = TConvertOf<TFrom, TTo>;
    const SNoDataTest<TFrom> oNoData = m_oSrcNoData;
    const TTo tNoData = m_tNoData;
    for (int i = 0; i < n; ++i)
    {
      const TFrom tValue = pSrc[i];
      pDest[i] = ToPixel<TTo>(TConvert(tValue), oNoData(tValue), tNoData);
    }
  }

#ifdef ORL_HAS_AVX2_DISPATCH
  __attribute__((target("avx2"))) void _RunAvx2(int n, TTo* __restrict pDest, const TFrom* __restrict pSrc) const
  {
    _Run(n, pDest, pSrc);
  }
#endif
};

} // namespace Detail

template <class TDest, class TSrc>
void CCopyFilter::Apply(TDest& oDest, const TSrc& oSrc) const
{
  Detail::CheckSameExtent(oDest, oSrc, m_strName);
  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Copy Filter", oDest.GetHeight());
  const Detail::SCopyKernel<typename TSrc::TPixel, typename TDest::TPixel> oKernel{Detail::NoDataTest(oSrc),
                                                                                   Detail::GetOutputNoDataValue(oDest)};
  Detail::WalkPixelwise(oDest, oKernel, m_pLogger, "Perform Copy Filter in several tasks", oSrc);
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
