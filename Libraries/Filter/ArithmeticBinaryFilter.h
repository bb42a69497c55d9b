#pragma once

// CArithmeticBinaryFilter: one operation on two bands, or on a band and a constant, pixel by pixel.
// The generic definitions are in ArithmeticBinaryFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

namespace Orl { namespace Ostrel { namespace Filter {

enum EArithmeticBinaryOperation
{
  eAdd,      // a + b
  eSubtract, // a - b
  eMultiply, // a * b
  eDivide,   // a / b; b = 0 gives no-data
  ePower,    // a to the b; a NaN result (negative a, fractional b) gives no-data
  eMinimum,  // the smaller of a and b
  eMaximum   // the larger of a and b
};

// dest = a op b per pixel, with b a second band or the constructor's constant. Computed in float for
// float bands, in double for all others (so integer division rounds: 7 / 2 gives 4), and brought back
// to the pixel type rounded to the nearest value (halves away from zero) and saturated at both ends
// for integer types. No-data or NaN in either input, division by zero and a NaN result give dest's
// no-data fallback (its own value, else the type's hint).
//
// All bands share pixel type and extent (else CBasicException before any pixel is written); dest
// may be one of the sources.
class CArithmeticBinaryFilter : public Detail::CBandFilterBase
{
public:
  explicit CArithmeticBinaryFilter(EArithmeticBinaryOperation eOperation)
    : m_eOperation(eOperation), m_bConstant(false), m_dConstant(0.0)
  {
    m_strName = "Arithmetic Binary Filter";
  }
  // For the single-band Apply: b is dConstant, converted to the computing type.
  CArithmeticBinaryFilter(EArithmeticBinaryOperation eOperation, double dConstant)
    : m_eOperation(eOperation), m_bConstant(true), m_dConstant(dConstant)
  {
    m_strName = "Arithmetic Binary Filter";
  }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oA, const TSrc& oB) const;

  // Needs the constructor with the constant, else CBasicException.
  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oA) const;

private:
  template <template <class> class TOperation, class TDest, class... TSrcs>
  void _Apply(TDest& oDest, const TSrcs&... oSrcs) const;
  template <class TDest, class... TSrcs>
  void _Dispatch(TDest& oDest, const TSrcs&... oSrcs) const;

  EArithmeticBinaryOperation m_eOperation;
  bool m_bConstant;
  double m_dConstant;
};

#define ORL_ARITHMETIC_BINARY_DECL(PREFIX, TPixel, Tag)                                                 \
  PREFIX void CArithmeticBinaryFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(        \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;  \
  PREFIX void CArithmeticBinaryFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(        \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;

#define ORL_ARITHMETIC_BINARY_EXTERN(TPixel)                                                            \
  ORL_ARITHMETIC_BINARY_DECL(extern template, TPixel, Band::SMemoryTag)                                \
  ORL_ARITHMETIC_BINARY_DECL(extern template, TPixel, Band::SIPPTag)                                   \
  ORL_ARITHMETIC_BINARY_DECL(extern template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_ARITHMETIC_BINARY_EXTERN)
#undef ORL_ARITHMETIC_BINARY_EXTERN

}}} // namespace Orl::Ostrel::Filter
