#pragma once

// CMaskRangeReplaceFilter: the values of a band inside (or outside) a range replaced by one value or
// by no-data. The generic definitions are in MaskRangeReplaceFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

namespace Orl { namespace Ostrel { namespace Filter {

// A pixel v is hit when dLow <= v <= dHigh (bInside) or when v < dLow or v > dHigh (not bInside),
// compared in double, which holds every pixel value exactly; NaN is never hit. Hit pixels get dValue,
// rounded and saturated to the pixel type (a NaN dValue means no-data), or with the constructor
// without a value dest's no-data fallback (its own value, else the type's hint). src's no-data
// pixels get that fallback too; all others are copied.
//
// dest and src share pixel type and extent (else CBasicException before any pixel is written) and
// may be the same band.
class CMaskRangeReplaceFilter : public Detail::CBandFilterBase
{
public:
  CMaskRangeReplaceFilter(double dLow, double dHigh, bool bInside, double dValue)
    : m_dLow(dLow), m_dHigh(dHigh), m_bInside(bInside), m_bToNoData(false), m_dValue(dValue)
  {
    m_strName = "Mask Range Replace Filter";
  }
  CMaskRangeReplaceFilter(double dLow, double dHigh, bool bInside)
    : m_dLow(dLow), m_dHigh(dHigh), m_bInside(bInside), m_bToNoData(true), m_dValue(0.0)
  {
    m_strName = "Mask Range Replace Filter";
  }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const;

private:
  double m_dLow;
  double m_dHigh;
  bool m_bInside;
  bool m_bToNoData;
  double m_dValue;
};

#define ORL_MASK_RANGE_REPLACE_DECL(PREFIX, TPixel, Tag)                                                \
  PREFIX void CMaskRangeReplaceFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(        \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;

#define ORL_MASK_RANGE_REPLACE_EXTERN(TPixel)                                                           \
  ORL_MASK_RANGE_REPLACE_DECL(extern template, TPixel, Band::SMemoryTag)                               \
  ORL_MASK_RANGE_REPLACE_DECL(extern template, TPixel, Band::SIPPTag)                                  \
  ORL_MASK_RANGE_REPLACE_DECL(extern template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_MASK_RANGE_REPLACE_EXTERN)
#undef ORL_MASK_RANGE_REPLACE_EXTERN

}}} // namespace Orl::Ostrel::Filter
