#pragma once

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// Tile sizes per pixel type. Every full tile is 524288 bytes, the block of the largest pool of the
// tile allocator, so that full tiles never fall back to the heap and a spilled tile's slot fits any
// other full tile: 1024 x 512 bytes, 512 wide for the 16- and 32-bit types and 256 for double.
// 16-bit and double tiles are square: row walks and column walks cross borders equally often.
template <class TPixel>
struct STileSize
{
  static constexpr unsigned int ms_nBytes = 524288;
  static constexpr unsigned int ms_nX = sizeof(TPixel) == 1 ? 1024 : sizeof(TPixel) == 8 ? 256 : 512;
  static constexpr unsigned int ms_nY = ms_nBytes / (ms_nX * sizeof(TPixel));
  static_assert(ms_nX * ms_nY * sizeof(TPixel) == ms_nBytes, "a full tile is one block of the largest pool");
};

// The fixed grid of the walks that must give the same bits on every storage (see ForEach2D.h and
// RowWalk.h): pieces of a row end at multiples of ms_nPieceX, and the parallel for-each cuts a band
// into cells of ms_nCellX x ms_nCellY pixels counted from its origin. Pixel types that have tiles use
// their tile width and height, so that a tile band's runs fit the pieces; other pixel sizes (a 3- or
// 12-byte pixel of a memory band) take the same byte sizes without needing an exact tile.
template <class TPixel, bool bTiled = (sizeof(TPixel) == 1 || sizeof(TPixel) == 2 || sizeof(TPixel) == 4 ||
                                       sizeof(TPixel) == 8)>
struct SWalkGrid
{
  static constexpr unsigned int ms_nPieceX = STileSize<TPixel>::ms_nX;
  static constexpr unsigned int ms_nCellY = STileSize<TPixel>::ms_nY;
  // Full-width row bands up to 64 tiles across: few, large cells, each walked row by row through
  // memory, while very wide bands still split across.
  static constexpr unsigned int ms_nCellX = 64 * ms_nPieceX;
};
template <class TPixel>
struct SWalkGrid<TPixel, false>
{
  static constexpr unsigned int ms_nPieceX = 512;
  static constexpr unsigned int ms_nCellY =
    524288 / (512 * sizeof(TPixel)) > 0 ? unsigned(524288 / (512 * sizeof(TPixel))) : 1u;
  static constexpr unsigned int ms_nCellX = 64 * ms_nPieceX;
};

}}}} // namespace Orl::Ostrel::Band::Detail
