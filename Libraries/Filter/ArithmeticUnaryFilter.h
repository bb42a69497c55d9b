#pragma once

// CArithmeticUnaryFilter: one operation applied to every pixel of a band. The generic definitions are
// in ArithmeticUnaryFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

namespace Orl { namespace Ostrel { namespace Filter {

// The operations, with what they make of the constructor's two numbers a (dFirst) and b (dSecond).
enum EArithmeticUnaryOperation
{
  eNegate,      // -x
  eAbsolute,    // |x|
  eSquareRoot,  // sqrt(x); negative x gives no-data
  eLogarithm,   // natural logarithm; negative x gives no-data, 0 gives -infinity
  eExponential, // e to the x
  eScaleOffset, // a * x + b
  eClamp        // x limited to [a, b]
};

// dest = op(src) per pixel. Computed in float for float bands, in double for all others; the result
// goes back to the pixel type rounded to the nearest value (halves away from zero) and saturated for
// integer types, so that -infinity ends as the type's lowest value. No-data and NaN in src, and a
// NaN result, give dest's no-data fallback (its own value, else the type's hint).
//
// dest and src share pixel type and extent (else CBasicException before any pixel is written) and
// may be the same band.
class CArithmeticUnaryFilter : public Detail::CBandFilterBase
{
public:
  CArithmeticUnaryFilter(EArithmeticUnaryOperation eOperation, double dFirst = 1.0, double dSecond = 0.0)
    : m_eOperation(eOperation), m_dFirst(dFirst), m_dSecond(dSecond)
  {
    m_strName = "Arithmetic Unary Filter";
  }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const;

private:
  template <template <class> class TOperation, class TDest, class TSrc>
  void _Apply(TDest& oDest, const TSrc& oSrc) const;

  EArithmeticUnaryOperation m_eOperation;
  double m_dFirst;
  double m_dSecond;
};

#define ORL_ARITHMETIC_UNARY_DECL(PREFIX, TPixel, Tag)                                                  \
  PREFIX void CArithmeticUnaryFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(         \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;

#define ORL_ARITHMETIC_UNARY_EXTERN(TPixel)                                                             \
  ORL_ARITHMETIC_UNARY_DECL(extern template, TPixel, Band::SMemoryTag)                                 \
  ORL_ARITHMETIC_UNARY_DECL(extern template, TPixel, Band::SIPPTag)                                    \
  ORL_ARITHMETIC_UNARY_DECL(extern template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_ARITHMETIC_UNARY_EXTERN)
#undef ORL_ARITHMETIC_UNARY_EXTERN

}}} // namespace Orl::Ostrel::Filter
