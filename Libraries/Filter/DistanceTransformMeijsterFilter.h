#pragma once

// The Distance Transform Meijster filter. Its work is shared with the other distance transform (Filter/Detail/DistanceTransform.h).

#include "Band/Band.h"
#include "Filter/Detail/DistanceTransform.h"
#include "Filter/DistanceTransformMode.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

// The exact distance transform of Meijster, Roerdink and Hesselink (2000), in linear time: a column
// phase (distance to the nearest background pixel in the same column) and a row phase (the lower
// envelope of the column distances under the mode's metric), both in parallel over blocks of rows,
// reading the source once and writing the destination once. Exact for every mode: integer
// arithmetic throughout, the Euclidean distance is the square root of the exact squared one.
// Working memory: two bytes per pixel (four when width + height exceeds about 32600), and a byte
// per pixel in the blocks of rows that hold invalid pixels.
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
class CDistanceTransformMeijsterFilter : public Detail::CBandFilterBase
{
public:
  explicit CDistanceTransformMeijsterFilter(EDistanceTransformMode eMode) : m_eMode(eMode) { m_strName = "Distance Transform Meijster Filter"; }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const
  {
    Detail::ApplyDistanceTransform(Detail::EDistanceMethod::eMeijster, m_eMode, m_pLogger, "Apply Distance Transform Meijster Filter",
                                   oDest, oSrc);
  }

  EDistanceTransformMode GetMode() const { return m_eMode; }

private:
  EDistanceTransformMode m_eMode;
};

}}} // namespace Orl::Ostrel::Filter
