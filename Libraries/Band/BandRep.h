#pragma once

#include "Band/BandRepBase.h"
#include "Band/GrayValueStatistics.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// The typed base of every representation: it owns the statistics record, which also holds the
// band's no-data value.
template <class TPixel>
class CBandRep : public CBandRepBase
{
public:
  using TPixelType = TPixel;

  CBandRep(unsigned int nWidth, unsigned int nHeight)
    : CBandRepBase(nWidth, nHeight), m_pStatistics(boost::make_shared<CGrayValueStatistics<TPixel>>())
  {
  }
  CBandRep(const CBandRep&) = delete;
  CBandRep& operator=(const CBandRep&) = delete;

  CGrayValueStatistics<TPixel>& GetStatistics() { return *m_pStatistics; }
  const CGrayValueStatistics<TPixel>& GetStatistics() const { return *m_pStatistics; }

  // Drops every cached statistic; called whenever mutable access to the pixels is granted.
  void InvalidateStatistics() { m_pStatistics->ClearValidFlags(); }

  boost::shared_ptr<CGrayValueStatistics<TPixel>> m_pStatistics;
  boost::shared_ptr<void> m_pAuxiliary; // free for callers; nothing in the library sets it
};

}}}} // namespace Orl::Ostrel::Band::Detail
