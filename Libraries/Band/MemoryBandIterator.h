#pragma once

#include "Foundation/PixelTypes.h"
#include "Foundation/Point.h"

#include <cstdint>
#include <type_traits>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// A two-dimensional position in a band held in one block of memory.
//
// The iterator contract, which every generic walk of the library relies on and which the tile
// iterators implement as well:
//   *it                         the pixel at the position (read-only here, writable on the mutable form)
//   it.X, it.Y                  the coordinates, compared one axis at a time with the end iterator's
//   ++it.X, --it.X, ++it.Y, --it.Y  one step along one axis
//   it += CPoint<int>(dx, dy)   a move by an offset
//   it.GetBlockHintX(), it.GetBlockHintY()  the band's block hint, for the grain of parallel splits
//   it.GetBandWidth(), it.GetBandHeight()   the band's size, for the walks' O(1) bounds checks
//
// Position is the only state: X and Y may stand anywhere, and only a dereference needs them inside
// the band. m_pData is always the start of the block, so a walk that keeps Y fixed while X runs
// reduces to a pointer walk the compiler vectorises.
template <class TPixel, class TCoord = int>
class CMemoryBandIterator
{
public:
  using TPixelType = TPixel;
  using TCoordType = TCoord;

  CMemoryBandIterator() = default;
  CMemoryBandIterator(TPixel* pData, std::uint64_t nWidth, std::uint64_t nHeight, TCoord nX, TCoord nY,
                      std::uint32_t nBlockHintX, std::uint32_t nBlockHintY)
    : m_nWidth(nWidth), m_nHeight(nHeight), X(nX), Y(nY), m_pData(pData), m_nBlockHintX(nBlockHintX),
      m_nBlockHintY(nBlockHintY)
  {
  }

  const TPixel& operator*() const { return m_pData[_Index()]; }

  CMemoryBandIterator& operator+=(const Pravik::GraphObject2d::CPoint<int>& oOffset)
  {
    X += oOffset.x;
    Y += oOffset.y;
    return *this;
  }

  std::uint32_t GetBlockHintX() const { return m_nBlockHintX; }
  std::uint32_t GetBlockHintY() const { return m_nBlockHintY; }
  std::uint64_t GetBandWidth() const { return m_nWidth; }
  std::uint64_t GetBandHeight() const { return m_nHeight; }

  std::uint64_t m_nWidth = 0;  // full band width: the row stride
  std::uint64_t m_nHeight = 0; // full band height
  TCoord X = 0;
  TCoord Y = 0;
  TPixel* m_pData = nullptr; // first pixel of the band, never the current one
  std::uint32_t m_nBlockHintX = 1;
  std::uint32_t m_nBlockHintY = 1;

protected:
  // Y is widened with its sign before the multiplication; unsigned wrap-around then gives the right
  // address for any position a caller may move to and back from.
  std::uint64_t _Index() const
  {
    return std::uint64_t(std::int64_t(Y)) * m_nWidth + std::uint64_t(std::int64_t(X));
  }
};

// The same position with a writable dereference.
template <class TPixel, class TCoord = int>
class CMutableMemoryBandIterator : public CMemoryBandIterator<TPixel, TCoord>
{
  using TBase = CMemoryBandIterator<TPixel, TCoord>;

public:
  using TBase::TBase;

  TPixel& operator*() const { return this->m_pData[this->_Index()]; }

  CMutableMemoryBandIterator& operator+=(const Pravik::GraphObject2d::CPoint<int>& oOffset)
  {
    TBase::operator+=(oOffset);
    return *this;
  }
};

#define ORL_MEMORY_ITERATOR_EXTERN(T)                                                                   \
  extern template class CMemoryBandIterator<T, int>;                                                    \
  extern template class CMutableMemoryBandIterator<T, int>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_MEMORY_ITERATOR_EXTERN)
#undef ORL_MEMORY_ITERATOR_EXTERN

static_assert(std::is_trivially_copyable<CMemoryBandIterator<float, int>>::value, "iterators are plain values");
static_assert(std::is_trivially_copyable<CMutableMemoryBandIterator<float, int>>::value, "iterators are plain values");

}}}} // namespace Orl::Ostrel::Band::Detail
