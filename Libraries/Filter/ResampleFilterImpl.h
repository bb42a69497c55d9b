#pragma once

// Generic definitions of CResampleFilter. Included by the unit that instantiates it.
//
// Separable, in blocks of destination rows: a task takes a block, runs the horizontal taps over the
// source rows that the block's vertical taps read (row buffers, so memory and tile bands give the
// same bits), then the vertical taps over those rows, one destination row at a time. Rows at a
// block's edge are read by two tasks; against blocks of 32 rows that is a few percent more reading.
//
// With no-data, each horizontal pass carries a second row with the weight of the valid pixels; the
// vertical pass combines both, so the quotient is the 2-D sum over valid pixels divided by their
// 2-D weight: the renormalisation is exact, not per axis.

#include "Filter/Detail/RowBuffers.h"
#include "Filter/ResampleFilter.h"

#include <atomic>
#include <type_traits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

template <bool BNoData, class TPixel, class TSrcIt, class TDestIt>
void ResampleRows(const TSrcIt& itSrc, const TDestIt& itDest, EResampleKernel eKernel, int nSrcWidth,
                  int nSrcHeight, int nWidth, int nHeight, bool bHasNoData,
                  TPixel tNoData, TPixel tDestNoData, std::atomic<bool>& bWroteNoData,
                  const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  using TDestPixel = TPixel;
  using TAcc = TSumType<TPixel>;
  const auto oTapsX = MakeResampleTaps<TAcc>(eKernel, nSrcWidth, nWidth);
  const auto oTapsY = MakeResampleTaps<TAcc>(eKernel, nSrcHeight, nHeight);
  const int nBlock = 32;
  ParallelBlocks((nHeight + nBlock - 1) / nBlock, 1, [&](int nBlockBegin, int nBlockEnd) {
    const int nY0 = nBlockBegin * nBlock, nY1 = std::min(nHeight, nBlockEnd * nBlock);
    const auto oSpan = oTapsY.SourceSpan(nY0, nY1);
    const int nRows = oSpan.second - oSpan.first;
    std::vector<TPixel> vecIn(static_cast<std::size_t>(nSrcWidth));
    std::vector<TAcc> vecValue(static_cast<std::size_t>(nSrcWidth)), vecWeight(BNoData ? vecValue.size() : 0);
    std::vector<TAcc> vecRows(std::size_t(nRows) * nWidth), vecWeightRows(BNoData ? vecRows.size() : 0);
    std::vector<TDestPixel> vecOut(static_cast<std::size_t>(nWidth));
    CRowCursor<TSrcIt> oSrcRows(itSrc, 0, nSrcWidth);
    CRowCursor<TDestIt> oDestRows(itDest, 0, nWidth);

    for (int r = 0; r < nRows; ++r)
    {
      oSrcRows.Read(oSpan.first + r, vecIn.data());
      TAcc* pRow = vecRows.data() + std::size_t(r) * nWidth;
      if constexpr (BNoData)
      {
        for (int x = 0; x < nSrcWidth; ++x)
        {
          const bool bValid = IsValidPixel(vecIn[x], bHasNoData, tNoData);
          vecValue[x] = bValid ? TAcc(vecIn[x]) : TAcc(0);
          vecWeight[x] = bValid ? TAcc(1) : TAcc(0);
        }
        ApplyTaps(oTapsX, vecWeight.data(), vecWeightRows.data() + std::size_t(r) * nWidth, nWidth);
      }
      else
        std::copy(vecIn.begin(), vecIn.end(), vecValue.begin());
      ApplyTaps(oTapsX, vecValue.data(), pRow, nWidth);
    }

    std::vector<TAcc> vecSum(static_cast<std::size_t>(nWidth)), vecSumWeight(BNoData ? vecSum.size() : 0);
    bool bNoDataHere = false;
    for (int y = nY0; y < nY1; ++y)
    {
      const int nStart = oTapsY.m_vecStart[std::size_t(y)] - oSpan.first;
      const TAcc* pW = oTapsY.Weights(y);
      std::fill(vecSum.begin(), vecSum.end(), TAcc(0));
      std::fill(vecSumWeight.begin(), vecSumWeight.end(), TAcc(0));
      for (int k = 0, n = oTapsY.m_vecCount[std::size_t(y)]; k < n; ++k)
      {
        const TAcc w = pW[k];
        const TAcc* pRow = vecRows.data() + std::size_t(nStart + k) * nWidth;
        for (int x = 0; x < nWidth; ++x)
          vecSum[x] += w * pRow[x];
        if constexpr (BNoData)
        {
          const TAcc* pWeightRow = vecWeightRows.data() + std::size_t(nStart + k) * nWidth;
          for (int x = 0; x < nWidth; ++x)
            vecSumWeight[x] += w * pWeightRow[x];
        }
      }
      for (int x = 0; x < nWidth; ++x)
      {
        if constexpr (BNoData)
        {
          const bool bValid = vecSumWeight[x] > TAcc(1e-3);
          bNoDataHere |= !bValid;
          vecOut[x] = bValid ? ToPixel<TDestPixel>(vecSum[x] / vecSumWeight[x]) : tDestNoData;
        }
        else
          vecOut[x] = ToPixel<TDestPixel>(vecSum[x]);
      }
      oDestRows.Write(y, vecOut.data());
    }
    if (bNoDataHere)
      bWroteNoData.store(true, std::memory_order_relaxed);
    if (pLogger)
      pLogger->IncrementProgress(double(nY1 - nY0));
  });
}

} // namespace Detail

template <class TDest, class TSrc>
void CResampleFilter::Apply(TDest& oDest, const TSrc& oSrc) const
{
  static_assert(std::is_same<typename TDest::TPixel, typename TSrc::TPixel>::value, "one pixel type");
  using TPixel = typename TSrc::TPixel;
  if ((oSrc.GetWidth() == 0 || oSrc.GetHeight() == 0) && oDest.GetWidth() != 0 && oDest.GetHeight() != 0)
    Detail::ThrowBadArgument(__FILE__, __LINE__, "%1%: an empty source cannot fill a destination", m_strName);
  if (m_eKernel < eResampleNearest || m_eKernel > eResampleAverage)
    Detail::ThrowBadArgument(__FILE__, __LINE__, "%1%: unknown kernel", m_strName);
  if (oDest.GetWidth() == 0 || oDest.GetHeight() == 0)
    return;

  Detail::PushFilterLayer(m_pLogger, "Apply Resample Filter", double(oDest.GetHeight()));
  const bool bHasNoData = oSrc.HasNoDataValue();
  const TPixel tNoData = bHasNoData ? oSrc.GetNoDataValue() : TPixel(0);
  const TPixel tDestNoData = Detail::GetOutputNoDataValue(oDest);
  std::atomic<bool> bWroteNoData(false);
  const auto itSrc = Detail::BeginOf(oSrc);
  const auto itDest = Detail::MutableBeginOf(oDest);
  const int nSrcW = int(oSrc.GetWidth()), nSrcH = int(oSrc.GetHeight());
  const int nW = int(oDest.GetWidth()), nH = int(oDest.GetHeight());
  if (bHasNoData || std::is_floating_point<TPixel>::value)
    Detail::ResampleRows<true>(itSrc, itDest, m_eKernel, nSrcW, nSrcH, nW, nH, bHasNoData, tNoData, tDestNoData,
                               bWroteNoData, m_pLogger);
  else
    Detail::ResampleRows<false>(itSrc, itDest, m_eKernel, nSrcW, nSrcH, nW, nH, bHasNoData, tNoData, tDestNoData,
                                bWroteNoData, m_pLogger);
  if (bWroteNoData.load())
    oDest.SetNoDataValue(tDestNoData);
  if (m_pLogger)
    m_pLogger->Pop();
}

}}} // namespace Orl::Ostrel::Filter
