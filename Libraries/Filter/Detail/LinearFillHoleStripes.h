#pragma once

// The two sweeps of the linear fill-hole filter on several threads, with the result of the sweeps on
// one thread bit for bit.
//
// The band's rows are cut into stripes, and each stripe is swept by FillHoleForwardSweep and
// FillHoleBackwardSweep as if it were a band of its own, with its own line tables and its own hole
// list; any thread may take any stripe, and the stripes of one sweep never wait for each other. What
// a stripe cannot see is the state of the table lines that enter it from the rows before it in the
// sweep's direction; SetEdgeLines rebuilds that state from the source before the stripe is swept.
//
// A line's state where it enters a row follows from the pixels on it before that row alone: the last
// valid pixel gives the value, the holes after it the distance (one per hole, in float, as the sweep
// adds them), and the line is valid while the reach covers that distance; a skipped pixel changes
// nothing; without a valid pixel the line is fresh with the distance of its holes. So the walk back
// stops at the first valid pixel, or as soon as the holes are out of reach (the line is invalid then,
// whatever lies further back, and an invalid line's distance and value are never read), or at the
// band's edge. The distance is exact: a sum of ones in float is the integer up to 2^24 and stays
// there. On holes scattered among valid pixels almost every line stops after a step or two.
//
// Each stripe's hole list is written in the stripe's forward order and read back in the reverse
// order, exactly as one list over the band would be, and every hole gets its contributions from the
// same line states in the same order: the arithmetic is the sequential sweeps', and only the
// bookkeeping differs. Memory: one set of line tables per stripe being swept, and the hole lists,
// which hold one entry per hole between them plus the unfilled end of each stripe's last chunk.

#include "Band/Detail/ThreadSanitizer.h"
#include "Filter/Detail/LinearFillHoleSweeps.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// The number of stripes for the sweeps on nThreads threads, or 0 where they stay on one thread: one
// thread, or a band too small to be worth it. Four stripes per thread, so that a thread that finishes
// early (fewer holes in its stripes, or a core taken by another process) takes over work; stripes of
// at least 16 rows and 4096 pixels, so that the walks at their edges and their tables stay a small
// part.
inline std::uint32_t FillHoleStripeCount(std::uint32_t nWidth, std::uint32_t nHeight, unsigned nThreads)
{
  if (nThreads < 2)
    return 0;
  const std::uint64_t nStripes =
    std::min<std::uint64_t>({4 * std::uint64_t(nThreads), nHeight / 16, std::uint64_t(nWidth) * nHeight / 4096});
  return nStripes >= 2 ? std::uint32_t(nStripes) : 0;
}

// The distance of a line after nHoles holes, as the sweeps' sum of ones in float gives it.
inline float FillHoleDistance(std::uint64_t nHoles)
{
  return float(std::min<std::uint64_t>(nHoles, std::uint64_t(1) << 24));
}

// Writes into oTableRow the state of the lines that enter row nRow from the rows before it in a
// sweep's direction: nStep -1 for the forward sweep (the rows above; the main diagonal comes from the
// upper left, the anti-diagonal from the upper right), +1 for the backward sweep (the rows below, the
// diagonals from the other sides). Only the entries that row nRow reads are written, each as the
// sweep over the rows before would have left it. itSrc0 and itMask0 are at column 0 of the band's
// row 0; the mask is read only with BUseMask.
template <bool BUseMask, class TLineData, class TSrcIterator, class TMaskIterator, class TComparator, class TValid>
void SetEdgeLines(const STableRow<TLineData>& oTableRow, const TLineData& oFresh, int nStep, std::uint32_t nRow,
                  std::uint32_t nWidth, std::uint32_t nHeight, const TSrcIterator& itSrc0,
                  const TMaskIterator& itMask0, const TComparator& oComparator, const TValid& oValid)
{
  using TPoint = Pravik::GraphObject2d::CPoint<int>;
  using TMaskPixel = Band::Detail::TRowPixel<TMaskIterator>;
  struct SOpenLine
  {
    std::ptrdiff_t m_nColumn; // where the line enters row nRow
    std::uint64_t m_nHoles;   // met so far on the walk back
  };
  // By kind: the vertical, the main diagonal, the anti-diagonal; each kind's column step per row back.
  TLineData* const apLines[3] = {oTableRow.m_pVertical, oTableRow.m_pMain, oTableRow.m_pAnti};
  const std::ptrdiff_t anShift[3] = {0, nStep, -nStep};
  std::vector<SOpenLine> avecOpen[3];
  for (std::vector<SOpenLine>& vecOpen : avecOpen)
    for (std::uint32_t x = 0; x < nWidth; ++x)
      vecOpen.push_back(SOpenLine{x, 0});
  const float fMaxDistance = oFresh.m_fMaxDistance;
  const auto fnInvalid = [&](int nKind, const SOpenLine& o) {
    TLineData oLine = oFresh;
    oLine.m_fDistance = FillHoleDistance(o.m_nHoles);
    apLines[nKind][o.m_nColumn] = oLine;
  };

  Band::Detail::CRowReader<TSrcIterator> oSrcReader;
  Band::Detail::CRowReader<TMaskIterator> oMaskReader;
  std::int64_t nY = nRow;
  for (std::ptrdiff_t nBack = 1;; ++nBack)
  {
    nY += nStep;
    // The columns the open lines cross in row nY, read as one span; a line that left the band at a
    // side, or at its top or bottom, is fresh.
    const bool bOutside = nY < 0 || nY >= std::int64_t(nHeight);
    std::ptrdiff_t nMin = nWidth, nMax = -1;
    for (int k = 0; k < 3; ++k)
    {
      std::size_t nKept = 0;
      for (const SOpenLine& o : avecOpen[k])
      {
        const std::ptrdiff_t nX = o.m_nColumn + anShift[k] * nBack;
        if (bOutside || nX < 0 || nX >= std::ptrdiff_t(nWidth))
          fnInvalid(k, o);
        else
        {
          avecOpen[k][nKept++] = o;
          nMin = std::min(nMin, nX);
          nMax = std::max(nMax, nX);
        }
      }
      avecOpen[k].resize(nKept);
    }
    if (nMax < nMin)
      return;
    TSrcIterator itSrc = itSrc0;
    itSrc += TPoint(int(nMin), int(nY));
    const auto* pSrc = oSrcReader.Read(itSrc, std::uint32_t(nMax - nMin + 1));
    const TMaskPixel* pMask = nullptr;
    if constexpr (BUseMask)
    {
      TMaskIterator itMask = itMask0;
      itMask += TPoint(int(nMin), int(nY));
      pMask = oMaskReader.Read(itMask, std::uint32_t(nMax - nMin + 1));
    }

    for (int k = 0; k < 3; ++k)
    {
      std::size_t nKept = 0;
      for (SOpenLine o : avecOpen[k])
      {
        const std::ptrdiff_t n = o.m_nColumn + anShift[k] * nBack - nMin;
        const unsigned char nClass = CFillHoleRowClasses::ClassOf<BUseMask>(pSrc[n], BUseMask ? pMask[n] : TMaskPixel(),
                                                                           oComparator, oValid);
        if (nClass == eFillHoleValid)
        {
          // Set by this pixel, then lengthened by the holes after it, each time within reach.
          const float fDistance = FillHoleDistance(o.m_nHoles);
          apLines[k][o.m_nColumn] =
            TLineData{fDistance, fMaxDistance, float(pSrc[n]), o.m_nHoles == 0 || fMaxDistance >= fDistance};
        }
        else if (nClass == eFillHoleHole && !(fMaxDistance >= FillHoleDistance(++o.m_nHoles)))
          fnInvalid(k, o); // out of reach whatever lies further back
        else
          avecOpen[k][nKept++] = o;
      }
      avecOpen[k].resize(nKept);
    }
  }
}

struct SFillHoleStripeResult
{
  bool m_bHoles;       // a hole was met; without one, nothing was written
  bool m_bWroteNoData; // a pixel got the no-data value
};

// Both sweeps as FillHoleForwardSweep and FillHoleBackwardSweep make them, over nStripes stripes of
// rows on the threads of the current arena; each stripe makes its own line tables, so oContext has
// none, and fMaxDistance is the reach. Without a hole the destination is not touched. Throws
// CBasicException, before the destination is touched, when the source has more holes than nMaxHoles;
// the stripes' lists together may then have grown past the bound by the stripes being swept at the
// time.
//
// Required of the iterators: X and Y, ++it.Y, --it.Y, it += CPoint<int>, and what CRowReader and
// CRowWriter ask; iterators copied to other threads read and write their bands there.
template <bool BUseMask, class TLineData, class TSrcIterator, class TMaskIterator, class TDestIterator,
          class TComparator, class TValid, class THoleTag>
SFillHoleStripeResult FillHoleStripeSweeps(const SFillHoleSweepContext<TLineData>& oContext,
                                           const boost::tuples::tuple<TSrcIterator, TSrcIterator>& oSrc,
                                           const boost::tuples::tuple<TMaskIterator, TMaskIterator>& oMask,
                                           const boost::tuples::tuple<TDestIterator, TDestIterator>& oDest,
                                           const TComparator& oComparator, const TValid& oValid,
                                           std::uint32_t nMaxHoles, THoleTag*, std::uint32_t nStripes,
                                           float fMaxDistance, Band::Detail::TRowPixel<TDestIterator> tNoData)
{
  using TPoint = Pravik::GraphObject2d::CPoint<int>;
  const std::uint32_t nWidth = oContext.m_nWidth;
  const std::uint32_t nHeight = oContext.m_nHeight;
  const TLineData oFresh{0.0f, fMaxDistance, 0.0f, false};
  assert(nStripes >= 1 && nStripes <= nHeight);

  struct SStripe
  {
    SStripe(std::uint32_t nRow0, std::uint32_t nRows, std::uint32_t nMaxHoles)
      : m_nRow0(nRow0), m_nRows(nRows), m_oHoles(nMaxHoles)
    {
    }
    const std::uint32_t m_nRow0, m_nRows;
    CHoleList<THoleTag> m_oHoles;
    bool m_bWroteNoData = false;
  };
  std::vector<std::unique_ptr<SStripe>> vecStripes;
  for (std::uint32_t s = 0; s < nStripes; ++s)
  {
    const std::uint32_t nRow0 = std::uint32_t(std::uint64_t(nHeight) * s / nStripes);
    const std::uint32_t nRow1 = std::uint32_t(std::uint64_t(nHeight) * (s + 1) / nStripes);
    vecStripes.push_back(std::make_unique<SStripe>(nRow0, nRow1 - nRow0, nMaxHoles));
  }
  std::atomic<std::uint64_t> nTotalHoles{0};

  // The iterators of a stripe: at column 0 of its first row. The mask's stay where they are without
  // a mask, as the sweeps never move them then.
  const auto fnAt = [](const auto& oIts, std::uint32_t nRow, bool bMove = true) {
    auto it = boost::get<0>(oIts);
    if (bMove)
      it += TPoint(0, int(nRow));
    return boost::make_tuple(it, it);
  };
  // Runs fnStripe(stripe, its tables, its context) for every stripe, on any thread.
  const auto fnRun = [&](const auto& fnStripe) {
    // The scheduler's hand-over of the stripes, for ThreadSanitizer.
    ORL_TSAN_RELEASE(&vecStripes);
    tbb::parallel_for(
      tbb::blocked_range<std::uint32_t>(0, nStripes, 1),
      [&](const tbb::blocked_range<std::uint32_t>& oRange) {
        ORL_TSAN_ACQUIRE(&vecStripes);
        for (std::uint32_t s = oRange.begin(); s != oRange.end(); ++s)
        {
          SStripe& o = *vecStripes[s];
          SFillHoleTables<TLineData> oTables(nWidth, nHeight, oFresh.m_fMaxDistance);
          const SFillHoleSweepContext<TLineData> oStripeContext{
            &oTables, oContext.m_nSrcRepHeight, nWidth, o.m_nRows, oContext.m_nMinDirections, nullptr};
          fnStripe(o, oTables, oStripeContext);
        }
        ORL_TSAN_RELEASE(&vecStripes);
      },
      tbb::simple_partitioner());
    ORL_TSAN_ACQUIRE(&vecStripes);
    if (oContext.m_pLogger)
      oContext.m_pLogger->IncrementProgress(double(nHeight));
  };
  // The tables of row nRow, where the sweep of a stripe starting there reads them.
  const auto fnEdge = [&](SFillHoleTables<TLineData>& oTables, std::uint32_t nRow, int nStep) {
    const auto itSrc = boost::get<0>(fnAt(oSrc, nRow));
    SetEdgeLines<BUseMask>(STableRow<TLineData>(oTables, itSrc.X, itSrc.Y, oContext.m_nSrcRepHeight), oFresh,
                           nStep, nRow, nWidth, nHeight, boost::get<0>(oSrc), boost::get<0>(oMask), oComparator,
                           oValid);
  };

  fnRun([&](SStripe& o, SFillHoleTables<TLineData>& oTables, const SFillHoleSweepContext<TLineData>& oStripe) {
    if (o.m_nRow0 != 0)
      fnEdge(oTables, o.m_nRow0, -1);
    const std::uint64_t nHoles = FillHoleForwardSweep<BUseMask>(
      oStripe, fnAt(oSrc, o.m_nRow0), fnAt(oMask, o.m_nRow0, BUseMask), oComparator, oValid, o.m_oHoles);
    if (nHoles != 0 && nTotalHoles.fetch_add(nHoles, std::memory_order_relaxed) + nHoles > nMaxHoles)
      ThrowTooManyHoles(nMaxHoles);
  });
  if (nTotalHoles.load() == 0)
    return SFillHoleStripeResult{false, false};

  fnRun([&](SStripe& o, SFillHoleTables<TLineData>& oTables, const SFillHoleSweepContext<TLineData>& oStripe) {
    const std::uint32_t nLast = o.m_nRow0 + o.m_nRows - 1;
    if (nLast + 1 != nHeight)
      fnEdge(oTables, nLast, +1);
    o.m_bWroteNoData =
      FillHoleBackwardSweep<BUseMask>(oStripe, fnAt(oSrc, o.m_nRow0), fnAt(oMask, o.m_nRow0, BUseMask),
                                      fnAt(oDest, o.m_nRow0), oComparator, oValid, o.m_oHoles, tNoData);
  });

  bool bWroteNoData = false;
  for (const std::unique_ptr<SStripe>& p : vecStripes)
    bWroteNoData |= p->m_bWroteNoData;
  return SFillHoleStripeResult{true, bWroteNoData};
}

}}}} // namespace Orl::Ostrel::Filter::Detail
