#pragma once

// CIndexSelectorFilter: per pixel, the pixel of the stack member that an index band names. The
// generic definitions are in IndexSelectorFilterImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

#include <string>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

// dest = stack[index] per pixel, index counting from 0. An index pixel that is no-data or not below
// the stack's size, and a selected pixel that is no-data in its member, give dest's no-data fallback
// (its own value, else the type's hint).
//
// dest and the stack share a pixel type; the index band is unsigned char or unsigned short. All bands
// have one extent and the stack is not empty, else CBasicException before any pixel is written.
// dest may be a member of the stack: each pixel is read before it is written.
class CIndexSelectorFilter : public Detail::CMultiBandFilterBase
{
public:
  CIndexSelectorFilter() = default;

  // The display name; m_strName stays empty.
  std::string GetName() const { return "Index Selector Filter"; }

  bool AllowDestIsSrc() const { return true; }

  template <class TDest, class TIndex, class TSrc>
  void Apply(TDest& oDest, const TIndex& oIndex, const std::vector<TSrc>& vecStack) const;
};

// M(stack pixel, index pixel, Tag).
#define ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(M, Tag)                                                    \
  M(unsigned char, unsigned char, Tag)                                                                  \
  M(unsigned short, unsigned char, Tag)                                                                 \
  M(short, unsigned char, Tag)                                                                          \
  M(unsigned int, unsigned char, Tag)                                                                   \
  M(int, unsigned char, Tag)                                                                            \
  M(float, unsigned char, Tag)                                                                          \
  M(double, unsigned char, Tag)                                                                         \
  M(unsigned char, unsigned short, Tag)                                                                 \
  M(unsigned short, unsigned short, Tag)                                                                \
  M(short, unsigned short, Tag)                                                                         \
  M(unsigned int, unsigned short, Tag)                                                                  \
  M(int, unsigned short, Tag)                                                                           \
  M(float, unsigned short, Tag)                                                                         \
  M(double, unsigned short, Tag)

#define ORL_INDEX_SELECTOR_DECL(PREFIX, TPixel, TIndexPixel, Tag)                                       \
  PREFIX void CIndexSelectorFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TIndexPixel, Tag>,      \
                                          Band::CBand<TPixel, Tag>>(                                    \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TIndexPixel, Tag>&, const std::vector<Band::CBand<TPixel, Tag>>&) \
    const;

#define ORL_INDEX_SELECTOR_EXTERN(TPixel, TIndexPixel, Tag)                                             \
  ORL_INDEX_SELECTOR_DECL(extern template, TPixel, TIndexPixel, Tag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_INDEX_SELECTOR_EXTERN, Band::SMemoryTag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_INDEX_SELECTOR_EXTERN, Band::SIPPTag)
ORL_FOR_EACH_INDEX_SELECTOR_INSTANCE(ORL_INDEX_SELECTOR_EXTERN, Band::STileTag)
#undef ORL_INDEX_SELECTOR_EXTERN

}}} // namespace Orl::Ostrel::Filter
