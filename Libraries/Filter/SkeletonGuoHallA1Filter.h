#pragma once

// The Guo Hall A1 skeleton filter. Its work is the shared thinning of Filter/Detail/Thinning.h.

#include "Band/Band.h"
#include "Filter/Detail/Thinning.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

// Guo and Hall's algorithm A1 (1989), two subiterations that alternately delete north-east and
// south-west border pixels. x1..x8 are the neighbours counter-clockwise from east (x1 east, x3 north,
// x5 west, x7 south); C = sum over i = 1..4 of (!x(2i-1) & (x(2i) | x(2i+1))), x9 = x1, the number of
// 8-connected foreground parts around the pixel; N1 = (x1|x2)+(x3|x4)+(x5|x6)+(x7|x8),
// N2 = (x2|x3)+(x4|x5)+(x6|x7)+(x8|x1), N = min(N1, N2). A foreground pixel is deleted when
//   C = 1, 2 <= N <= 3, and
//   first subiteration:  ((x2 | x3 | !x8) & x1) = 0
//   second subiteration: ((x6 | x7 | !x4) & x5) = 0
// with all deletions of a subiteration decided on the picture before it, until an iteration of both
// deletes nothing. Connected components and holes are preserved; end points (N = 1) and one-pixel-wide
// lines stay; a 2 x 2 square shrinks to its south-west pixel. Thinness: every remaining pixel fails
// one of the tests in both subiterations, which leaves lines one pixel wide in general but allows 2 x 2
// blocks at junctions (a block pixel with C = 1 and N = 3 whose east and west neighbours are both
// foreground passes neither (c) test).
//
// Foreground: valid non-zero source pixels; pixels outside the band count as background, so shapes
// are thinned up to the band's edge. Writes 1 on the skeleton and 0 elsewhere; invalid source
// pixels (the no-data value; for floating types also NaN and infinities) are background for the
// thinning and get the destination's no-data value. Source and destination have one pixel type and
// one size (else CBasicException before any write); they may be the same band.
class CSkeletonGuoHallA1Filter : public Detail::CBandFilterBase
{
public:
  CSkeletonGuoHallA1Filter() { m_strName = "Skeleton Guo Hall A1 Filter"; }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const
  {
    Detail::ApplyThinning(Detail::EThinning::eGuoHallA1, m_pLogger, "Apply Skeleton Guo Hall A1 Filter", oDest, oSrc);
  }
};

}}} // namespace Orl::Ostrel::Filter
