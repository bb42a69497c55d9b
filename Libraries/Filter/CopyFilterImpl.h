#pragma once

// Generic definitions of CCopyFilter, for the units that instantiate it.

#include "Filter/CopyFilter.h"
#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Math/Detail/CpuFeatures.h"

#include <cstdint>
#include <limits>
#include <type_traits>

#ifdef ORL_HAS_AVX2_DISPATCH
#include <immintrin.h>
#endif

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
    // Rounding to integers packs wide lanes into narrow ones: SSE2 has neither the blend nor the
    // unsigned 32-to-16-bit pack (both SSE4.1), so there the loop costs several instructions a pixel.
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
  // Float to 8- and 16-bit pixels is written out by hand: the compiler keeps the clamp's NaN rule as
  // compares and blends and spends about three times the instructions, enough to fall behind memory.
  // The other pairs are the plain loop compiled for AVX2.
  __attribute__((target("avx2"))) void _RunAvx2(int n, TTo* __restrict pDest, const TFrom* __restrict pSrc) const
  {
    int i = 0;
    if constexpr (std::is_same<TFrom, float>::value && sizeof(TTo) <= 2)
    {
      const SRoundConstants o(m_oSrcNoData, m_tNoData);
      constexpr int nStep = 32 / int(sizeof(TTo)); // one 256-bit store
      for (; i + nStep <= n; i += nStep)
      {
        const float* p = pSrc + i;
        __m256i vOut;
        if constexpr (sizeof(TTo) == 2)
          vOut = _mm256_permute4x64_epi64(_Pack(_Round(o, p), _Round(o, p + 8)), 0xd8);
        else
          vOut = _mm256_permutevar8x32_epi32(
            _mm256_packus_epi16(_Pack(_Round(o, p), _Round(o, p + 8)), _Pack(_Round(o, p + 16), _Round(o, p + 24))),
            _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDest + i), vOut);
      }
    }
    _Run(n - i, pDest + i, pSrc + i);
  }

  struct SRoundConstants
  {
    __attribute__((target("avx2"))) SRoundConstants(const SNoDataTest<TFrom>& oNoData, TTo tNoData)
      : m_vNoData(_mm256_set1_ps(float(oNoData.m_tValue))),
        m_vHasNoData(_mm256_castsi256_ps(_mm256_set1_epi32(oNoData.m_bHas ? -1 : 0))),
        m_vLow(_mm256_set1_ps(float(std::numeric_limits<TTo>::lowest()))),
        m_vHigh(_mm256_set1_ps(float(std::numeric_limits<TTo>::max()))), m_vHalf(_mm256_set1_ps(0.5f)),
        m_vMinusHalf(_mm256_set1_ps(-0.5f)), m_vDestNoData(_mm256_set1_epi32(std::int32_t(tNoData)))
    {
    }
    __m256 m_vNoData, m_vHasNoData, m_vLow, m_vHigh, m_vHalf, m_vMinusHalf;
    __m256i m_vDestNoData;
  };

  // Eight pixels rounded as ToPixel does, in 32-bit lanes: MAXPS returns its second operand for NaN,
  // which makes max(v, lowest) the clamp's NaN rule; the fraction's compares give -1 for a step.
  __attribute__((target("avx2"), always_inline)) static inline __m256i _Round(const SRoundConstants& o,
                                                                                const float* p)
  {
    const __m256 v = _mm256_loadu_ps(p);
    const __m256 vInvalid = _mm256_or_ps(_mm256_and_ps(_mm256_cmp_ps(v, o.m_vNoData, _CMP_EQ_OQ), o.m_vHasNoData),
                                         _mm256_cmp_ps(v, v, _CMP_UNORD_Q));
    const __m256 vClamped = _mm256_min_ps(_mm256_max_ps(v, o.m_vLow), o.m_vHigh);
    const __m256i vTruncated = _mm256_cvttps_epi32(vClamped);
    const __m256 vFraction = _mm256_sub_ps(vClamped, _mm256_cvtepi32_ps(vTruncated));
    const __m256i vRounded =
      _mm256_add_epi32(_mm256_sub_epi32(vTruncated, _mm256_castps_si256(_mm256_cmp_ps(vFraction, o.m_vHalf, _CMP_GE_OQ))),
                       _mm256_castps_si256(_mm256_cmp_ps(vFraction, o.m_vMinusHalf, _CMP_LE_OQ)));
    return _mm256_blendv_epi8(vRounded, o.m_vDestNoData, _mm256_castps_si256(vInvalid));
  }

  // Two vectors of rounded lanes as 16-bit values, in lane order (a0-3 b0-3 | a4-7 b4-7); the lanes
  // lie in TTo's range already, so the saturating pack only narrows.
  __attribute__((target("avx2"), always_inline)) static inline __m256i _Pack(__m256i a, __m256i b)
  {
    if constexpr (std::is_signed<TTo>::value)
      return _mm256_packs_epi32(a, b);
    else
      return _mm256_packus_epi32(a, b);
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
