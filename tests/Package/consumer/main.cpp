// Uses the installed headers and libraries the way an application would: structured bindings over
// the iterator pair, and std::as_const for a read-only walk, on memory and tile bands alike.
#include <Band/Band.h>
#include <Band/TileCache.h>

#include <cstdio>
#include <utility>

template <class TBand>
double Sum(TBand& oBand)
{
  double dSum = 0;
  const auto [itBegin, itEnd] = std::as_const(oBand).GetBandIterators(oBand);
  for (auto itRow = itBegin; itRow.Y != itEnd.Y; ++itRow.Y)
    for (auto it = itRow; it.X != itEnd.X; ++it.X)
      dSum += *it;
  return dSum;
}

int main()
{
  using namespace Orl::Ostrel::Band;
  const CScopedTileCacheBudget oBudget(64 << 20);
  CBand<float, SMemoryTag> oMemory(64, 32);
  CBand<float, STileTag> oTiles(600, 300);
  oMemory.Clear(1.5f);
  oTiles.Clear(1.5f);
  auto [itBegin, itEnd] = oTiles.GetBandIterators(Orl::Pravik::GraphObject2d::CRect<unsigned int>(0, 0, 2, 2));
  for (auto itRow = itBegin; itRow.Y != itEnd.Y; ++itRow.Y)
    for (auto it = itRow; it.X != itEnd.X; ++it.X)
      *it = 2.5f;
  const double dMemory = Sum(oMemory), dTiles = Sum(oTiles);
  std::printf("sums %g %g\n", dMemory, dTiles);
  return dMemory == 64 * 32 * 1.5 && dTiles == 600 * 300 * 1.5 + 4 ? 0 : 1;
}
