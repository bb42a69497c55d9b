#pragma once

// Generic definitions of CLinearFillHoleFilter. Included by the units that instantiate it; callers
// of the listed instances need only LinearFillHoleFilter.h.

#include "Band/Copy2D.h"
#include "Filter/Detail/LinearFillHoleStripes.h"
#include "Filter/Detail/LinearFillHoleSweeps.h"
#include "Filter/LinearFillHoleFilter.h"
#include "Foundation/BadArgument.h"
#include "Foundation/Logger.h"
#include "Internationalisation/Translator.h"

#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <string>

namespace Orl { namespace Ostrel { namespace Filter {

template <class TLineData>
template <class TDest, class TSrc, class TMask>
void CLinearFillHoleFilter<TLineData>::Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask) const
{
  // Refused before anything is made: a source larger than the destination or the mask would make the
  // line tables, sized for the common rectangle, too small for the source's coordinates. Writing into
  // the source is not refused: like every filter, Apply leaves AllowDestIsSrc to the caller.
  if (oSrc.GetWidth() > std::min(oDest.GetWidth(), oMask.GetWidth()) ||
      oSrc.GetHeight() > std::min(oDest.GetHeight(), oMask.GetHeight()))
    Harnel::ThrowBadArgument(__FILE__, __LINE__,
                             "The fill-hole filter's source of %1% x %2% pixels is larger than its destination "
                             "(%3% x %4%) or its mask (%5% x %6%)",
                             oSrc.GetWidth(), oSrc.GetHeight(), oDest.GetWidth(), oDest.GetHeight(), oMask.GetWidth(),
                             oMask.GetHeight());
  _WithComparator(oMask, [&](const auto& oComparator) { _ApplyImpl(oDest, oSrc, oMask, oComparator); });
}

template <class TLineData>
template <class TSrc, class TMask>
std::uint64_t CLinearFillHoleFilter<TLineData>::CountHoles(const TSrc& oSrc, const TMask& oMask) const
{
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;
  const unsigned int nWidth = std::min(oSrc.GetWidth(), oMask.GetWidth());
  const unsigned int nHeight = std::min(oSrc.GetHeight(), oMask.GetHeight());
  const TRect oSrcRect = TRect(oSrc.GetRect()).SetWidth(nWidth).SetHeight(nHeight);
  const TRect oMaskRect = TRect(oMask.GetRect()).SetWidth(nWidth).SetHeight(nHeight);
  const Detail::SValidPixel<typename TSrc::TPixel> oValid(oSrc);
  std::uint64_t nHoles = 0;
  _WithComparator(oMask, [&](const auto& oComparator) {
    const auto itSrc = boost::get<0>(oSrc.GetBandIterators(oSrcRect));
    const auto itMask = boost::get<0>(oMask.GetBandIterators(oMaskRect));
    nHoles = m_bUseMask ? Detail::CountFillHoles<true>(nWidth, nHeight, itSrc, itMask, oComparator, oValid)
                        : Detail::CountFillHoles<false>(nWidth, nHeight, itSrc, itMask, oComparator, oValid);
  });
  return nHoles;
}

template <class TLineData>
template <class TMask, class TFn>
void CLinearFillHoleFilter<TLineData>::_WithComparator(const TMask& oMask, TFn&& fn) const
{
  using TMaskPixel = typename TMask::TPixel;
  // Built whether or not the mask is used; cheap, and the same in every case.
  if (m_bUseRange)
    fn(Detail::SOutsideRangeComparator<TMaskPixel>{Detail::DoubleToPixel<TMaskPixel>(m_dRangeLow),
                                                   Detail::DoubleToPixel<TMaskPixel>(m_dRangeHigh)});
  else
    fn(Detail::SEqualComparator<TMaskPixel>{Detail::GetMaskMarker(oMask)});
}

template <class TLineData>
template <class TDest, class TSrc, class TMask, class TComparator>
void CLinearFillHoleFilter<TLineData>::_ApplyImpl(TDest& oDest, const TSrc& oSrc, const TMask& oMask,
                                                  const TComparator& oComparator) const
{
  using namespace Harnel::Progress;
  if (m_pLogger)
  {
    const std::string& strText = Harnel::Internationalisation::CTranslator::Translate("Apply Linear Fill Hole Filter");
    m_pLogger->Message(_EVerbosityLevel(4), strText, std::string());
    // Deliberately the width as the total, although each sweep reports one unit per row: these are
    // the numbers the filter has always reported, and a logger takes the mismatch on bands that are
    // not square.
    m_pLogger->Push(strText, 2.0, double(oDest.GetWidth()), 0.0, false, ELayerClass(0), ELayerSecrecy(0),
                    std::string());
  }

  if (m_bUseMask)
    _Sweeps<true>(oDest, oSrc, oMask, oComparator);
  else
    _Sweeps<false>(oDest, oSrc, oMask, oComparator);

  if (m_pLogger)
    m_pLogger->Pop();
}

template <class TLineData>
template <bool BUseMask, class TDest, class TSrc, class TMask, class TComparator>
void CLinearFillHoleFilter<TLineData>::_Sweeps(TDest& oDest, const TSrc& oSrc, const TMask& oMask,
                                               const TComparator& oComparator) const
{
  using TRect = Pravik::GraphObject2d::CRect<unsigned int>;
  using TTag = typename TSrc::TTagType;

  TRect oDestRect = oDest.GetRect();
  TRect oSrcRect = oSrc.GetRect();
  TRect oMaskRect = oMask.GetRect();
  const unsigned int nWidth = std::min({oDestRect.GetWidth(), oSrcRect.GetWidth(), oMaskRect.GetWidth()});
  const unsigned int nHeight = std::min({oDestRect.GetHeight(), oSrcRect.GetHeight(), oMaskRect.GetHeight()});
  oDestRect.SetWidth(nWidth).SetHeight(nHeight);
  oSrcRect.SetWidth(nWidth).SetHeight(nHeight);
  oMaskRect.SetWidth(nWidth).SetHeight(nHeight);

  // The line tables are indexed with the source's coordinates and representation height; they fit
  // as the source is no larger than the common rectangle (Apply checks it).
  const std::ptrdiff_t nSrcRepHeight = oSrc.GetRep().m_nHeight;

  const typename TDest::TPixel tNoData = Detail::GetOutputNoDataValue(oDest);

  const Detail::SValidPixel<typename TSrc::TPixel> oValid(oSrc);

  // On the threads of the caller's arena, where the band is large enough for stripes; the result is
  // the same bit for bit.
  const unsigned nThreads = unsigned(std::max<std::size_t>(
    1, std::min<std::size_t>(tbb::this_task_arena::max_concurrency(),
                             tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism))));
  if (const std::uint32_t nStripes = Detail::FillHoleStripeCount(nWidth, nHeight, nThreads))
  {
    // Each stripe makes its own line tables.
    const Detail::SFillHoleSweepContext<TLineData> oContext{nullptr,          nSrcRepHeight, nWidth, nHeight,
                                                            m_nMinDirections, m_pLogger.get()};
    const Detail::SFillHoleStripeResult oResult = Detail::FillHoleStripeSweeps<BUseMask>(
      oContext, oSrc.GetBandIterators(oSrcRect), oMask.GetBandIterators(oMaskRect),
      oDest.GetBandIterators(oDestRect), oComparator, oValid, m_nMaxHolePixels, static_cast<TTag*>(nullptr),
      nStripes, m_fMaxDistance, tNoData);
    if (!oResult.m_bHoles)
      Band::Copy2D(oSrc.GetBandIterators(oSrcRect), oDest.GetBandIterators(oDestRect), m_pLogger,
                   Band::SAllowParallelFor());
    else if (oResult.m_bWroteNoData)
      oDest.SetNoDataValue(tNoData);
    return;
  }

  Detail::SFillHoleTables<TLineData> oTables(nWidth, nHeight, m_fMaxDistance);
  const Detail::SFillHoleSweepContext<TLineData> oContext{&oTables,         nSrcRepHeight, nWidth, nHeight,
                                                          m_nMinDirections, m_pLogger.get()};
  Detail::CHoleList<TTag> oHoles(m_nMaxHolePixels);
  const bool bHoles = Detail::FillHoleForwardSweep<BUseMask>(oContext, oSrc.GetBandIterators(oSrcRect),
                                                             oMask.GetBandIterators(oMaskRect), oComparator, oValid,
                                                             oHoles) != 0;
  if (!bHoles)
  {
    Band::Copy2D(oSrc.GetBandIterators(oSrcRect), oDest.GetBandIterators(oDestRect), m_pLogger,
                 Band::SAllowParallelFor());
    return;
  }

  oTables.Reset();
  const auto oSrcIts = oSrc.GetBandIterators(oSrcRect);
  const auto oMaskIts = oMask.GetBandIterators(oMaskRect);
  const auto oDestIts = oDest.GetBandIterators(oDestRect);
  if (Detail::FillHoleBackwardSweep<BUseMask>(oContext, oSrcIts, oMaskIts, oDestIts, oComparator, oValid, oHoles,
                                              tNoData))
    oDest.SetNoDataValue(tNoData);
}

}}} // namespace Orl::Ostrel::Filter
