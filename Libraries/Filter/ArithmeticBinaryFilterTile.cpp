#include "Filter/ArithmeticBinaryFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_ARITHMETIC_BINARY_INSTANCE(TPixel) \
  ORL_ARITHMETIC_BINARY_DECL(template, TPixel, Band::STileTag) \

ORL_FOR_EACH_PIXEL_TYPE(ORL_ARITHMETIC_BINARY_INSTANCE)

}}} // namespace Orl::Ostrel::Filter
