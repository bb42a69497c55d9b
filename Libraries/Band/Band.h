#pragma once

#include "Band/Detail/CachedStatistics.h"
#include "Band/MemoryBandRep.h"
#include "Band/NoDataValueHint.h"
#include "Band/Tags.h"
#include "Band/TileBandRep.h"
#include "Foundation/BadArgument.h"
#include "Foundation/Rect.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <utility>
#include <vector>

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

  // Any size below 2^31 - 1 on each side, zero included; larger sides throw CBasicException. A failed
  // allocation leaves by the allocator's exception and no band.
  CBand(unsigned int nWidth, unsigned int nHeight)
    : m_oRect(0, 0, nWidth, nHeight), m_pRep(boost::make_shared<TRep>(nWidth, nHeight))
  {
  }

  // A band over an existing representation, for instance one over caller-owned pixels; the band
  // shares it like a copy would. An empty pRep throws CBasicException.
  explicit CBand(boost::shared_ptr<TRep> pRep) : m_pRep(std::move(pRep))
  {
    if (!m_pRep)
      Harnel::ThrowBadArgument(__FILE__, __LINE__, "A band needs a representation");
    m_oRect = TRect(0, 0, m_pRep->m_nWidth, m_pRep->m_nHeight);
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

  // Statistics, cached in the representation's record until mutable access is granted (mutable
  // iterators or pixel pointer, Clear, SetNoDataValue). Each getter answers from the cache when it
  // can and otherwise runs the band's calculator once. No-data pixels are left out.
  //
  // bApproximate: an answer from the sample of GetApproxRects() is good enough (an exact one is
  // used when cached). Approximate results are flagged apart and never answer an exact question.
  // pLogger: progress of a computation; may be empty.
  //
  // The getters write the shared record: like SetNoDataValue, call them on one thread at a time for
  // bands that share a representation. The computations themselves run in parallel.
  using TLoggerPtr = boost::shared_ptr<Harnel::Progress::CLogger>;

  void GetCounts(unsigned long& nValid, unsigned long& nInvalid, bool bApproximate = false,
                 TLoggerPtr pLogger = TLoggerPtr()) const
  {
    _Cache(bApproximate, pLogger).GetCounts(nValid, nInvalid);
  }
  // With a no-data value and no valid pixel both are 0. Without one, an empty band gives the type's
  // largest value as the minimum and its lowest as the maximum.
  void GetMinMax(TPixel& tMin, TPixel& tMax, bool bApproximate = false, TLoggerPtr pLogger = TLoggerPtr()) const
  {
    _Cache(bApproximate, pLogger).GetMinMax(tMin, tMax);
  }
  // Population variance (divided by the count). With no valid pixel the mean is 0 and the variance 1.
  void GetMeanVariance(double& dMean, double& dVariance, bool bApproximate = false,
                       TLoggerPtr pLogger = TLoggerPtr()) const
  {
    _Cache(bApproximate, pLogger).GetMeanVariance(dMean, dVariance);
  }
  // GetHistogramBins() bins (fewer for narrow integer ranges, at most 4096 for floating pixels) over
  // [min, max]; bin i is centred on dLow + i * dBinStep. Empty, with nMaxCount 0, when fewer than three
  // pixels are valid.
  void GetHistogram(std::vector<unsigned long>& vecHistogram, double& dLow, double& dBinStep, double& dBinWidth,
                    unsigned long& nMaxCount, bool bApproximate = false, TLoggerPtr pLogger = TLoggerPtr()) const
  {
    _Cache(bApproximate, pLogger).GetHistogram(vecHistogram, dLow, dBinStep, dBinWidth, nMaxCount);
  }
  // Median, mode and percentiles come from the histogram: a value inside its bin, interpolated as if
  // a bin's pixels spread evenly over its width. 0 when the histogram is empty.
  double GetMedian(bool bApproximate = false, TLoggerPtr pLogger = TLoggerPtr()) const
  {
    return _Cache(bApproximate, pLogger).GetMedian();
  }
  double GetMode(bool bApproximate = false, TLoggerPtr pLogger = TLoggerPtr()) const
  {
    return _Cache(bApproximate, pLogger).GetMode();
  }
  // dPercent in [0, 100]; outside it, or NaN, throws CBasicException before anything is computed.
  double GetPercentile(double dPercent, bool bApproximate = false, TLoggerPtr pLogger = TLoggerPtr()) const
  {
    return _Cache(bApproximate, pLogger).GetPercentile(dPercent);
  }

  // The number of histogram bins asked for (1024 unless set); 0 throws CBasicException and keeps the
  // number set before. A change drops the cached histogram, median and mode.
  void SetHistogramBins(unsigned int nBins)
  {
    Detail::CCachedStatistics<TRep>::SetHistogramBins(m_pRep->GetStatistics(), nBins);
  }
  unsigned int GetHistogramBins() const { return m_pRep->GetStatistics().m_nBins; }

private:
  Detail::CCachedStatistics<TRep> _Cache(bool bApproximate, const TLoggerPtr& pLogger) const
  {
    return Detail::CCachedStatistics<TRep>(*m_pRep, bApproximate, pLogger);
  }

  TRect m_oRect;
  boost::shared_ptr<TRep> m_pRep;
};

}}} // namespace Orl::Ostrel::Band
