#include "Filter/MaskRangeReplaceFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_MASK_RANGE_REPLACE_INSTANCE(TPixel)                                                         \
  ORL_MASK_RANGE_REPLACE_DECL(template, TPixel, Band::SMemoryTag)                                      \
  ORL_MASK_RANGE_REPLACE_DECL(template, TPixel, Band::SIPPTag)                                         \
  ORL_MASK_RANGE_REPLACE_DECL(template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_MASK_RANGE_REPLACE_INSTANCE)

}}} // namespace Orl::Ostrel::Filter
