#pragma once

// Generic definitions of CMultiRegressionPredictor, for the units that instantiate it.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/MultiRegressionPredictor.h"

#include <algorithm>
#include <limits>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

template <class TPixel>
struct SPredictorKernel
{
  static constexpr int ms_nChunk = 128;
  std::vector<SNoDataTest<TPixel>> m_vecNoData;
  std::vector<double> m_vecCoefficients; // B + 1, the last the intercept
  std::size_t m_nTarget;                  // B when there is none
  double m_dLow, m_dHigh;                 // infinities when not bounded
  TPixel m_tNoData;

  void operator()(int n, TPixel* const* ppDest, const TPixel* const* ppBands) const
  {
    const std::size_t nBands = m_vecNoData.size();
    double adPrediction[ms_nChunk];
    bool abInvalid[ms_nChunk];
    for (int nStart = 0; nStart < n; nStart += ms_nChunk)
    {
      const int nCount = std::min(ms_nChunk, n - nStart);
      std::fill_n(adPrediction, nCount, m_vecCoefficients[nBands]);
      std::fill_n(abInvalid, nCount, false);
      for (std::size_t b = 0; b < nBands; ++b)
      {
        if (b == m_nTarget)
          continue;
        const TPixel* __restrict p = ppBands[b] + nStart;
        const double dCoefficient = m_vecCoefficients[b];
        for (int i = 0; i < nCount; ++i)
        {
          abInvalid[i] |= m_vecNoData[b](p[i]) | (p[i] != p[i]);
          adPrediction[i] += dCoefficient * double(p[i]);
        }
      }
      TPixel* pDest = ppDest[0] + nStart;
      for (int i = 0; i < nCount; ++i)
      {
        const double d = adPrediction[i];
        pDest[i] = ToPixel<TPixel>(d < m_dLow ? m_dLow : (d > m_dHigh ? m_dHigh : d), abInvalid[i], m_tNoData);
      }
      if (m_nTarget < nBands)
      {
        const TPixel* __restrict p = ppBands[m_nTarget] + nStart;
        for (int i = 0; i < nCount; ++i)
          pDest[i] = (m_vecNoData[m_nTarget](p[i]) | (p[i] != p[i])) ? pDest[i] : p[i];
      }
    }
  }
};

} // namespace Detail

template <class TDest, class TSrc>
void CMultiRegressionPredictor::Apply(TDest& oDest, const std::vector<TSrc>& vecBands) const
{
  using TPixel = typename TDest::TPixel;
  static_assert(std::is_same<TPixel, typename TSrc::TPixel>::value, "dest and bands share a pixel type");
  Detail::CheckNotEmpty(vecBands, m_strName);
  Detail::CheckCount(m_vecCoefficients.size(), vecBands.size() + 1, "coefficients", m_strName);
  Detail::CheckSameExtent(oDest, vecBands, m_strName);

  Detail::SPredictorKernel<TPixel> oKernel;
  oKernel.m_vecNoData = Detail::NoDataTests(vecBands);
  oKernel.m_vecCoefficients.assign(m_vecCoefficients.begin(), m_vecCoefficients.end());
  oKernel.m_nTarget = std::min<std::size_t>(m_nParameter, vecBands.size());
  const bool bBounded = m_dFirst <= m_dSecond;
  oKernel.m_dLow = bBounded ? m_dFirst : -std::numeric_limits<double>::infinity();
  oKernel.m_dHigh = bBounded ? m_dSecond : std::numeric_limits<double>::infinity();
  oKernel.m_tNoData = Detail::GetOutputNoDataValue(oDest);

  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Multi Regression Predictor", oDest.GetHeight());
  const std::vector<decltype(Detail::BeginOf(oDest))> vecDest{Detail::BeginOf(oDest)};
  Detail::WalkPixelwise(int(oDest.GetWidth()), int(oDest.GetHeight()), vecDest, Detail::BeginsOf(vecBands), oKernel,
                        m_pLogger, "Perform Multi Regression Predictor in several tasks");
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
