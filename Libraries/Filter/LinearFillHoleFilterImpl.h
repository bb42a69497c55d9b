#pragma once

// Generic definitions of CLinearFillHoleFilter. Included by the units that instantiate it; callers
// of the listed instances need only LinearFillHoleFilter.h.

#include "Band/Copy2D.h"
#include "Filter/Detail/LinearFillHoleSweeps.h"
#include "Filter/LinearFillHoleFilter.h"
#include "Foundation/Logger.h"
#include "Internationalisation/Translator.h"

#include <algorithm>
#include <cassert>
#include <string>

namespace Orl { namespace Ostrel { namespace Filter {

template <class TLineData>
template <class TDest, class TSrc, class TMask>
void CLinearFillHoleFilter<TLineData>::Apply(TDest& oDest, const TSrc& oSrc, const TMask& oMask) const
{
  using TMaskPixel = typename TMask::TPixel;
  // Built whether or not the mask is used; cheap, and the same in every case.
  if (m_bUseRange)
    _ApplyImpl(oDest, oSrc, oMask,
               Detail::SOutsideRangeComparator<TMaskPixel>{Detail::RangeBound<TMaskPixel>(m_dRangeLow),
                                                           Detail::RangeBound<TMaskPixel>(m_dRangeHigh)});
  else
    _ApplyImpl(oDest, oSrc, oMask, Detail::SEqualComparator<TMaskPixel>{Detail::GetMaskMarker(oMask)});
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
  // only when the source is no larger than the common rectangle.
  const std::ptrdiff_t nSrcRepHeight = oSrc.GetRep().m_nHeight;
  assert(nWidth == 0 || nHeight == 0 ||
         (oSrcRect.GetStart().x == 0 && oSrcRect.GetStart().y <= 1 &&
          nSrcRepHeight <= std::ptrdiff_t(nHeight + oSrcRect.GetStart().y)));

  const typename TDest::TPixel tNoData = Detail::GetOutputNoDataValue(oDest);

  Detail::SFillHoleTables<TLineData> oTables(nWidth, nHeight, m_fMaxDistance);
  Detail::SHoleList<TTag> oHoleList(m_nMaxHolePixels);
  const Detail::SFillHoleSweepContext<TLineData> oContext{
    oTables, nSrcRepHeight, nWidth, nHeight, m_nMinDirections, oHoleList.GetCapacity(), m_pLogger.get()};
  const Detail::SValidPixel<typename TSrc::TPixel> oValid(oSrc);
  auto oHoles = oHoleList.Begin();

  const bool bHoles = Detail::FillHoleForwardSweep<BUseMask>(oContext, oSrc.GetBandIterators(oSrcRect),
                                                             oMask.GetBandIterators(oMaskRect), oComparator, oValid,
                                                             oHoles);
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
