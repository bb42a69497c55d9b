#include "Filter/MaskMergeFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_MASK_MERGE_INSTANCE(TPixel)                                                                 \
  ORL_MASK_MERGE_DECL(template, TPixel, Band::SMemoryTag)                                              \
  ORL_MASK_MERGE_DECL(template, TPixel, Band::SIPPTag)                                                 \
  ORL_MASK_MERGE_DECL(template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_MASK_MERGE_INSTANCE)

}}} // namespace Orl::Ostrel::Filter
