#include "Band/BandRepBase.h"

#include "Foundation/BadArgument.h"

#include <algorithm>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

bool CBandRepBase::ms_bTraceAllocations = false;

CBandRepBase::CBandRepBase(unsigned int nWidth, unsigned int nHeight) : m_nWidth(nWidth), m_nHeight(nHeight)
{
  // Refused here rather than left to wrap: every representation and iterator builds on this size.
  if (nWidth >= ms_nMaxSide || nHeight >= ms_nMaxSide)
    Harnel::ThrowBadArgument(__FILE__, __LINE__, "A band of %1% x %2% pixels is too large: each side must be below %3%",
                             nWidth, nHeight, ms_nMaxSide);
}

std::pair<std::uint32_t, std::uint32_t> CBandRepBase::GetBlockHint() const
{
  const std::uint32_t nX = std::max<std::uint32_t>(m_nWidth, 1);
  const std::uint32_t nY = std::max<std::uint32_t>(ms_nBlockPixels / nX, 1);
  return {nX, nY};
}

std::vector<CBandRepBase::TRect> CBandRepBase::GetApproxRects() const
{
  const std::uint64_t nPixels = std::uint64_t(m_nWidth) * m_nHeight;
  if (nPixels <= ms_nApproxFullPixels || m_nHeight < ms_nApproxStrips * ms_nApproxFraction)
    return {GetBoundingRect()};

  // Strip i covers [i * H / n, i * H / n + h): evenly spaced, disjoint since h <= H / n.
  const std::uint32_t nStripHeight = m_nHeight / (ms_nApproxStrips * ms_nApproxFraction);
  std::vector<TRect> vecRects;
  vecRects.reserve(ms_nApproxStrips);
  for (std::uint32_t i = 0; i < ms_nApproxStrips; ++i)
  {
    const auto nY = static_cast<std::uint32_t>(std::uint64_t(i) * m_nHeight / ms_nApproxStrips);
    vecRects.emplace_back(0, nY, m_nWidth, nStripHeight);
  }
  return vecRects;
}

}}}} // namespace Orl::Ostrel::Band::Detail
