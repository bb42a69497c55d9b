#include "Filter/MaskFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_MASK_FILTER_INSTANCE(TPixel, TMaskPixel, Tag) ORL_MASK_FILTER_DECL(template, TPixel, TMaskPixel, Tag)
ORL_FOR_EACH_MASK_INSTANCE(ORL_MASK_FILTER_INSTANCE, Band::SMemoryTag)
ORL_FOR_EACH_MASK_INSTANCE(ORL_MASK_FILTER_INSTANCE, Band::SIPPTag)
ORL_FOR_EACH_MASK_INSTANCE(ORL_MASK_FILTER_INSTANCE, Band::STileTag)

}}} // namespace Orl::Ostrel::Filter
