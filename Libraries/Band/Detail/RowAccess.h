#pragma once

// One row of a band as a plain array, for walks that work on a whole row at a time (the fill-hole
// filter's sweeps and the hole lists it keeps in bands).
//
//   CRowReader<TIterator>  Read(it, n): the n pixels from it on, as a const array that stays valid
//                          until the next Read or the reader's end.
//   CRowWriter<TIterator>  BeginWrite(it, n): an array for the n pixels from it on; EndWrite() stores
//                          it. What the array holds before it is written is unspecified.
//
// Both ask SRowRuns (RowRuns.h). Where the n pixels are one run (a memory band's row, a row inside
// one tile) the array is the band's own memory; where they are several runs, they go through a buffer,
// run by run; an iterator without runs is stepped pixel by pixel with its X mover.
//
// On tiles, both hold every tile of the row they were last given, and keep them for the following
// rows of the same row of tiles over the same columns (CRowOfTiles): a walk down or up the band takes
// each tile from the tile cache once per row of tiles, not once per row of pixels, and the tiles it
// works on cannot leave memory under it, whatever the cache's budget. What an object holds is one
// row of tiles over its columns, until it is given a row elsewhere or ends.
//
// Both notice a walk down or up the band (the same columns, row after row) and pass it on as a hint
// to storage that reads ahead (SRowRuns::ReadAhead): a tile band then brings the next row of tiles
// back from its spill file while the current one is worked on.

#include "Band/Detail/RowRuns.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

template <class TIterator>
using TRowPixel = std::remove_cv_t<std::remove_reference_t<decltype(*std::declval<const TIterator&>())>>;

// The hint of a row walk: whether the rows asked for go down or up the band over the same columns.
template <class TIterator>
class CRowWalkHint
{
public:
  void Note(const TIterator& it, std::uint32_t nCount)
  {
    if constexpr (SRowRuns<TIterator>::value)
      if constexpr (SRowRuns<TIterator>::ms_bReadAhead)
      {
        const int nX = int(it.X), nY = int(it.Y);
        const bool bWalk = m_bValid && nX == m_nX && nCount == m_nCount && nY != m_nY;
        if (bWalk)
          SRowRuns<TIterator>::ReadAhead(it, int(nCount), m_nY, !m_bWalking);
        m_bWalking = bWalk;
        m_bValid = true;
        m_nX = nX;
        m_nY = nY;
        m_nCount = nCount;
        return;
      }
    (void)it;
    (void)nCount;
  }

private:
  bool m_bValid = false;
  bool m_bWalking = false; // the row before was already a step of the walk
  int m_nX = 0;
  int m_nY = 0;
  std::uint32_t m_nCount = 0;
};

// The runs of a row of nCount pixels from a tile iterator's position, for every row of pixels of its
// row of tiles, with the tiles held.
template <class TIterator>
class CRowOfTiles
{
public:
  using TRuns = SRowRuns<TIterator>;
  using TPointer = decltype(TRuns::Pointer(std::declval<const TIterator&>()));

  // Makes row it.Y current; the tiles are taken again only when it lies in another row of tiles or
  // band, or the columns differ. it is attached and nCount is not 0.
  void MoveTo(const TIterator& it, std::uint32_t nCount)
  {
    const int nY = int(it.Y);
    // With nothing held m_nCount is 0, and the holds are not looked at.
    if (nCount != m_nCount || int(it.X) != m_nX || nY < m_nTop || nY >= m_nBottom ||
        TRuns::Hold(it).get() != m_vecHolds.front().get())
      _Take(it, nCount);
    m_nRow = std::ptrdiff_t(nY - m_nY);
  }

  std::size_t GetRunCount() const { return m_vecRuns.size(); }
  TPointer GetFirstRun() const { return m_vecRuns.front().m_pFirst + m_nRow * m_vecRuns.front().m_nStride; }
  // fn(pointer, n) for the runs of the current row, in order.
  template <class TFn>
  void ForEachRun(TFn&& fn) const
  {
    for (const SRun& oRun : m_vecRuns)
      fn(oRun.m_pFirst + m_nRow * oRun.m_nStride, oRun.m_nLength);
  }

private:
  struct SRun
  {
    TPointer m_pFirst; // at row m_nY
    std::ptrdiff_t m_nStride;
    int m_nLength;
  };

  void _Take(const TIterator& it, std::uint32_t nCount)
  {
    // Let go first: at a tight budget the old row of tiles may leave for the new one.
    m_vecRuns.clear();
    m_vecHolds.clear();
    m_nCount = 0;
    const int nY = int(it.Y);
    int nTop = INT_MIN, nBottom = INT_MAX;
    TIterator itRun = it;
    for (int nLeft = int(nCount); nLeft > 0;)
    {
      const int nRun = std::min(nLeft, TRuns::Length(itRun));
      m_vecRuns.push_back(SRun{TRuns::Pointer(itRun), TRuns::Stride(itRun), nRun});
      m_vecHolds.push_back(TRuns::Hold(itRun));
      nTop = std::max(nTop, nY - TRuns::RowsAbove(itRun));
      nBottom = std::min(nBottom, nY + TRuns::RowsBelow(itRun) + 1);
      nLeft -= nRun;
      TRuns::Advance(itRun, nLeft == 0 ? nRun - 1 : nRun);
    }
    m_nX = int(it.X);
    m_nY = nY;
    m_nTop = nTop;
    m_nBottom = nBottom;
    m_nCount = nCount;
  }

  std::vector<SRun> m_vecRuns;
  std::vector<std::remove_cv_t<std::remove_reference_t<decltype(TRuns::Hold(std::declval<const TIterator&>()))> > >
    m_vecHolds;
  std::uint32_t m_nCount = 0; // 0: nothing held
  int m_nX = 0;
  int m_nY = 0; // the row the runs' pointers are at
  int m_nTop = 0;
  int m_nBottom = 0;
  std::ptrdiff_t m_nRow = 0; // the current row, from m_nY
};

// Where runs lie in tiles, the row accesses keep a CRowOfTiles; elsewhere nothing of it.
struct SNoRowOfTiles
{
};
template <class TIterator>
constexpr bool HasTileRuns()
{
  if constexpr (SRowRuns<TIterator>::value)
    return SRowRuns<TIterator>::ms_bTiles;
  else
    return false;
}
template <class TIterator>
using TRowOfTiles = std::conditional_t<HasTileRuns<TIterator>(), CRowOfTiles<TIterator>, SNoRowOfTiles>;

template <class TIterator>
class CRowReader
{
public:
  using TPixel = TRowPixel<TIterator>;

  const TPixel* Read(const TIterator& it, std::uint32_t nCount)
  {
    m_oHint.Note(it, nCount);
    if constexpr (HasTileRuns<TIterator>())
    {
      if (nCount == 0)
        return m_vecBuffer.data();
      m_oTiles.MoveTo(it, nCount);
      if (m_oTiles.GetRunCount() == 1)
        return m_oTiles.GetFirstRun();
      m_vecBuffer.resize(nCount);
      TPixel* pTo = m_vecBuffer.data();
      m_oTiles.ForEachRun([&](const TPixel* pRun, int nRun) {
        CopyRun(pRun, pTo, nRun);
        pTo += nRun;
      });
    }
    else if constexpr (SRowRuns<TIterator>::value)
    {
      // One run: memory, which nothing needs to hold.
      using TRuns = SRowRuns<TIterator>;
      if (nCount != 0 && std::uint32_t(TRuns::Length(it)) >= nCount)
        return TRuns::Pointer(it);
      m_vecBuffer.resize(nCount);
      TPixel* pTo = m_vecBuffer.data();
      TIterator itRun = it;
      ForEachRowRun(itRun, int(nCount), [&](const TPixel* pRun, int nRun) {
        CopyRun(pRun, pTo, nRun);
        pTo += nRun;
      });
    }
    else
    {
      m_vecBuffer.resize(nCount);
      TIterator itPixel = it;
      for (std::uint32_t n = 0; n < nCount; ++n, ++itPixel.X)
        m_vecBuffer[n] = *itPixel;
    }
    return m_vecBuffer.data();
  }

private:
  std::vector<TPixel> m_vecBuffer;
  TRowOfTiles<TIterator> m_oTiles;
  CRowWalkHint<TIterator> m_oHint;
};

template <class TIterator>
class CRowWriter
{
public:
  using TPixel = TRowPixel<TIterator>;

  TPixel* BeginWrite(const TIterator& it, std::uint32_t nCount)
  {
    m_oHint.Note(it, nCount);
    m_nCount = nCount;
    m_bDirect = false;
    m_bPending = nCount != 0;
    if constexpr (HasTileRuns<TIterator>())
    {
      if (nCount != 0)
      {
        m_oTiles.MoveTo(it, nCount);
        if (m_oTiles.GetRunCount() == 1)
        {
          m_bDirect = true;
          return m_oTiles.GetFirstRun();
        }
      }
    }
    else
    {
      m_oIt.emplace(it);
      if constexpr (SRowRuns<TIterator>::value)
        if (nCount != 0 && std::uint32_t(SRowRuns<TIterator>::Length(it)) >= nCount)
        {
          m_bDirect = true;
          return SRowRuns<TIterator>::Pointer(it);
        }
    }
    m_vecBuffer.resize(nCount);
    return m_vecBuffer.data();
  }

  void EndWrite()
  {
    if (m_bDirect || !m_bPending)
      return;
    m_bPending = false;
    const TPixel* pFrom = m_vecBuffer.data();
    if constexpr (HasTileRuns<TIterator>())
      m_oTiles.ForEachRun([&](TPixel* pRun, int nRun) {
        CopyRun(pFrom, pRun, nRun);
        pFrom += nRun;
      });
    else if constexpr (SRowRuns<TIterator>::value)
    {
      TIterator itRun = *m_oIt;
      ForEachRowRun(itRun, int(m_nCount), [&](TPixel* pRun, int nRun) {
        CopyRun(pFrom, pRun, nRun);
        pFrom += nRun;
      });
    }
    else
    {
      TIterator itPixel = *m_oIt;
      for (std::uint32_t n = 0; n < m_nCount; ++n, ++itPixel.X)
        *itPixel = pFrom[n];
    }
  }

private:
  std::optional<TIterator> m_oIt; // where runs do not lie in tiles
  std::vector<TPixel> m_vecBuffer;
  TRowOfTiles<TIterator> m_oTiles;
  std::uint32_t m_nCount = 0;
  bool m_bDirect = false;
  bool m_bPending = false; // a buffered row waits for EndWrite
  CRowWalkHint<TIterator> m_oHint;
};

}}}} // namespace Orl::Ostrel::Band::Detail
