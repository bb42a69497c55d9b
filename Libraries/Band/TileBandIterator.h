#pragma once

#include "Band/Tile.h"
#include "Foundation/Point.h"

#include <boost/shared_ptr.hpp>

#include <cassert>
#include <cstdint>

namespace Orl { namespace Ostrel { namespace Band {

template <class TPixel>
class CTileBandRep;

namespace Detail {

// A two-dimensional position in a tile band, with the iterator contract of the memory iterators
// (see MemoryBandIterator.h): *it, the movers X and Y, it += CPoint<int>, the block hints.
//
// The iterator knows the tile under it and keeps up to four tiles in slots of its own, replaced in
// plain round robin, so that a walk going back and forth over a border or around a tile corner does
// not go to the representation (and its lock) at every crossing. Within a tile a step is two
// additions and a comparison.
//
// Attached: a tile is held and the tile fields describe the position; only then may it be
// dereferenced. Detached (off the band's right or bottom edge, or stepped left or up off it): no
// tile, tile fields zero; X and Y go on counting and the slots keep their tiles.
//
// The moves are deliberately not symmetric. ++ tests only the upper bound of its own axis and never
// re-attaches; -- tests the lower bound of its axis and both bounds of the other, not the upper bound
// of its own, and may attach: stepping back from one past the right edge lands on the last column.
// Callers step at most one past the edge before stepping back; += with a zero offset attaches an
// iterator whose position lies inside the band.
//
// With bMutable every tile fetched is marked modified, whether or not a pixel of it is written: the
// tile under a mutable end iterator inside the band included. A read-only iterator leaves the mark.
//
// An iterator belongs to one task; copies share tiles (atomic counts) and cache independently. The
// representation must outlive the iterator.
template <class TPixel, class TCoord, bool bMutable>
class CTileBandIterator
{
public:
  using TPixelType = TPixel;
  using TCoordType = TCoord;
  using TBandRep = CTileBandRep<TPixel>;

  struct STileSlot
  {
    TPixel* m_pSlotPixels = nullptr;
    std::uint32_t m_nSlotWidth = 0;
    std::uint32_t m_nSlotHeight = 0;
    std::int32_t m_nSlotPosX = 0;
    std::int32_t m_nSlotPosY = 0;
  };

  // The column as a movable member: reads as the coordinate, steps with ++ and --. It points back at
  // its iterator, which is why the iterator has its own copy operations; and it cannot be copied
  // itself, so that `auto x = it.X` does not compile into a live view of a moving iterator.
  struct _SMoveX
  {
    explicit _SMoveX(CTileBandIterator* pIterator) : m_pIterator(pIterator) {}
    _SMoveX(const _SMoveX&) = delete;
    _SMoveX& operator=(const _SMoveX&) = delete;

    operator TCoord() const { return m_pIterator->m_nX; }
    _SMoveX& operator++()
    {
      m_pIterator->_IncrementX();
      return *this;
    }
    _SMoveX& operator--()
    {
      m_pIterator->_DecrementX();
      return *this;
    }

    CTileBandIterator* const m_pIterator;
  };

  struct _SMoveY
  {
    explicit _SMoveY(CTileBandIterator* pIterator) : m_pIterator(pIterator) {}
    _SMoveY(const _SMoveY&) = delete;
    _SMoveY& operator=(const _SMoveY&) = delete;

    operator TCoord() const { return m_pIterator->m_nY; }
    _SMoveY& operator++()
    {
      m_pIterator->_IncrementY();
      return *this;
    }
    _SMoveY& operator--()
    {
      m_pIterator->_DecrementY();
      return *this;
    }

    CTileBandIterator* const m_pIterator;
  };

  // At (nX, nY): attached, with all four slots on the tile there, if the position is before the band's
  // right and bottom edges; else detached without a fetch.
  CTileBandIterator(unsigned int nBandWidth, unsigned int nBandHeight, const TBandRep* pBandRep, int nX, int nY)
    : m_nBandWidth(nBandWidth), m_nBandHeight(nBandHeight), m_nX(nX), m_nY(nY), m_pBandRep(pBandRep), X(this),
      Y(this)
  {
    if (nX < int(m_nBandWidth) && nY < int(m_nBandHeight))
    {
      const int nSlot = _FindSlot(nX, nY);
      _TakeSlot(nSlot, nX, nY);
      for (int i = 0; i < 4; ++i)
        if (i != nSlot)
        {
          m_aSlots[i] = m_aSlots[nSlot];
          m_apSlotTiles[i] = m_apSlotTiles[nSlot];
        }
      m_nNextSlot = 0;
    }
  }

  CTileBandIterator(const CTileBandIterator& oOther)
    : m_nBandWidth(oOther.m_nBandWidth), m_nBandHeight(oOther.m_nBandHeight), m_nX(oOther.m_nX), m_nY(oOther.m_nY),
      m_nTileX(oOther.m_nTileX), m_nTileY(oOther.m_nTileY), m_nTileWidth(oOther.m_nTileWidth),
      m_nTileHeight(oOther.m_nTileHeight), m_pPixels(oOther.m_pPixels), m_nNextSlot(oOther.m_nNextSlot),
      m_pBandRep(oOther.m_pBandRep), m_pTile(oOther.m_pTile), X(this), Y(this)
  {
    for (int i = 0; i < 4; ++i)
    {
      m_aSlots[i] = oOther.m_aSlots[i];
      m_apSlotTiles[i] = oOther.m_apSlotTiles[i];
    }
  }

  // X and Y already point at this object.
  CTileBandIterator& operator=(const CTileBandIterator& oOther)
  {
    m_nBandWidth = oOther.m_nBandWidth;
    m_nBandHeight = oOther.m_nBandHeight;
    m_nX = oOther.m_nX;
    m_nY = oOther.m_nY;
    m_nTileX = oOther.m_nTileX;
    m_nTileY = oOther.m_nTileY;
    m_nTileWidth = oOther.m_nTileWidth;
    m_nTileHeight = oOther.m_nTileHeight;
    m_pPixels = oOther.m_pPixels;
    for (int i = 0; i < 4; ++i)
    {
      m_aSlots[i] = oOther.m_aSlots[i];
      m_apSlotTiles[i] = oOther.m_apSlotTiles[i];
    }
    m_nNextSlot = oOther.m_nNextSlot;
    m_pBandRep = oOther.m_pBandRep;
    m_pTile = oOther.m_pTile;
    return *this;
  }

  ~CTileBandIterator()
  {
    for (int i = 3; i >= 0; --i)
      m_apSlotTiles[i].reset();
    m_pTile.reset();
  }

  // Only while attached.
  const TPixel& operator*() const
  {
    assert(m_pTile);
    return m_pPixels[_Index()];
  }

  CTileBandIterator& operator+=(const Pravik::GraphObject2d::CPoint<int>& oOffset)
  {
    m_nX += oOffset.x;
    m_nTileX += oOffset.x;
    m_nY += oOffset.y;
    m_nTileY += oOffset.y;
    if (m_nTileX >= m_nTileWidth || m_nTileY >= m_nTileHeight)
    {
      if (m_nX >= int(m_nBandWidth) || m_nY >= int(m_nBandHeight))
      {
        _Detach();
        return *this;
      }
      _Attach();
    }
    if (m_nTileX >= 0 && m_nTileY >= 0)
      return *this;
    if (m_nX < 0 || m_nY < 0)
      _Detach();
    else
      _Attach();
    return *this;
  }

  std::uint32_t GetBlockHintX() const;
  std::uint32_t GetBlockHintY() const;
  std::uint32_t GetBandWidth() const { return m_nBandWidth; }
  std::uint32_t GetBandHeight() const { return m_nBandHeight; }

  // A row run: the pixels from the current one to the current tile's right edge lie one after the
  // other from &*it, so that walks can take them as a plain array. Only while attached. AdvanceX(n),
  // with n at most GetRunLength(), is n steps of ++X.
  int GetRunLength() const
  {
    assert(m_pTile);
    return m_nTileWidth - m_nTileX;
  }
  const TPixel* GetRunPointer() const
  {
    assert(m_pTile);
    return m_pPixels + _Index();
  }
  void AdvanceX(int nCount)
  {
    assert(m_pTile && nCount >= 0 && nCount <= m_nTileWidth - m_nTileX);
    m_nX += nCount;
    m_nTileX += nCount;
    if (m_nTileX == m_nTileWidth)
      _CrossRight();
  }

  // A row walk's read-ahead: the walk read row nPreviousY before this one. When that lies in another
  // row of tiles, or with bAlways, the band is asked to bring back the next row of tiles in the
  // walk's direction over nCount pixels from here (see CTileBandRep::ReadAhead). Only a hint.
  void ReadAheadOfWalk(int nCount, int nPreviousY, bool bAlways) const;

  // For tests.
  bool IsAttached() const { return bool(m_pTile); }
  int GetTileOffsetX() const { return m_nTileX; }
  int GetTileOffsetY() const { return m_nTileY; }
  int GetTileWidth() const { return m_nTileWidth; }
  int GetTileHeight() const { return m_nTileHeight; }
  const boost::shared_ptr<CTileBase>& GetCurrentTile() const { return m_pTile; }

protected:
  std::uint32_t _Index() const
  {
    return std::uint32_t(m_nTileY) * std::uint32_t(m_nTileWidth) + std::uint32_t(m_nTileX);
  }

  // The tile that holds (nX, nY): from a slot, else fetched into the next slot.
  boost::shared_ptr<CTileBase> _GetCachedTile(int nX, int nY) const { return m_apSlotTiles[_FindSlot(nX, nY)]; }
  // Fetches the tile of (nX, nY) into slot m_nNextSlot and advances the cycle; returns the pixel.
  TPixel* _ReloadNext(int nX, int nY) const;

  // The slot holding (nX, nY), after a fetch on a miss. No recency order: a hit changes nothing.
  int _FindSlot(int nX, int nY) const
  {
    for (int i = 0; i < 4; ++i)
    {
      const STileSlot& oSlot = m_aSlots[i];
      if (oSlot.m_nSlotPosX <= nX && nX < oSlot.m_nSlotPosX + int(oSlot.m_nSlotWidth) && oSlot.m_nSlotPosY <= nY &&
          nY < oSlot.m_nSlotPosY + int(oSlot.m_nSlotHeight))
        return i;
    }
    _ReloadNext(nX, nY);
    return (m_nNextSlot + 3) & 3;
  }

  // Makes the tile of slot nSlot current at (nX, nY), recomputing every tile field.
  void _TakeSlot(int nSlot, int nX, int nY)
  {
    const STileSlot& oSlot = m_aSlots[nSlot];
    m_pTile = m_apSlotTiles[nSlot];
    m_pPixels = oSlot.m_pSlotPixels;
    m_nTileX = nX - oSlot.m_nSlotPosX;
    m_nTileY = nY - oSlot.m_nSlotPosY;
    m_nTileWidth = int(oSlot.m_nSlotWidth);
    m_nTileHeight = int(oSlot.m_nSlotHeight);
  }

  void _Attach() { _TakeSlot(_FindSlot(m_nX, m_nY), m_nX, m_nY); }

  void _Detach()
  {
    m_pTile.reset();
    m_nTileX = m_nTileY = m_nTileWidth = m_nTileHeight = 0;
    m_pPixels = nullptr;
  }

  void _IncrementX()
  {
    ++m_nX;
    if (!m_pTile)
      return;
    if (__builtin_expect(++m_nTileX < m_nTileWidth, 1))
      return;
    _CrossRight();
  }
  void _IncrementY()
  {
    ++m_nY;
    if (!m_pTile)
      return;
    if (__builtin_expect(++m_nTileY < m_nTileHeight, 1))
      return;
    _CrossDown();
  }
  void _DecrementX()
  {
    --m_nX;
    if (__builtin_expect(--m_nTileX >= 0, 1))
      return;
    _CrossLeft();
  }
  void _DecrementY()
  {
    --m_nY;
    if (__builtin_expect(--m_nTileY >= 0, 1))
      return;
    _CrossUp();
  }

  // The out-of-line parts of the moves, once per tile width or height.
  void _CrossRight();
  void _CrossDown();
  void _CrossLeft();
  void _CrossUp();

  std::uint32_t m_nBandWidth;
  std::uint32_t m_nBandHeight;
  std::int32_t m_nX;
  std::int32_t m_nY;
  std::int32_t m_nTileX = 0;
  std::int32_t m_nTileY = 0;
  std::int32_t m_nTileWidth = 0;
  std::int32_t m_nTileHeight = 0;
  TPixel* m_pPixels = nullptr;
  mutable STileSlot m_aSlots[4];
  mutable std::int32_t m_nNextSlot = 0;
  const TBandRep* m_pBandRep;
  boost::shared_ptr<CTileBase> m_pTile;
  mutable boost::shared_ptr<CTileBase> m_apSlotTiles[4];

public:
  _SMoveX X;
  _SMoveY Y;
};

// The same position with a writable dereference. Comes from the non-const GetBandIterators, which
// drops the band's cached statistics.
template <class TPixel, class TCoord>
class CMutableTileBandIterator : public CTileBandIterator<TPixel, TCoord, true>
{
  using TBase = CTileBandIterator<TPixel, TCoord, true>;

public:
  using TBase::TBase;

  TPixel& operator*() const
  {
    assert(this->m_pTile);
    return this->m_pPixels[this->_Index()];
  }

  CMutableTileBandIterator& operator+=(const Pravik::GraphObject2d::CPoint<int>& oOffset)
  {
    TBase::operator+=(oOffset);
    return *this;
  }

  TPixel* GetRunPointer() const
  {
    assert(this->m_pTile);
    return this->m_pPixels + this->_Index();
  }
};

template <class TPixel, class TCoord, bool bMutable>
std::uint32_t CTileBandIterator<TPixel, TCoord, bMutable>::GetBlockHintX() const
{
  return 2 * m_pBandRep->m_nTileSizeX;
}

template <class TPixel, class TCoord, bool bMutable>
std::uint32_t CTileBandIterator<TPixel, TCoord, bMutable>::GetBlockHintY() const
{
  return 2 * m_pBandRep->m_nTileSizeY;
}

template <class TPixel, class TCoord, bool bMutable>
void CTileBandIterator<TPixel, TCoord, bMutable>::ReadAheadOfWalk(int nCount, int nPreviousY, bool bAlways) const
{
  if (!m_pTile || nPreviousY == m_nY)
    return;
  const int nTop = m_nY - m_nTileY;
  if (!bAlways && nPreviousY >= nTop && nPreviousY < nTop + m_nTileHeight)
    return;
  m_pBandRep->ReadAhead(unsigned(m_nX), unsigned(nCount), nPreviousY < m_nY ? nTop + m_nTileHeight : nTop - 1);
}

template <class TPixel, class TCoord, bool bMutable>
TPixel* CTileBandIterator<TPixel, TCoord, bMutable>::_ReloadNext(int nX, int nY) const
{
  const int nSlot = m_nNextSlot;
  m_nNextSlot = (m_nNextSlot + 1) & 3;
  // Outside the band is a caller's error that the moves leave unguarded (see above).
  assert(nX >= 0 && nY >= 0 && nX < int(m_nBandWidth) && nY < int(m_nBandHeight));
  m_apSlotTiles[nSlot] = m_pBandRep->GetTile(unsigned(nX), unsigned(nY), bMutable);
  const CTileBase& oTile = *m_apSlotTiles[nSlot];
  STileSlot& oSlot = m_aSlots[nSlot];
  oSlot.m_pSlotPixels = static_cast<TPixel*>(oTile.GetDataLocation());
  oSlot.m_nSlotWidth = oTile.GetSizeX();
  oSlot.m_nSlotHeight = oTile.GetSizeY();
  oSlot.m_nSlotPosX = int(oTile.GetPosX());
  oSlot.m_nSlotPosY = int(oTile.GetPosY());
  return oSlot.m_pSlotPixels + std::uint32_t(nY - oSlot.m_nSlotPosY) * oSlot.m_nSlotWidth +
         std::uint32_t(nX - oSlot.m_nSlotPosX);
}

// The tile to the right lies in the same row of tiles: the row fields stay.
template <class TPixel, class TCoord, bool bMutable>
void CTileBandIterator<TPixel, TCoord, bMutable>::_CrossRight()
{
  if (m_nX >= int(m_nBandWidth))
  {
    _Detach();
    return;
  }
  const int nSlot = _FindSlot(m_nX, m_nY);
  const STileSlot& oSlot = m_aSlots[nSlot];
  m_pTile = m_apSlotTiles[nSlot];
  m_nTileX = 0;
  m_nTileWidth = int(oSlot.m_nSlotWidth);
  m_pPixels = oSlot.m_pSlotPixels;
}

template <class TPixel, class TCoord, bool bMutable>
void CTileBandIterator<TPixel, TCoord, bMutable>::_CrossDown()
{
  if (m_nY >= int(m_nBandHeight))
  {
    _Detach();
    return;
  }
  const int nSlot = _FindSlot(m_nX, m_nY);
  const STileSlot& oSlot = m_aSlots[nSlot];
  m_pTile = m_apSlotTiles[nSlot];
  m_nTileY = 0;
  m_nTileHeight = int(oSlot.m_nSlotHeight);
  m_pPixels = oSlot.m_pSlotPixels;
}

template <class TPixel, class TCoord, bool bMutable>
void CTileBandIterator<TPixel, TCoord, bMutable>::_CrossLeft()
{
  if (m_nX >= 0 && m_nY >= 0 && m_nY < int(m_nBandHeight))
    _Attach();
  else
    _Detach();
}

template <class TPixel, class TCoord, bool bMutable>
void CTileBandIterator<TPixel, TCoord, bMutable>::_CrossUp()
{
  if (m_nY >= 0 && m_nX >= 0 && m_nX < int(m_nBandWidth))
    _Attach();
  else
    _Detach();
}

}}}} // namespace Orl::Ostrel::Band::Detail
