#include "Band/Copy2D.h"

#include "Band/TileBandRep.h"

namespace Orl { namespace Ostrel { namespace Band {

// Memory band to memory band; the tile pair joins these with the tile iterators.
#define ORL_COPY2D_INSTANTIATE(T)                                                                       \
  template void Copy2D<Detail::CMemoryBandIterator<T, int>, Detail::CMutableMemoryBandIterator<T, int>>( \
    const boost::tuples::tuple<Detail::CMemoryBandIterator<T, int>, Detail::CMemoryBandIterator<T, int>>&,     \
    boost::tuples::tuple<Detail::CMutableMemoryBandIterator<T, int>, Detail::CMutableMemoryBandIterator<T, int>>, \
    boost::shared_ptr<Harnel::Progress::CLogger>, SAllowParallelFor);
ORL_FOR_EACH_PIXEL_TYPE(ORL_COPY2D_INSTANTIATE)
#undef ORL_COPY2D_INSTANTIATE

#define ORL_TILE_COPY2D_INSTANTIATE(T)                                                                  \
  template void Copy2D<Detail::CTileBandIterator<T, int, false>, Detail::CMutableTileBandIterator<T, int>>( \
    const boost::tuples::tuple<Detail::CTileBandIterator<T, int, false>, Detail::CTileBandIterator<T, int, false>>&, \
    boost::tuples::tuple<Detail::CMutableTileBandIterator<T, int>, Detail::CMutableTileBandIterator<T, int>>,     \
    boost::shared_ptr<Harnel::Progress::CLogger>, SAllowParallelFor);
ORL_FOR_EACH_PIXEL_TYPE(ORL_TILE_COPY2D_INSTANTIATE)
#undef ORL_TILE_COPY2D_INSTANTIATE

}}} // namespace Orl::Ostrel::Band
