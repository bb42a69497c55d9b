#include "Band/TileAlloc.h"

#include "Foundation/BasicException.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>
#include <boost/make_shared.hpp>

#include <cassert>
#include <cerrno>
#include <cstdlib>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

std::map<unsigned int, boost::shared_ptr<TTilePool> >& g_oTileAllocator =
  *new std::map<unsigned int, boost::shared_ptr<TTilePool> >();
boost::mutex& g_oAllocatorMutex = *new boost::mutex();
int g_nTileAllocReclaimCounter = 0;

namespace {

constexpr unsigned int g_nSmallestBlock = 4096;
constexpr unsigned int g_nLargestRoundedBlock = 2097152;
constexpr unsigned int g_nPoolStepBytes = 134217728;

} // namespace

unsigned int GetTileBlockSize(unsigned int nBytes)
{
  if (nBytes <= g_nSmallestBlock)
    return g_nSmallestBlock;
  if (nBytes > g_nLargestRoundedBlock)
    return nBytes;
  unsigned int nBlock = g_nSmallestBlock;
  while (nBlock < nBytes)
    nBlock <<= 1;
  return nBlock;
}

unsigned int GetTilePoolStep(unsigned int nBlockSize)
{
  switch (nBlockSize)
  {
  case 65536:
  case 131072:
  case 262144:
  case 524288:
    return g_nPoolStepBytes / nBlockSize;
  default:
    return 0;
  }
}

void* AllocateTileBlock(unsigned int nBytes, unsigned int& nAllocBytes)
{
  void* pBlock = nullptr;
  int nError = 0;
  {
    boost::unique_lock<boost::mutex> oLock(g_oAllocatorMutex);
    const unsigned int nBlock = GetTileBlockSize(nBytes);
    nAllocBytes = nBlock;
    const unsigned int nStep = GetTilePoolStep(nBlock);
    if (nStep != 0)
    {
      auto itPool = g_oTileAllocator.find(nBlock);
      // A boost::pool doubles its growth step after each growth unless it has a maximum; with the
      // maximum at the step the pool grows by 128 MiB every time. Setting the next size back after
      // each allocation also undoes the halving that a failed growth makes.
      if (itPool == g_oTileAllocator.end())
        itPool = g_oTileAllocator.emplace(nBlock, boost::make_shared<TTilePool>(nBlock, nStep, nStep)).first;
      const boost::shared_ptr<TTilePool>& pPool = itPool->second;
      pBlock = pPool->ordered_malloc();
      nError = errno;
      pPool->set_next_size(nStep);
    }
    else
    {
      pBlock = std::malloc(nBlock);
      nError = errno;
    }
  }
  // Raised outside the lock: translating takes locks of its own, and the allocator's lock is a leaf.
  if (!pBlock)
    throw Harnel::CBasicException(
      __FILE__, __LINE__,
      (boost::format(Harnel::Internationalisation::CTranslator::Translate(
                       "Failed to allocate \"%1%\" bytes on the heap")) %
       nAllocBytes)
        .str(),
      nError, Harnel::Internationalisation::CTranslator::Translate(""));
  return pBlock;
}

void ReleaseTileBlock(void* pBlock, unsigned int nBytes, unsigned int& nAllocBytes)
{
  boost::unique_lock<boost::mutex> oLock(g_oAllocatorMutex);
  const unsigned int nBlock = GetTileBlockSize(nBytes);
  nAllocBytes = nBlock;
  if (GetTilePoolStep(nBlock) == 0)
  {
    std::free(pBlock);
    return;
  }
  // Ordered, so that the free list stays sorted by address and whole free growth steps can be found.
  const auto itPool = g_oTileAllocator.find(nBlock);
  assert(itPool != g_oTileAllocator.end() && itPool->second->is_from(pBlock));
  itPool->second->ordered_free(pBlock);
  if (++g_nTileAllocReclaimCounter >= g_nTileAllocReclaimInterval)
  {
    for (auto& oEntry : g_oTileAllocator)
      oEntry.second->release_memory();
    g_nTileAllocReclaimCounter = 0;
  }
}

#define ORL_TILE_ALLOC_INSTANTIATE(T) template class CDefaultTileAlloc<T>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_TILE_ALLOC_INSTANTIATE)
#undef ORL_TILE_ALLOC_INSTANTIATE

}}}} // namespace Orl::Ostrel::Band::Detail
