#pragma once

#include "Band/Tile.h"

#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <cstdint>
#include <type_traits>

namespace Orl { namespace Ostrel { namespace Band {

template <class TPixel>
class CTileBandRep;

namespace Detail {

// A tile band as one flat sequence: along a row of the band through all tiles of that row, then on to
// the next row; the end position is (0, height). For code that treats a tile band as a plain array
// (Clear, the hole lists of the fill-hole filter on tile bands).
//
// Light: one tile held, no cache of its own, a fetch from the representation at each tile crossing,
// so a row of pixels fetches each tile of its row of tiles. With bMutable each fetch marks the tile
// modified.
//
// Unguarded, and left to the callers: -- from the end position (the tile column is left at the tile's
// width) and -- at (0, 0). Backward walks start from a pixel that a forward walk reached.
template <class TPixel, bool bMutable>
class CTileScanOrderIterator
{
public:
  using TBandRep = std::conditional_t<bMutable, CTileBandRep<TPixel>, const CTileBandRep<TPixel> >;
  using TReference = std::conditional_t<bMutable, TPixel&, const TPixel&>;

  // At (0, nY): with the tile of (0, nY) if that lies in a band with pixels, else without a tile.
  CTileScanOrderIterator(TBandRep* pBandRep, unsigned int nY);

  // The pixel's address is asked of the tile anew at every dereference.
  TReference operator*() const
  {
    return static_cast<TPixel*>(m_pTile->GetDataLocation())[m_nTileY * m_nTileWidth + m_nTileX];
  }

  CTileScanOrderIterator& operator++()
  {
    ++m_nX;
    if (++m_nTileX < m_nTileWidth)
      return *this;
    _NextTile();
    return *this;
  }

  CTileScanOrderIterator& operator--()
  {
    if (m_nTileX != 0)
    {
      --m_nX;
      --m_nTileX;
      return *this;
    }
    _PreviousTile();
    return *this;
  }

  // Position only; the tile fields do not count.
  bool operator==(const CTileScanOrderIterator& oOther) const
  {
    return m_pBandRep == oOther.m_pBandRep && m_nX == oOther.m_nX && m_nY == oOther.m_nY;
  }
  bool operator!=(const CTileScanOrderIterator& oOther) const { return !(*this == oOther); }

  unsigned int GetX() const { return m_nX; }
  unsigned int GetY() const { return m_nY; }

  // Sets the pixels from here to the tile's right edge and steps past them: the same as that many
  // dereferences and ++, with one pixel address for all.
  void FillToTileEdge(TPixel tValue);

private:
  void _NextTile();
  void _PreviousTile();
  void _Fetch();

  TBandRep* m_pBandRep;
  boost::shared_ptr<CTileBase> m_pTile;
  std::uint32_t m_nX;
  std::uint32_t m_nY;
  std::uint32_t m_nTileX;
  std::uint32_t m_nTileY;
  std::uint32_t m_nTileWidth;
  std::uint32_t m_nBandWidth;
  std::uint32_t m_nBandHeight;
};

template <class TPixel, bool bMutable>
CTileScanOrderIterator<TPixel, bMutable>::CTileScanOrderIterator(TBandRep* pBandRep, unsigned int nY)
  : m_pBandRep(pBandRep), m_nX(0), m_nY(nY), m_nTileX(0), m_nTileY(0), m_nTileWidth(0),
    m_nBandWidth(pBandRep->m_nWidth), m_nBandHeight(pBandRep->m_nHeight)
{
  if (m_nBandWidth != 0 && nY < m_nBandHeight)
  {
    _Fetch();
    m_nTileX = m_nX - m_pTile->GetPosX();
    m_nTileY = m_nY - m_pTile->GetPosY();
  }
}

template <class TPixel, bool bMutable>
void CTileScanOrderIterator<TPixel, bMutable>::_Fetch()
{
  m_pTile = m_pBandRep->GetTile(m_nX, m_nY, bMutable);
  m_nTileWidth = m_pTile->GetSizeX();
}

// Tiles side by side have the same top: the row within the tile stays.
template <class TPixel, bool bMutable>
void CTileScanOrderIterator<TPixel, bMutable>::_NextTile()
{
  if (m_nX < m_nBandWidth)
  {
    _Fetch();
    m_nTileX = m_nX - m_pTile->GetPosX();
    return;
  }
  m_nX = 0;
  ++m_nY;
  if (m_nY < m_nBandHeight)
  {
    _Fetch();
    m_nTileX = 0;
    m_nTileY = m_nY - m_pTile->GetPosY();
  }
  // Otherwise the end position: the tile and the tile column stay as they were.
}

template <class TPixel, bool bMutable>
void CTileScanOrderIterator<TPixel, bMutable>::_PreviousTile()
{
  if (m_nX != 0)
  {
    --m_nX;
    _Fetch();
  }
  else
  {
    --m_nY;
    m_nX = m_nBandWidth - 1;
    _Fetch();
    m_nTileY = m_nY - m_pTile->GetPosY();
  }
  m_nTileX = m_nX - m_pTile->GetPosX();
}

template <class TPixel, bool bMutable>
void CTileScanOrderIterator<TPixel, bMutable>::FillToTileEdge(TPixel tValue)
{
  static_assert(bMutable, "only a writing iterator fills");
  const std::uint32_t nCount = m_nTileWidth - m_nTileX;
  TPixel* pPixel = static_cast<TPixel*>(m_pTile->GetDataLocation()) + m_nTileY * m_nTileWidth + m_nTileX;
  std::fill_n(pPixel, nCount, tValue);
  m_nX += nCount - 1;
  m_nTileX += nCount - 1;
  ++*this;
}

}}}} // namespace Orl::Ostrel::Band::Detail
