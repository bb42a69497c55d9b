#pragma once

// How the fill-hole sweeps reach tile bands: rows through the tile iterators' row runs, copied into
// and out of the sweeps' row buffers one tile's stretch at a time, and the hole list through the
// auxiliary tile bands' scan-order iterators.

#include "Band/Detail/RowRuns.h"
#include "Band/TileBandRep.h"
#include "Filter/Detail/LinearFillHoleSweeps.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

template <class TPixel_, class TCoord>
struct SRowAccess<Band::Detail::CTileBandIterator<TPixel_, TCoord, false>>
{
  using TPixel = TPixel_;
  using TBuffer = std::vector<TPixel>;

  static const TPixel* Read(Band::Detail::CTileBandIterator<TPixel, TCoord, false> it, std::uint32_t nWidth,
                            TBuffer& vecBuffer)
  {
    vecBuffer.resize(nWidth);
    TPixel* pTo = vecBuffer.data();
    Band::Detail::ForEachRowRun(it, int(nWidth), [&](const TPixel* pRun, int nRun) {
      Band::Detail::CopyRun(pRun, pTo, nRun);
      pTo += nRun;
    });
    return vecBuffer.data();
  }
};

template <class TPixel_, class TCoord>
struct SRowAccess<Band::Detail::CMutableTileBandIterator<TPixel_, TCoord>>
{
  using TPixel = TPixel_;
  using TBuffer = std::vector<TPixel>;

  static TPixel* BeginWrite(const Band::Detail::CMutableTileBandIterator<TPixel, TCoord>&, std::uint32_t nWidth,
                            TBuffer& vecBuffer)
  {
    vecBuffer.resize(nWidth);
    return vecBuffer.data();
  }
  static void EndWrite(Band::Detail::CMutableTileBandIterator<TPixel, TCoord> it, std::uint32_t nWidth,
                       const TBuffer& vecBuffer)
  {
    const TPixel* pFrom = vecBuffer.data();
    Band::Detail::ForEachRowRun(it, int(nWidth), [&](TPixel* pRun, int nRun) {
      Band::Detail::CopyRun(pFrom, pRun, nRun);
      pFrom += nRun;
    });
  }
};

// Entry i of a hole list in a tile band of width 1024 stands at column i % 1024 of row i / 1024.
template <class TBand, class TPixel>
struct SHoleListAccess<TBand, Band::CTileBandRep<TPixel>>
{
  using TCursor = Band::Detail::CTileScanOrderIterator<TPixel, true>;
  static TCursor Begin(TBand& oBand) { return oBand.GetRep().begin(); }
};

}}}} // namespace Orl::Ostrel::Filter::Detail
