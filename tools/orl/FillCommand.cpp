// orl fill: the linear fill-hole filter on a raster band.

#include "Commands.h"

#include "Filter/LinearFillHoleFilter.h"

namespace Orl { namespace Tools {

namespace {

struct SFillOptions
{
  SBandsArgs m_oArgs;
  float m_fMaxDistance = 100.0f;
  unsigned int m_nMinDirections = 2;
  std::string m_strMask;
  std::pair<double, double> m_oMaskRange;
  bool m_bMaskRange = false;
};

// The mask pixel type the filter takes with image pixels TPixel besides unsigned char: the unsigned
// type of their width, or their own floating type.
template <class TPixel>
using TWideMask = std::conditional_t<std::is_floating_point<TPixel>::value, TPixel,
                                     std::make_unsigned_t<std::conditional_t<std::is_floating_point<TPixel>::value,
                                                                             int, TPixel>>>;

// Reads the mask onto the source's storage as TMaskPixel and counts the pixels it marks as holes:
// those equal to its no-data value (0 without one), or outside the range.
template <class TMaskPixel, class TTag>
Ostrel::Band::CBand<TMaskPixel, TTag> ReadMask(const CInput& oMask, const SFillOptions& oOptions, std::uint64_t& nHoles)
{
  Ostrel::Band::CBand<TMaskPixel, TTag> oBand(oMask.m_nWidth, oMask.m_nHeight);
  TMaskPixel tMarker = TMaskPixel();
  if (oMask.m_bHasNoData && !ToPixel(oMask.m_dNoData, tMarker))
    throw CToolError(Text("%1%: the no-data value %2% does not fit the mask's pixel type", oMask.m_strPath,
                          oMask.m_dNoData));
  const double dLow = oOptions.m_oMaskRange.first, dHigh = oOptions.m_oMaskRange.second;
  std::atomic<std::uint64_t> nAtomicHoles(0);
  ReadBand(oMask, oBand, TLoggerPtr(), [&](const TMaskPixel* pData, std::size_t nPixels) {
    std::uint64_t nCount = 0;
    if (oOptions.m_bMaskRange)
      for (std::size_t i = 0; i < nPixels; ++i)
        nCount += std::uint64_t(!(double(pData[i]) >= dLow && double(pData[i]) <= dHigh));
    else
      for (std::size_t i = 0; i < nPixels; ++i)
        nCount += std::uint64_t(pData[i] == tMarker);
    nAtomicHoles += nCount;
  });
  nHoles = nAtomicHoles;
  if (oMask.m_bHasNoData)
    oBand.SetNoDataValue(tMarker);
  return oBand;
}

template <class TFilter, class TDest, class TSrc, class TMask>
void ApplyFill(const SFillOptions& oOptions, std::uint64_t nHoles, TDest& oDest, const TSrc& oSrc, const TMask& oMask,
               const TLoggerPtr& pLogger)
{
  if (nHoles > std::numeric_limits<std::uint32_t>::max())
    throw CToolError(Text("%1% holes are more than the filter takes (2^32 - 1)", nHoles));
  const auto nMax = std::max<std::uint32_t>(1, std::uint32_t(nHoles));
  const bool bMask = !oOptions.m_strMask.empty();
  TFilter oFilter = oOptions.m_bMaskRange
                            ? TFilter(oOptions.m_oMaskRange.first, oOptions.m_oMaskRange.second, nMax,
                                      oOptions.m_nMinDirections, oOptions.m_fMaxDistance, true)
                            : TFilter(nMax, oOptions.m_nMinDirections, oOptions.m_fMaxDistance, bMask);
  oFilter.SetLogger(pLogger);
  oFilter.Apply(oDest, oSrc, oMask);
}

void RunFill(const SFillOptions& oOptions, const SGlobalOptions& oGlobal)
{
  std::unique_ptr<CInput> pMask;
  RunBandFilter("fill", oOptions.m_oArgs, oGlobal, [&](auto& oDest, const auto& oSrc, const SFilterRun& oRun) {
    using TPixel = typename std::decay_t<decltype(oSrc)>::TPixel;
    using TTag = typename std::decay_t<decltype(oSrc)>::TTagType;
    using TFilter = Ostrel::Filter::CLinearFillHoleFilter<Ostrel::Filter::SDefaultLineData>;
    // Unfilled holes get the source's no-data value, or the type's usual one, which the output then carries.
    oDest.SetNoDataValue(oSrc.GetNoDataValueOrHint());
    if (oOptions.m_strMask.empty())
    {
      // The filter does not read the mask then, only its extent: the source serves, except for
      // signed integers, which take unsigned masks; an untouched band of bytes serves those.
      if constexpr (std::is_signed<TPixel>::value && std::is_integral<TPixel>::value)
        return ApplyFill<TFilter>(oOptions, oRun.m_nInvalid, oDest, oSrc,
                                  Ostrel::Band::CBand<unsigned char, TTag>(oSrc.GetWidth(), oSrc.GetHeight()),
                                  oRun.m_pLogger);
      else
        return ApplyFill<TFilter>(oOptions, oRun.m_nInvalid, oDest, oSrc, oSrc, oRun.m_pLogger);
    }
    pMask = std::make_unique<CInput>(oOptions.m_strMask, 1);
    if (pMask->m_nWidth != oRun.m_oInput.m_nWidth || pMask->m_nHeight != oRun.m_oInput.m_nHeight)
      throw CToolError(Text("the mask %1% is %2% x %3% pixels, the input %4% x %5%", pMask->m_strPath,
                            pMask->m_nWidth, pMask->m_nHeight, oRun.m_oInput.m_nWidth, oRun.m_oInput.m_nHeight));
    // The bound of the filter's hole list: the marked pixels, and the invalid ones to be safe.
    std::uint64_t nHoles = 0;
    if (pMask->m_eType == GDT_Byte || std::is_same<TPixel, unsigned char>::value)
    {
      if (pMask->m_eType != GDT_Byte)
        Note(Text("the mask is read as Byte, the only mask type for Byte images"));
      const auto oMask = ReadMask<unsigned char, TTag>(*pMask, oOptions, nHoles);
      ApplyFill<TFilter>(oOptions, nHoles + oRun.m_nInvalid, oDest, oSrc, oMask, oRun.m_pLogger);
    }
    else
    {
      using TMaskPixel = TWideMask<TPixel>;
      if (pMask->m_eType != SGdalType<TMaskPixel>::ms_eType)
        Note(Text("the mask is read as %1%, the mask type for %2% images", GDALGetDataTypeName(SGdalType<TMaskPixel>::ms_eType),
                  GDALGetDataTypeName(SGdalType<TPixel>::ms_eType)));
      const auto oMask = ReadMask<TMaskPixel, TTag>(*pMask, oOptions, nHoles);
      ApplyFill<TFilter>(oOptions, nHoles + oRun.m_nInvalid, oDest, oSrc, oMask, oRun.m_pLogger);
    }
  });
}

} // namespace

TRunner DefineFill(CLI::App& oApp)
{
  auto pOptions = std::make_shared<SFillOptions>();
  AddBandsArgs(oApp, pOptions->m_oArgs, "IN", 2, 2);
  oApp.add_option("--max-distance,-d", pOptions->m_fMaxDistance,
                  "How far, in pixels, each hole looks for valid pixels along each of its eight lines")
    ->capture_default_str();
  oApp.add_option("--min-directions,-n", pOptions->m_nMinDirections,
                  "Lines that must reach a valid pixel for a hole to be filled")
    ->check(CLI::Range(1, 8))
    ->capture_default_str();
  oApp.add_option("--mask", pOptions->m_strMask,
                  "A raster of the input's size whose first band marks the holes: pixels equal to its no-data "
                  "value (0 without one). Without a mask the holes are the input's no-data, NaN and infinite pixels");
  auto pRange = oApp.add_option("--mask-range", pOptions->m_oMaskRange,
                                "With --mask: the holes are the mask pixels outside [LO, HI] instead")
                  ->type_name("LO HI");
  return [pOptions, pRange](const SGlobalOptions& oGlobal) {
    if (!(pOptions->m_fMaxDistance > 0.0f) || !std::isfinite(pOptions->m_fMaxDistance))
      throw CToolError(Text("--max-distance must be a number above 0"), 2);
    pOptions->m_bMaskRange = pRange->count() > 0;
    if (pOptions->m_bMaskRange && pOptions->m_strMask.empty())
      throw CToolError(Text("--mask-range needs --mask"), 2);
    if (pOptions->m_bMaskRange && !(pOptions->m_oMaskRange.first <= pOptions->m_oMaskRange.second))
      throw CToolError(Text("--mask-range: LO must not be above HI"), 2);
    RunFill(*pOptions, oGlobal);
  };
}

}} // namespace Orl::Tools
