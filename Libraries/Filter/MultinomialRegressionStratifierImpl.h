#pragma once

// Generic definitions of CMultinomialRegressionStratifier, for the units that instantiate it.

#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/MultinomialRegressionStratifier.h"

#include <algorithm>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// A chunk of pixels at a time: validity, then class after class the score over the whole chunk.
template <class TPixel, class TClassPixel>
struct SStratifierKernel
{
  static constexpr int ms_nChunk = 128;
  std::vector<SNoDataTest<TPixel>> m_vecNoData;
  std::vector<double> m_vecCoefficients; // row-major, B + 1 per class
  std::vector<TClassPixel> m_vecClassValues;
  TClassPixel m_tNoData;

  void operator()(int n, TClassPixel* const* ppDest, const TPixel* const* ppBands) const
  {
    const std::size_t nBands = m_vecNoData.size();
    double adScore[ms_nChunk], adBest[ms_nChunk];
    int anBest[ms_nChunk];
    bool abInvalid[ms_nChunk];
    for (int nStart = 0; nStart < n; nStart += ms_nChunk)
    {
      const int nCount = std::min(ms_nChunk, n - nStart);
      std::fill_n(abInvalid, nCount, false);
      for (std::size_t b = 0; b < nBands; ++b)
      {
        const TPixel* __restrict p = ppBands[b] + nStart;
        for (int i = 0; i < nCount; ++i)
          abInvalid[i] |= m_vecNoData[b](p[i]) | (p[i] != p[i]);
      }
      for (std::size_t k = 0; k < m_vecClassValues.size(); ++k)
      {
        const double* pRow = &m_vecCoefficients[k * (nBands + 1)];
        std::fill_n(adScore, nCount, pRow[nBands]);
        for (std::size_t b = 0; b < nBands; ++b)
        {
          const TPixel* __restrict p = ppBands[b] + nStart;
          const double dCoefficient = pRow[b];
          for (int i = 0; i < nCount; ++i)
            adScore[i] += dCoefficient * double(p[i]);
        }
        for (int i = 0; i < nCount; ++i)
        {
          const bool bTake = k == 0 || adScore[i] > adBest[i];
          adBest[i] = bTake ? adScore[i] : adBest[i];
          anBest[i] = bTake ? int(k) : anBest[i];
        }
      }
      TClassPixel* pDest = ppDest[0] + nStart;
      for (int i = 0; i < nCount; ++i)
        pDest[i] = abInvalid[i] ? m_tNoData : m_vecClassValues[anBest[i]];
    }
  }
};

} // namespace Detail

template <class TDest, class TSrc>
void CMultinomialRegressionStratifier::Apply(TDest& oDest, const std::vector<TSrc>& vecBands) const
{
  using TClassPixel = typename TDest::TPixel;
  Detail::CheckNotEmpty(vecBands, m_strName);
  if (m_matCoefficients.size1() == 0)
    Detail::ThrowFilterError(__FILE__, __LINE__, Detail::FormatMessage("%1%: no coefficients", m_strName));
  Detail::CheckCount(m_matCoefficients.size2(), vecBands.size() + 1, "coefficient columns", m_strName);
  if (!m_vecClasses.empty())
    Detail::CheckCount(m_vecClasses.size(), m_matCoefficients.size1(), "classes", m_strName);
  Detail::CheckSameExtent(oDest, vecBands, m_strName);

  Detail::SStratifierKernel<typename TSrc::TPixel, TClassPixel> oKernel;
  oKernel.m_vecNoData = Detail::NoDataTests(vecBands);
  oKernel.m_vecCoefficients.assign(m_matCoefficients.data().begin(), m_matCoefficients.data().end());
  for (std::size_t k = 0; k < m_matCoefficients.size1(); ++k)
    oKernel.m_vecClassValues.push_back(
      Detail::RoundToPixel<TClassPixel>(double(m_vecClasses.empty() ? unsigned(k) : m_vecClasses[k])));
  oKernel.m_tNoData = Detail::GetOutputNoDataValue(oDest);

  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Multinomial Regression Stratifier", oDest.GetHeight());
  const std::vector<decltype(Detail::BeginOf(oDest))> vecDest{Detail::BeginOf(oDest)};
  Detail::WalkPixelwise(int(oDest.GetWidth()), int(oDest.GetHeight()), vecDest, Detail::BeginsOf(vecBands), oKernel,
                        m_pLogger, "Perform Multinomial Regression Stratifier in several tasks");
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
