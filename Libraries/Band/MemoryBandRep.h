#pragma once

#include "Band/BandRep.h"
#include "Band/MemoryBandIterator.h"
#include "Foundation/PixelTypes.h"

#include <boost/shared_ptr.hpp>
#include <boost/tuple/tuple.hpp>

#include <cstdint>

namespace Orl { namespace Ostrel { namespace Band {

// A band's pixels in one contiguous block, row after row with no padding: pixel (x, y) is at
// y * width + x. The fast path of the library: its iterators are a pointer and two coordinates.
template <class TPixel>
class CMemoryBandRep : public Detail::CBandRep<TPixel>
{
public:
  using TConstIterator = Detail::CMemoryBandIterator<TPixel, int>;
  using TIterator = Detail::CMutableMemoryBandIterator<TPixel, int>;
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;

  // Takes an uninitialised block of width * height pixels (none when either is 0) and, last, installs
  // the statistic calculator bound to this representation in the record. Throws
  // std::bad_alloc when the block cannot be had.
  CMemoryBandRep(unsigned int nWidth, unsigned int nHeight);
  // Over caller-owned pixels: pPixels holds width * height pixels in the layout above and stays
  // valid, at the same address, as long as this representation lives. pOwner is held until the
  // representation dies and released then; it is what keeps the pixels alive (a language binding
  // passes a reference on its array) and may be empty when the caller guarantees that otherwise.
  // The pixels are neither initialised nor freed here, and nothing is traced. Throws CBasicException
  // when pPixels is null for a non-empty band. pPixels should be aligned for TPixel; a band that is
  // only read through its statistic getters may have it at any address (a file mapped in place),
  // since their row walks load pixels with memcpy.
  CMemoryBandRep(unsigned int nWidth, unsigned int nHeight, TPixel* pPixels, boost::shared_ptr<void> pOwner);
  ~CMemoryBandRep();

  // True for the pixels of the representation's own block, false over caller-owned pixels.
  bool OwnsPixels() const { return m_bOwnsPixels; }

  // Sets every pixel to tValue; drops the cached statistics before and after, keeps the no-data value.
  CMemoryBandRep& Clear(TPixel tValue);

  // The mutable form drops the cached statistics: whoever holds it may write.
  TPixel* GetDataLocation()
  {
    this->InvalidateStatistics();
    return m_pData;
  }
  const TPixel* GetDataLocation() const { return m_pData; }

  // Iterators at the start and the end of oRect clipped to the band. The mutable form drops the
  // cached statistics when it is called, not when a pixel is written.
  boost::tuples::tuple<TIterator, TIterator> GetBandIterators(const TRect& oRect)
  {
    this->InvalidateStatistics();
    return _MakeIterators<TIterator>(oRect);
  }
  boost::tuples::tuple<TConstIterator, TConstIterator> GetBandIterators(const TRect& oRect) const
  {
    return _MakeIterators<TConstIterator>(oRect);
  }

  // Live blocks of this pixel type and their bytes, counted while ms_bTraceAllocations is on.
  static std::uint32_t ms_nNumBandsAllocated;
  static std::uint64_t ms_nNumBytesAllocated;

  TPixel* m_pData = nullptr;

private:
  template <class TIt>
  boost::tuples::tuple<TIt, TIt> _MakeIterators(const TRect& oRect) const
  {
    TRect oClipped(oRect);
    oClipped.Intersect(this->GetBoundingRect());
    const auto oHint = this->GetBlockHint();
    const auto itAt = [&](const Pravik::GraphObject2d::CPoint<unsigned int>& oPos) {
      return TIt(m_pData, this->m_nWidth, this->m_nHeight, int(oPos.x), int(oPos.y), oHint.first, oHint.second);
    };
    return boost::tuples::make_tuple(itAt(oClipped.GetStart()), itAt(oClipped.GetEnd()));
  }

  void _Trace(std::int64_t nSign);

  bool m_bOwnsPixels = true;
  boost::shared_ptr<void> m_pPixelOwner; // keeps caller-owned pixels alive; empty for an own block
};

#define ORL_MEMORY_BAND_REP_EXTERN(T) extern template class CMemoryBandRep<T>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_MEMORY_BAND_REP_EXTERN)
#undef ORL_MEMORY_BAND_REP_EXTERN

}}} // namespace Orl::Ostrel::Band
