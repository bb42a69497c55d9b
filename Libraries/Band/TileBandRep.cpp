#include "Band/TileBandRep.h"

#include "Band/StatisticCalculator.h"

#include <boost/chrono/duration.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>
#include <tbb/info.h>

#include <algorithm>
#include <cassert>
#include <exception>

namespace Orl { namespace Ostrel { namespace Band {

namespace {

// Fraction of the tiles that an approximate statistic looks at, and the diagonal step between the
// sampled columns of consecutive rows of tiles (coprime to the fraction, so that every column residue
// comes up). Bands up to ms_nApproxFullPixels pixels are sampled whole, as memory bands are.
constexpr unsigned int g_nApproxTileFraction = 16;
constexpr unsigned int g_nApproxDiagonalStep = 5;

} // namespace

template <class TPixel>
CTileBandRep<TPixel>::CTileBandRep(unsigned int nWidth, unsigned int nHeight)
  : Detail::CBandRep<TPixel>(nWidth, nHeight), m_nTileSizeX(Detail::STileSize<TPixel>::ms_nX),
    m_nTileSizeY(Detail::STileSize<TPixel>::ms_nY), m_nTilesPerRow(0), m_oLocalCache(0),
    m_ePrefetchPattern(ePrefetchNone), m_oPrefetchQueue(9)
{
  m_pSourceInfo = boost::make_shared<Detail::CTileSourceInfo>(nWidth, nHeight, 0);
  m_pSourceInfo->SetFileDriver(boost::make_shared<Detail::CTileCacheFileDriverAdapter>());
  m_nTilesPerRow = nWidth / m_nTileSizeX + (nWidth % m_nTileSizeX != 0 ? 1 : 0);
  // Four tiles per scheduler thread: what the iterators of all tasks walking the band hold at once.
  m_oLocalCache.SetCapacity(4 * static_cast<unsigned int>(tbb::info::default_concurrency()));
  m_vTileIds.assign(std::size_t(m_nTilesPerRow) * ((std::uint64_t(nHeight) + m_nTileSizeY - 1) / m_nTileSizeY), 0);
  // Last: the calculator is the only part of the record that depends on the concrete class.
  this->GetStatistics().m_pCalculator =
    boost::make_shared<Detail::CStatisticCalculator<TPixel, double, CTileBandRep<TPixel> > >(this);
}

template <class TPixel>
CTileBandRep<TPixel>::~CTileBandRep()
{
  if (m_pPrefetchThread)
  {
    m_oPrefetchQueue.AddElementIfPossible(ms_nStopPrefetch, true);
    assert(m_pPrefetchThread->get_id() != boost::this_thread::get_id());
    if (m_pPrefetchThread->joinable() && !m_pPrefetchThread->try_join_for(boost::chrono::milliseconds(10)))
    {
      // The thread works on this object, so it has to end before the members go. A full queue drops
      // the stop order; the thread then waits in the queue, or will, and an interruption ends it there.
      m_pPrefetchThread->interrupt();
      m_pPrefetchThread->join();
    }
  }
  for (const std::uint32_t nId : m_vTileIds)
    if (nId != 0)
      m_pTileCache->ReleaseTile(nId);
}

template <class TPixel>
boost::shared_ptr<Detail::CTileBase> CTileBandRep<TPixel>::GetTile(unsigned int nX, unsigned int nY,
                                                                   bool bWrite) const
{
  assert(nX < this->m_nWidth && nY < this->m_nHeight);
  const unsigned int nIndex = _GetTileIndex(nX, nY);
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  _FeedPrefetchQueue(nIndex);
  return _GetTileLocked(nIndex, nX, nY, bWrite);
}

template <class TPixel>
boost::shared_ptr<Detail::CTileBase> CTileBandRep<TPixel>::_GetTileLocked(unsigned int nIndex, unsigned int nX,
                                                                          unsigned int nY, bool bWrite) const
{
  if (const boost::shared_ptr<Detail::CTileBase>* pHit = m_oLocalCache.FindItem(nIndex))
  {
    // A read never clears the mark. The tile is held here, so the tile cache is not writing it out.
    Detail::CTileBase& oTile = **pHit;
    oTile.SetModified(bWrite || oTile.IsModified());
    return *pHit;
  }
  std::uint32_t& nId = m_vTileIds[nIndex];
  if (nId == 0)
    nId = _AllocateNewTile(nX, nY);
  const boost::shared_ptr<Detail::CTileBase> pTile = m_pTileCache->GetTile(nId, bWrite);
  m_oLocalCache.AddItem(nIndex, pTile);
  return pTile;
}

template <class TPixel>
unsigned int CTileBandRep<TPixel>::_AllocateNewTile(unsigned int nX, unsigned int nY) const
{
  const unsigned int nX0 = nX - nX % m_nTileSizeX;
  const unsigned int nY0 = nY - nY % m_nTileSizeY;
  // Edge tiles are as small as the band leaves them; their blocks come from smaller pools.
  const boost::shared_ptr<Detail::CTileBase> pTile =
    boost::make_shared<Detail::CTile<TPixel, Detail::CDefaultTileAlloc<TPixel> > >(
      std::min(this->m_nWidth - nX0, m_nTileSizeX), std::min(m_nTileSizeY, this->m_nHeight - nY0), nX0, nY0,
      m_pSourceInfo);
  if (!m_pTileCache)
    m_pTileCache = CTileCache::GetGlobal();
  return m_pTileCache->RegisterTile(pTile);
}

template <class TPixel>
void CTileBandRep<TPixel>::_AskFor(unsigned int nIndex) const
{
  if (!m_oLocalCache.FindItem(nIndex))
    m_oPrefetchQueue.AddElementIfPossible(nIndex, false);
}

template <class TPixel>
void CTileBandRep<TPixel>::_AskForRow(unsigned int nRow, unsigned int nFirstColumn) const
{
  for (unsigned int nColumn = nFirstColumn; nColumn < m_nTilesPerRow; ++nColumn)
  {
    if (!m_oPrefetchQueue.HasFreeSpace())
      return;
    _AskFor(nRow * m_nTilesPerRow + nColumn);
  }
}

template <class TPixel>
void CTileBandRep<TPixel>::_FeedPrefetchQueue(unsigned int nIndex) const
{
  const unsigned int nRow = nIndex / m_nTilesPerRow;
  const unsigned int nColumn = nIndex % m_nTilesPerRow;
  switch (m_ePrefetchPattern)
  {
  case ePrefetchNextRow:
    if (std::uint64_t(m_nTileSizeY) * (nRow + 1) < this->m_nHeight)
      _AskForRow(nRow + 1, 0);
    break;
  case ePrefetchPreviousRow:
    if (nRow != 0)
      _AskForRow(nRow - 1, 0);
    break;
  case ePrefetchRestOfRow:
    _AskForRow(nRow, nColumn + 1);
    break;
  case ePrefetchNextTile:
    // Not checked against the band: behind the last tile the index lies beyond the table, and the
    // prefetch thread ignores it. A full queue drops it.
    if (nColumn + 1 < m_nTilesPerRow)
      _AskFor(nIndex + 1);
    else
      _AskFor((nRow + 1) * m_nTilesPerRow);
    break;
  case ePrefetchNone:
  default:
    break;
  }
}

template <class TPixel>
void CTileBandRep<TPixel>::SetPrefetchPattern(EPrefetchPattern ePattern)
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  m_ePrefetchPattern = ePattern;
  if (ePattern != ePrefetchNone && !m_pPrefetchThread)
    m_pPrefetchThread = boost::make_shared<boost::thread>([this] { _PrefetchLoop(); });
}

template <class TPixel>
EPrefetchPattern CTileBandRep<TPixel>::GetPrefetchPattern() const
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  return m_ePrefetchPattern;
}

// The prefetch thread. A tile it brings in goes the way of a read by GetTile (made if need be, into the
// local cache), but asks for no further tiles itself.
template <class TPixel>
void CTileBandRep<TPixel>::_PrefetchLoop()
{
  for (;;)
  {
    boost::this_thread::interruption_point();
    const unsigned int nIndex = m_oPrefetchQueue.RemoveElement();
    if (nIndex == ms_nStopPrefetch)
      return;
    if (nIndex >= m_vTileIds.size())
      continue;
    // Interruption only while waiting for work: the tile cache's waits must not be left half-way.
    boost::this_thread::disable_interruption oNoInterruption;
    try
    {
      const unsigned int nX = (nIndex % m_nTilesPerRow) * m_nTileSizeX;
      const unsigned int nY = (nIndex / m_nTilesPerRow) * m_nTileSizeY;
      boost::unique_lock<boost::mutex> oLock(m_oMutex);
      if (m_oLocalCache.FindItem(nIndex))
        continue;
      // A tile that exists is read back from disk first without this band's lock, which GetTile would
      // hold for the whole read: readers of the band's other tiles go on meanwhile. Held here, the
      // tile stays in memory until the locked path below finds it there.
      const std::uint32_t nId = m_vTileIds[nIndex];
      if (nId != 0)
      {
        const boost::shared_ptr<CTileCache> pTileCache = m_pTileCache;
        oLock.unlock();
        const boost::shared_ptr<Detail::CTileBase> pWarm = pTileCache->GetTile(nId, false);
        oLock.lock();
        if (m_oLocalCache.FindItem(nIndex))
          continue;
      }
      _GetTileLocked(nIndex, nX, nY, false);
    }
    catch (const Harnel::CBasicException&)
    {
      // A failed read or allocation is met again by whoever needs the tile, and reported there.
    }
    catch (const std::exception&)
    {
    }
  }
}

template <class TPixel>
void CTileBandRep<TPixel>::ReadAhead(unsigned int nX, unsigned int nWidth, int nY) const
{
  if (nY < 0 || unsigned(nY) >= this->m_nHeight || nX >= this->m_nWidth || nWidth == 0)
    return;
  const unsigned int nFirst = nX / m_nTileSizeX;
  const unsigned int nLast = (std::min(this->m_nWidth - nX, nWidth) - 1 + nX) / m_nTileSizeX;
  const unsigned int nRow = unsigned(nY) / m_nTileSizeY;
  unsigned int anIds[64];
  boost::shared_ptr<CTileCache> pTileCache;
  try
  {
    for (unsigned int nColumn = nFirst; nColumn <= nLast;)
    {
      std::size_t nIds = 0;
      {
        boost::unique_lock<boost::mutex> oLock(m_oMutex);
        if (!m_pTileCache)
          return;
        pTileCache = m_pTileCache;
        for (; nColumn <= nLast && nIds < sizeof(anIds) / sizeof(anIds[0]); ++nColumn)
        {
          const unsigned int nIndex = nRow * m_nTilesPerRow + nColumn;
          if (m_vTileIds[nIndex] != 0 && !m_oLocalCache.FindItem(nIndex))
            anIds[nIds++] = m_vTileIds[nIndex];
        }
      }
      pTileCache->ReadAhead(anIds, nIds);
    }
  }
  catch (const std::exception&)
  {
    // Only a hint: a lock that cannot be taken leaves the tiles to be read when they are needed.
  }
}

template <class TPixel>
unsigned int CTileBandRep<TPixel>::GetTileId(unsigned int nIndex) const
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  return m_vTileIds.at(nIndex);
}

template <class TPixel>
unsigned int CTileBandRep<TPixel>::GetLocalCacheCapacity() const
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  return m_oLocalCache.GetCapacity();
}

template <class TPixel>
typename CTileBandRep<TPixel>::TScanOrderIterator CTileBandRep<TPixel>::begin()
{
  this->InvalidateStatistics();
  return TScanOrderIterator(this, 0);
}

template <class TPixel>
typename CTileBandRep<TPixel>::TScanOrderIterator CTileBandRep<TPixel>::end()
{
  return TScanOrderIterator(this, this->m_nHeight);
}

// A band of width 0 and some height must not be cleared: its walk has no end and no tile.
template <class TPixel>
CTileBandRep<TPixel>& CTileBandRep<TPixel>::Clear(TPixel tValue)
{
  this->InvalidateStatistics();
  // A band without pixels has nothing to set; its scan-order walk must not start (a zero width with
  // some height would step on a tile that does not exist).
  if (this->GetPixelCount() != 0)
  {
    const TScanOrderIterator itEnd = end();
    for (TScanOrderIterator it = begin(); it != itEnd;)
      it.FillToTileEdge(tValue);
  }
  this->InvalidateStatistics();
  return *this;
}

template <class TPixel>
std::vector<typename CTileBandRep<TPixel>::TRect> CTileBandRep<TPixel>::GetApproxRects() const
{
  const std::uint64_t nPixels = std::uint64_t(this->m_nWidth) * this->m_nHeight;
  if (nPixels <= this->ms_nApproxFullPixels)
    return {this->GetBoundingRect()};
  const unsigned int nTileRows = static_cast<unsigned int>(m_vTileIds.size() / m_nTilesPerRow);
  std::vector<TRect> vecRects;
  for (unsigned int nRow = 0; nRow < nTileRows; ++nRow)
  {
    // Columns c with (c + 5 * row) % 16 == 0.
    const unsigned int nOffset = (nRow * g_nApproxDiagonalStep) % g_nApproxTileFraction;
    const unsigned int nFirst = (g_nApproxTileFraction - nOffset) % g_nApproxTileFraction;
    for (unsigned int nColumn = nFirst; nColumn < m_nTilesPerRow; nColumn += g_nApproxTileFraction)
    {
      const unsigned int nX = nColumn * m_nTileSizeX, nY = nRow * m_nTileSizeY;
      vecRects.emplace_back(nX, nY, std::min(m_nTileSizeX, this->m_nWidth - nX),
                            std::min(m_nTileSizeY, this->m_nHeight - nY));
    }
  }
  if (vecRects.empty())
    return {this->GetBoundingRect()};
  return vecRects;
}

#define ORL_TILE_BAND_REP_INSTANTIATE(T)                                                                \
  template class CTileBandRep<T>;                                                                       \
  template class Detail::CTileBandIterator<T, int, false>;                                              \
  template class Detail::CTileBandIterator<T, int, true>;                                               \
  template class Detail::CMutableTileBandIterator<T, int>;                                              \
  template class Detail::CTileScanOrderIterator<T, true>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_TILE_BAND_REP_INSTANTIATE)
#undef ORL_TILE_BAND_REP_INSTANTIATE

}}} // namespace Orl::Ostrel::Band
