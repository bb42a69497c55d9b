#pragma once

// Generic definitions of CHistogramEqualizationFilter. Included by the unit that instantiates it.
//
// The mapping is worked out once per call from the histogram: a table from bin to output value.
// 8- and 16-bit pixels then go through one table indexed by the pixel value itself (256 or 65536
// entries, no-data included), so the pixel loop is a single load; wider pixels compute their bin as
// the histogram does (nearest bin centre, clamped) and look the bin up. The pixel loop runs on the
// row runs of both bands in place, in parallel blocks of rows.

#include "Band/Detail/RowRuns.h"
#include "Filter/Detail/RowBuffers.h"
#include "Filter/HistogramEqualizationFilter.h"
#include "Math/Detail/RowKernels.h"

#include <limits>
#include <type_traits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// Runs fn(pSrc, pDest, n) over all runs of two bands of one size, in parallel blocks of rows.
template <class TSrcIt, class TDestIt, class TFn>
void MapRuns(const TSrcIt& itSrc, const TDestIt& itDest, int nWidth, int nHeight,
             const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger, const TFn& fn)
{
  ParallelBlocks(nHeight, 64, [&](int nBegin, int nEnd) {
    TSrcIt itS = itSrc;
    TDestIt itD = itDest;
    if (nBegin != 0)
    {
      itS += Pravik::GraphObject2d::CPoint<int>(0, nBegin);
      itD += Pravik::GraphObject2d::CPoint<int>(0, nBegin);
    }
    Band::Detail::WalkRectRuns(itS, itD, nWidth, nEnd - nBegin, fn);
    if (pLogger)
      pLogger->IncrementProgress(double(nEnd - nBegin));
  });
}

} // namespace Detail

template <class TDest, class TSrc>
void CHistogramEqualizationFilter::Apply(TDest& oDest, const TSrc& oSrc) const
{
  static_assert(std::is_same<typename TDest::TPixel, typename TSrc::TPixel>::value, "one pixel type");
  using TPixel = typename TSrc::TPixel;
  if (oDest.GetWidth() != oSrc.GetWidth() || oDest.GetHeight() != oSrc.GetHeight())
    Detail::ThrowBadArgument(__FILE__, __LINE__, "%1%: destination and source must have one size", m_strName);
  const int nWidth = int(oSrc.GetWidth()), nHeight = int(oSrc.GetHeight());
  if (nWidth == 0 || nHeight == 0)
    return;
  Detail::PushFilterLayer(m_pLogger, "Apply Histogram Equalization Filter", double(nHeight));

  std::vector<unsigned long> vecHistogram;
  double dLow = 0.0, dStep = 1.0, dWidth = 1.0;
  unsigned long nMaxCount = 0;
  oSrc.GetHistogram(vecHistogram, dLow, dStep, dWidth, nMaxCount, false, m_pLogger);
  TPixel tMin, tMax;
  oSrc.GetMinMax(tMin, tMax, false, m_pLogger);

  // Bin to output value; empty when the band stays as it is.
  constexpr bool bFullRange = std::is_integral<TPixel>::value && sizeof(TPixel) <= 2;
  const double dLo = bFullRange ? double(std::numeric_limits<TPixel>::lowest()) : double(tMin);
  const double dHi = bFullRange ? double(std::numeric_limits<TPixel>::max()) : double(tMax);
  std::vector<TPixel> vecMap;
  {
    unsigned long nTotal = 0, nCdfMin = 0;
    for (unsigned long nCount : vecHistogram)
    {
      if (nTotal == 0)
        nCdfMin = nCount;
      nTotal += nCount;
    }
    if (nTotal > nCdfMin)
    {
      vecMap.resize(vecHistogram.size());
      unsigned long nCdf = 0;
      for (std::size_t i = 0; i < vecHistogram.size(); ++i)
      {
        nCdf += vecHistogram[i];
        const double dShare = double(nCdf > nCdfMin ? nCdf - nCdfMin : 0) / double(nTotal - nCdfMin);
        vecMap[i] = std::is_integral<TPixel>::value ? Detail::ToPixel<TPixel>(std::round(dShare * (dHi - dLo)) + dLo)
                                                    : TPixel(dLo + dShare * (dHi - dLo));
      }
    }
  }

  const bool bHasNoData = oSrc.HasNoDataValue();
  const TPixel tNoData = bHasNoData ? oSrc.GetNoDataValue() : TPixel(0);
  const TPixel tDestNoData = Detail::GetOutputNoDataValue(oDest);
  const auto itSrc = Detail::BeginOf(oSrc);
  const auto itDest = Detail::MutableBeginOf(oDest);
  const int nBins = int(vecHistogram.size());
  const auto fnBin = [&](TPixel tValue) {
    const std::uint32_t nIndex = Harnel::Math::Detail::RoundToBinNumber((double(tValue) - dLow) / dStep);
    return nIndex < std::uint32_t(nBins) ? int(nIndex) : double(tValue) < dLow ? 0 : nBins - 1;
  };

  if constexpr (std::is_integral<TPixel>::value && sizeof(TPixel) <= 2)
  {
    constexpr int nLowest = int(std::numeric_limits<TPixel>::lowest());
    std::vector<TPixel> vecValueMap(std::size_t(1) << (8 * sizeof(TPixel)));
    for (std::size_t i = 0; i < vecValueMap.size(); ++i)
    {
      const TPixel tValue = TPixel(int(i) + nLowest);
      vecValueMap[i] = vecMap.empty() ? tValue : vecMap[std::size_t(fnBin(tValue))];
    }
    if (bHasNoData)
      vecValueMap[std::size_t(int(tNoData) - nLowest)] = tDestNoData;
    const TPixel* pMap = vecValueMap.data() - nLowest;
    Detail::MapRuns(itSrc, itDest, nWidth, nHeight, m_pLogger, [pMap](const TPixel* pIn, TPixel* pOut, int nCount) {
      for (int i = 0; i < nCount; ++i)
        pOut[i] = pMap[pIn[i]];
    });
  }
  else
  {
    using TAcc = Detail::TSumType<TPixel>;
    const TAcc tLow = TAcc(dLow), tInverse = TAcc(1.0 / dStep);
    const TPixel* pMap = vecMap.data();
    const bool bIdentity = vecMap.empty();
    Detail::MapRuns(itSrc, itDest, nWidth, nHeight, m_pLogger, [&](const TPixel* pIn, TPixel* pOut, int nCount) {
      for (int i = 0; i < nCount; ++i)
      {
        const TPixel tValue = pIn[i];
        if (bIdentity || tValue != tValue)
          pOut[i] = tValue;
        else
        {
          const TAcc tPosition = (TAcc(tValue) - tLow) * tInverse + TAcc(0.5);
          const int nBin = tPosition < TAcc(1) ? 0 : tPosition >= TAcc(nBins) ? nBins - 1 : int(tPosition);
          pOut[i] = pMap[nBin];
        }
        if (bHasNoData && tValue == tNoData)
          pOut[i] = tDestNoData;
      }
    });
  }
  if (bHasNoData)
    oDest.SetNoDataValue(tDestNoData);
  if (m_pLogger)
    m_pLogger->Pop();
}

}}} // namespace Orl::Ostrel::Filter
