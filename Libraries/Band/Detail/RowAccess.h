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
// one tile) the array is the band's own memory, and the object keeps a copy of the iterator so that a
// tile stays held while the array is in use; where they are several runs, they go through a buffer,
// run by run; an iterator without runs is stepped pixel by pixel with its X mover.
//
// Both notice a walk down or up the band (the same columns, row after row) and pass it on as a hint
// to storage that reads ahead (SRowRuns::ReadAhead): a tile band then brings the next row of tiles
// back from its spill file while the current one is worked on.

#include "Band/Detail/RowRuns.h"

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

template <class TIterator>
class CRowReader
{
public:
  using TPixel = TRowPixel<TIterator>;

  const TPixel* Read(const TIterator& it, std::uint32_t nCount)
  {
    m_oHint.Note(it, nCount);
    m_oIt.emplace(it);
    if constexpr (SRowRuns<TIterator>::value)
    {
      using TRuns = SRowRuns<TIterator>;
      if (nCount != 0 && std::uint32_t(TRuns::Length(*m_oIt)) >= nCount)
        return TRuns::Pointer(*m_oIt);
      m_vecBuffer.resize(nCount);
      TPixel* pTo = m_vecBuffer.data();
      ForEachRowRun(*m_oIt, int(nCount), [&](const TPixel* pRun, int nRun) {
        CopyRun(pRun, pTo, nRun);
        pTo += nRun;
      });
    }
    else
    {
      m_vecBuffer.resize(nCount);
      TIterator itPixel = *m_oIt;
      for (std::uint32_t n = 0; n < nCount; ++n, ++itPixel.X)
        m_vecBuffer[n] = *itPixel;
    }
    return m_vecBuffer.data();
  }

private:
  std::optional<TIterator> m_oIt;
  std::vector<TPixel> m_vecBuffer;
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
    m_oIt.emplace(it);
    m_nCount = nCount;
    m_bDirect = false;
    if constexpr (SRowRuns<TIterator>::value)
    {
      using TRuns = SRowRuns<TIterator>;
      if (nCount != 0 && std::uint32_t(TRuns::Length(*m_oIt)) >= nCount)
      {
        m_bDirect = true;
        return TRuns::Pointer(*m_oIt);
      }
    }
    m_vecBuffer.resize(nCount);
    return m_vecBuffer.data();
  }

  void EndWrite()
  {
    if (m_bDirect || !m_oIt)
      return;
    const TPixel* pFrom = m_vecBuffer.data();
    if constexpr (SRowRuns<TIterator>::value)
      ForEachRowRun(*m_oIt, int(m_nCount), [&](TPixel* pRun, int nRun) {
        CopyRun(pFrom, pRun, nRun);
        pFrom += nRun;
      });
    else
    {
      TIterator itPixel = *m_oIt;
      for (std::uint32_t n = 0; n < m_nCount; ++n, ++itPixel.X)
        *itPixel = pFrom[n];
    }
  }

private:
  std::optional<TIterator> m_oIt;
  std::vector<TPixel> m_vecBuffer;
  std::uint32_t m_nCount = 0;
  bool m_bDirect = false;
  CRowWalkHint<TIterator> m_oHint;
};

}}}} // namespace Orl::Ostrel::Band::Detail
