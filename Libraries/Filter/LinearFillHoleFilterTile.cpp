#include "Filter/LinearFillHoleFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_FILL_HOLE_INSTANTIATE(TPixel, TMaskPixel, Tag)                                              \
  template ORL_FILL_HOLE_APPLY(TPixel, TMaskPixel, Tag)                                                 \
  template ORL_FILL_HOLE_COUNT(TPixel, TMaskPixel, Tag)
ORL_FOR_EACH_FILL_HOLE_INSTANCE(ORL_FILL_HOLE_INSTANTIATE, Band::STileTag)
#undef ORL_FILL_HOLE_INSTANTIATE

}}} // namespace Orl::Ostrel::Filter
