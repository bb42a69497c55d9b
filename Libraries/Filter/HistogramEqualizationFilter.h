#pragma once

// Histogram equalization: declaration and instances. The generic definitions are in
// HistogramEqualizationFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

namespace Orl { namespace Ostrel { namespace Filter {

// Maps each valid pixel through the cumulative distribution of the source's histogram, the band's
// own (cached, with the band's bin count, see CBand::GetHistogram):
//   out = lo + round((cdf(b) - cdf_min) / (N - cdf_min) * (hi - lo))
// where b is the pixel's bin, cdf(b) the count of pixels in bins up to b, cdf_min the count of the
// lowest occupied bin and N the number of valid pixels. The mapping is monotone, and as flat as the
// bins allow. The range [lo, hi]:
// - unsigned char, unsigned short, short: the type's full range, so that unsigned char with one bin
//   per value is the classic definition, 0 to 255;
// - unsigned int, int, float, double: the source's minimum to maximum (floating results not rounded).
// No-data pixels of the source become the destination's no-data value (its own, else the type's
// hint), and the destination gets that value when the source has one; NaN stays NaN. A band whose
// valid pixels are all one value, or fewer than three, is copied unchanged.
//
// Destination and source of one pixel type, size and storage tag; not the same band.
class CHistogramEqualizationFilter : public Detail::CBandFilterBase
{
public:
  CHistogramEqualizationFilter() { m_strName = "Histogram Equalization Filter"; }

  bool AllowDestIsSrc() const { return false; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const;
};

#define ORL_EQUALIZATION_DECLARE(TPixel, Tag, EXTERN)                                                   \
  EXTERN template void CHistogramEqualizationFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>( \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;
#define ORL_EQUALIZATION_EXTERN_MEMORY(TPixel) ORL_EQUALIZATION_DECLARE(TPixel, Band::SMemoryTag, extern)
#define ORL_EQUALIZATION_EXTERN_IPP(TPixel) ORL_EQUALIZATION_DECLARE(TPixel, Band::SIPPTag, extern)
#define ORL_EQUALIZATION_EXTERN_TILE(TPixel) ORL_EQUALIZATION_DECLARE(TPixel, Band::STileTag, extern)
ORL_FOR_EACH_PIXEL_TYPE(ORL_EQUALIZATION_EXTERN_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_EQUALIZATION_EXTERN_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_EQUALIZATION_EXTERN_TILE)
#undef ORL_EQUALIZATION_EXTERN_MEMORY
#undef ORL_EQUALIZATION_EXTERN_IPP
#undef ORL_EQUALIZATION_EXTERN_TILE

}}} // namespace Orl::Ostrel::Filter
