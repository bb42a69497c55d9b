#include "Filter/MultinomialRegressionStratifierImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_STRATIFIER_INSTANCE(TPixel)                                                                 \
  ORL_STRATIFIER_DECL(template, TPixel, unsigned char, Band::SMemoryTag)                               \
  ORL_STRATIFIER_DECL(template, TPixel, unsigned char, Band::SIPPTag)                                  \
  ORL_STRATIFIER_DECL(template, TPixel, unsigned char, Band::STileTag)                                 \
  ORL_STRATIFIER_DECL(template, TPixel, unsigned short, Band::SMemoryTag)                              \
  ORL_STRATIFIER_DECL(template, TPixel, unsigned short, Band::SIPPTag)                                 \
  ORL_STRATIFIER_DECL(template, TPixel, unsigned short, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_STRATIFIER_INSTANCE)

}}} // namespace Orl::Ostrel::Filter
