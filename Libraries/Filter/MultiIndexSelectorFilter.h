#pragma once

// CMultiIndexSelectorFilter: several selections from one stack, one per index band. The generic
// definitions are in MultiIndexSelectorFilterImpl.h.

#include "Filter/IndexSelectorFilter.h"

namespace Orl { namespace Ostrel { namespace Filter {

// dests[j] = stack[indices[j]] per pixel, each as CIndexSelectorFilter makes it. As many index bands
// as destinations, at least one; all bands of one extent; the stack not empty: else CBasicException
// before any pixel is written. No destination may be a member of the stack, as an earlier output
// would change the members that later ones select from.
class CMultiIndexSelectorFilter : public Detail::CMultiBandFilterBase
{
public:
  CMultiIndexSelectorFilter() { m_strName = "Multi Index Selector Filter"; }

  bool AllowDestIsSrc() const { return false; }

  template <class TDest, class TIndex, class TSrc>
  void Apply(std::vector<TDest>& vecDest, const std::vector<TIndex>& vecIndices,
             const std::vector<TSrc>& vecStack) const;
};

#define ORL_MULTI_INDEX_SELECTOR_DECL(PREFIX, TPixel, TIndexPixel, Tag)                                 \
  PREFIX void CMultiIndexSelectorFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TIndexPixel, Tag>, \
                                               Band::CBand<TPixel, Tag>>(                               \
    std::vector<Band::CBand<TPixel, Tag>>&, const std::vector<Band::CBand<TIndexPixel, Tag>>&,          \
    const std::vector<Band::CBand<TPixel, Tag>>&) const;

#define ORL_MULTI_INDEX_SELECTOR_EXTERN(TPixel, TIndexPixel, Tag)                                       \
  ORL_MULTI_INDEX_SELECTOR_DECL(extern template, TPixel, TIndexPixel, Tag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_MULTI_INDEX_SELECTOR_EXTERN, Band::SMemoryTag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_MULTI_INDEX_SELECTOR_EXTERN, Band::SIPPTag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_MULTI_INDEX_SELECTOR_EXTERN, Band::STileTag)
#undef ORL_MULTI_INDEX_SELECTOR_EXTERN

}}} // namespace Orl::Ostrel::Filter
