#pragma once

// Generic definitions of CGradientOrientationFilter. Included by the unit that instantiates it.
//
// In blocks of destination rows, like the resample filter: a task reads the source rows its cells
// cover plus one above and below (row buffers, edges replicated). At the source's size it writes
// each pixel's orientation as the gradient is computed, in one pass per row. Otherwise it turns each
// source row into three rows of doubled-angle components and gradient weight, applies the horizontal
// area taps, then sums the vertical taps per destination row and takes one angle per destination
// pixel. The no-data policy is a run-time mode inside the worker: one body per pixel type, the
// branch taken the same way for a whole call.

#include "Filter/Detail/ResampleTaps.h"
#include "Filter/Detail/RowBuffers.h"
#include "Filter/GradientOrientationFilter.h"

#include <atomic>
#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// atan2(ay, ax) for ax, ay >= 0, in [0, pi / 2]: for float a branch-free polynomial for atan on
// [0, 1] (error below 1.7e-6 radians) and the octant's fold, so that loops over a row vectorise;
// std::atan2 for double.
template <class TAcc>
inline TAcc FirstQuadrantAngle(TAcc ay, TAcc ax)
{
  if constexpr (std::is_same<TAcc, float>::value)
  {
    const float fMax = std::max(ax, ay), fMin = std::min(ax, ay);
    const float a = fMax > 0.0f ? fMin / fMax : 0.0f, s = a * a;
    float r = ((((-0.01172120f * s + 0.05265332f) * s - 0.11643287f) * s + 0.19354346f) * s - 0.33262347f) * s;
    r = (r + 0.99997726f) * a;
    return ay > ax ? 1.57079632679489662f - r : r;
  }
  else
    return std::atan2(ay, ax);
}

// Half the angle of (x, y), in [0, pi).
template <class TAcc>
inline TAcc HalfAngle(TAcc y, TAcc x)
{
  const TAcc dPi = TAcc(3.14159265358979323846);
  TAcc r = FirstQuadrantAngle(std::abs(y), std::abs(x));
  r = x < 0 ? dPi - r : r;
  TAcc tAngle = TAcc(0.5) * (y < 0 ? -r : r);
  tAngle = tAngle < 0 ? tAngle + dPi : tAngle;
  return tAngle < dPi ? tAngle : TAcc(0); // a tiny negative angle plus pi may round to pi
}

// The angle of the line through (x, y), in [0, pi): the same as HalfAngle of the doubled vector
// (x^2 - y^2, 2 x y), without the squares.
template <class TAcc>
inline TAcc LineAngle(TAcc y, TAcc x)
{
  const TAcc dPi = TAcc(3.14159265358979323846);
  const TAcc r = FirstQuadrantAngle(std::abs(y), std::abs(x));
  const TAcc tAngle = x * y < 0 ? dPi - r : r;
  return tAngle < dPi ? tAngle : TAcc(0); // pi minus a tiny angle may round to pi
}

// Three source rows, each with one replicated pixel at either end, and their validity: the rows
// above, at and below the current one, edges replicated. Moving down one row reads one new row.
template <class TAcc, class TSrcIt>
class CGradientWindow
{
public:
  CGradientWindow(const TSrcIt& itSrc, int nWidth, int nHeight, bool bUseNoData, bool bHasNoData, TAcc tNoData)
    : m_oRows(itSrc, 0, nWidth), m_nWidth(nWidth), m_nHeight(nHeight), m_nPadded(std::size_t(nWidth) + 2),
      m_bUseNoData(bUseNoData), m_bHasNoData(bHasNoData), m_tNoData(tNoData), m_vecValues(3 * m_nPadded),
      m_vecValid(3 * m_nPadded, 1)
  {
  }

  // Rows nRow - 1, nRow and nRow + 1; reads all three on the first call, then the new one below.
  void MoveTo(int nRow)
  {
    if (m_nRow == std::numeric_limits<int>::min())
    {
      _Load(nRow - 1);
      _Load(nRow);
    }
    if (nRow + 1 < m_nHeight)
      _Load(nRow + 1);
    m_nRow = nRow;
  }
  const TAcc* Values(int nDy) const { return m_vecValues.data() + _Slot(m_nRow + nDy) * m_nPadded; }
  const unsigned char* Valid(int nDy) const { return m_vecValid.data() + _Slot(m_nRow + nDy) * m_nPadded; }

private:
  // Row nAt sits in slot (nAt mod 3) of the clamped row; edge rows repeat.
  std::size_t _Slot(int nAt) const { return std::size_t(std::max(0, std::min(m_nHeight - 1, nAt)) % 3); }

  void _Load(int nRow)
  {
    nRow = std::max(0, std::min(m_nHeight - 1, nRow));
    TAcc* pValues = m_vecValues.data() + _Slot(nRow) * m_nPadded;
    m_oRows.Read(nRow, pValues + 1);
    pValues[0] = pValues[1];
    pValues[m_nWidth + 1] = pValues[m_nWidth];
    if (!m_bUseNoData)
      return;
    unsigned char* pValid = m_vecValid.data() + _Slot(nRow) * m_nPadded;
    const int nWidth = m_nWidth; // locals: stores of bytes might alias the members
    const bool bHasNoData = m_bHasNoData;
    const TAcc tNoData = m_tNoData;
    for (int x = 1; x <= nWidth; ++x)
      pValid[x] = IsValidPixel(pValues[x], bHasNoData, tNoData);
    pValid[0] = pValid[1];
    pValid[nWidth + 1] = pValid[nWidth];
  }

  CRowCursor<TSrcIt> m_oRows;
  int m_nWidth, m_nHeight;
  std::size_t m_nPadded;
  bool m_bUseNoData, m_bHasNoData;
  TAcc m_tNoData;
  std::vector<TAcc> m_vecValues;
  std::vector<unsigned char> m_vecValid;
  int m_nRow = std::numeric_limits<int>::min();
};

// The Sobel gradient of every pixel of the window's current row into pGx and pGy; NaN in pGx where a
// pixel has none. Without no-data handling a gradient is valid when it and the centre are finite
// (NaN and infinite values show through their product with 0), with it as the policy says.
template <class TAcc, class TSrcIt>
void RowGradients(const CGradientWindow<TAcc, TSrcIt>& oWindow, int nWidth, EGradientNoData eMode, bool bUseNoData,
                  TAcc* pGx, TAcc* pGy)
{
  const TAcc* pU = oWindow.Values(-1) + 1;
  const TAcc* pM = oWindow.Values(0) + 1;
  const TAcc* pD = oWindow.Values(1) + 1;
  if (!bUseNoData)
  {
    for (int x = 0; x < nWidth; ++x)
    {
      const TAcc gx = (pU[x + 1] - pU[x - 1]) + 2 * (pM[x + 1] - pM[x - 1]) + (pD[x + 1] - pD[x - 1]);
      const TAcc gy = (pD[x - 1] - pU[x - 1]) + 2 * (pD[x] - pU[x]) + (pD[x + 1] - pU[x + 1]);
      pGx[x] = gx + (TAcc(0) * gx + TAcc(0) * gy + TAcc(0) * pM[x]); // gx, or NaN
      pGy[x] = gy;
    }
    return;
  }
  const unsigned char* mU = oWindow.Valid(-1) + 1;
  const unsigned char* mM = oWindow.Valid(0) + 1;
  const unsigned char* mD = oWindow.Valid(1) + 1;
  const TAcc tNaN = std::numeric_limits<TAcc>::quiet_NaN();
  for (int x = 0; x < nWidth; ++x)
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
    pGx[x] = bValid ? gx : tNaN;
    pGy[x] = gy;
  }
}

// The loops below keep their loads and angles unconditional and choose by selects, so that they
// vectorise; each returns its count of pixels without an angle.

// pOut[x] = the line angle of gradient (pGx[x], pGy[x]), or tNoData where pGx[x] is NaN.
template <class TAcc, class TDestPixel>
int GradientAngles(const TAcc* pGx, const TAcc* pGy, TDestPixel* pOut, int nWidth, TDestPixel tNoData)
{
  int nInvalid = 0;
  for (int x = 0; x < nWidth; ++x)
  {
    const TAcc gx = pGx[x], gy = pGy[x];
    const bool bValid = gx == gx;
    const TDestPixel tAngle = TDestPixel(LineAngle(gy, gx));
    pOut[x] = bValid ? tAngle : tNoData;
    nInvalid += !bValid;
  }
  return nInvalid;
}

// pOut[x] = half the angle of the doubled-angle sum (pA[x], pB[x]), or tNoData where its weight
// pW[x] is 0.
template <class TAcc, class TDestPixel>
int DoubledAngles(const TAcc* pA, const TAcc* pB, const TAcc* pW, TDestPixel* pOut, int nWidth, TDestPixel tNoData)
{
  int nInvalid = 0;
  for (int x = 0; x < nWidth; ++x)
  {
    const TAcc a = pA[x], b = pB[x];
    const bool bValid = pW[x] > TAcc(0);
    const TDestPixel tAngle = TDestPixel(HalfAngle(b, a));
    pOut[x] = bValid ? tAngle : tNoData;
    nInvalid += !bValid;
  }
  return nInvalid;
}

template <class TAcc, class TSrcPixel, class TDestPixel, class TSrcIt, class TDestIt>
void GradientOrientationRows(const TSrcIt& itSrc, const TDestIt& itDest, EGradientNoData eMode, int nSrcWidth,
                             int nSrcHeight, int nWidth, int nHeight, bool bHasNoData, TSrcPixel tNoData,
                             TDestPixel tDestNoData, std::atomic<bool>& bWroteNoData,
                             const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  // The masked path only where it is needed: without a no-data value, NaN under the invalidating
  // policy shows in the sums themselves (the centre joins them times 0), so the plain path drops it.
  const bool bUseNoData = eMode != eGradientIgnore &&
                          (bHasNoData || (eMode == eGradientSkipNonCenter && std::is_floating_point<TSrcPixel>::value));
  const int nBlock = 32;
  using TWindow = CGradientWindow<TAcc, TSrcIt>;

  if (nWidth == nSrcWidth && nHeight == nSrcHeight)
  {
    // One pixel per cell: the orientation of each gradient as it is computed, one pass per row.
    ParallelBlocks((nHeight + nBlock - 1) / nBlock, 1, [&](int nBlockBegin, int nBlockEnd) {
      const int nY0 = nBlockBegin * nBlock, nY1 = std::min(nHeight, nBlockEnd * nBlock);
      TWindow oWindow(itSrc, nSrcWidth, nSrcHeight, bUseNoData, bHasNoData, TAcc(tNoData));
      CRowCursor<TDestIt> oDestRows(itDest, 0, nWidth);
      std::vector<TAcc> vecGx(static_cast<std::size_t>(nWidth)), vecGy(vecGx.size());
      std::vector<TDestPixel> vecOut(static_cast<std::size_t>(nWidth));
      const TAcc* const pGx = vecGx.data();
      const TAcc* const pGy = vecGy.data();
      TDestPixel* const pOut = vecOut.data();
      int nInvalid = 0;
      for (int y = nY0; y < nY1; ++y)
      {
        oWindow.MoveTo(y);
        RowGradients(oWindow, nWidth, eMode, bUseNoData, vecGx.data(), vecGy.data());
        nInvalid += GradientAngles(pGx, pGy, pOut, nWidth, tDestNoData);
        oDestRows.Write(y, pOut);
      }
      if (nInvalid != 0)
        bWroteNoData.store(true, std::memory_order_relaxed);
      if (pLogger)
        pLogger->IncrementProgress(double(nY1 - nY0));
    });
    return;
  }

  // Cells of several pixels (or parts of pixels): per source row, the doubled-angle components and
  // the gradient weight through the horizontal area taps into rows of the block, then per
  // destination row the vertical taps' sums and one angle per pixel.
  const auto oTapsX = MakeResampleTaps<TAcc>(eResampleAverage, nSrcWidth, nWidth);
  const auto oTapsY = MakeResampleTaps<TAcc>(eResampleAverage, nSrcHeight, nHeight);
  const bool bSameWidth = nWidth == nSrcWidth;
  ParallelBlocks((nHeight + nBlock - 1) / nBlock, 1, [&](int nBlockBegin, int nBlockEnd) {
    const int nY0 = nBlockBegin * nBlock, nY1 = std::min(nHeight, nBlockEnd * nBlock);
    const auto oSpan = oTapsY.SourceSpan(nY0, nY1);
    const int nRows = oSpan.second - oSpan.first;
    TWindow oWindow(itSrc, nSrcWidth, nSrcHeight, bUseNoData, bHasNoData, TAcc(tNoData));
    std::vector<TAcc> vecA(static_cast<std::size_t>(nSrcWidth)), vecB(vecA.size()), vecW(vecA.size());
    std::vector<TAcc> vecGx(vecA.size()), vecGy(vecA.size());
    const TAcc* const pGx = vecGx.data();
    const TAcc* const pGy = vecGy.data();
    const std::size_t nChannel = std::size_t(nRows) * nWidth;
    std::vector<TAcc> vecRows(3 * nChannel);

    for (int r = 0; r < nRows; ++r)
    {
      oWindow.MoveTo(oSpan.first + r);
      // At the source's width the horizontal taps are the identity: write the sums' rows directly.
      TAcc* const pA = bSameWidth ? vecRows.data() + std::size_t(r) * nWidth : vecA.data();
      TAcc* const pB = bSameWidth ? vecRows.data() + nChannel + std::size_t(r) * nWidth : vecB.data();
      TAcc* const pW = bSameWidth ? vecRows.data() + 2 * nChannel + std::size_t(r) * nWidth : vecW.data();
      RowGradients(oWindow, nSrcWidth, eMode, bUseNoData, vecGx.data(), vecGy.data());
      for (int x = 0; x < nSrcWidth; ++x) // selects of floating values only: it vectorises
      {
        const TAcc gx0 = pGx[x], gy0 = pGy[x];
        const TAcc w = gx0 == gx0 ? TAcc(1) : TAcc(0);
        const TAcc gx = gx0 == gx0 ? gx0 : TAcc(0), gy = gx0 == gx0 ? gy0 : TAcc(0);
        pA[x] = gx * gx - gy * gy;
        pB[x] = 2 * gx * gy;
        pW[x] = w;
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
        const TAcc* pA = vecRows.data() + std::size_t(nStart + k) * nWidth;
        const TAcc* pB = pA + nChannel;
        const TAcc* pW = pB + nChannel;
        TAcc* const pSumA = vecSumA.data();
        TAcc* const pSumB = vecSumB.data();
        TAcc* const pSumW = vecSumW.data();
        for (int x = 0; x < nWidth; ++x)
        {
          pSumA[x] += w * pA[x];
          pSumB[x] += w * pB[x];
          pSumW[x] += w * pW[x];
        }
      }
      bNoDataHere |= DoubledAngles(vecSumA.data(), vecSumB.data(), vecSumW.data(), vecOut.data(), nWidth, tDestNoData) != 0;
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
