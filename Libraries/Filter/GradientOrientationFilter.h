#pragma once

// Gradient orientation resampled to the destination's size: declaration and instances. The generic
// definitions are in GradientOrientationFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

enum EGradientNoData
{
  eGradientInvalidate, // a pixel with no-data in its 3 x 3 neighbourhood has no gradient
  eGradientSkipNonCenter, // no-data neighbours count as the centre's value; a no-data centre has none
  eGradientIgnore // no-data values are plain values
};

template <class TPolicy>
struct SGradientNoData;
template <>
struct SGradientNoData<SInvalidatePolicy>
{
  static constexpr EGradientNoData ms_eMode = eGradientInvalidate;
};
template <>
struct SGradientNoData<SSkipNonCenterNoDataPolicy>
{
  static constexpr EGradientNoData ms_eMode = eGradientSkipNonCenter;
};
template <>
struct SGradientNoData<SIgnoreNoDataPolicy>
{
  static constexpr EGradientNoData ms_eMode = eGradientIgnore;
};

} // namespace Detail

// Per source pixel, the intensity gradient by the 3 x 3 Sobel operator (edges replicated), x to
// the right and y down the rows. Per destination pixel, the orientation of the gradients of the
// source pixels its cell covers (area weights, as the average resampling kernel), averaged as
// doubled-angle vectors weighted by the squared magnitude, so opposite gradients add up instead of
// cancelling: each gradient (gx, gy) enters the sum as (gx^2 - gy^2, 2 gx gy), and the result is
// half the angle of the sum, in radians in [0, pi): 0 along x, pi / 2 along y. A cell without any
// gradient gives 0.
//
// No-data (the source's no-data value, and NaN): TPolicy is SInvalidatePolicy (default: a pixel
// whose neighbourhood holds no-data has no gradient), SSkipNonCenterNoDataPolicy (no-data neighbours
// take the centre's value, a no-data centre has no gradient) or SIgnoreNoDataPolicy (no-data values
// count as values; a NaN or infinite gradient is still dropped). A cell whose pixels all lack a
// gradient gets the destination's no-data value (its own, else the type's hint), and the
// destination then gets that value.
//
// Instances: float destinations from unsigned char, unsigned short, short and float sources; double
// from double; each with the three policies on every storage tag. Destination and source of one tag.
class CGradientOrientationFilter : public Detail::CBandFilterBase
{
public:
  CGradientOrientationFilter() { m_strName = "Gradient Orientation Resample Filter"; }

  bool AllowDestIsSrc() const { return false; }

  template <class TPolicy = SInvalidatePolicy, class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const;
};

#define ORL_FOR_EACH_GRADIENT_INSTANCE(M, Tag, EXTERN)                                                  \
  M(float, unsigned char, Tag, EXTERN) M(float, unsigned short, Tag, EXTERN) M(float, short, Tag, EXTERN) \
  M(float, float, Tag, EXTERN) M(double, double, Tag, EXTERN)

#define ORL_GRADIENT_DECLARE_ONE(TDestPixel, TSrcPixel, Tag, TPolicy, EXTERN)                           \
  EXTERN template void                                                                                  \
  CGradientOrientationFilter::Apply<TPolicy, Band::CBand<TDestPixel, Tag>, Band::CBand<TSrcPixel, Tag>>( \
    Band::CBand<TDestPixel, Tag>&, const Band::CBand<TSrcPixel, Tag>&) const;
#define ORL_GRADIENT_DECLARE(TDestPixel, TSrcPixel, Tag, EXTERN)                                        \
  ORL_GRADIENT_DECLARE_ONE(TDestPixel, TSrcPixel, Tag, SInvalidatePolicy, EXTERN)                       \
  ORL_GRADIENT_DECLARE_ONE(TDestPixel, TSrcPixel, Tag, SSkipNonCenterNoDataPolicy, EXTERN)              \
  ORL_GRADIENT_DECLARE_ONE(TDestPixel, TSrcPixel, Tag, SIgnoreNoDataPolicy, EXTERN)

ORL_FOR_EACH_GRADIENT_INSTANCE(ORL_GRADIENT_DECLARE, Band::SMemoryTag, extern)
ORL_FOR_EACH_GRADIENT_INSTANCE(ORL_GRADIENT_DECLARE, Band::SIPPTag, extern)
ORL_FOR_EACH_GRADIENT_INSTANCE(ORL_GRADIENT_DECLARE, Band::STileTag, extern)

}}} // namespace Orl::Ostrel::Filter
