#pragma once

// The hole list of the linear fill-hole filter: per hole, in the order the forward sweep meets them,
// the sum of weights, the sum of weighted values and the number of contributions. The backward sweep
// takes the entries back in reverse order.
//
// Entry i is at column i % 1024 of row i / 1024. The rows are kept in chunks of ms_nChunkRows rows,
// each made when the forward sweep first reaches it, so that the list touches memory in proportion to
// the holes met, never to the caller's bound.
//
// On memory bands a chunk is one plain work array (WorkBuffer.h), its rows one after the other (each
// row its weights, its values, its counts), so that the memory touched grows from the array's start;
// a whole chunk asks for huge pages. The list is made and filled anew by every call of the filter,
// and on 4 KB pages the first touches (a page fault per 455 holes) took near a tenth of the sweeps'
// time on single-pixel holes.
//
// On the other storage kinds the entries live in bands of that kind, so that on tile bands the list
// can leave memory like the bands themselves: each chunk three bands (weights, values, counts),
// reached through the row access of the band layer (Band/Detail/RowAccess.h), a tile's stretch at a
// time.
//
// On tile bands the list holds in memory only the chunk it works on: the forward sweep lets go of a
// chunk when it moves on to the next (its tiles may then leave for the spill file), and the backward
// sweep drops each chunk it has taken back. So a list costs the tile cache's budget one chunk,
// 2.25 MiB, however many holes there are (one list per stripe of rows on several threads).

#include "Band/Band.h"
#include "Band/Detail/RowAccess.h"
#include "Filter/Detail/WorkBuffer.h"
#include "Foundation/Rect.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// The accumulating part of an entry while its hole is being worked on.
struct SHoleSums
{
  float m_fWeights;
  float m_fValues;
  unsigned int m_nCount;
};

template <class TTag>
class CHoleList
{
public:
  static constexpr std::uint32_t ms_nWidth = 1024;
  // Memory bands: chunks of two huge pages less 1 KiB (455 rows of 9 KiB), so that none of a huge
  // page is left over; others: 2.25 MiB.
  static constexpr bool ms_bPlain = std::is_same<TTag, Band::SMemoryTag>::value;
  static constexpr std::uint32_t ms_nChunkRows = ms_bPlain ? 455 : 256;

  // One row of entries, ms_nWidth of them for writing, m_nEntries for reading.
  struct SRowOut
  {
    float* m_pWeights;
    float* m_pValues;
    unsigned char* m_pCounts;
  };
  struct SRowIn
  {
    const float* m_pWeights;
    const float* m_pValues;
    const unsigned char* m_pCounts;
    std::uint32_t m_nEntries;
  };

  // Room for nMaxHoles entries; nothing is made yet.
  explicit CHoleList(std::uint32_t nMaxHoles) : m_nMaxHoles(nMaxHoles) {}

  std::uint32_t GetMaxHoles() const { return m_nMaxHoles; }
  // Chunks held: made so far going forward, less those taken back entirely going backward.
  std::size_t GetChunkCount() const { return m_vecChunks.size(); }

  // Forward: stores the row written so far, if any, and gives the next one, making its chunk when
  // the row is a chunk's first. Out of line: once per ms_nWidth entries, and kept out of the sweeps'
  // loops.
  __attribute__((noinline)) SRowOut NextRow()
  {
    _EndWrite();
    const std::uint64_t nRow = m_nRows++;
    const bool bNewChunk = nRow % ms_nChunkRows == 0;
    if (bNewChunk)
    {
      // As many rows as the bound can still need, at most a chunk's.
      const std::uint64_t nRowsLeft = (std::uint64_t(m_nMaxHoles) + ms_nWidth - 1) / ms_nWidth - nRow;
      const unsigned nRows = unsigned(std::min<std::uint64_t>(ms_nChunkRows, nRowsLeft));
      if constexpr (ms_bPlain)
        m_vecChunks.push_back(SChunk{std::make_unique<TBytes>(std::size_t(nRows) * ms_nRowBytes)});
      else
        m_vecChunks.push_back(SChunk{TWeightBand(ms_nWidth, nRows), TWeightBand(ms_nWidth, nRows),
                                     TCountBand(ms_nWidth, nRows)});
    }
    const SRowOut oRow = _RowOut(m_vecChunks[nRow / ms_nChunkRows], nRow);
    // The writers have left the chunk before: nothing holds it in memory now but its bands.
    if (!ms_bPlain && bNewChunk && m_vecChunks.size() > 1)
      _LetGo(m_vecChunks[m_vecChunks.size() - 2]);
    return oRow;
  }

  // Between the sweeps: stores the last row; nSize entries were written.
  void EndForward(std::uint64_t nSize)
  {
    assert(nSize <= m_nRows * ms_nWidth && nSize + ms_nWidth > m_nRows * ms_nWidth);
    _EndWrite();
    m_nSize = nSize;
  }

  // Backward: the row before the last one given (at first the last row), with the entries written
  // to it: the last row may be partly filled, and only its entries are read.
  __attribute__((noinline)) SRowIn PreviousRow()
  {
    assert(m_nRows != 0 && "more entries taken back than appended");
    const std::uint64_t nRow = --m_nRows;
    const std::uint32_t nEntries = std::uint32_t(std::min<std::uint64_t>(ms_nWidth, m_nSize - nRow * ms_nWidth));
    const SRowIn oRow = _RowIn(m_vecChunks[nRow / ms_nChunkRows], nRow, nEntries);
    // The chunk after this row's is taken back entirely, and the readers have left it: it goes, tiles
    // and records, without a write.
    if (m_vecChunks.size() > nRow / ms_nChunkRows + 1)
      m_vecChunks.pop_back();
    return oRow;
  }

private:
  using TWeightBand = Band::CBand<float, TTag>;
  using TCountBand = Band::CBand<unsigned char, TTag>;
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;

  // Memory bands: plain rows of ms_nRowBytes, weights, values and counts.
  static constexpr std::size_t ms_nRowBytes = std::size_t(ms_nWidth) * (2 * sizeof(float) + 1);
  using TBytes = CWorkBuffer<unsigned char>;
  struct SPlainChunk
  {
    std::unique_ptr<TBytes> m_pBytes;
  };
  struct SBandChunk
  {
    TWeightBand m_oWeights;
    TWeightBand m_oValues;
    TCountBand m_oCounts;
  };
  using SChunk = std::conditional_t<ms_bPlain, SPlainChunk, SBandChunk>;

  template <class TBand>
  using TWriter = Band::Detail::CRowWriter<typename TBand::TRep::TIterator>;
  template <class TBand>
  using TReader = Band::Detail::CRowReader<typename TBand::TRep::TConstIterator>;

  static TRect _Row(std::uint64_t nRow) { return TRect(0, unsigned(nRow % ms_nChunkRows), ms_nWidth, 1); }

  // Row nRow of the list in its chunk, for writing and for reading.
  static SRowOut _RowOut(SPlainChunk& oChunk, std::uint64_t nRow)
  {
    unsigned char* p = oChunk.m_pBytes->data() + (nRow % ms_nChunkRows) * ms_nRowBytes;
    return SRowOut{reinterpret_cast<float*>(p), reinterpret_cast<float*>(p + 4 * ms_nWidth), p + 8 * ms_nWidth};
  }
  SRowOut _RowOut(SBandChunk& oChunk, std::uint64_t nRow)
  {
    return SRowOut{m_oWeights.BeginWrite(boost::get<0>(oChunk.m_oWeights.GetBandIterators(_Row(nRow))), ms_nWidth),
                   m_oValues.BeginWrite(boost::get<0>(oChunk.m_oValues.GetBandIterators(_Row(nRow))), ms_nWidth),
                   m_oCounts.BeginWrite(boost::get<0>(oChunk.m_oCounts.GetBandIterators(_Row(nRow))), ms_nWidth)};
  }
  static SRowIn _RowIn(const SPlainChunk& oChunk, std::uint64_t nRow, std::uint32_t nEntries)
  {
    const unsigned char* p = oChunk.m_pBytes->data() + (nRow % ms_nChunkRows) * ms_nRowBytes;
    return SRowIn{reinterpret_cast<const float*>(p), reinterpret_cast<const float*>(p + 4 * ms_nWidth),
                  p + 8 * ms_nWidth, nEntries};
  }
  SRowIn _RowIn(const SBandChunk& oChunk, std::uint64_t nRow, std::uint32_t nEntries)
  {
    return SRowIn{m_oReadWeights.Read(boost::get<0>(oChunk.m_oWeights.GetBandIterators(_Row(nRow))), nEntries),
                  m_oReadValues.Read(boost::get<0>(oChunk.m_oValues.GetBandIterators(_Row(nRow))), nEntries),
                  m_oReadCounts.Read(boost::get<0>(oChunk.m_oCounts.GetBandIterators(_Row(nRow))), nEntries),
                  nEntries};
  }

  // Tile bands keep the tiles last asked for in a local cache of their own, which would hold a band
  // of a chunk's size whole.
  static void _LetGo(const SChunk& oChunk)
  {
    if constexpr (std::is_same<TTag, Band::STileTag>::value)
    {
      oChunk.m_oWeights.GetRep().ReleaseLocalCache();
      oChunk.m_oValues.GetRep().ReleaseLocalCache();
      oChunk.m_oCounts.GetRep().ReleaseLocalCache();
    }
    else
      (void)oChunk;
  }

  void _EndWrite()
  {
    m_oWeights.EndWrite();
    m_oValues.EndWrite();
    m_oCounts.EndWrite();
  }

  const std::uint32_t m_nMaxHoles;
  std::uint64_t m_nRows = 0; // forward: rows given; backward: rows not yet taken back
  std::uint64_t m_nSize = 0;
  std::vector<SChunk> m_vecChunks;

  // Declared after the chunks: the iterators they keep go first.
  TWriter<TWeightBand> m_oWeights;
  TWriter<TWeightBand> m_oValues;
  TWriter<TCountBand> m_oCounts;
  TReader<TWeightBand> m_oReadWeights;
  TReader<TWeightBand> m_oReadValues;
  TReader<TCountBand> m_oReadCounts;
};

// The sweeps' positions in the list. Locals of a sweep, so that the row pointers stay in registers
// (the list itself is reached through a reference, and every byte store may alias it).
template <class TTag>
class CHoleAppender
{
public:
  explicit CHoleAppender(CHoleList<TTag>& oList) : m_oList(oList) {}

  void Append(const SHoleSums& oSums)
  {
    if (m_nInRow == CHoleList<TTag>::ms_nWidth)
    {
      m_oRow = m_oList.NextRow();
      m_nInRow = 0;
    }
    m_oRow.m_pWeights[m_nInRow] = oSums.m_fWeights;
    m_oRow.m_pValues[m_nInRow] = oSums.m_fValues;
    m_oRow.m_pCounts[m_nInRow] = static_cast<unsigned char>(oSums.m_nCount);
    ++m_nInRow;
  }

private:
  CHoleList<TTag>& m_oList;
  typename CHoleList<TTag>::SRowOut m_oRow{};
  std::uint32_t m_nInRow = CHoleList<TTag>::ms_nWidth;
};

template <class TTag>
class CHoleTaker
{
public:
  explicit CHoleTaker(CHoleList<TTag>& oList) : m_oList(oList) {}

  // The entry before the last one taken, starting from the last one appended.
  SHoleSums TakeBack()
  {
    if (m_nInRow == 0)
    {
      m_oRow = m_oList.PreviousRow();
      m_nInRow = m_oRow.m_nEntries;
    }
    --m_nInRow;
    return SHoleSums{m_oRow.m_pWeights[m_nInRow], m_oRow.m_pValues[m_nInRow], m_oRow.m_pCounts[m_nInRow]};
  }

private:
  CHoleList<TTag>& m_oList;
  typename CHoleList<TTag>::SRowIn m_oRow{};
  std::uint32_t m_nInRow = 0;
};

}}}} // namespace Orl::Ostrel::Filter::Detail
