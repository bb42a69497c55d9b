#pragma once

#include "Band/Band.h"
#include "Band/Detail/RowRuns.h"
#include "Band/TileCache.h"

#include <cstdint>
#include <vector>

namespace Orl { namespace Test {

inline Ostrel::Band::CTileCache& TileCache() { return *Ostrel::Band::CTileCache::GetGlobal(); }

// The process's tile cache with another budget for the life of the object, so that small bands
// really spill.
using CTileBudget = Ostrel::Band::CScopedTileCacheBudget;

// A value for pixel (x, y) that tells positions apart within any pixel type.
template <class TPixel>
TPixel PixelAt(int nX, int nY)
{
  return TPixel((nX * 7 + nY * 13) % 113);
}

// The band's pixels in row order, and back, whatever its storage.
template <class TBand>
std::vector<typename TBand::TPixel> ReadPixels(const TBand& oBand)
{
  std::vector<typename TBand::TPixel> vecPixels;
  Ostrel::Band::Detail::WalkRectRuns(
    boost::get<0>(oBand.GetBandIterators(oBand)), int(oBand.GetWidth()), int(oBand.GetHeight()),
    [&](const typename TBand::TPixel* p, int n) { vecPixels.insert(vecPixels.end(), p, p + n); }, [] {});
  return vecPixels;
}

template <class TBand>
void WritePixels(TBand& oBand, const std::vector<typename TBand::TPixel>& vecPixels)
{
  auto itFrom = vecPixels.begin();
  Ostrel::Band::Detail::WalkRectRuns(
    boost::get<0>(oBand.GetBandIterators(oBand)), int(oBand.GetWidth()), int(oBand.GetHeight()),
    [&](typename TBand::TPixel* p, int n) { std::copy_n(itFrom, n, p); itFrom += n; }, [] {});
}

}} // namespace Orl::Test
