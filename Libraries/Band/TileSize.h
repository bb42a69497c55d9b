#pragma once

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// Tile sizes per pixel type. Every full tile is 524288 bytes, the block of the largest pool of the
// tile allocator, so that full tiles never fall back to the heap and a spilled tile's slot fits any
// other full tile: 1024 x 512 bytes, 512 wide for the 16- and 32-bit types and 256 for double.
// 16-bit and double tiles are square: row walks and column walks cross borders equally often.
// The parallel for-each cuts every band, tiled or not, on a grid of these sizes (see ForEach2D.h).
template <class TPixel>
struct STileSize
{
  static constexpr unsigned int ms_nBytes = 524288;
  static constexpr unsigned int ms_nX = sizeof(TPixel) == 1 ? 1024 : sizeof(TPixel) == 8 ? 256 : 512;
  static constexpr unsigned int ms_nY = ms_nBytes / (ms_nX * sizeof(TPixel));
  static_assert(ms_nX * ms_nY * sizeof(TPixel) == ms_nBytes, "a full tile is one block of the largest pool");
};

}}}} // namespace Orl::Ostrel::Band::Detail
