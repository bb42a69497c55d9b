#pragma once

// The Simple skeleton filter. Its work is the shared thinning of Filter/Detail/Thinning.h.

#include "Band/Band.h"
#include "Filter/Detail/Thinning.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

// A plain skeleton by directional thinning: four subiterations in the order north, south, east,
// west. In the subiteration of a direction, a foreground pixel is deleted when its neighbour in that
// direction is background, it is simple for 8-connected foreground (C = 1, C as for the Guo-Hall
// filters) and it is not an end point (at least two foreground neighbours); the deletions of a
// subiteration are decided on the picture before it. Repeated until four subiterations in a row
// delete nothing. Deleting border pixels of one side only keeps components and holes as they were.
// Thinness: every remaining pixel is an end point (at most one foreground neighbour) or not simple
// (C != 1, which includes C = 0 for a pixel without a background 4-neighbour), so no pixel can go on
// its own without changing components or holes. That is as thin as topology allows pixel by pixel,
// but not free of 2 x 2 blocks: a block whose four pixels are not simple stays, for instance one
// with a diagonal branch leaving each corner.
//
// Foreground: valid non-zero source pixels; pixels outside the band count as background, so shapes
// are thinned up to the band's edge. Writes 1 on the skeleton and 0 elsewhere; invalid source
// pixels (the no-data value; for floating types also NaN and infinities) are background for the
// thinning and get the destination's no-data value. Source and destination have one pixel type and
// one size (else CBasicException before any write); they may be the same band.
class CSkeletonSimpleFilter : public Detail::CBandFilterBase
{
public:
  CSkeletonSimpleFilter() { m_strName = "Skeleton Simple Filter"; }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const
  {
    Detail::ApplyThinning(Detail::EThinning::eSimple, m_pLogger, "Apply Skeleton Simple Filter", oDest, oSrc);
  }
};

}}} // namespace Orl::Ostrel::Filter
