#pragma once

// The hole list of the linear fill-hole filter: per hole, in the order the forward sweep meets them,
// the sum of weights, the sum of weighted values and the number of contributions. The backward sweep
// takes the entries back in reverse order.
//
// The entries live in bands of the filtered bands' storage kind, so that on tile bands the list can
// leave memory like the bands themselves: entry i at column i % 1024 of row i / 1024. The rows are
// kept in chunks of ms_nChunkRows rows, each chunk three bands (weights, values, counts) made when the
// forward sweep first reaches it, so that the list touches memory in proportion to the holes met,
// never to the caller's bound. Rows are reached through the row access of the band layer
// (Band/Detail/RowAccess.h): a memory band's row is written in place, a tile band's through a row
// buffer, a tile's stretch at a time.

#include "Band/Band.h"
#include "Band/Detail/RowAccess.h"
#include "Foundation/Rect.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
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
  static constexpr std::uint32_t ms_nChunkRows = 256;

  // Room for nMaxHoles entries; nothing is made yet.
  explicit CHoleList(std::uint32_t nMaxHoles) : m_nMaxHoles(nMaxHoles) {}

  std::uint32_t GetMaxHoles() const { return m_nMaxHoles; }
  std::uint64_t GetSize() const { return m_nSize; }
  // Chunks made so far: what the list holds in memory or in tiles.
  std::size_t GetChunkCount() const { return m_vecChunks.size(); }

  // Forward sweep: appends an entry. The caller keeps to GetMaxHoles() entries.
  void Append(const SHoleSums& oSums)
  {
    assert(m_nSize < m_nMaxHoles);
    if (m_nInRow == ms_nWidth)
      _NextRow();
    m_pWeights[m_nInRow] = oSums.m_fWeights;
    m_pValues[m_nInRow] = oSums.m_fValues;
    m_pCounts[m_nInRow] = static_cast<unsigned char>(oSums.m_nCount);
    ++m_nInRow;
    ++m_nSize;
  }

  // Between the sweeps: stores the last row written and turns the list round.
  void EndForward()
  {
    m_oWeights.EndWrite();
    m_oValues.EndWrite();
    m_oCounts.EndWrite();
    m_nRow = (m_nSize + ms_nWidth - 1) / ms_nWidth;
    m_nInRow = 0;
  }

  // Backward sweep: the entry before the last one taken, starting from the last one appended.
  SHoleSums TakeBack()
  {
    if (m_nInRow == 0)
      _PreviousRow();
    --m_nInRow;
    return SHoleSums{m_pcWeights[m_nInRow], m_pcValues[m_nInRow], m_pcCounts[m_nInRow]};
  }

private:
  using TWeightBand = Band::CBand<float, TTag>;
  using TCountBand = Band::CBand<unsigned char, TTag>;
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;

  struct SChunk
  {
    TWeightBand m_oWeights;
    TWeightBand m_oValues;
    TCountBand m_oCounts;
  };

  template <class TBand>
  using TWriter = Band::Detail::CRowWriter<typename TBand::TRep::TIterator>;
  template <class TBand>
  using TReader = Band::Detail::CRowReader<typename TBand::TRep::TConstIterator>;

  static TRect _Row(std::uint64_t nRow) { return TRect(0, unsigned(nRow % ms_nChunkRows), ms_nWidth, 1); }

  void _NextRow()
  {
    m_oWeights.EndWrite();
    m_oValues.EndWrite();
    m_oCounts.EndWrite();
    const std::uint64_t nRow = m_nSize / ms_nWidth;
    if (nRow % ms_nChunkRows == 0)
    {
      // As many rows as the bound can still need, at most a chunk's.
      const std::uint64_t nRowsLeft = (std::uint64_t(m_nMaxHoles) + ms_nWidth - 1) / ms_nWidth - nRow;
      const unsigned nRows = unsigned(std::min<std::uint64_t>(ms_nChunkRows, nRowsLeft));
      m_vecChunks.push_back(SChunk{TWeightBand(ms_nWidth, nRows), TWeightBand(ms_nWidth, nRows),
                                   TCountBand(ms_nWidth, nRows)});
    }
    SChunk& oChunk = m_vecChunks[nRow / ms_nChunkRows];
    m_pWeights = m_oWeights.BeginWrite(boost::get<0>(oChunk.m_oWeights.GetBandIterators(_Row(nRow))), ms_nWidth);
    m_pValues = m_oValues.BeginWrite(boost::get<0>(oChunk.m_oValues.GetBandIterators(_Row(nRow))), ms_nWidth);
    m_pCounts = m_oCounts.BeginWrite(boost::get<0>(oChunk.m_oCounts.GetBandIterators(_Row(nRow))), ms_nWidth);
    m_nInRow = 0;
  }

  // Reads only the entries that were written: the last row may be partly filled.
  void _PreviousRow()
  {
    assert(m_nRow != 0 && "more entries taken back than appended");
    const std::uint64_t nRow = --m_nRow;
    const std::uint32_t nEntries = std::uint32_t(std::min<std::uint64_t>(ms_nWidth, m_nSize - nRow * ms_nWidth));
    const SChunk& oChunk = m_vecChunks[nRow / ms_nChunkRows];
    m_pcWeights = m_oReadWeights.Read(boost::get<0>(oChunk.m_oWeights.GetBandIterators(_Row(nRow))), nEntries);
    m_pcValues = m_oReadValues.Read(boost::get<0>(oChunk.m_oValues.GetBandIterators(_Row(nRow))), nEntries);
    m_pcCounts = m_oReadCounts.Read(boost::get<0>(oChunk.m_oCounts.GetBandIterators(_Row(nRow))), nEntries);
    m_nInRow = nEntries;
  }

  const std::uint32_t m_nMaxHoles;
  std::uint64_t m_nSize = 0;
  std::uint32_t m_nInRow = ms_nWidth; // the forward sweep starts a row at its first entry
  std::uint64_t m_nRow = 0;           // backward: the row after the one being read
  std::vector<SChunk> m_vecChunks;

  TWriter<TWeightBand> m_oWeights;
  TWriter<TWeightBand> m_oValues;
  TWriter<TCountBand> m_oCounts;
  float* m_pWeights = nullptr;
  float* m_pValues = nullptr;
  unsigned char* m_pCounts = nullptr;

  TReader<TWeightBand> m_oReadWeights;
  TReader<TWeightBand> m_oReadValues;
  TReader<TCountBand> m_oReadCounts;
  const float* m_pcWeights = nullptr;
  const float* m_pcValues = nullptr;
  const unsigned char* m_pcCounts = nullptr;
};

}}}} // namespace Orl::Ostrel::Filter::Detail
