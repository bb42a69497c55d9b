#pragma once

namespace Orl { namespace Pravik { namespace GraphObject2d {

// A position or a size on the pixel grid. Plain data: copied freely, fields read directly.
template <class T>
struct CPoint
{
  T x;
  T y;

  constexpr CPoint() : x(), y() {}
  constexpr CPoint(T tX, T tY) : x(tX), y(tY) {}

  constexpr bool operator==(const CPoint& o) const { return x == o.x && y == o.y; }
  constexpr bool operator!=(const CPoint& o) const { return !(*this == o); }
};

}}} // namespace Orl::Pravik::GraphObject2d
