#include "Filter/MinMaxBinaryFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_MIN_MAX_BINARY_INSTANCE(TPixel)                                                             \
  ORL_MIN_MAX_BINARY_DECL(template, TPixel, Band::SMemoryTag)                                          \
  ORL_MIN_MAX_BINARY_DECL(template, TPixel, Band::SIPPTag)                                             \
  ORL_MIN_MAX_BINARY_DECL(template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_MIN_MAX_BINARY_INSTANCE)

}}} // namespace Orl::Ostrel::Filter
