#pragma once

// The Zhang Suen skeleton filter. Its work is the shared thinning of Filter/Detail/Thinning.h.

#include "Band/Band.h"
#include "Filter/Detail/Thinning.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

// Zhang-Suen thinning (1984). P2..P9 are the eight neighbours clockwise from north (P2 north, P4 east,
// P6 south, P8 west), B the number of foreground neighbours, A the number of background-to-foreground
// steps in the cycle P2, P3, ..., P9, P2. A foreground pixel is deleted when
//   first subiteration:  2 <= B <= 6, A = 1, P2*P4*P6 = 0, P4*P6*P8 = 0 (south-east border, north-west corner)
//   second subiteration: 2 <= B <= 6, A = 1, P2*P4*P8 = 0, P2*P6*P8 = 0 (north-west border, south-east corner)
// with all deletions of a subiteration decided on the picture before it, until an iteration of both
// deletes nothing.
// Guarantees: end points (B = 1) and one-pixel-wide lines stay. The skeleton is mostly one pixel
// wide, but not everywhere: a pixel with seven or eight neighbours is never deleted, so 2 x 2 blocks
// can remain where thick parts meet. Known flaws of the algorithm, kept as they are: a 2 x 2 square
// is deleted entirely (all four pixels pass the first subiteration at once), so components can
// vanish; a staircase two pixels wide along a diagonal has no deletable pixel inside, but its end
// pixels are deletable again and again, so it erodes from both ends to two pixels.
//
// Foreground: valid non-zero source pixels; pixels outside the band count as background, so shapes
// are thinned up to the band's edge. Writes 1 on the skeleton and 0 elsewhere; invalid source
// pixels (the no-data value; for floating types also NaN and infinities) are background for the
// thinning and get the destination's no-data value. Source and destination have one pixel type and
// one size (else CBasicException before any write); they may be the same band.
class CSkeletonZhangSuenFilter : public Detail::CBandFilterBase
{
public:
  CSkeletonZhangSuenFilter() { m_strName = "Skeleton Zhang Suen Filter"; }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const
  {
    Detail::ApplyThinning(Detail::EThinning::eZhangSuen, m_pLogger, "Apply Skeleton Zhang Suen Filter", oDest, oSrc);
  }
};

}}} // namespace Orl::Ostrel::Filter
