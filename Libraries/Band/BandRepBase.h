#pragma once

#include "Foundation/Export.h"
#include "Foundation/Rect.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// What every representation shares: the size, the block hint and the sample used for approximate
// statistics. No virtual operations: representations are chosen at compile time.
class ORL_OSTREL_API CBandRepBase
{
public:
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;

  // Throws CBasicException for a side of ms_nMaxSide pixels or more: the iterators carry their
  // position in an int, and the walks their extents.
  CBandRepBase(unsigned int nWidth, unsigned int nHeight);

  // width * height in 64 bits.
  std::uint64_t GetPixelCount() const { return std::uint64_t(m_nWidth) * m_nHeight; }

  // Always (0, 0, width, height): representations hold every pixel of their band.
  TRect GetBoundingRect() const { return TRect(0, 0, m_nWidth, m_nHeight); }

  // Whole rows, and enough of them to make about ms_nBlockPixels pixels (at least one row, at least 1
  // in each axis). A memory band is contiguous by rows, so a block of full rows is one run of memory
  // and the parallel algorithms never split a row between tasks: each task streams its rows at full
  // bandwidth, and the grain (twice the hint) keeps the per-task overhead under a percent.
  std::pair<std::uint32_t, std::uint32_t> GetBlockHint() const;

  // The sample for approximate statistics: the whole band when it has at most ms_nApproxFullPixels
  // pixels; otherwise ms_nApproxStrips full-width strips spread evenly over the height, together about
  // 1/ms_nApproxFraction of the band, disjoint and in row order. Full-width strips read each sampled row
  // contiguously, and spreading them over the height catches the north-south trends of real rasters
  // that a single window would miss. The result depends only on the size, so it is repeatable.
  std::vector<TRect> GetApproxRects() const;

  static constexpr std::uint32_t ms_nMaxSide = 0x7fffffffu;
  static constexpr std::uint32_t ms_nBlockPixels = 1u << 15;
  static constexpr std::uint64_t ms_nApproxFullPixels = 1u << 22;
  static constexpr std::uint32_t ms_nApproxStrips = 32;
  static constexpr std::uint32_t ms_nApproxFraction = 16;

  // Switches on the allocation trace of memory bands for the whole process; starts false.
  static bool ms_bTraceAllocations;

  std::uint32_t m_nWidth;
  std::uint32_t m_nHeight;
};

}}}} // namespace Orl::Ostrel::Band::Detail
