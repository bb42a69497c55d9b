// Both selector filters: the multiple one runs the single one's walk, instantiated once here.
#include "Filter/MultiIndexSelectorFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_INDEX_SELECTOR_INSTANCE(TPixel, TIndexPixel, Tag)                                           \
  ORL_INDEX_SELECTOR_DECL(template, TPixel, TIndexPixel, Tag)                                          \
  ORL_MULTI_INDEX_SELECTOR_DECL(template, TPixel, TIndexPixel, Tag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_INDEX_SELECTOR_INSTANCE, Band::SMemoryTag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_INDEX_SELECTOR_INSTANCE, Band::SIPPTag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_INDEX_SELECTOR_INSTANCE, Band::STileTag)

}}} // namespace Orl::Ostrel::Filter
