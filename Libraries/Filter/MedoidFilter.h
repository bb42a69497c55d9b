#pragma once

// CMedoidFilter: per pixel, the medoid of a stack of bands, the compositing step of time series. The
// generic definitions are in MedoidFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

// The members of a pixel are the stack's values there; the medoid is the valid member with the
// smallest sum of distances to the other valid members, the first in stack order on a tie. A member
// is valid where none of its values is no-data or NaN. Where no member is valid, dest gets its
// no-data fallback (its own value, else the type's hint); otherwise some valid member is chosen.
//
// Scalar form: Apply(dest, stack), distance |x - y|, which makes the medoid a median member: of the
// n valid members sorted, the first in stack order whose value lies between the lower and the upper
// median (positions (n - 1) / 2 and n / 2). Exact for every value, infinities included.
// Vector form: Apply(dests, members) with B = dests.size() destinations and members.size() = N * B:
// member m is bands m * B to m * B + B - 1, distance Euclidean, sums in double, each member's sum
// taken over the others in stack order; dest b gets band b of the medoid. A sum that overflows to
// infinity or is NaN (infinite members) ranks after every finite sum, so where all sums are such,
// the first valid member is the medoid.
//
// All bands of one pixel type and extent, at least one member: else CBasicException before any
// pixel is written. No dest may be in the stack.
class CMedoidFilter : public Detail::CBandFilterBase
{
public:
  CMedoidFilter() { m_strName = "Medoid Filter"; }

  bool AllowDestIsSrc() const { return false; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const std::vector<TSrc>& vecStack) const;

  template <class TDest, class TSrc>
  void Apply(std::vector<TDest>& vecDest, const std::vector<TSrc>& vecMembers) const;
};

#define ORL_MEDOID_DECL(PREFIX, TPixel, Tag)                                                            \
  PREFIX void CMedoidFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(                  \
    Band::CBand<TPixel, Tag>&, const std::vector<Band::CBand<TPixel, Tag>>&) const;                     \
  PREFIX void CMedoidFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(                  \
    std::vector<Band::CBand<TPixel, Tag>>&, const std::vector<Band::CBand<TPixel, Tag>>&) const;

#define ORL_MEDOID_EXTERN(TPixel)                                                                       \
  ORL_MEDOID_DECL(extern template, TPixel, Band::SMemoryTag)                                           \
  ORL_MEDOID_DECL(extern template, TPixel, Band::SIPPTag)                                              \
  ORL_MEDOID_DECL(extern template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_MEDOID_EXTERN)
#undef ORL_MEDOID_EXTERN

}}} // namespace Orl::Ostrel::Filter
