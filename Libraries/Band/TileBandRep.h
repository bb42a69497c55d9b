#pragma once

#include "Band/BandRep.h"
#include "Band/Tags.h"
#include "Band/Tile.h"
#include "Band/TileBandIterator.h"
#include "Band/TileCache.h"
#include "Band/TileSize.h"
#include "Band/TileScanOrderIterator.h"
#include "Band/TileSourceInfo.h"
#include "Foundation/Export.h"
#include "Foundation/PixelTypes.h"
#include "Utilities/BoundedBuffer.h"
#include "Utilities/RoundRobinCache.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <boost/tuple/tuple.hpp>

#include <cstdint>
#include <utility>
#include <vector>

namespace Orl { namespace Ostrel { namespace Band {

// The walk over the tiles that a tile band expects, so that its prefetch thread can bring tiles into
// memory before they are asked for. Any other value means none.
enum EPrefetchPattern : std::int32_t
{
  ePrefetchNone = 0,
  ePrefetchNextRow = 1,     // the whole row of tiles below the tile asked for
  ePrefetchPreviousRow = 2, // the whole row of tiles above it
  ePrefetchRestOfRow = 3,   // the tiles to its right in its row
  ePrefetchNextTile = 4     // the next tile in row-major order
};

// A band of any size in tiles that are made on first use and may leave memory for the spill file of
// the process's tile cache. The representation keeps only the tile ids by tile position and a small
// local cache of live tiles; all pixel access goes through GetTile, normally by way of the tile
// iterators, which keep four tiles of their own.
//
// Locks, outermost first: m_oMutex, then the tile cache's, then the allocator's; m_oMutex, then the
// prefetch queue's. Writing pixels takes no lock: tasks keep to different pixels.
template <class TPixel>
class CTileBandRep : public Detail::CBandRep<TPixel>
{
public:
  using TConstIterator = Detail::CTileBandIterator<TPixel, int, false>;
  using TIterator = Detail::CMutableTileBandIterator<TPixel, int>;
  using TScanOrderIterator = Detail::CTileScanOrderIterator<TPixel, true>;
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;

  // The prefetch queue's order to stop; no band has that many tiles.
  static constexpr unsigned int ms_nStopPrefetch = 0x7fffffff;

  // Cheap at any size: no tile and no tile cache is touched. Installs the statistic calculator, last.
  CTileBandRep(unsigned int nWidth, unsigned int nHeight);
  // Stops the prefetch thread and releases every tile id; tiles still held by iterators die with them.
  ~CTileBandRep();

  // The tile holding pixel (x, y), made if the position has none yet (its pixels are then undefined).
  // With bWrite the tile is marked modified; a read leaves the mark as it is. Raises the failures of
  // the tile allocator and of the tile cache.
  boost::shared_ptr<Detail::CTileBase> GetTile(unsigned int nX, unsigned int nY, bool bWrite) const;

  // Iterators at the start and the end of oRect clipped to the band. The end iterator is made first:
  // inside the band it holds (and the mutable one marks) the tile under it. The mutable form drops the
  // cached statistics.
  boost::tuples::tuple<TIterator, TIterator> GetBandIterators(const TRect& oRect)
  {
    this->InvalidateStatistics();
    return _MakeIterators<TIterator>(oRect);
  }
  boost::tuples::tuple<TConstIterator, TConstIterator> GetBandIterators(const TRect& oRect) const
  {
    return _MakeIterators<TConstIterator>(oRect);
  }

  // The band as one sequence in row-major order, from (0, 0) to the end position (0, height). begin()
  // drops the cached statistics. A band of width 0 and some height must not be walked.
  TScanOrderIterator begin();
  TScanOrderIterator end();

  // Sets every pixel to tValue: makes every tile and marks all of them modified. A band without
  // pixels (a zero side) only drops its cached statistics.
  CTileBandRep& Clear(TPixel tValue);

  // Twice the tile size: what the tile iterators give as their block hint.
  std::pair<std::uint32_t, std::uint32_t> GetBlockHint() const { return {2 * m_nTileSizeX, 2 * m_nTileSizeY}; }

  // The sample for approximate statistics, in whole tiles: the whole band when it is small, else about
  // one tile in ms_nApproxFraction, spread in a diagonal pattern over rows and columns of tiles. Strips
  // of a few pixel rows, as memory bands use, would bring in a whole row of tiles for each strip.
  std::vector<TRect> GetApproxRects() const;

  // Sets the expected walk and, for any pattern but ePrefetchNone, starts the prefetch thread if it
  // is not running yet. Off after construction. Raises boost::thread_resource_error when no thread
  // can be had.
  void SetPrefetchPattern(EPrefetchPattern ePattern);
  EPrefetchPattern GetPrefetchPattern() const;

  // Asks the tile cache to bring back in the background the spilled tiles of the row of tiles that
  // holds pixel row nY, over the nWidth columns from nX: what a walk down or up the band reaches next.
  // Rows outside the band ask for nothing. Never raises.
  void ReadAhead(unsigned int nX, unsigned int nWidth, int nY) const;

  // The tile id at a tile index, 0 while the position has no tile.
  unsigned int GetTileId(unsigned int nIndex) const;
  unsigned int GetTileCount() const { return static_cast<unsigned int>(m_vTileIds.size()); }
  unsigned int GetLocalCacheCapacity() const;

  boost::shared_ptr<Detail::CTileSourceInfo> m_pSourceInfo;

private:
  template <class TIt>
  boost::tuples::tuple<TIt, TIt> _MakeIterators(const TRect& oRect) const
  {
    TRect oClipped(oRect);
    oClipped.Intersect(this->GetBoundingRect());
    const TIt itEnd(this->m_nWidth, this->m_nHeight, this, int(oClipped.GetEnd().x), int(oClipped.GetEnd().y));
    const TIt itBegin(this->m_nWidth, this->m_nHeight, this, int(oClipped.GetStart().x),
                      int(oClipped.GetStart().y));
    return boost::tuples::tuple<TIt, TIt>(itBegin, itEnd);
  }

  unsigned int _GetTileIndex(unsigned int nX, unsigned int nY) const
  {
    return m_nTilesPerRow * (nY / m_nTileSizeY) + nX / m_nTileSizeX;
  }

  // Under m_oMutex.
  unsigned int _AllocateNewTile(unsigned int nX, unsigned int nY) const;
  boost::shared_ptr<Detail::CTileBase> _GetTileLocked(unsigned int nIndex, unsigned int nX, unsigned int nY,
                                                      bool bWrite) const;
  void _FeedPrefetchQueue(unsigned int nIndex) const;
  void _AskForRow(unsigned int nRow, unsigned int nFirstColumn) const;
  void _AskFor(unsigned int nIndex) const;

  void _PrefetchLoop();

public:
  mutable std::vector<std::uint32_t> m_vTileIds;
  const std::uint32_t m_nTileSizeX;
  const std::uint32_t m_nTileSizeY;
  std::uint32_t m_nTilesPerRow;

private:
  mutable Harnel::Utilities::CRoundRobinCache<unsigned int, boost::shared_ptr<Detail::CTileBase> > m_oLocalCache;
  mutable boost::shared_ptr<CTileCache> m_pTileCache;
  mutable boost::mutex m_oMutex;
  EPrefetchPattern m_ePrefetchPattern;
  mutable Harnel::Utilities::CBoundedBuffer<unsigned int> m_oPrefetchQueue;
  boost::shared_ptr<boost::thread> m_pPrefetchThread;
};

#define ORL_TILE_BAND_REP_EXTERN(T)                                                                     \
  extern template class CTileBandRep<T>;                                                                \
  extern template class Detail::CTileBandIterator<T, int, false>;                                       \
  extern template class Detail::CTileBandIterator<T, int, true>;                                        \
  extern template class Detail::CMutableTileBandIterator<T, int>;                                       \
  extern template class Detail::CTileScanOrderIterator<T, true>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_TILE_BAND_REP_EXTERN)
#undef ORL_TILE_BAND_REP_EXTERN

}}} // namespace Orl::Ostrel::Band
