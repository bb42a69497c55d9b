#pragma once

namespace Orl { namespace Ostrel { namespace Band {

// Storage tags: empty types that choose a band's representation at compile time.
struct SMemoryTag
{
}; // one contiguous block
struct SIPPTag
{
}; // the same block and code as SMemoryTag, as a separate band type
struct STileTag
{
}; // tiles that can leave memory for the spill file

template <class TPixel>
class CMemoryBandRep;
template <class TPixel>
class CTileBandRep;

namespace Detail {

template <class TPixel, class TTag>
struct SRepresentation;

template <class TPixel>
struct SRepresentation<TPixel, SMemoryTag>
{
  using type = CMemoryBandRep<TPixel>;
};

template <class TPixel>
struct SRepresentation<TPixel, SIPPTag>
{
  using type = CMemoryBandRep<TPixel>;
};

template <class TPixel>
struct SRepresentation<TPixel, STileTag>
{
  using type = CTileBandRep<TPixel>;
};

} // namespace Detail
}}} // namespace Orl::Ostrel::Band
