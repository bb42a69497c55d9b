#pragma once

// CCopyFilter: a band copied into a band of any pixel type. The generic definitions are in
// CopyFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

// dest = src converted to dest's pixel type: to integer types rounded to the nearest value (halves
// away from zero) and saturated at the type's ends, infinities included; to floating types as a
// conversion gives it (a double beyond float's range becomes an infinity). src's no-data pixels and
// NaN become dest's no-data fallback (its own value, else the type's hint). A valid value that lands
// on that fallback stays as it is: the caller picks a destination no-data value that data cannot take.
//
// Both bands have one extent, else CBasicException before any pixel is written; dest is not src.
class CCopyFilter : public Detail::CBandFilterBase
{
public:
  CCopyFilter() { m_strName = "Copy Filter"; }

  bool AllowDestIsSrc() const { return false; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrc) const;
};

// M(source pixel, destination pixel, Tag) for all 49 pairs of pixel types.
#define ORL_COPY_FILTER_FROM(M, TFrom, Tag)                                                             \
  M(TFrom, unsigned char, Tag)                                                                          \
  M(TFrom, unsigned short, Tag)                                                                         \
  M(TFrom, short, Tag)                                                                                  \
  M(TFrom, unsigned int, Tag)                                                                           \
  M(TFrom, int, Tag)                                                                                    \
  M(TFrom, float, Tag)                                                                                  \
  M(TFrom, double, Tag)
#define ORL_FOR_EACH_COPY_INSTANCE(M, Tag)                                                              \
  ORL_COPY_FILTER_FROM(M, unsigned char, Tag)                                                           \
  ORL_COPY_FILTER_FROM(M, unsigned short, Tag)                                                          \
  ORL_COPY_FILTER_FROM(M, short, Tag)                                                                   \
  ORL_COPY_FILTER_FROM(M, unsigned int, Tag)                                                            \
  ORL_COPY_FILTER_FROM(M, int, Tag)                                                                     \
  ORL_COPY_FILTER_FROM(M, float, Tag)                                                                   \
  ORL_COPY_FILTER_FROM(M, double, Tag)

#define ORL_COPY_FILTER_DECL(PREFIX, TFrom, TTo, Tag)                                                   \
  PREFIX void CCopyFilter::Apply<Band::CBand<TTo, Tag>, Band::CBand<TFrom, Tag>>(Band::CBand<TTo, Tag>&,  \
                                                                               const Band::CBand<TFrom, Tag>&) const;

#define ORL_COPY_FILTER_EXTERN(TFrom, TTo, Tag) ORL_COPY_FILTER_DECL(extern template, TFrom, TTo, Tag)
ORL_FOR_EACH_COPY_INSTANCE(ORL_COPY_FILTER_EXTERN, Band::SMemoryTag)
ORL_FOR_EACH_COPY_INSTANCE(ORL_COPY_FILTER_EXTERN, Band::SIPPTag)
ORL_FOR_EACH_COPY_INSTANCE(ORL_COPY_FILTER_EXTERN, Band::STileTag)
#undef ORL_COPY_FILTER_EXTERN

}}} // namespace Orl::Ostrel::Filter
