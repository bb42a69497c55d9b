#include "Filter/MedoidFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_MEDOID_INSTANCE(TPixel)                                                                     \
  ORL_MEDOID_DECL(template, TPixel, Band::SMemoryTag)                                                  \
  ORL_MEDOID_DECL(template, TPixel, Band::SIPPTag)                                                      \
  ORL_MEDOID_DECL(template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_MEDOID_INSTANCE)

}}} // namespace Orl::Ostrel::Filter
