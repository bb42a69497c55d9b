#pragma once

// The statistic calculator of a band representation: picks the rectangles, the path with or without
// no-data testing, runs the functors through ForEach2D / ForEach2DIf, reports progress and turns the
// sums into results.
//
// All seven pixel types are served. Integer pixels follow the same rules as unsigned char (exact
// sums, at most one bin per value, degenerate ranges widened upwards or downwards at the type's
// maximum); double follows float (double sums, at most 4096 bins, degenerate ranges stretched to
// zero). See FixHistogramRange.
//
// Mean and variance are the population moments from the raw sums: mean = sum / n and, for floating
// pixels, variance = sumsq / n - mean^2, unclamped. For integer pixels the sums are exact, and the
// variance is taken from them without the cancellation of that formula: with sum = q n + r,
// n * variance = (sumsq - q^2 n - 2 q r) - r^2 / n, whose first term is an exact integer. This is the
// same value up to rounding, but stays exact to the last bits for large 32-bit values with a small
// spread, where sumsq / n - mean^2 loses all digits.
//
// Required of TBandRep: GetStatistics(), GetApproxRects(), m_nWidth, m_nHeight, and a const
// GetBandIterators(const CRect<unsigned int>&) that returns a begin/end tuple of iterators.

#include "Band/ForEach2D.h"
#include "Band/GrayValueStatistics.h"
#include "Band/GrayValueStatisticsCalculator.h"
#include "Band/Tags.h"
#include "Foundation/Logger.h"
#include "Foundation/PixelTypes.h"
#include "Foundation/Rect.h"
#include "Internationalisation/Translator.h"
#include "Math/StatisticFunctors.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// Mean and variance from the running sums of count pixels (count > 0).
template <class TSum, class TSumSquares>
void FinishMoments(std::uint64_t nCount, TSum tSum, TSumSquares tSumSquares, double& dMean, double& dVariance)
{
  const double dCount = double(nCount);
  dMean = double(tSum) / dCount;
  if constexpr (std::is_floating_point<TSum>::value)
    dVariance = double(tSumSquares) / dCount - dMean * dMean;
  else
  {
    // |sum| <= 2^64, sumsq < 2^96, q^2 n <= 2^96: all fit in 128 bits.
    __extension__ typedef __int128 TInt128;
    const TInt128 nSum = TInt128(tSum), nCount128 = TInt128(nCount);
    const TInt128 nQuotient = nSum / nCount128, nRemainder = nSum % nCount128;
    const TInt128 nCentred = TInt128(tSumSquares) - nQuotient * nQuotient * nCount128 - 2 * nQuotient * nRemainder;
    const double dFraction = double(nRemainder) / dCount;
    dVariance = double(nCentred) / dCount - dFraction * dFraction;
  }
}

template <class TPixel, class TAcc, class TBandRep>
class CStatisticCalculator final : public CGrayValueStatisticsCalculator<TPixel, TAcc>
{
public:
  using TLoggerPtr = typename CGrayValueStatisticsCalculator<TPixel, TAcc>::TLoggerPtr;
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;

  // The representation outlives its calculator; the calculator does not own it.
  explicit CStatisticCalculator(TBandRep* pBandRep) : m_pBandRep(pBandRep) {}

  void CalcCounts(unsigned long& nValid, unsigned long& nInvalid, bool bApproximate, TLoggerPtr pLogger) override;
  void CalcMinMax(TPixel& tMin, TPixel& tMax, unsigned long& nValid, unsigned long& nInvalid, bool bApproximate,
                  TLoggerPtr pLogger) override;
  void CalcMeanVar(double& dMean, double& dVariance, unsigned long& nValid, unsigned long& nInvalid, bool bApproximate,
                   TLoggerPtr pLogger) override;
  void CalcMinMaxMeanVar(TPixel& tMin, TPixel& tMax, unsigned long& nValid, double& dMean, double& dVariance,
                         unsigned long& nInvalid, bool bApproximate, TLoggerPtr pLogger) override;
  void CalcHisto(std::vector<unsigned long>& vecHistogram, double& dMedian, double& dMode, unsigned int& nBins,
                 unsigned long& nMaxCount, double& dBinWidth, double& dBinStep, unsigned long& nValid,
                 unsigned long& nInvalid, const TPixel& tMin, const TPixel& tMax, bool bApproximate,
                 TLoggerPtr pLogger) override;

private:
  // How a traversal runs when the band has no no-data value. With one it is always ForEach2DIf, in
  // parallel, inside a layer of the calculator.
  enum EPlainPath
  {
    ePlainParallel, // ForEach2D in parallel, inside a layer
    ePlainSerial,   // the serial ForEach2D, no layer of its own: its rows land in the caller's layer
    ePlainNone      // no traversal at all
  };

  std::vector<TRect> _GetRects(bool bApproximate) const;

  // Runs oFunctor over all rectangles, carrying it from one into the next; nTotal is the sum of
  // their areas.
  template <class TFunctor>
  TFunctor _Accumulate(const std::vector<TRect>& vecRects, TFunctor oFunctor, bool bHasNoData, EPlainPath ePlainPath,
                       const char* pLayerText, const char* pDoneText, const TLoggerPtr& pLogger,
                       std::uint64_t& nTotal) const;

  TBandRep* m_pBandRep;
};

template <class TPixel, class TAcc, class TBandRep>
std::vector<typename CStatisticCalculator<TPixel, TAcc, TBandRep>::TRect>
CStatisticCalculator<TPixel, TAcc, TBandRep>::_GetRects(bool bApproximate) const
{
  if (bApproximate)
    return m_pBandRep->GetApproxRects();
  return {TRect(0, 0, m_pBandRep->m_nWidth, m_pBandRep->m_nHeight)};
}

template <class TPixel, class TAcc, class TBandRep>
template <class TFunctor>
TFunctor CStatisticCalculator<TPixel, TAcc, TBandRep>::_Accumulate(const std::vector<TRect>& vecRects,
                                                                   TFunctor oFunctor, bool bHasNoData,
                                                                   EPlainPath ePlainPath, const char* pLayerText,
                                                                   const char* pDoneText, const TLoggerPtr& pLogger,
                                                                   std::uint64_t& nTotal) const
{
  namespace Progress = Harnel::Progress;
  using Harnel::Internationalisation::CTranslator;
  const TBandRep& oRep = *m_pBandRep;
  const SValidDataPredicate<TPixel> oValid{bHasNoData ? oRep.GetStatistics().m_tNoDataValue : TPixel()};
  const bool bLayer = bHasNoData || ePlainPath == ePlainParallel;
  nTotal = 0;
  for (const TRect& oRect : vecRects)
  {
    nTotal += std::uint64_t(oRect.GetWidth()) * oRect.GetHeight();
    if (!bHasNoData && ePlainPath == ePlainNone)
      continue;
    if (pLogger && bLayer)
      pLogger->Push(CTranslator::Translate(pLayerText), 1.0, double(oRect.GetHeight()), 0.0, false,
                    Progress::eLayerOperation, Progress::eLayerPublic, std::string());
    const auto oIterators = oRep.GetBandIterators(oRect);
    if (bHasNoData)
      oFunctor = ForEach2DIf(oIterators, oValid, std::move(oFunctor), pLogger, SAllowParallelReduce());
    else if (ePlainPath == ePlainParallel)
      oFunctor = ForEach2D(oIterators, std::move(oFunctor), pLogger, SAllowParallelReduce());
    else
      oFunctor = ForEach2D(oIterators, std::move(oFunctor), pLogger);
    if (pLogger && bLayer)
    {
      pLogger->Pop();
      if (pDoneText)
        pLogger->Message(Progress::eVerbosityDetail, CTranslator::Translate(pDoneText), std::string());
    }
  }
  return oFunctor;
}

template <class TPixel, class TAcc, class TBandRep>
void CStatisticCalculator<TPixel, TAcc, TBandRep>::CalcCounts(unsigned long& nValid, unsigned long& nInvalid,
                                                              bool bApproximate, TLoggerPtr pLogger)
{
  const bool bHasNoData = m_pBandRep->GetStatistics().m_bHasNoDataValue;
  std::uint64_t nTotal;
  const auto oCount = _Accumulate(_GetRects(bApproximate), Harnel::Math::CCountFunctor<TPixel>(), bHasNoData,
                                  ePlainNone, "Calculating pixel counts", nullptr, pLogger, nTotal);
  nValid = bHasNoData ? oCount.m_nCount : nTotal; // without no-data no pixel is looked at
  nInvalid = nTotal - nValid;
}

template <class TPixel, class TAcc, class TBandRep>
void CStatisticCalculator<TPixel, TAcc, TBandRep>::CalcMinMax(TPixel& tMin, TPixel& tMax, unsigned long& nValid,
                                                              unsigned long& nInvalid, bool bApproximate,
                                                              TLoggerPtr pLogger)
{
  const bool bHasNoData = m_pBandRep->GetStatistics().m_bHasNoDataValue;
  std::uint64_t nTotal;
  const auto oMinMax = _Accumulate(_GetRects(bApproximate), Harnel::Math::CMinMaxFunctor<TPixel>(), bHasNoData,
                                   ePlainParallel, "Calculating Min/Max", nullptr, pLogger, nTotal);
  nValid = oMinMax.m_nCount;
  nInvalid = nTotal - oMinMax.m_nCount;
  // Without a no-data value the extremes stand as they are, so that an empty band answers with the
  // empty state (largest value as minimum, lowest as maximum).
  const bool bNone = bHasNoData && oMinMax.m_nCount == 0;
  tMin = bNone ? TPixel(0) : oMinMax.m_tMin;
  tMax = bNone ? TPixel(0) : oMinMax.m_tMax;
}

template <class TPixel, class TAcc, class TBandRep>
void CStatisticCalculator<TPixel, TAcc, TBandRep>::CalcMeanVar(double& dMean, double& dVariance, unsigned long& nValid,
                                                               unsigned long& nInvalid, bool bApproximate,
                                                               TLoggerPtr pLogger)
{
  const bool bHasNoData = m_pBandRep->GetStatistics().m_bHasNoDataValue;
  std::uint64_t nTotal;
  // Without no-data the serial ForEach2D: one thread, rows in order, bit for bit repeatable.
  const auto oMoments =
    _Accumulate(_GetRects(bApproximate), Harnel::Math::CMeanVarianceFunctor<TAcc, TPixel>(), bHasNoData, ePlainSerial,
                "Calculating Mean/Variance", nullptr, pLogger, nTotal);
  double dNewMean = 0.0, dNewVariance = 1.0; // nothing valid: a variance callers can divide by
  if (oMoments.m_nCount != 0)
    FinishMoments(oMoments.m_nCount, oMoments.m_tSum, oMoments.m_tSumSquares, dNewMean, dNewVariance);
  dMean = dNewMean;
  dVariance = dNewVariance;
  nValid = oMoments.m_nCount;
  nInvalid = nTotal - oMoments.m_nCount;
}

template <class TPixel, class TAcc, class TBandRep>
void CStatisticCalculator<TPixel, TAcc, TBandRep>::CalcMinMaxMeanVar(TPixel& tMin, TPixel& tMax, unsigned long& nValid,
                                                                     double& dMean, double& dVariance,
                                                                     unsigned long& nInvalid, bool bApproximate,
                                                                     TLoggerPtr pLogger)
{
  const bool bHasNoData = m_pBandRep->GetStatistics().m_bHasNoDataValue;
  std::uint64_t nTotal;
  const auto oMoments =
    _Accumulate(_GetRects(bApproximate), Harnel::Math::CMinMaxMeanVarianceFunctor<TAcc, TPixel>(), bHasNoData,
                ePlainParallel, "Calculating Min/Max/Mean/Var", "Done Calculating Min/Max/Mean/Var", pLogger, nTotal);
  double dNewMean = 0.0, dNewVariance = 1.0;
  if (oMoments.m_nCount != 0)
    FinishMoments(oMoments.m_nCount, oMoments.m_tSum, oMoments.m_tSumSquares, dNewMean, dNewVariance);
  tMin = oMoments.m_nCount != 0 ? oMoments.m_tMin : TPixel(0);
  tMax = oMoments.m_nCount != 0 ? oMoments.m_tMax : TPixel(0);
  dMean = dNewMean;
  dVariance = dNewVariance;
  nValid = oMoments.m_nCount;
  nInvalid = nTotal - oMoments.m_nCount;
}

template <class TPixel, class TAcc, class TBandRep>
void CStatisticCalculator<TPixel, TAcc, TBandRep>::CalcHisto(std::vector<unsigned long>& vecHistogram, double& dMedian,
                                                             double& dMode, unsigned int& nBins,
                                                             unsigned long& nMaxCount, double& dBinWidth,
                                                             double& dBinStep, unsigned long& nValid,
                                                             unsigned long& nInvalid, const TPixel& tMin,
                                                             const TPixel& tMax, bool bApproximate, TLoggerPtr pLogger)
{
  TPixel tLow = tMin, tHigh = tMax;
  FixHistogramRange(tLow, tHigh, nBins); // nBins is reduced even if the traversal fails
  const bool bHasNoData = m_pBandRep->GetStatistics().m_bHasNoDataValue;
  std::uint64_t nTotal;
  const auto oHisto = _Accumulate(_GetRects(bApproximate), Harnel::Math::CHistoFunctor<TAcc, TPixel>(tLow, tHigh, nBins),
                                  bHasNoData, ePlainParallel, "Calculating Histogram", "Done Calculating Histogram",
                                  pLogger, nTotal);
  nValid = oHisto.m_nCount;
  nInvalid = nTotal - oHisto.m_nCount;
  vecHistogram.clear();
  if (oHisto.m_nCount <= 2) // too few pixels for a histogram worth the name
  {
    nBins = 0;
    dBinWidth = 1.0;
    dBinStep = 1.0;
    nMaxCount = 0;
    dMedian = 0.0;
    dMode = 0.0;
    return;
  }
  vecHistogram.assign(oHisto.m_vecBins.begin(), oHisto.m_vecBins.end());
  dBinWidth = double(oHisto.m_dBinWidth);
  dBinStep = double(oHisto.m_dBinStep);
  const auto itMax = std::max_element(oHisto.m_vecBins.begin(), oHisto.m_vecBins.end()); // ties: the lowest bin
  nMaxCount = *itMax;
  dMedian = oHisto.GetPercentile(50.0);
  dMode = double(itMax - oHisto.m_vecBins.begin()) * double(oHisto.m_dBinStep) + double(oHisto.m_tMin);
}

#define ORL_STATISTIC_CALCULATOR_EXTERN(T)                                                              \
  extern template class CStatisticCalculator<T, double, CMemoryBandRep<T>>;                             \
  extern template class CStatisticCalculator<T, double, CTileBandRep<T>>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_STATISTIC_CALCULATOR_EXTERN)
#undef ORL_STATISTIC_CALCULATOR_EXTERN

}}}} // namespace Orl::Ostrel::Band::Detail
