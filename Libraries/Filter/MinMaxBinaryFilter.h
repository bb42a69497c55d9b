#pragma once

// CMinMaxBinaryFilter: the pixelwise minimum and maximum of two bands in one pass. The generic
// definitions are in MinMaxBinaryFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

namespace Orl { namespace Ostrel { namespace Filter {

// destMin = min(a, b), destMax = max(a, b) per pixel. No-data or NaN in either input gives each
// destination its no-data fallback (its own value, else the type's hint).
//
// All four bands share pixel type and extent (else CBasicException before any pixel is written);
// either destination may be one of the sources, the two destinations not the same band.
class CMinMaxBinaryFilter : public Detail::CBandFilterBase
{
public:
  CMinMaxBinaryFilter() { m_strName = "Min Max Binary Filter"; }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDestMin, TDest& oDestMax, const TSrc& oA, const TSrc& oB) const;
};

#define ORL_MIN_MAX_BINARY_DECL(PREFIX, TPixel, Tag)                                                    \
  PREFIX void CMinMaxBinaryFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(            \
    Band::CBand<TPixel, Tag>&, Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&,               \
    const Band::CBand<TPixel, Tag>&) const;

#define ORL_MIN_MAX_BINARY_EXTERN(TPixel)                                                               \
  ORL_MIN_MAX_BINARY_DECL(extern template, TPixel, Band::SMemoryTag)                                   \
  ORL_MIN_MAX_BINARY_DECL(extern template, TPixel, Band::SIPPTag)                                      \
  ORL_MIN_MAX_BINARY_DECL(extern template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_MIN_MAX_BINARY_EXTERN)
#undef ORL_MIN_MAX_BINARY_EXTERN

}}} // namespace Orl::Ostrel::Filter
