#pragma once

#include "Band/Band.h"
#include "Band/TileCache.h"

#include <boost/tuple/tuple.hpp>

#include <cstdint>

namespace Orl { namespace Test {

// The process's tile cache with another budget for the life of the object, so that small bands
// really spill.
class CTileBudget
{
public:
  explicit CTileBudget(std::uint64_t nBytes)
  {
    if (!Ostrel::Band::g_oTileCache)
      Ostrel::Band::CTileCache::InitGlobalTileCache();
    m_nOld = Ostrel::Band::g_oTileCache->GetMemoryBudget();
    Ostrel::Band::g_oTileCache->SetMemoryBudget(nBytes);
  }
  ~CTileBudget() { Ostrel::Band::g_oTileCache->SetMemoryBudget(m_nOld); }
  CTileBudget(const CTileBudget&) = delete;
  CTileBudget& operator=(const CTileBudget&) = delete;

private:
  std::uint64_t m_nOld;
};

inline Ostrel::Band::STileCacheCounters TileCounters()
{
  if (!Ostrel::Band::g_oTileCache)
    Ostrel::Band::CTileCache::InitGlobalTileCache();
  return Ostrel::Band::g_oTileCache->GetCounters();
}

// A value for pixel (x, y) that tells positions apart within any pixel type.
template <class TPixel>
TPixel PixelAt(unsigned int nX, unsigned int nY)
{
  return TPixel((nX * 7 + nY * 13) % 113);
}

// Fills a band of any tag with PixelAt through its mutable iterators, rows outside.
template <class TBand>
void FillNumbered(TBand& oBand)
{
  using TPixel = typename TBand::TPixel;
  auto oIts = oBand.GetBandIterators(oBand);
  auto itRow = boost::get<0>(oIts);
  const auto& itEnd = boost::get<1>(oIts);
  for (; itRow.Y != itEnd.Y; ++itRow.Y)
    for (auto it = itRow; it.X != itEnd.X; ++it.X)
      *it = PixelAt<TPixel>(unsigned(int(it.X)), unsigned(int(it.Y)));
}

}} // namespace Orl::Test
