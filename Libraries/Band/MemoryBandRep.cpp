#include "Band/MemoryBandRep.h"

#include "Band/StatisticCalculator.h"
#include "Foundation/BasicException.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <iostream>
#include <string>
#include <typeinfo>
#include <utility>

namespace Orl { namespace Ostrel { namespace Band {

template <class TPixel>
std::uint32_t CMemoryBandRep<TPixel>::ms_nNumBandsAllocated = 0;
template <class TPixel>
std::uint64_t CMemoryBandRep<TPixel>::ms_nNumBytesAllocated = 0;

template <class TPixel>
CMemoryBandRep<TPixel>::CMemoryBandRep(unsigned int nWidth, unsigned int nHeight)
  : Detail::CBandRep<TPixel>(nWidth, nHeight)
{
  if (nWidth != 0 && nHeight != 0)
  {
    m_pData = new TPixel[this->GetPixelCount()]; // left uninitialised on purpose: Clear exists
    if (Detail::CBandRepBase::ms_bTraceAllocations)
      _Trace(+1);
  }
  // Last: the calculator is the only part of the record that depends on the concrete class.
  this->GetStatistics().m_pCalculator =
    boost::make_shared<Detail::CStatisticCalculator<TPixel, double, CMemoryBandRep<TPixel>>>(this);
}

template <class TPixel>
CMemoryBandRep<TPixel>::CMemoryBandRep(unsigned int nWidth, unsigned int nHeight, TPixel* pPixels,
                                       boost::shared_ptr<void> pOwner)
  : Detail::CBandRep<TPixel>(nWidth, nHeight), m_bOwnsPixels(false), m_pPixelOwner(std::move(pOwner))
{
  if (nWidth != 0 && nHeight != 0)
  {
    if (!pPixels)
      throw Harnel::CBasicException(
        __FILE__, __LINE__,
        (boost::format(Harnel::Internationalisation::CTranslator::Translate(
           "No pixels given for a memory band of %1% x %2% pixels")) %
         nWidth % nHeight)
          .str(),
        0, std::string());
    m_pData = pPixels;
  }
  this->GetStatistics().m_pCalculator =
    boost::make_shared<Detail::CStatisticCalculator<TPixel, double, CMemoryBandRep<TPixel>>>(this);
}

// Caller-owned pixels go back to their owner when m_pPixelOwner is released, after this body.
template <class TPixel>
CMemoryBandRep<TPixel>::~CMemoryBandRep()
{
  if (m_pData && m_bOwnsPixels)
  {
    delete[] m_pData;
    if (Detail::CBandRepBase::ms_bTraceAllocations)
      _Trace(-1);
  }
}

// The pixel count is taken in 32 bits and only then widened, so the byte total of a band of 2^32
// pixels or more is the truncated one. The counters are unlocked: the trace is a debugging aid whose
// numbers hold when bands are made and dropped from one thread.
template <class TPixel>
void CMemoryBandRep<TPixel>::_Trace(std::int64_t nSign)
{
  const std::uint32_t nPixels = this->m_nWidth * this->m_nHeight;
  const std::uint64_t nBytes = std::uint64_t(nPixels) * sizeof(TPixel);
  ms_nNumBandsAllocated += std::uint32_t(nSign);
  ms_nNumBytesAllocated += nSign > 0 ? nBytes : std::uint64_t(0) - nBytes;
  std::cerr << "For pixel-type: " << typeid(TPixel).name() << " currently " << ms_nNumBandsAllocated
            << " bands with a total of : " << ms_nNumBytesAllocated << " allocated" << std::endl;
}

// The count is taken in 64 bits, as for the allocation: a band of 2^32 pixels or more is set whole.
template <class TPixel>
CMemoryBandRep<TPixel>& CMemoryBandRep<TPixel>::Clear(TPixel tValue)
{
  this->InvalidateStatistics();
  if (m_pData)
    std::fill_n(m_pData, this->GetPixelCount(), tValue);
  this->InvalidateStatistics();
  return *this;
}

#define ORL_MEMORY_BAND_REP_INSTANTIATE(T)                                                              \
  template class CMemoryBandRep<T>;                                                                     \
  template class Detail::CMemoryBandIterator<T, int>;                                                   \
  template class Detail::CMutableMemoryBandIterator<T, int>;
ORL_FOR_EACH_PIXEL_TYPE(ORL_MEMORY_BAND_REP_INSTANTIATE)

}}} // namespace Orl::Ostrel::Band
