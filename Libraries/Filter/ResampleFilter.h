#pragma once

// Resampling a band to the destination's size: declaration and instances. The generic definitions
// are in ResampleFilterImpl.h.

#include "Band/Band.h"
#include "Filter/Detail/ResampleTaps.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

namespace Orl { namespace Ostrel { namespace Filter {

// Resamples the source to the destination's size, any ratio on either axis, with the kernel given at
// construction (see Detail/ResampleTaps.h for the geometry: pixel-is-area, centres at +0.5,
// interpolating kernels widened by the reduction factor when reducing, borders renormalised).
//
// No-data: source pixels equal to the source's no-data value, and NaN of floating sources, take no
// part; the weights of each destination pixel are renormalised over its valid contributors. Where
// the valid contributors carry less than a thousandth of the weight (none at all, or only the small
// negative lobes of a cubic or Lanczos kernel), the destination pixel gets the destination's no-data
// value (its own, else the type's hint), and the destination is given that value.
//
// Sums in float for 8- and 16-bit pixels and float, in double for 32-bit integers and double; integer
// results rounded to nearest and clamped to the type. Destination and source of one pixel type and
// storage tag; not the same band.
class CResampleFilter : public Detail::CBandFilterBase
{
public:
  explicit CResampleFilter(EResampleKernel eKernel = eResampleBilinear) : m_eKernel(eKernel)
  {
    m_strName = "Resample Filter";
  }

  bool AllowDestIsSrc() const { return false; }
  EResampleKernel GetKernel() const { return m_eKernel; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const;

private:
  EResampleKernel m_eKernel;
};

#define ORL_RESAMPLE_DECLARE(TPixel, Tag, EXTERN)                                                       \
  EXTERN template void CResampleFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(      \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;
#define ORL_RESAMPLE_EXTERN_MEMORY(TPixel) ORL_RESAMPLE_DECLARE(TPixel, Band::SMemoryTag, extern)
#define ORL_RESAMPLE_EXTERN_IPP(TPixel) ORL_RESAMPLE_DECLARE(TPixel, Band::SIPPTag, extern)
#define ORL_RESAMPLE_EXTERN_TILE(TPixel) ORL_RESAMPLE_DECLARE(TPixel, Band::STileTag, extern)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RESAMPLE_EXTERN_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RESAMPLE_EXTERN_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RESAMPLE_EXTERN_TILE)
#undef ORL_RESAMPLE_EXTERN_MEMORY
#undef ORL_RESAMPLE_EXTERN_IPP
#undef ORL_RESAMPLE_EXTERN_TILE

}}} // namespace Orl::Ostrel::Filter
