#pragma once

// The gray-scale reconstruction filter: declaration and its instances (GrayscaleReconstructionFilter.cpp).

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

namespace Orl { namespace Ostrel { namespace Filter {

// Morphological reconstruction by dilation of a marker under a mask, 8-connected: the limit of
// J = min(mask, dilation of J by the 3 x 3 square), starting from J = min(marker, mask) (a marker
// above the mask is clipped to it). Vincent's hybrid method: forward and backward raster scans, then
// a FIFO queue of the pixels that can still raise a neighbour, in parallel stripes of rows and a last
// queue across their borders; only min and max, so every pixel type gives exact results, the same
// whatever the number of threads.
//
// Invalid pixels (a band's no-data value; for floating types also NaN and infinities) of the marker
// or the mask take no part: nothing spreads into or across them, and they get the destination's
// no-data value (the band's own, else the type's hint, which is then set on the band). Pixels outside
// the band do not exist for the dilation.
//
// The three bands have one pixel type and one size (else CBasicException before any write); the
// destination is neither of the inputs. Working memory: two pixels per pixel, a byte more for
// floating types or a band with a no-data value, plus the queues.
class CGrayscaleReconstructionFilter : public Detail::CBandFilterBase
{
public:
  CGrayscaleReconstructionFilter() { m_strName = "Grayscale Reconstruction Filter"; }

  bool AllowDestIsSrc() const { return false; }

  template <class TDest, class TMarker, class TMask>
  void Apply(TDest& oDest, const TMarker& oMarker, const TMask& oMask) const;
};

#define ORL_RECONSTRUCTION_APPLY(TPixel, Tag)                                                            \
  void CGrayscaleReconstructionFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>,       \
                                             Band::CBand<TPixel, Tag>>(                                 \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;
#define ORL_RECONSTRUCTION_EXTERN_MEMORY(TPixel) extern template ORL_RECONSTRUCTION_APPLY(TPixel, Band::SMemoryTag)
#define ORL_RECONSTRUCTION_EXTERN_IPP(TPixel) extern template ORL_RECONSTRUCTION_APPLY(TPixel, Band::SIPPTag)
#define ORL_RECONSTRUCTION_EXTERN_TILE(TPixel) extern template ORL_RECONSTRUCTION_APPLY(TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_EXTERN_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_EXTERN_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_EXTERN_TILE)
#undef ORL_RECONSTRUCTION_EXTERN_MEMORY
#undef ORL_RECONSTRUCTION_EXTERN_IPP
#undef ORL_RECONSTRUCTION_EXTERN_TILE

}}} // namespace Orl::Ostrel::Filter
