#include "Filter/ColorConversionFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

ORL_FOR_EACH_COLOR_INSTANCE(ORL_COLOR_DECLARE, )

}}} // namespace Orl::Ostrel::Filter
