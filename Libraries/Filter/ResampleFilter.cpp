#include "Filter/ResampleFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

// SIPPTag bands have the memory representation and its iterators: their instances share the
// row workers with SMemoryTag.
#define ORL_RESAMPLE_INSTANTIATE_MEMORY(TPixel) ORL_RESAMPLE_DECLARE(TPixel, Band::SMemoryTag, )
#define ORL_RESAMPLE_INSTANTIATE_IPP(TPixel) ORL_RESAMPLE_DECLARE(TPixel, Band::SIPPTag, )
#define ORL_RESAMPLE_INSTANTIATE_TILE(TPixel) ORL_RESAMPLE_DECLARE(TPixel, Band::STileTag, )
ORL_FOR_EACH_PIXEL_TYPE(ORL_RESAMPLE_INSTANTIATE_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RESAMPLE_INSTANTIATE_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RESAMPLE_INSTANTIATE_TILE)

}}} // namespace Orl::Ostrel::Filter
