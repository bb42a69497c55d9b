#pragma once

#include "Band/MemoryBandRep.h"
#include "Band/NoDataValueHint.h"
#include "Band/Tags.h"
#include "Band/TileBandRep.h"
#include "Foundation/Rect.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

namespace Orl { namespace Ostrel { namespace Band {

// A band: its extent and a shared handle on the representation that owns the pixels. Copies share
// pixels, no-data value and cached statistics. The tag picks the representation at compile time;
// code that works on bands is generic over the band type.
template <class TPixel_, class TTag>
class CBand
{
public:
  using TPixel = TPixel_;
  using TTagType = TTag;
  using TRep = typename Detail::SRepresentation<TPixel, TTag>::type;
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;

  // Any size, zero included. A failed allocation leaves by the allocator's exception and no band.
  CBand(unsigned int nWidth, unsigned int nHeight)
    : m_oRect(0, 0, nWidth, nHeight), m_pRep(boost::make_shared<TRep>(nWidth, nHeight))
  {
  }

  // A band reads as its rectangle wherever one is expected.
  operator const TRect&() const { return m_oRect; }
  const TRect& GetRect() const { return m_oRect; }
  unsigned int GetWidth() const { return m_oRect.GetWidth(); }
  unsigned int GetHeight() const { return m_oRect.GetHeight(); }

  // Stores the value and drops the cached statistics, even when the value is unchanged. The pixels
  // are not touched.
  CBand& SetNoDataValue(TPixel tValue)
  {
    auto& oStatistics = m_pRep->GetStatistics();
    oStatistics.m_tNoDataValue = tValue;
    oStatistics.m_bHasNoDataValue = true;
    oStatistics.ClearValidFlags();
    return *this;
  }
  bool HasNoDataValue() const { return m_pRep->GetStatistics().m_bHasNoDataValue; }
  // Only meaningful when HasNoDataValue() is true.
  TPixel GetNoDataValue() const { return m_pRep->GetStatistics().m_tNoDataValue; }
  // The band's own value if it has one, else the type's hint: what filters use as no-data.
  TPixel GetNoDataValueOrHint() const
  {
    return HasNoDataValue() ? GetNoDataValue() : SNoDataValueHint<TPixel>::ms_tNoDataValue;
  }

  TRep& GetRep() { return *m_pRep; }
  const TRep& GetRep() const { return *m_pRep; }

  void Clear(TPixel tValue) { m_pRep->Clear(tValue); }

  auto GetBandIterators(const TRect& oRect) { return m_pRep->GetBandIterators(oRect); }
  auto GetBandIterators(const TRect& oRect) const
  {
    return static_cast<const TRep&>(*m_pRep).GetBandIterators(oRect);
  }

private:
  TRect m_oRect;
  boost::shared_ptr<TRep> m_pRep;
};

}}} // namespace Orl::Ostrel::Band
