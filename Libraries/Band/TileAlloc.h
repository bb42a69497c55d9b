#pragma once

#include "Foundation/Export.h"
#include "Foundation/PixelTypes.h"

#include <boost/pool/pool.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <map>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

using TTilePool = boost::pool<boost::default_user_allocator_new_delete>;

// Process-wide state of the tile allocator, one set for all pixel types. Pools are made at the first
// block of their size and stay for the life of the process. All three are guarded by
// g_oAllocatorMutex, a leaf lock: nothing else is taken while it is held.
//
// The map and the mutex are never destroyed, so that tiles dying in other static destructors at exit
// still find them, whatever the order of destruction between libraries and units.
extern ORL_OSTREL_API std::map<unsigned int, boost::shared_ptr<TTilePool> >& g_oTileAllocator;
extern ORL_OSTREL_API boost::mutex& g_oAllocatorMutex;
extern ORL_OSTREL_API int g_nTileAllocReclaimCounter;

// Pooled releases between two walks that give entirely free growth steps back to the system.
constexpr int g_nTileAllocReclaimInterval = 21;

// The block size for a request of nBytes: at least 4096, powers of two up to 2 MiB, exact above.
ORL_OSTREL_API unsigned int GetTileBlockSize(unsigned int nBytes);

// Blocks per growth step of the pool for nBlockSize (each step is 128 MiB), or 0 when blocks of that
// size come straight from the heap.
ORL_OSTREL_API unsigned int GetTilePoolStep(unsigned int nBlockSize);

// The untyped core of CDefaultTileAlloc. Raises CBasicException when no block can be had.
ORL_OSTREL_API void* AllocateTileBlock(unsigned int nBytes, unsigned int& nAllocBytes);
ORL_OSTREL_API void ReleaseTileBlock(void* pBlock, unsigned int nBytes, unsigned int& nAllocBytes);

// The pooled allocator of tile pixels. Rows are never padded. The block's origin is not stored with
// it: Release recomputes the block size from the tile's size, which therefore must not change between
// the two calls.
template <class TPixel>
class CDefaultTileAlloc
{
public:
  static TPixel* Allocate(unsigned int nSizeX, unsigned int nSizeY, unsigned int& nAllocSizeX,
                          unsigned int& nAllocBytes)
  {
    nAllocSizeX = nSizeX;
    return static_cast<TPixel*>(AllocateTileBlock(_GetBytes(nSizeX, nSizeY), nAllocBytes));
  }

  static void Release(TPixel* pData, unsigned int nSizeX, unsigned int nSizeY, unsigned int /*nAllocSizeX*/,
                      unsigned int& nAllocBytes)
  {
    ReleaseTileBlock(pData, _GetBytes(nSizeX, nSizeY), nAllocBytes);
  }

private:
  // Multiplied in 32 bits on purpose: the block size is derived from this count in both calls.
  static unsigned int _GetBytes(unsigned int nSizeX, unsigned int nSizeY)
  {
    return nSizeX * nSizeY * static_cast<unsigned int>(sizeof(TPixel));
  }
};

#define ORL_TILE_ALLOC_EXTERN(T) extern template class CDefaultTileAlloc<T>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_TILE_ALLOC_EXTERN)
#undef ORL_TILE_ALLOC_EXTERN

}}}} // namespace Orl::Ostrel::Band::Detail
