#pragma once

#include "Foundation/Point.h"

#include <algorithm>
#include <ostream>

namespace Orl { namespace Pravik { namespace GraphObject2d {

// An axis-aligned rectangle of the pixel grid: a start point and an exclusive end point.
// A rectangle with zero width or height is empty.
template <class T>
class CRect
{
public:
  constexpr CRect() = default;
  constexpr CRect(T tX, T tY, T tWidth, T tHeight) : m_oStart(tX, tY), m_oEnd(tX + tWidth, tY + tHeight) {}

  constexpr const CPoint<T>& GetStart() const { return m_oStart; }
  constexpr const CPoint<T>& GetEnd() const { return m_oEnd; }
  constexpr T GetWidth() const { return m_oEnd.x - m_oStart.x; }
  constexpr T GetHeight() const { return m_oEnd.y - m_oStart.y; }
  constexpr bool IsEmpty() const { return GetWidth() == T() || GetHeight() == T(); }

  // Both keep the start point and return the rectangle, so that several can be chained.
  CRect& SetWidth(T tWidth) { m_oEnd.x = m_oStart.x + tWidth; return *this; }
  CRect& SetHeight(T tHeight) { m_oEnd.y = m_oStart.y + tHeight; return *this; }

  // Replaces the rectangle by its intersection with oOther. Disjoint rectangles leave an empty
  // rectangle whose end equals its start on the axis where they miss each other, so that a walk
  // from start to end visits nothing.
  void Intersect(const CRect& oOther)
  {
    m_oStart.x = std::max(m_oStart.x, oOther.m_oStart.x);
    m_oStart.y = std::max(m_oStart.y, oOther.m_oStart.y);
    m_oEnd.x = std::max(m_oStart.x, std::min(m_oEnd.x, oOther.m_oEnd.x));
    m_oEnd.y = std::max(m_oStart.y, std::min(m_oEnd.y, oOther.m_oEnd.y));
  }

  constexpr bool operator==(const CRect& o) const { return m_oStart == o.m_oStart && m_oEnd == o.m_oEnd; }
  constexpr bool operator!=(const CRect& o) const { return !(*this == o); }

private:
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
