#pragma once

// CMaskFilter: a band with the pixels that a mask blanks set to no-data. The generic definitions are
// in MaskFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

// dest = src, except where the mask blanks the pixel or src is no-data: there dest gets its no-data
// fallback (its own no-data value, else the type's hint). The mask blanks a pixel whose mask pixel
// equals the mask's marker (its no-data value, 0 without one), as the fill-hole filter's mask marks
// its holes; or, with the range form, a mask pixel outside [dLow, dHigh] (NaN is not outside).
//
// dest and src share a pixel type; the mask may have another. All bands have one extent, else
// CBasicException before any pixel is written. dest must not be src.
class CMaskFilter : public Detail::CBandFilterBase
{
public:
  CMaskFilter() { m_strName = "Mask Filter"; }

  bool AllowDestIsSrc() const { return false; }

  template <class TDest, class TSrc, class TMask>
  void Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask) const;

  template <class TDest, class TSrc, class TMask>
  void Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask, double dLow, double dHigh) const;

private:
  template <class TDest, class TSrc, class TMask, class TComparator>
  void _Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask, const TComparator& oBlank) const;
};

// The image and mask pixel types of the instances: every image type with an unsigned char mask and
// with a mask of its own type.
#define ORL_FOR_EACH_MASK_INSTANCE(M, Tag)                                                              \
  M(unsigned char, unsigned char, Tag)                                                                  \
  M(unsigned short, unsigned char, Tag)                                                                 \
  M(unsigned short, unsigned short, Tag)                                                                \
  M(short, unsigned char, Tag)                                                                          \
  M(short, short, Tag)                                                                                  \
  M(unsigned int, unsigned char, Tag)                                                                   \
  M(unsigned int, unsigned int, Tag)                                                                    \
  M(int, unsigned char, Tag)                                                                            \
  M(int, int, Tag)                                                                                      \
  M(float, unsigned char, Tag)                                                                          \
  M(float, float, Tag)                                                                                  \
  M(double, unsigned char, Tag)                                                                         \
  M(double, double, Tag)

// ORL_MASK_FILTER_DECL(template, ...) instantiates both forms; (extern template, ...) declares them.
#define ORL_MASK_FILTER_DECL(PREFIX, TPixel, TMaskPixel, Tag)                                           \
  PREFIX void CMaskFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>, Band::CBand<TMaskPixel, Tag>>( \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&, const Band::CBand<TMaskPixel, Tag>&) const;  \
  PREFIX void CMaskFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>, Band::CBand<TMaskPixel, Tag>>( \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&, const Band::CBand<TMaskPixel, Tag>&, double,   \
    double) const;

#define ORL_MASK_FILTER_EXTERN(TPixel, TMaskPixel, Tag) ORL_MASK_FILTER_DECL(extern template, TPixel, TMaskPixel, Tag)
ORL_FOR_EACH_MASK_INSTANCE(ORL_MASK_FILTER_EXTERN, Band::SMemoryTag)
ORL_FOR_EACH_MASK_INSTANCE(ORL_MASK_FILTER_EXTERN, Band::SIPPTag)
ORL_FOR_EACH_MASK_INSTANCE(ORL_MASK_FILTER_EXTERN, Band::STileTag)
#undef ORL_MASK_FILTER_EXTERN

}}} // namespace Orl::Ostrel::Filter
