#pragma once

// Colour conversion between three-band RGB and other colour spaces, and RGB to gray: declaration
// and instances. The generic definitions are in ColorConversionFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

enum EColorConversion
{
  eRgbToHsv,
  eHsvToRgb,
  eRgbToHsl,
  eHslToRgb,
  eRgbToYCbCr,
  eYCbCrToRgb,
  eRgbToLab,
  eLabToRgb,
  eRgbToGray
};

// Value ranges, per band in order:
//
//   space   float                                     unsigned char
//   RGB     R, G, B in [0, 1]                         0 to 255
//   HSV     H in degrees [0, 360), S, V in [0, 1]     H scaled to 0 to 255 (255 for 360), S, V 0 to 255
//   HSL     H in degrees [0, 360), S, L in [0, 1]     as HSV
//   YCbCr   Y in [0, 1], Cb, Cr in [-0.5, 0.5]        Y 0 to 255, Cb and Cr + 128 (full range, BT.601)
//   Lab     L* in [0, 100], a*, b* about [-128, 127]  L* * 255 / 100, a* + 128, b* + 128
//   gray    BT.601 luma 0.299 R + 0.587 G + 0.114 B   0 to 255
//
// YCbCr is BT.601 with full-range components. L*a*b* is CIE 1976 from sRGB (its transfer curve
// undone first) through XYZ with the D65 white. Hue is 0 for grays. unsigned char results are
// rounded to nearest and clamped; float results are not clamped, so RGB outside [0, 1] from an
// out-of-gamut Lab or YCbCr triple comes out as computed.
//
// Round trips RGB -> space -> RGB: float within 1e-4 for every space; unsigned char within 1 for
// YCbCr, within 4 for HSV and HSL (hue has 256 steps on the circle), and within 17 for Lab: a* and
// b* in whole units are coarse where a channel is near 0 and the sRGB curve steepest (the worst of
// the grid of every 17th level is (0, 170, 170), whose red comes back as 17).
//
// No-data: a pixel that is no-data in any source band (its no-data value, or NaN) is no-data in
// every destination band (each band's own no-data value, else the type's hint; destinations then get
// that value). Computed per pixel from row buffers, so a destination may be one of the sources.
class CColorConversionFilter : public Detail::CBandFilterBase
{
public:
  explicit CColorConversionFilter(EColorConversion eConversion) : m_eConversion(eConversion)
  {
    m_strName = "Color Conversion Filter";
  }

  bool AllowDestIsSrc() const { return true; }
  EColorConversion GetConversion() const { return m_eConversion; }

  // Three bands to three; every conversion but eRgbToGray. All six bands of one pixel type, size and
  // storage tag.
  template <class TDest, class TSrc>
  void Apply(TDest& oDest0, TDest& oDest1, TDest& oDest2, const TSrc& oSrc0, const TSrc& oSrc1,
             const TSrc& oSrc2) const;

  // R, G, B to one gray band; eRgbToGray only.
  template <class TDest, class TSrc>
  void Apply(TDest& oGray, const TSrc& oRed, const TSrc& oGreen, const TSrc& oBlue) const;

private:
  EColorConversion m_eConversion;
};

#define ORL_COLOR_DECLARE(TPixel, Tag, EXTERN)                                                          \
  EXTERN template void CColorConversionFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>( \
    Band::CBand<TPixel, Tag>&, Band::CBand<TPixel, Tag>&, Band::CBand<TPixel, Tag>&,                    \
    const Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const; \
  EXTERN template void CColorConversionFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>( \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&,        \
    const Band::CBand<TPixel, Tag>&) const;
#define ORL_FOR_EACH_COLOR_INSTANCE(M, EXTERN)                                                          \
  M(unsigned char, Band::SMemoryTag, EXTERN) M(float, Band::SMemoryTag, EXTERN)                         \
  M(unsigned char, Band::SIPPTag, EXTERN) M(float, Band::SIPPTag, EXTERN)                               \
  M(unsigned char, Band::STileTag, EXTERN) M(float, Band::STileTag, EXTERN)

ORL_FOR_EACH_COLOR_INSTANCE(ORL_COLOR_DECLARE, extern)

}}} // namespace Orl::Ostrel::Filter
