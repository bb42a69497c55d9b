#pragma once

// The thinning shared by the four skeleton filters: the algorithm on a byte image, and the generic
// Apply that loads a band into that image and writes the skeleton back. Instances for every pixel
// type and storage tag, source and destination of one type, are in SkeletonFilters.cpp.

#include "Band/Band.h"
#include "Foundation/Logger.h"
#include "Foundation/PixelTypes.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

enum class EThinning
{
  eZhangSuen,
  eGuoHallA1,
  eGuoHallA2,
  eSimple
};

// Thinning of oSrc into oDest (both of one size; they may be one band). Foreground: valid non-zero
// pixels. Writes 1 on the skeleton, 0 elsewhere and the destination's no-data value (the band's
// own, else the type's hint, which it then sets) where the source is invalid.
template <class TDest, class TSrc>
void ApplyThinning(EThinning eAlgorithm, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger,
                   const char* pAction, TDest& oDest, const TSrc& oSrc);

#define ORL_THINNING_APPLY(TPixel, Tag)                                                                  \
  void ApplyThinning<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(                              \
    EThinning, const boost::shared_ptr<Harnel::Progress::CLogger>&, const char*, Band::CBand<TPixel, Tag>&, \
    const Band::CBand<TPixel, Tag>&);
#define ORL_THINNING_EXTERN_MEMORY(TPixel) extern template ORL_THINNING_APPLY(TPixel, Band::SMemoryTag)
#define ORL_THINNING_EXTERN_IPP(TPixel) extern template ORL_THINNING_APPLY(TPixel, Band::SIPPTag)
#define ORL_THINNING_EXTERN_TILE(TPixel) extern template ORL_THINNING_APPLY(TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_EXTERN_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_EXTERN_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_EXTERN_TILE)
#undef ORL_THINNING_EXTERN_MEMORY
#undef ORL_THINNING_EXTERN_IPP
#undef ORL_THINNING_EXTERN_TILE

}}}} // namespace Orl::Ostrel::Filter::Detail
