#include "Filter/ArithmeticUnaryFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_ARITHMETIC_UNARY_INSTANCE(TPixel)                                                           \
  ORL_ARITHMETIC_UNARY_DECL(template, TPixel, Band::SMemoryTag)                                        \
  ORL_ARITHMETIC_UNARY_DECL(template, TPixel, Band::SIPPTag)                                           \
  ORL_ARITHMETIC_UNARY_DECL(template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_ARITHMETIC_UNARY_INSTANCE)

}}} // namespace Orl::Ostrel::Filter
