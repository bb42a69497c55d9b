#pragma once

#include "Foundation/Point.h"

#include <algorithm>
#include <limits>
#include <ostream>
#include <type_traits>

namespace Orl { namespace Pravik { namespace GraphObject2d {

// An axis-aligned rectangle of the pixel grid: a start point and an exclusive end point.
// A rectangle with zero width or height is empty.
//
// With an unsigned T an end that would pass the type's largest value stops there, so that
// CRect(x, y, UINT_MAX, UINT_MAX) means "from (x, y) to the end" of whatever it is intersected with,
// instead of wrapping round to an end before its start.
template <class T>
class CRect
{
public:
  constexpr CRect() = default;
  constexpr CRect(T tX, T tY, T tWidth, T tHeight) : m_oStart(tX, tY), m_oEnd(_End(tX, tWidth), _End(tY, tHeight)) {}

  constexpr const CPoint<T>& GetStart() const { return m_oStart; }
  constexpr const CPoint<T>& GetEnd() const { return m_oEnd; }
  constexpr T GetWidth() const { return m_oEnd.x - m_oStart.x; }
  constexpr T GetHeight() const { return m_oEnd.y - m_oStart.y; }
  constexpr bool IsEmpty() const { return GetWidth() == T() || GetHeight() == T(); }

  // Both keep the start point and return the rectangle, so that several can be chained.
  CRect& SetWidth(T tWidth) { m_oEnd.x = _End(m_oStart.x, tWidth); return *this; }
  CRect& SetHeight(T tHeight) { m_oEnd.y = _End(m_oStart.y, tHeight); return *this; }

  // Replaces the rectangle by its intersection with oOther. The result always lies within oOther:
  // disjoint rectangles leave an empty rectangle on oOther's border (its start clamped into oOther,
  // its end equal to its start on the axis where they miss), so that iterators built from its
  // corners stand inside or on the edge of the band and a walk from start to end visits nothing.
  void Intersect(const CRect& oOther)
  {
    m_oStart.x = std::min(std::max(m_oStart.x, oOther.m_oStart.x), oOther.m_oEnd.x);
    m_oStart.y = std::min(std::max(m_oStart.y, oOther.m_oStart.y), oOther.m_oEnd.y);
    m_oEnd.x = std::max(m_oStart.x, std::min(m_oEnd.x, oOther.m_oEnd.x));
    m_oEnd.y = std::max(m_oStart.y, std::min(m_oEnd.y, oOther.m_oEnd.y));
  }

  constexpr bool operator==(const CRect& o) const { return m_oStart == o.m_oStart && m_oEnd == o.m_oEnd; }
  constexpr bool operator!=(const CRect& o) const { return !(*this == o); }

private:
  static constexpr T _End(T tStart, T tSize)
  {
    if constexpr (std::is_unsigned<T>::value)
      return tSize > std::numeric_limits<T>::max() - tStart ? std::numeric_limits<T>::max() : T(tStart + tSize);
    else
      return tStart + tSize;
  }

  CPoint<T> m_oStart;
  CPoint<T> m_oEnd;
};

template <class T>
std::ostream& operator<<(std::ostream& os, const CRect<T>& oRect)
{
  return os << '(' << oRect.GetStart().x << ", " << oRect.GetStart().y << ")-(" << oRect.GetEnd().x << ", "
            << oRect.GetEnd().y << ')';
}

}}} // namespace Orl::Pravik::GraphObject2d
