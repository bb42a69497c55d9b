#pragma once

// The Guo Hall A2 skeleton filter. Its work is the shared thinning of Filter/Detail/Thinning.h.

#include "Band/Band.h"
#include "Filter/Detail/Thinning.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

// Guo and Hall's algorithm A2 (1989), two subfields of a checkerboard: the first subiteration looks
// only at pixels with x + y even (x, y from the band's top-left corner), the second at x + y odd. With
// C as for A1 (the number of 8-connected foreground parts around the pixel) and B the number of
// foreground neighbours, a foreground pixel of the subfield is deleted when
//   C = 1 and B >= 2
// with all deletions of a subiteration decided on the picture before it, until an iteration of both
// deletes nothing. No two pixels of a subfield are 4-adjacent, so every deletion set is simple as a
// whole: components and holes are preserved. End points and one-pixel-wide lines stay.
// Thinness: every remaining pixel is an end point (B <= 1) or not simple (C != 1), so no pixel can go
// on its own without changing components or holes; 2 x 2 blocks of four pixels that are not simple
// stay (a block with a diagonal branch leaving each corner, for one).
// Open point: the paper (Commun. ACM 32(3), 1989) presents A2 as one thinning operator applied
// alternately to the two subfields of a checkerboard; the operator used here, C = 1 and B >= 2, is
// the plain form of that scheme. Whether the paper's operator tests more (its treatment of end
// points, say, or of two-pixel-thick diagonals) has not been checked against its text.
//
// Foreground: valid non-zero source pixels; pixels outside the band count as background, so shapes
// are thinned up to the band's edge. Writes 1 on the skeleton and 0 elsewhere; invalid source
// pixels (the no-data value; for floating types also NaN and infinities) are background for the
// thinning and get the destination's no-data value. Source and destination have one pixel type and
// one size (else CBasicException before any write); they may be the same band.
class CSkeletonGuoHallA2Filter : public Detail::CBandFilterBase
{
public:
  CSkeletonGuoHallA2Filter() { m_strName = "Skeleton Guo Hall A2 Filter"; }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const
  {
    Detail::ApplyThinning(Detail::EThinning::eGuoHallA2, m_pLogger, "Apply Skeleton Guo Hall A2 Filter", oDest, oSrc);
  }
};

}}} // namespace Orl::Ostrel::Filter
