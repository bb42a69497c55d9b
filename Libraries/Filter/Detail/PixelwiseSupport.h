#pragma once

// What the per-pixel filters share besides their walk: no-data tests that compile to a compare and
// a mask, the conversion of a computed value to a pixel (rounding, saturation, NaN to no-data), the
// checks every Apply makes before it writes, and the filter's own progress layer.

#include "Filter/Detail/PixelConversion.h"
#include "Filter/Detail/PixelwiseWalk.h"
#include "Filter/FilterBase.h"
#include "Foundation/BasicException.h"
#include "Foundation/Logger.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// A source band's no-data value as the walk tests it: without one, no pixel is no-data.
template <class TPixel>
struct SNoDataTest
{
  TPixel m_tValue;
  bool m_bHas;

  bool operator()(TPixel tPixel) const { return m_bHas & (tPixel == m_tValue); }
};

template <class TBand>
SNoDataTest<typename TBand::TPixel> NoDataTest(const TBand& oBand)
{
  return {oBand.HasNoDataValue() ? oBand.GetNoDataValue() : typename TBand::TPixel(0), oBand.HasNoDataValue()};
}

template <class TBand>
std::vector<SNoDataTest<typename TBand::TPixel>> NoDataTests(const std::vector<TBand>& vecBands)
{
  std::vector<SNoDataTest<typename TBand::TPixel>> vecTests;
  for (const TBand& oBand : vecBands)
    vecTests.push_back(NoDataTest(oBand));
  return vecTests;
}

// The type in which values of TPixel are computed: float for float, double for the rest (every
// integer of up to 32 bits is exact in it).
template <class TPixel>
using TComputeOf = typename std::conditional<std::is_same<TPixel, float>::value, float, double>::type;

// A computed value as a pixel of TTo: NaN (and bInvalid) give tNoData, the rest goes through
// RoundToPixel. The no-data choice is made in the rounding's integer lanes, so that a loop over float
// values and a narrower TTo keeps its masks as wide as the values.
template <class TTo, class TFrom>
inline TTo ToPixel(TFrom x, bool bInvalid, TTo tNoData)
{
  bInvalid |= (x != x);
  if constexpr (std::is_floating_point<TTo>::value)
    return bInvalid ? tNoData : TTo(x);
  else
  {
    const TRoundWide<TTo> t = RoundToWide<TTo>(x);
    return TTo(bInvalid ? TRoundWide<TTo>(tNoData) : t);
  }
}

// The type in which a pixel of TFrom is converted to TTo: float where float holds both exactly.
template <class TFrom, class TTo>
using TConvertOf = typename std::conditional<std::is_same<TFrom, float>::value && sizeof(TTo) <= 2, float,
                                             double>::type;

// Translated text with its "%1%" placeholders filled.
template <class... TArgs>
std::string FormatMessage(const char* pText, const TArgs&... oArgs)
{
  boost::format oFormat(Harnel::Internationalisation::CTranslator::Translate(pText));
  (void)std::initializer_list<int>{((void)(oFormat % oArgs), 0)...};
  return oFormat.str();
}

[[noreturn]] inline void ThrowFilterError(const char* pFile, int nLine, const std::string& strMessage)
{
  throw Harnel::CBasicException(pFile, nLine, strMessage, 0, std::string());
}

// Every band of an Apply has the destination's extent.
template <class TBand, class TOther>
void CheckSameExtent(const TBand& oFirst, const TOther& oOther, const std::string& strFilter)
{
  if (oFirst.GetWidth() != oOther.GetWidth() || oFirst.GetHeight() != oOther.GetHeight())
    ThrowFilterError(__FILE__, __LINE__,
                     FormatMessage("%1%: the bands differ in extent (%2% x %3% and %4% x %5%)", strFilter,
                                   oFirst.GetWidth(), oFirst.GetHeight(), oOther.GetWidth(), oOther.GetHeight()));
}

template <class TBand, class TOther>
void CheckSameExtent(const TBand& oFirst, const std::vector<TOther>& vecOthers, const std::string& strFilter)
{
  for (const TOther& oOther : vecOthers)
    CheckSameExtent(oFirst, oOther, strFilter);
}

template <class TBand>
void CheckNotEmpty(const std::vector<TBand>& vecBands, const std::string& strFilter)
{
  if (vecBands.empty())
    ThrowFilterError(__FILE__, __LINE__, FormatMessage("%1%: the stack of bands is empty", strFilter));
}

inline void CheckCount(std::size_t nGiven, std::size_t nExpected, const char* pWhat, const std::string& strFilter)
{
  if (nGiven != nExpected)
    ThrowFilterError(__FILE__, __LINE__,
                     FormatMessage("%1%: %2% %3% given where %4% are needed", strFilter, nGiven,
                                   Harnel::Internationalisation::CTranslator::Translate(pWhat), nExpected));
}

// The filter's own layer: a message at level 4 and a pushed layer with the action text, popped by
// End on the normal path only. dTotal: the rows of all walks that the Apply runs (each walk's
// nested layer counts as its rows).
class CFilterProgress
{
public:
  CFilterProgress(const TFilterLoggerPtr& pLogger, const char* pAction, double dTotal) : m_pLogger(pLogger)
  {
    if (m_pLogger)
    {
      const std::string& strText = Harnel::Internationalisation::CTranslator::Translate(pAction);
      m_pLogger->Message(Harnel::Progress::_EVerbosityLevel(4), strText, std::string());
      m_pLogger->Push(strText, 1.0, dTotal, 0.0, false, Harnel::Progress::ELayerClass(0),
                      Harnel::Progress::ELayerSecrecy(0), std::string());
    }
  }
  void End() const
  {
    if (m_pLogger)
      m_pLogger->Pop();
  }

private:
  const TFilterLoggerPtr& m_pLogger;
};

}}}} // namespace Orl::Ostrel::Filter::Detail
