#pragma once

// The two sweeps of the linear fill-hole filter on several threads, with the result of the sweeps on
// one thread bit for bit.
//
// The band's columns are cut into blocks, whole 64-pixel words each but the last. A cell is one row of
// one block; a cell reads the lines that the row before it left at its own columns and one column
// either side, and the horizontal line that the block on its left (in the sweep's direction) left at
// its first column. So cell (row r, block k) may run once (r, k - 1) and (r - 1, k + 1) have run, and
// these two bring every cell it depends on before it (CFillHoleWavefront). Cells that may run at the
// same time touch different table entries: each entry is on one line, and consecutive pixels of a line
// are neighbours, so the cells that touch an entry are ordered one after the other.
//
// Each block keeps its own hole list: a block's holes are met in one order forward and taken back in
// the reverse order backward, whatever the other blocks do, so no cell waits for a position in a
// shared list, and no pass counts holes first. The arithmetic of every hole (its lines, in the same
// order) is the one of the sequential sweeps; only the bookkeeping differs.
//
// A block reads its rows one word wider on either side than it sweeps: the classes of the pixels next
// to its first and last columns, and the events of the next row under them, decide which lines it
// sets. Those words are classified twice, by the block and by its neighbour; the memory is per-block
// state of a few rows' width.

#include "Band/Detail/ThreadSanitizer.h"
#include "Filter/Detail/LinearFillHoleSweeps.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// Runs the cells (row r, block k) of an nRows x nBlocks grid, each once, each after cells (r, k - 1)
// and (r - 1, k + 1) have run and so after every cell to its upper right, upper left and left.
// Any number of threads may call Work at the same time; each runs cells as they become ready and
// returns when none is left. A cell that throws stops the others before their next cell, and its
// exception leaves Work on its own thread. A thread with no ready cell yields its core.
class CFillHoleWavefront
{
public:
  CFillHoleWavefront(std::uint32_t nRows, std::uint32_t nBlocks)
    : m_nRows(nRows), m_nBlocks(nBlocks), m_pDone(new std::atomic<std::uint32_t>[nBlocks + 2]),
      m_pClaimed(new std::atomic<std::uint32_t>[nBlocks])
  {
    // m_pDone[k + 1] counts the rows block k has run; the blocks beyond either side have run all.
    m_pDone[0].store(~0u);
    m_pDone[nBlocks + 1].store(~0u);
    for (std::uint32_t k = 0; k < nBlocks; ++k)
    {
      m_pDone[k + 1].store(0);
      m_pClaimed[k].store(0);
    }
  }

  // fn(r, k) runs cell (r, k).
  template <class TFn>
  void Work(const TFn& fn)
  {
    std::uint32_t nLast = 0;
    for (;;)
    {
      if (m_bStop.load(std::memory_order_relaxed))
        return;
      std::uint32_t nRow = 0, nBlock = 0;
      // The cell to the right of the one just run first: its horizontal line is still in this core's
      // cache; then the one below and to the left; then any.
      if (!_Claim(nLast + 1, nRow, nBlock) && !_Claim(nLast - 1, nRow, nBlock) && !_ClaimAny(nRow, nBlock))
      {
        if (_AllDone())
          return;
        std::this_thread::yield();
        continue;
      }
      try
      {
        fn(nRow, nBlock);
      }
      catch (...)
      {
        m_bStop.store(true);
        throw;
      }
      // One store per cell besides its claim.
      m_pDone[nBlock + 1].store(nRow + 1, std::memory_order_release);
      nLast = nBlock;
    }
  }

private:
  // Takes the next row of block k if it is ready. Out of the grid (k = -1 wraps) takes nothing.
  bool _Claim(std::uint32_t k, std::uint32_t& nRow, std::uint32_t& nBlock)
  {
    if (k >= m_nBlocks)
      return false;
    std::uint32_t r = m_pClaimed[k].load(std::memory_order_relaxed);
    // The block's row before r has run (not only been taken), the left block is past row r and the
    // right one past row r - 1.
    if (r >= m_nRows || m_pDone[k + 1].load(std::memory_order_acquire) != r ||
        m_pDone[k].load(std::memory_order_acquire) <= r || m_pDone[k + 2].load(std::memory_order_acquire) < r)
      return false;
    if (!m_pClaimed[k].compare_exchange_strong(r, r + 1, std::memory_order_acq_rel))
      return false;
    nRow = r;
    nBlock = k;
    return true;
  }

  bool _AllDone() const
  {
    for (std::uint32_t k = 0; k < m_nBlocks; ++k)
      if (m_pDone[k + 1].load(std::memory_order_acquire) != m_nRows)
        return false;
    return true;
  }

  bool _ClaimAny(std::uint32_t& nRow, std::uint32_t& nBlock)
  {
    for (std::uint32_t k = 0; k < m_nBlocks; ++k)
      if (_Claim(k, nRow, nBlock))
        return true;
    return false;
  }

  const std::uint32_t m_nRows;
  const std::uint32_t m_nBlocks;
  std::unique_ptr<std::atomic<std::uint32_t>[]> m_pDone;
  std::unique_ptr<std::atomic<std::uint32_t>[]> m_pClaimed;
  std::atomic<bool> m_bStop{false};
};

// The block width of the sweeps on nThreads threads, or 0 where they stay on one thread: one thread,
// or a band too small for two blocks. About four blocks per thread, so that the wavefront has cells
// for every thread, and at least 256 columns, so that the words a block reads twice stay a small part.
inline std::uint32_t FillHoleBlockWidth(std::uint32_t nWidth, std::uint32_t nHeight, unsigned nThreads)
{
  if (nThreads < 2 || nHeight < 2)
    return 0;
  const std::uint64_t nBlocks = 4 * std::uint64_t(nThreads);
  const std::uint64_t nPerBlock = (nWidth + nBlocks - 1) / nBlocks;
  const std::uint32_t nBlockWidth = std::uint32_t(std::max<std::uint64_t>(256, (nPerBlock + 63) / 64 * 64));
  return nWidth > nBlockWidth ? nBlockWidth : 0;
}

// One block's state across both sweeps.
template <class TSrcIterator, class TMaskIterator, class TDestIterator, class THoleTag>
struct SFillHoleBlock
{
  SFillHoleBlock(std::uint32_t nCore0, std::uint32_t nCore1, std::uint32_t nWidth, std::uint32_t nMaxHoles)
    : m_nCore0(nCore0), m_nCore1(nCore1), m_nWindow0(nCore0 >= 64 ? nCore0 - 64 : 0),
      m_nWindowWidth(std::min(nWidth, nCore1 + 64) - m_nWindow0), m_nWord0((nCore0 - m_nWindow0) / 64),
      m_nWord1(m_nWord0 + (nCore1 - nCore0 + 63) / 64),
      m_aRows{SFillHoleSrcRow<TSrcIterator>(m_nWindowWidth), SFillHoleSrcRow<TSrcIterator>(m_nWindowWidth)},
      m_oHoles(nMaxHoles), m_oAppender(m_oHoles), m_oTaker(m_oHoles)
  {
  }

  void SaveHorizontal(const SHorizontalLine& oLine)
  {
    m_fHorizontalDistance = oLine.m_fDistance;
    m_fHorizontalValue = oLine.m_fValue;
    m_bHorizontalValid = oLine.m_bValid;
  }
  void LoadHorizontal(SHorizontalLine& oLine) const
  {
    oLine.m_fDistance = m_fHorizontalDistance;
    oLine.m_fValue = m_fHorizontalValue;
    oLine.m_bValid = m_bHorizontalValid;
  }

  const std::uint32_t m_nCore0, m_nCore1;  // the columns the block sweeps
  const std::uint32_t m_nWindow0;          // the first column it reads
  const std::uint32_t m_nWindowWidth;      // the columns it reads: the core and a word either side
  const std::size_t m_nWord0, m_nWord1;    // the core's words in the window
  SFillHoleSrcRow<TSrcIterator> m_aRows[2]; // the current row and the next, over the window
  Band::Detail::CRowReader<TMaskIterator> m_oMaskReader;
  Band::Detail::CRowWriter<TDestIterator> m_oDestWriter;
  CHoleList<THoleTag> m_oHoles;
  CHoleAppender<THoleTag> m_oAppender;
  CHoleTaker<THoleTag> m_oTaker;
  std::uint64_t m_nHoles = 0;
  bool m_bWroteNoData = false;
  // The horizontal line after the block's last column in the row it swept last, for the next block.
  float m_fHorizontalDistance = 0.0f;
  float m_fHorizontalValue = 0.0f;
  bool m_bHorizontalValid = false;
};

struct SFillHoleBlockResult
{
  bool m_bHoles;       // a hole was met; without one, nothing was written
  bool m_bWroteNoData; // a pixel got the no-data value
};

// Both sweeps as FillHoleForwardSweep and FillHoleBackwardSweep make them, over blocks of nBlockWidth
// columns (a multiple of 64, less than the width) on nThreads threads of the current arena. Without a
// hole the destination is not touched. Throws CBasicException, before the destination is touched,
// when the source has more holes than nMaxHoles.
//
// Required of the iterators: X and Y, ++it.Y, --it.Y, it += CPoint<int>, and what CRowReader and
// CRowWriter ask; iterators copied to other threads read and write their bands there.
template <bool BUseMask, class TLineData, class TSrcIterator, class TMaskIterator, class TDestIterator,
          class TComparator, class TValid, class THoleTag>
SFillHoleBlockResult FillHoleBlockSweeps(const SFillHoleSweepContext<TLineData>& oContext,
                                         const boost::tuples::tuple<TSrcIterator, TSrcIterator>& oSrc,
                                         const boost::tuples::tuple<TMaskIterator, TMaskIterator>& oMask,
                                         const boost::tuples::tuple<TDestIterator, TDestIterator>& oDest,
                                         const TComparator& oComparator, const TValid& oValid,
                                         std::uint32_t nMaxHoles, THoleTag*, std::uint32_t nBlockWidth,
                                         unsigned nThreads, Band::Detail::TRowPixel<TDestIterator> tNoData)
{
  using TBlock = SFillHoleBlock<TSrcIterator, TMaskIterator, TDestIterator, THoleTag>;
  using TDestPixel = Band::Detail::TRowPixel<TDestIterator>;
  using TPoint = Pravik::GraphObject2d::CPoint<int>;
  assert(nBlockWidth % 64 == 0 && nBlockWidth < oContext.m_nWidth);

  SFillHoleTables<TLineData>& oTables = oContext.m_oTables;
  const float fMaxDistance = oTables.m_oFresh.m_fMaxDistance;
  const SValidLineSetter<TLineData> oSetLines(fMaxDistance);
  const std::uint32_t nWidth = oContext.m_nWidth;
  const std::uint32_t nHeight = oContext.m_nHeight;
  const std::uint32_t nMinDirections = oContext.m_nMinDirections;
  const std::uint32_t nBlocks = (nWidth + nBlockWidth - 1) / nBlockWidth;
  std::vector<std::unique_ptr<TBlock>> vecBlocks;
  for (std::uint32_t k = 0; k < nBlocks; ++k)
    vecBlocks.push_back(std::make_unique<TBlock>(k * nBlockWidth, std::min(nWidth, (k + 1) * nBlockWidth), nWidth,
                                                 nMaxHoles));
  const TSrcIterator itSrc0 = boost::get<0>(oSrc);
  const TMaskIterator itMask0 = boost::get<0>(oMask);
  const TDestIterator itDest0 = boost::get<0>(oDest);
  std::atomic<std::uint64_t> nTotalHoles{0};

  // The window of block o on row y.
  const auto fnRead = [&](TBlock& o, SFillHoleSrcRow<TSrcIterator>& oRow, std::uint32_t y) {
    TSrcIterator itSrc = itSrc0;
    itSrc += TPoint(int(o.m_nWindow0), int(y));
    TMaskIterator itMask = itMask0;
    if constexpr (BUseMask)
      itMask += TPoint(int(o.m_nWindow0), int(y));
    oRow.template Read<BUseMask>(itSrc, itMask, o.m_nWindowWidth, o.m_oMaskReader, oComparator, oValid);
  };
  const auto fnTableRow = [&](const TBlock& o, std::uint32_t y) {
    TSrcIterator itSrc = itSrc0;
    itSrc += TPoint(int(o.m_nWindow0), int(y));
    return STableRow<TLineData>(oTables, itSrc.X, itSrc.Y, oContext.m_nSrcRepHeight);
  };
  const auto fnRun = [&](const auto& fnCell) {
    CFillHoleWavefront oWavefront(nHeight, nBlocks);
    // The scheduler's hand-over of the bodies, for ThreadSanitizer; the cells order themselves.
    ORL_TSAN_RELEASE(&oWavefront);
    tbb::parallel_for(
      tbb::blocked_range<unsigned>(0, nThreads, 1),
      [&](const tbb::blocked_range<unsigned>& oRange) {
        ORL_TSAN_ACQUIRE(&oWavefront);
        for (unsigned n = oRange.begin(); n != oRange.end(); ++n)
          oWavefront.Work(fnCell);
        ORL_TSAN_RELEASE(&oWavefront);
      },
      tbb::simple_partitioner());
    ORL_TSAN_ACQUIRE(&oWavefront);
    if (oContext.m_pLogger)
      for (std::uint32_t y = 0; y < nHeight; ++y)
        oContext.m_pLogger->IncrementProgress();
  };

  // Forward: cell (y, k) is row y of block k.
  fnRun([&](std::uint32_t y, std::uint32_t k) {
    TBlock& o = *vecBlocks[k];
    if (y == 0)
      fnRead(o, o.m_aRows[0], 0);
    const SFillHoleSrcRow<TSrcIterator>& oRow = o.m_aRows[y % 2];
    SFillHoleSrcRow<TSrcIterator>& oNext = o.m_aRows[(y + 1) % 2];
    if (y + 1 < nHeight)
      fnRead(o, oNext, y + 1);
    else
      oNext.m_oClasses.SetOutside();

    const STableRow<TLineData> oTableRow = fnTableRow(o, y);
    const auto* pSrc = oRow.m_pPixels;
    const unsigned char* pClass = oRow.m_oClasses.GetClasses();
    SetValidLines(oTableRow, pSrc, oRow.m_oClasses, oNext.m_oClasses, oSetLines, o.m_nWord0, o.m_nWord1);
    SHorizontalLine oHorizontal(fMaxDistance);
    if (k != 0)
      vecBlocks[k - 1]->LoadHorizontal(oHorizontal);
    const std::uint64_t* pEvents = oRow.m_oClasses.GetEventBits();
    CHoleAppender<THoleTag>& oAppender = o.m_oAppender;
    std::uint64_t nHoles = o.m_nHoles;
    const std::uint64_t nHolesBefore = nHoles;
    for (std::size_t w = o.m_nWord0; w < o.m_nWord1; ++w)
      for (std::uint64_t nBits = pEvents[w]; nBits != 0; nBits &= nBits - 1)
      {
        const std::ptrdiff_t n = std::ptrdiff_t(64 * w) + __builtin_ctzll(nBits);
        oHorizontal.SetIf(pClass[n - 1] == eFillHoleValid, float(pSrc[n - (n != 0)]));
        if (pClass[n] != eFillHoleHole)
          continue;
        if (nHoles == nMaxHoles) // the block's own list stays within the bound
          ThrowTooManyHoles(nMaxHoles);
        ++nHoles;
        SHoleSums oSums{0.0f, 0.0f, 0};
        oHorizontal.Contribute(oSums);
        Contribute(oTableRow.m_pVertical[n], oSums);
        Contribute(oTableRow.m_pMain[n], oSums);
        Contribute(oTableRow.m_pAnti[n], oSums);
        oAppender.Append(oSums);
      }
    o.SaveHorizontal(oHorizontal);
    o.m_nHoles = nHoles;
    const std::uint64_t nNew = nHoles - nHolesBefore;
    if (nNew != 0 && nTotalHoles.fetch_add(nNew, std::memory_order_relaxed) + nNew > nMaxHoles)
      ThrowTooManyHoles(nMaxHoles);
  });
  if (nTotalHoles.load() == 0)
    return SFillHoleBlockResult{false, false};

  oTables.Reset();
  for (const std::unique_ptr<TBlock>& p : vecBlocks)
    p->m_oHoles.EndForward(p->m_nHoles);

  // Backward: cell (r, k) is row H - 1 - r of block B - 1 - k; the destination row's block starts as
  // a copy of the source's, and holes and skipped pixels overwrite their pixels in it.
  fnRun([&](std::uint32_t r, std::uint32_t k) {
    const std::uint32_t y = nHeight - 1 - r;
    const std::uint32_t b = nBlocks - 1 - k;
    TBlock& o = *vecBlocks[b];
    if (r == 0)
      fnRead(o, o.m_aRows[0], y);
    const SFillHoleSrcRow<TSrcIterator>& oRow = o.m_aRows[r % 2];
    SFillHoleSrcRow<TSrcIterator>& oNext = o.m_aRows[(r + 1) % 2];
    if (y != 0)
      fnRead(o, oNext, y - 1);
    else
      oNext.m_oClasses.SetOutside();

    const STableRow<TLineData> oTableRow = fnTableRow(o, y);
    const auto* pSrc = oRow.m_pPixels;
    const unsigned char* pClass = oRow.m_oClasses.GetClasses();
    const std::ptrdiff_t nCoreOffset = o.m_nCore0 - o.m_nWindow0;
    TDestIterator itDest = itDest0;
    itDest += TPoint(int(o.m_nCore0), int(y));
    TDestPixel* const pDest = o.m_oDestWriter.BeginWrite(itDest, o.m_nCore1 - o.m_nCore0);
    std::copy(pSrc + nCoreOffset, pSrc + nCoreOffset + (o.m_nCore1 - o.m_nCore0), pDest);

    SetValidLines(oTableRow, pSrc, oRow.m_oClasses, oNext.m_oClasses, oSetLines, o.m_nWord0, o.m_nWord1);
    SHorizontalLine oHorizontal(fMaxDistance);
    if (b + 1 != nBlocks)
      vecBlocks[b + 1]->LoadHorizontal(oHorizontal);
    const std::uint64_t* pEvents = oRow.m_oClasses.GetEventBits();
    const std::ptrdiff_t nWindowWidth = o.m_nWindowWidth;
    CHoleTaker<THoleTag>& oTaker = o.m_oTaker;
    bool bWroteNoData = false;
    for (std::size_t w = o.m_nWord1; w-- != o.m_nWord0;)
      for (std::uint64_t nBits = pEvents[w]; nBits != 0;)
      {
        const int nBit = 63 - __builtin_clzll(nBits);
        nBits &= ~(std::uint64_t(1) << nBit);
        const std::ptrdiff_t n = std::ptrdiff_t(64 * w) + nBit;
        oHorizontal.SetIf(pClass[n + 1] == eFillHoleValid, float(pSrc[n + (n + 1 != nWindowWidth)]));
        TDestPixel& tDest = pDest[n - nCoreOffset];
        if (pClass[n] != eFillHoleHole)
        {
          tDest = tNoData; // skipped
          bWroteNoData = true;
          continue;
        }
        SHoleSums oSums = oTaker.TakeBack();
        oHorizontal.Contribute(oSums);
        Contribute(oTableRow.m_pVertical[n], oSums);
        Contribute(oTableRow.m_pAnti[n], oSums);
        Contribute(oTableRow.m_pMain[n], oSums);
        if (oSums.m_nCount >= nMinDirections)
          tDest = FloatToPixel<TDestPixel>(oSums.m_fValues / oSums.m_fWeights);
        else
        {
          tDest = tNoData;
          bWroteNoData = true;
        }
      }
    o.m_oDestWriter.EndWrite();
    o.SaveHorizontal(oHorizontal);
    o.m_bWroteNoData |= bWroteNoData;
  });

  bool bWroteNoData = false;
  for (const std::unique_ptr<TBlock>& p : vecBlocks)
    bWroteNoData |= p->m_bWroteNoData;
  return SFillHoleBlockResult{true, bWroteNoData};
}

}}}} // namespace Orl::Ostrel::Filter::Detail
