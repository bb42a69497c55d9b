#pragma once

// CMaskMergeFilter: a weighted vote of several mask bands. The generic definitions are in
// MaskMergeFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

// A mask pixel is set where it differs from its band's marker (the band's no-data value, 0 without
// one): the pixels that CMaskFilter keeps. Per pixel, the vote is the sum of the weights of the masks
// set there; dest is set (1, or 0 where dest's marker is 1) where twice the vote reaches the sum of
// all weights, a weighted majority with ties set, and gets dest's marker elsewhere.
//
// m_vecWeights holds one weight per mask; empty (the start) gives every mask weight 1, a plain
// majority. Another count, or an empty stack, or masks of another extent than dest, give
// CBasicException before any pixel is written. dest may be one of the masks.
class CMaskMergeFilter : public Detail::CBandFilterBase
{
public:
  CMaskMergeFilter() { m_strName = "Mask Merge Filter"; }

  bool AllowDestIsSrc() const { return true; }

  void SetWeights(const std::vector<double>& vecWeights)
  {
    if (&vecWeights != &m_vecWeights)
      m_vecWeights = vecWeights;
  }
  const std::vector<double>& GetWeights() const { return m_vecWeights; }

  template <class TDest, class TMask>
  void Apply(TDest& oDest, const std::vector<TMask>& vecMasks) const;

private:
  std::vector<double> m_vecWeights;
};

#define ORL_MASK_MERGE_DECL(PREFIX, TPixel, Tag)                                                        \
  PREFIX void CMaskMergeFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(               \
    Band::CBand<TPixel, Tag>&, const std::vector<Band::CBand<TPixel, Tag>>&) const;

#define ORL_MASK_MERGE_EXTERN(TPixel)                                                                   \
  ORL_MASK_MERGE_DECL(extern template, TPixel, Band::SMemoryTag)                                       \
  ORL_MASK_MERGE_DECL(extern template, TPixel, Band::SIPPTag)                                          \
  ORL_MASK_MERGE_DECL(extern template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_MASK_MERGE_EXTERN)
#undef ORL_MASK_MERGE_EXTERN

}}} // namespace Orl::Ostrel::Filter
