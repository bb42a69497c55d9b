#pragma once

// The Distance Transform filter. Its work is shared with the other distance transform (Filter/Detail/DistanceTransform.h).

#include "Band/Band.h"
#include "Filter/Detail/DistanceTransform.h"
#include "Filter/DistanceTransformMode.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

// The two-pass chamfer distance transform (Borgefors): a forward raster scan and a backward one, each
// propagating the distances of the already visited neighbours plus the mask's step weights.
// Sequential: on one core it costs about what the exact transform costs, so with several cores the
// exact CDistanceTransformMeijsterFilter is the faster choice (8.3 against 3.5 ns per pixel on two
// cores, float 4096 x 4096). It remains for callers who want one thread or the chamfer metric itself.
//   chessboard: 3 x 3 mask, steps 1 and 1 (diagonal): exact
//   city block: 3 x 3 mask, steps 1 and 2 (diagonal): exact
//   Euclidean and squared Euclidean: 5 x 5 mask with steps 5, 7 and 11 (axial, diagonal,
//   knight's move) divided by 5. The chamfer distance of an offset is within 2 % of its Euclidean
//   length (at most 1.99 %, near offsets of 5:1), so the result d satisfies |d - e| <= 0.02 e for the
//   exact distance e, before rounding to an integer destination; the squared mode is d * d.
//
// Source pixels that are valid and zero are the background; valid non-zero pixels are the
// foreground; invalid pixels (the no-data value; for floating types also NaN and infinities) are
// neither: distances run across them, and they get the destination's no-data value (the band's own,
// else the type's hint, which is then set on the band). Every other pixel gets the distance from its
// centre to the nearest background pixel's centre in the mode's metric, 0 on the background. A band
// without any background gets the no-data value everywhere.
//
// Floating destinations take the value rounded once to the type; integer destinations the value
// rounded to nearest, and the type's largest value where it does not fit (saturation; squared
// distances overflow unsigned char beyond 15 pixels).
//
// Instances: every pixel type into its own type, and every source type into float
// (ORL_FOR_EACH_DISTANCE_INSTANCE). Destination and source have one size, else CBasicException before
// any write; they may be the same band.
class CDistanceTransformFilter : public Detail::CBandFilterBase
{
public:
  explicit CDistanceTransformFilter(EDistanceTransformMode eMode) : m_eMode(eMode) { m_strName = "Distance Transform Filter"; }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const
  {
    Detail::ApplyDistanceTransform(Detail::EDistanceMethod::eChamfer, m_eMode, m_pLogger, "Apply Distance Transform Filter",
                                   oDest, oSrc);
  }

  EDistanceTransformMode GetMode() const { return m_eMode; }

private:
  EDistanceTransformMode m_eMode;
};

}}} // namespace Orl::Ostrel::Filter
