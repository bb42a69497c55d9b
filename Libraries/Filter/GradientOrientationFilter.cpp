#include "Filter/GradientOrientationFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

ORL_FOR_EACH_GRADIENT_INSTANCE(ORL_GRADIENT_DECLARE, Band::SMemoryTag, )
ORL_FOR_EACH_GRADIENT_INSTANCE(ORL_GRADIENT_DECLARE, Band::SIPPTag, )
ORL_FOR_EACH_GRADIENT_INSTANCE(ORL_GRADIENT_DECLARE, Band::STileTag, )

}}} // namespace Orl::Ostrel::Filter
