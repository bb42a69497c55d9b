#pragma once

// The linear fill-hole filter: declaration and its instances. The generic definitions are in
// LinearFillHoleFilterImpl.h, which only code that makes new instances needs.

#include "Band/Band.h"
#include "Filter/DefaultLineData.h"
#include "Filter/FilterBase.h"

#include <cstdint>

namespace Orl { namespace Ostrel { namespace Filter {

// Fills the holes of a band by interpolation along eight lines (the two axes and the two diagonals).
// Each line that reaches a valid pixel within m_fMaxDistance steps contributes its value with weight
// 1 / steps; a hole with at least m_nMinDirections contributions gets the weighted mean, computed in
// 32-bit float for every pixel type, the others get the destination's no-data value.
//
// Two sweeps, forward and backward, each looking at every pixel once; the working memory is
// O(width + height) line state per thread plus one entry per hole. A large hole is filled from its rim
// inward as far as the reach goes. The sweeps run on the threads of the caller's task arena (within
// any tbb::global_control limit) where the band is large enough to be cut into stripes of rows; the
// result is the same bit for bit on any number of threads.
//
// Holes: without a mask, the source's invalid pixels (its no-data value; for floating types also NaN
// and infinities). With a mask, the pixels whose mask pixel the comparator selects; source pixels that
// are invalid and not selected are then skipped: they get no-data and do not lengthen any line.
// The mask comparator is SEqualComparator with the mask's no-data value (0 without one), or, with the
// range constructor, SOutsideRangeComparator with the range in the mask's pixel type.
//
// The caller passes a source no larger than the destination and the mask (a larger destination or
// mask narrows the work to the source's rectangle), a destination other than the source, and a
// bound nMaxHolePixels of at least the number of holes; CountHoles gives that number. Apply throws
// CBasicException, with the destination untouched, when any of these fails.
//
// Tile bands larger than the tile cache's budget: each sweep walks the source (and the mask, if
// used; the destination in the backward sweep) a row of pixels at a time over the full width, and
// holds the row of tiles it is on (two at a border) until it leaves it; the hole list keeps one chunk
// of 2.25 MiB in memory and the rest in tiles that spill. On several threads each stripe of rows in
// work is such a walk with its own hole list, and its first rows read back into the row of tiles
// before it. A row of tiles is width x 1 KiB for 16- and 32-bit pixels, half that for 8-bit and twice
// that for double. A budget of three rows of tiles per band walked and thread, plus 8 MiB per
// thread, lets every tile come into memory about once per sweep and the next row be read ahead while
// one is worked on: for float 16384 x 16384 bands without a mask, about 100 MiB per thread. With
// less, the cache goes over its budget by what the sweeps hold, and tiles still come into memory
// about once per sweep.
//
// The bound is a limit, not a size: the hole list grows in chunks as holes are met, so a generous
// bound (width * height) costs nothing, while a source with more holes than the bound is refused
// rather than given an unbounded list. A caller who set a bound meant it as a memory budget; one who
// wants none passes width * height.
template <class TLineData>
class CLinearFillHoleFilter : public Detail::CBandFilterBase
{
public:
  CLinearFillHoleFilter(unsigned int nMaxHolePixels, unsigned int nMinDirections, float fMaxDistance, bool bUseMask)
    : m_nMaxHolePixels(nMaxHolePixels), m_nMinDirections(nMinDirections), m_fMaxDistance(fMaxDistance),
      m_bUseMask(bUseMask), m_bUseRange(false)
  {
    m_strName = "Linear Fill Hole Filter";
  }

  // With a mask, holes are where the mask pixel lies outside [dRangeLow, dRangeHigh].
  CLinearFillHoleFilter(double dRangeLow, double dRangeHigh, unsigned int nMaxHolePixels, unsigned int nMinDirections,
                        float fMaxDistance, bool bUseMask)
    : m_nMaxHolePixels(nMaxHolePixels), m_nMinDirections(nMinDirections), m_fMaxDistance(fMaxDistance),
      m_bUseMask(bUseMask), m_bUseRange(true), m_dRangeLow(dRangeLow), m_dRangeHigh(dRangeHigh)
  {
    m_strName = "Linear Fill Hole Filter";
  }

  bool AllowDestIsSrc() const { return false; }

  // dest and src have one pixel type; all three bands one storage tag. The mask must be given also
  // when m_bUseMask is false: its pixels are then not read, but its extent still counts.
  template <class TDest, class TSrc, class TMask>
  void Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask) const;

  // The holes Apply would meet with these bands and this filter's settings: the bound to pass as
  // nMaxHolePixels. Without a mask, the source's invalid pixels (no-data; for floating types also NaN
  // and infinities, which band statistics count as valid); with one, the pixels the comparator
  // selects. One read of the source (and of the mask, if used).
  template <class TSrc, class TMask>
  std::uint64_t CountHoles(const TSrc& oSrc, const TMask& oMask) const;

private:
  // Calls fn with the mask comparator of this filter for the mask's pixel type.
  template <class TMask, class TFn>
  void _WithComparator(const TMask& oMask, TFn&& fn) const;

  template <class TDest, class TSrc, class TMask, class TComparator>
  void _ApplyImpl(TDest& oDest, const TSrc& oSrc, const TMask& oMask, const TComparator& oComparator) const;

  template <bool BUseMask, class TDest, class TSrc, class TMask, class TComparator>
  void _Sweeps(TDest& oDest, const TSrc& oSrc, const TMask& oMask, const TComparator& oComparator) const;

  std::uint32_t m_nMaxHolePixels;
  std::uint32_t m_nMinDirections;
  float m_fMaxDistance;
  bool m_bUseMask;
  bool m_bUseRange;
  double m_dRangeLow = 0.0;  // read only with m_bUseRange
  double m_dRangeHigh = 0.0; // read only with m_bUseRange
};

// The image and mask pixel types of the instances: ORL_FOR_EACH_FILL_HOLE_INSTANCE(M, Tag) expands
// M(image pixel, mask pixel, Tag) for each. Signed images take the unsigned mask of their width.
#define ORL_FOR_EACH_FILL_HOLE_INSTANCE(M, Tag)                                                         \
  M(unsigned char, unsigned char, Tag)                                                                  \
  M(unsigned short, unsigned char, Tag)                                                                 \
  M(unsigned short, unsigned short, Tag)                                                                \
  M(short, unsigned char, Tag)                                                                          \
  M(short, unsigned short, Tag)                                                                         \
  M(unsigned int, unsigned char, Tag)                                                                   \
  M(unsigned int, unsigned int, Tag)                                                                    \
  M(int, unsigned char, Tag)                                                                            \
  M(int, unsigned int, Tag)                                                                             \
  M(float, unsigned char, Tag)                                                                          \
  M(float, float, Tag)                                                                                  \
  M(double, unsigned char, Tag)                                                                         \
  M(double, double, Tag)

#define ORL_FILL_HOLE_APPLY(TPixel, TMaskPixel, Tag)                                                    \
  void CLinearFillHoleFilter<SDefaultLineData>::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>, \
                                                      Band::CBand<TMaskPixel, Tag>>(                   \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&, const Band::CBand<TMaskPixel, Tag>&) const;

#define ORL_FILL_HOLE_COUNT(TPixel, TMaskPixel, Tag)                                                    \
  std::uint64_t CLinearFillHoleFilter<SDefaultLineData>::CountHoles<Band::CBand<TPixel, Tag>,            \
                                                                    Band::CBand<TMaskPixel, Tag>>(       \
    const Band::CBand<TPixel, Tag>&, const Band::CBand<TMaskPixel, Tag>&) const;

#define ORL_FILL_HOLE_EXTERN(TPixel, TMaskPixel, Tag)                                                   \
  extern template ORL_FILL_HOLE_APPLY(TPixel, TMaskPixel, Tag)                                          \
  extern template ORL_FILL_HOLE_COUNT(TPixel, TMaskPixel, Tag)
ORL_FOR_EACH_FILL_HOLE_INSTANCE(ORL_FILL_HOLE_EXTERN, Band::SMemoryTag)
ORL_FOR_EACH_FILL_HOLE_INSTANCE(ORL_FILL_HOLE_EXTERN, Band::SIPPTag)
ORL_FOR_EACH_FILL_HOLE_INSTANCE(ORL_FILL_HOLE_EXTERN, Band::STileTag)
#undef ORL_FILL_HOLE_EXTERN

}}} // namespace Orl::Ostrel::Filter
