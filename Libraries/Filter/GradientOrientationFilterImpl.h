#pragma once

// Generic definitions of CGradientOrientationFilter. Included by the unit that instantiates it.
//
// In blocks of destination rows, like the resample filter: a task reads the source rows its cells
// cover plus one above and below (row buffers, edges replicated), turns each into three rows of
// doubled-angle components and gradient weight, applies the horizontal area taps, then sums the
// vertical taps per destination row and takes one atan2 per destination pixel. The no-data policy
// is a run-time mode inside the worker: one body per pixel type, the branch taken the same way for
// a whole call.

#include "Filter/Detail/ResampleTaps.h"
#include "Filter/Detail/RowBuffers.h"
#include "Filter/GradientOrientationFilter.h"

#include <atomic>
#include <cmath>
#include <type_traits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// Half the angle of (x, y), in [0, pi). For float, a branch-free polynomial for atan (error below
// 2e-6 radians) so that the loop over a row vectorises; std::atan2 for double.
template <class TAcc>
inline TAcc HalfAngle(TAcc y, TAcc x)
{
  const TAcc dPi = TAcc(3.14159265358979323846);
  TAcc tAngle;
  if constexpr (std::is_same<TAcc, float>::value)
  {
    const float ax = std::abs(x), ay = std::abs(y);
    const float fMax = std::max(ax, ay), fMin = std::min(ax, ay);
    const float a = fMax > 0.0f ? fMin / fMax : 0.0f, s = a * a;
    float r = ((((-0.01172120f * s + 0.05265332f) * s - 0.11643287f) * s + 0.19354346f) * s - 0.33262347f) * s;
    r = (r + 0.99997726f) * a;
    r = ay > ax ? 0.5f * dPi - r : r;
    r = x < 0.0f ? dPi - r : r;
    tAngle = 0.5f * (y < 0.0f ? -r : r);
  }
  else
    tAngle = TAcc(0.5) * std::atan2(y, x);
  tAngle = tAngle < 0 ? tAngle + dPi : tAngle;
  return tAngle < dPi ? tAngle : TAcc(0); // a tiny negative angle plus pi may round to pi
}

template <class TAcc, class TSrcPixel, class TDestPixel, class TSrcIt, class TDestIt>
void GradientOrientationRows(const TSrcIt& itSrc, const TDestIt& itDest, EGradientNoData eMode, int nSrcWidth,
                             int nSrcHeight, int nWidth, int nHeight, bool bHasNoData, TSrcPixel tNoData,
                             TDestPixel tDestNoData, std::atomic<bool>& bWroteNoData,
                             const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  const auto oTapsX = MakeResampleTaps<TAcc>(eResampleAverage, nSrcWidth, nWidth);
  const auto oTapsY = MakeResampleTaps<TAcc>(eResampleAverage, nSrcHeight, nHeight);
  // The masked path only where it is needed: without a no-data value, NaN under the invalidating
  // policy shows in the sums themselves (the centre joins them times 0), so the plain path drops it.
  const bool bUseNoData = eMode != eGradientIgnore &&
                          (bHasNoData || (eMode == eGradientSkipNonCenter && std::is_floating_point<TSrcPixel>::value));
  const bool bSameWidth = nWidth == nSrcWidth;
  const int nBlock = 32;
  ParallelBlocks((nHeight + nBlock - 1) / nBlock, 1, [&](int nBlockBegin, int nBlockEnd) {
    const int nY0 = nBlockBegin * nBlock, nY1 = std::min(nHeight, nBlockEnd * nBlock);
    const auto oSpan = oTapsY.SourceSpan(nY0, nY1);
    const int nRows = oSpan.second - oSpan.first;
    const std::size_t nPadded = std::size_t(nSrcWidth) + 2;
    // Three source rows with one replicated pixel at each end, and their validity.
    std::vector<TSrcPixel> vecIn(static_cast<std::size_t>(nSrcWidth));
    std::vector<TAcc> vecWindow(3 * nPadded);
    std::vector<unsigned char> vecValid(3 * nPadded, 1);
    std::vector<TAcc> vecA(static_cast<std::size_t>(nSrcWidth)), vecB(vecA.size()), vecW(vecA.size());
    const std::size_t nChannel = std::size_t(nRows) * nWidth;
    std::vector<TAcc> vecRows(3 * nChannel);
    CRowCursor<TSrcIt> oSrcRows(itSrc, 0, nSrcWidth);

    const auto fnLoad = [&](int nRow, int nSlot) {
      nRow = std::max(0, std::min(nSrcHeight - 1, nRow));
      oSrcRows.Read(nRow, vecIn.data());
      TAcc* pValues = vecWindow.data() + std::size_t(nSlot) * nPadded;
      unsigned char* pValid = vecValid.data() + std::size_t(nSlot) * nPadded;
      for (int x = 0; x < nSrcWidth; ++x)
      {
        pValues[x + 1] = TAcc(vecIn[x]);
        if (bUseNoData)
          pValid[x + 1] = IsValidPixel(vecIn[x], bHasNoData, tNoData);
      }
      pValues[0] = pValues[1];
      pValues[nSrcWidth + 1] = pValues[nSrcWidth];
      pValid[0] = pValid[1];
      pValid[nSrcWidth + 1] = pValid[nSrcWidth];
    };

    for (int r = 0; r < nRows; ++r)
    {
      const int nRow = oSpan.first + r;
      // Slots rotate: row nRow - 1 + k sits in slot (nRow - 1 + k) mod 3; edge rows repeat.
      const auto fnSlot = [&](int nAt) { return ((std::max(0, std::min(nSrcHeight - 1, nAt)) % 3) + 3) % 3; };
      if (r == 0)
      {
        fnLoad(nRow - 1, fnSlot(nRow - 1));
        fnLoad(nRow, fnSlot(nRow));
      }
      if (nRow + 1 < nSrcHeight)
        fnLoad(nRow + 1, fnSlot(nRow + 1));
      const std::size_t nUp = std::size_t(fnSlot(nRow - 1)) * nPadded, nMid = std::size_t(fnSlot(nRow)) * nPadded,
                        nDown = std::size_t(fnSlot(nRow + 1)) * nPadded;
      const TAcc* pU = vecWindow.data() + nUp;
      const TAcc* pM = vecWindow.data() + nMid;
      const TAcc* pD = vecWindow.data() + nDown;
      // At the source's width the horizontal taps are the identity: write the sums' rows directly.
      TAcc* const pA = bSameWidth ? vecRows.data() + std::size_t(r) * nWidth : vecA.data();
      TAcc* const pB = bSameWidth ? vecRows.data() + nChannel + std::size_t(r) * nWidth : vecB.data();
      TAcc* const pW = bSameWidth ? vecRows.data() + 2 * nChannel + std::size_t(r) * nWidth : vecW.data();
      if (!bUseNoData)
      {
        for (int x = 1; x <= nSrcWidth; ++x)
        {
          const TAcc gx = (pU[x + 1] - pU[x - 1]) + 2 * (pM[x + 1] - pM[x - 1]) + (pD[x + 1] - pD[x - 1]);
          const TAcc gy = (pD[x - 1] - pU[x - 1]) + 2 * (pD[x] - pU[x]) + (pD[x + 1] - pU[x + 1]);
          const TAcc tCheck = gx + gy + TAcc(0) * pM[x];
          const bool bValid = tCheck == tCheck;
          pA[x - 1] = bValid ? gx * gx - gy * gy : TAcc(0);
          pB[x - 1] = bValid ? 2 * gx * gy : TAcc(0);
          pW[x - 1] = bValid ? TAcc(1) : TAcc(0);
        }
      }
      else
      {
        const unsigned char* mU = vecValid.data() + nUp;
        const unsigned char* mM = vecValid.data() + nMid;
        const unsigned char* mD = vecValid.data() + nDown;
        for (int x = 1; x <= nSrcWidth; ++x)
        {
          const TAcc c = pM[x];
          const auto v = [c](const TAcc* p, const unsigned char* m, int i) { return m[i] ? p[i] : c; };
          const TAcc gx = (v(pU, mU, x + 1) - v(pU, mU, x - 1)) + 2 * (v(pM, mM, x + 1) - v(pM, mM, x - 1)) +
                          (v(pD, mD, x + 1) - v(pD, mD, x - 1));
          const TAcc gy = (v(pD, mD, x - 1) - v(pU, mU, x - 1)) + 2 * (v(pD, mD, x) - v(pU, mU, x)) +
                          (v(pD, mD, x + 1) - v(pU, mU, x + 1));
          const bool bValid = (eMode == eGradientSkipNonCenter
                                 ? mM[x] != 0
                                 : (mU[x - 1] & mU[x] & mU[x + 1] & mM[x - 1] & mM[x] & mM[x + 1] & mD[x - 1] & mD[x] &
                                    mD[x + 1]) != 0) &&
                              std::isfinite(gx) && std::isfinite(gy);
          pA[x - 1] = bValid ? gx * gx - gy * gy : TAcc(0);
          pB[x - 1] = bValid ? 2 * gx * gy : TAcc(0);
          pW[x - 1] = bValid ? TAcc(1) : TAcc(0);
        }
      }
      if (!bSameWidth)
      {
        ApplyTaps(oTapsX, vecA.data(), vecRows.data() + std::size_t(r) * nWidth, nWidth);
        ApplyTaps(oTapsX, vecB.data(), vecRows.data() + nChannel + std::size_t(r) * nWidth, nWidth);
        ApplyTaps(oTapsX, vecW.data(), vecRows.data() + 2 * nChannel + std::size_t(r) * nWidth, nWidth);
      }
    }

    CRowCursor<TDestIt> oDestRows(itDest, 0, nWidth);
    std::vector<TAcc> vecSumA(static_cast<std::size_t>(nWidth)), vecSumB(vecSumA.size()), vecSumW(vecSumA.size());
    std::vector<TDestPixel> vecOut(static_cast<std::size_t>(nWidth));
    bool bNoDataHere = false;
    for (int y = nY0; y < nY1; ++y)
    {
      std::fill(vecSumA.begin(), vecSumA.end(), TAcc(0));
      std::fill(vecSumB.begin(), vecSumB.end(), TAcc(0));
      std::fill(vecSumW.begin(), vecSumW.end(), TAcc(0));
      const int nStart = oTapsY.m_vecStart[std::size_t(y)] - oSpan.first;
      for (int k = 0, n = oTapsY.m_vecCount[std::size_t(y)]; k < n; ++k)
      {
        const TAcc w = oTapsY.Weights(y)[k];
        const std::size_t nAt = std::size_t(nStart + k) * nWidth;
        for (int x = 0; x < nWidth; ++x)
        {
          vecSumA[x] += w * vecRows[nAt + x];
          vecSumB[x] += w * vecRows[nChannel + nAt + x];
          vecSumW[x] += w * vecRows[2 * nChannel + nAt + x];
        }
      }
      bool bRowNoData = false;
      for (int x = 0; x < nWidth; ++x)
      {
        const bool bValid = vecSumW[x] > TAcc(0);
        vecOut[x] = bValid ? TDestPixel(HalfAngle(vecSumB[x], vecSumA[x])) : tDestNoData;
        bRowNoData |= !bValid;
      }
      bNoDataHere |= bRowNoData;
      oDestRows.Write(y, vecOut.data());
    }
    if (bNoDataHere)
      bWroteNoData.store(true, std::memory_order_relaxed);
    if (pLogger)
      pLogger->IncrementProgress(double(nY1 - nY0));
  });
}

} // namespace Detail

template <class TPolicy, class TDest, class TSrc>
void CGradientOrientationFilter::Apply(TDest& oDest, const TSrc& oSrc) const
{
  using TSrcPixel = typename TSrc::TPixel;
  using TDestPixel = typename TDest::TPixel;
  static_assert(std::is_floating_point<TDestPixel>::value, "orientations are floating values");
  if ((oSrc.GetWidth() == 0 || oSrc.GetHeight() == 0) && oDest.GetWidth() != 0 && oDest.GetHeight() != 0)
    Detail::ThrowBadArgument(__FILE__, __LINE__, "%1%: an empty source cannot fill a destination", m_strName);
  if (oDest.GetWidth() == 0 || oDest.GetHeight() == 0)
    return;

  Detail::PushFilterLayer(m_pLogger, "Apply Gradient Orientation Resample Filter", double(oDest.GetHeight()));
  const bool bHasNoData = oSrc.HasNoDataValue();
  const TSrcPixel tNoData = bHasNoData ? oSrc.GetNoDataValue() : TSrcPixel(0);
  const TDestPixel tDestNoData = Detail::GetOutputNoDataValue(oDest);
  std::atomic<bool> bWroteNoData(false);
  Detail::GradientOrientationRows<TDestPixel>(Detail::BeginOf(oSrc), Detail::MutableBeginOf(oDest),
                                              Detail::SGradientNoData<TPolicy>::ms_eMode, int(oSrc.GetWidth()),
                                              int(oSrc.GetHeight()), int(oDest.GetWidth()), int(oDest.GetHeight()),
                                              bHasNoData, tNoData, tDestNoData, bWroteNoData, m_pLogger);
  if (bWroteNoData.load())
    oDest.SetNoDataValue(tDestNoData);
  if (m_pLogger)
    m_pLogger->Pop();
}

}}} // namespace Orl::Ostrel::Filter
