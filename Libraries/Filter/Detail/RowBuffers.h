#pragma once

// Row buffers for filters that compute a row (or a strip of a row) at a time: a cursor copies the
// pixels of one row of a rectangle to a plain array, or back, through the band's row runs, so the
// compute loops see arrays whatever the storage, and memory and tile bands give the same bits.
// Also the few things these filters share: the parallel loop over rows, progress and size errors.

#include "Band/Detail/RowRuns.h"
#include "Filter/Detail/PixelConversion.h"
#include "Foundation/BadArgument.h"
#include "Foundation/BasicException.h"
#include "Foundation/Logger.h"
#include "Foundation/Point.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/tuple/tuple.hpp>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cmath>
#include <limits>
#include <string>
#include <type_traits>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// nWidth pixels of a row, from column nX of the iterator's origin, row by row in any order. One
// iterator moves through the rows, so a tile iterator keeps its tiles from row to row. A task makes
// its own cursor from a copy of an iterator taken in the calling thread.
template <class TIterator>
class CRowCursor
{
public:
  CRowCursor(const TIterator& itOrigin, int nX, int nWidth) : m_it(itOrigin), m_nWidth(nWidth)
  {
    if (nX != 0)
      m_it += Pravik::GraphObject2d::CPoint<int>(nX, 0);
  }

  // Row nY (counted from the origin) into pBuffer, converting as an assignment does.
  template <class T>
  void Read(int nY, T* pBuffer)
  {
    _GoTo(nY);
    Band::Detail::ForEachRowRun(m_it, m_nWidth, [&pBuffer](const auto* pRun, int nCount) {
      Band::Detail::CopyRun(pRun, pBuffer, nCount);
      pBuffer += nCount;
    });
    m_bAtEnd = m_nWidth > 0;
  }

  template <class T>
  void Write(int nY, const T* pBuffer)
  {
    _GoTo(nY);
    Band::Detail::ForEachRowRun(m_it, m_nWidth, [&pBuffer](auto* pRun, int nCount) {
      Band::Detail::CopyRun(pBuffer, pRun, nCount);
      pBuffer += nCount;
    });
    m_bAtEnd = m_nWidth > 0;
  }

private:
  void _GoTo(int nY)
  {
    const int nDx = m_bAtEnd ? 1 - m_nWidth : 0;
    if (nDx != 0 || nY != m_nY)
      m_it += Pravik::GraphObject2d::CPoint<int>(nDx, nY - m_nY);
    m_nY = nY;
    m_bAtEnd = false;
  }

  TIterator m_it;
  int m_nWidth;
  int m_nY = 0;
  bool m_bAtEnd = false;
};

template <class TBand>
auto BeginOf(const TBand& oBand)
{
  return boost::get<0>(oBand.GetBandIterators(oBand.GetRect()));
}
template <class TBand>
auto MutableBeginOf(TBand& oBand)
{
  return boost::get<0>(oBand.GetBandIterators(oBand.GetRect()));
}

// fn(nBegin, nEnd) over [0, nCount) in parallel blocks of about nGrain.
template <class TFn>
void ParallelBlocks(int nCount, int nGrain, const TFn& fn)
{
  if (nCount <= 0)
    return;
  tbb::parallel_for(tbb::blocked_range<int>(0, nCount, std::size_t(nGrain < 1 ? 1 : nGrain)),
                    [&fn](const tbb::blocked_range<int>& oRange) { fn(oRange.begin(), oRange.end()); });
}

// The opening of a filter's progress: the translated action text as a message and as a new layer
// of dTotal units.
inline void PushFilterLayer(const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger, const char* szAction,
                            double dTotal)
{
  if (!pLogger)
    return;
  const std::string& strText = Harnel::Internationalisation::CTranslator::Translate(szAction);
  pLogger->Message(Harnel::Progress::_EVerbosityLevel(4), strText, std::string());
  pLogger->Push(strText, 1.0, dTotal, 0.0, false, Harnel::Progress::ELayerClass(0),
                Harnel::Progress::ELayerSecrecy(0), std::string());
}

// The type that weighted sums of TPixel go in: float for 8- and 16-bit pixels and float, double for
// 32-bit integers (whose values float cannot hold) and double.
template <class TPixel>
using TSumType = std::conditional_t<std::is_same<TPixel, double>::value ||
                                      (std::is_integral<TPixel>::value && sizeof(TPixel) >= 4),
                                    double, float>;

// A computed value as a pixel: integers rounded to nearest, halves away from zero whatever the
// floating-point rounding mode, and clamped to the type; NaN gives 0.
template <class TPixel, class TValue>
inline TPixel ToPixel(TValue tValue)
{
  if constexpr (std::is_integral<TPixel>::value)
    if (tValue != tValue)
      return TPixel(0);
  return RoundToPixel<TPixel>(tValue);
}

// Whether a source pixel takes part: not the no-data value, and not NaN.
template <class TPixel>
inline bool IsValidPixel(TPixel tValue, bool bHasNoData, TPixel tNoData)
{
  // Without branches, so that loops calling it vectorise.
  const bool bNoData = bHasNoData & (tValue == tNoData);
  if constexpr (std::is_floating_point<TPixel>::value)
    return (tValue == tValue) & !bNoData;
  else
    return !bNoData;
}

// A rejected argument, before any pixel is written: the message is translated and takes the
// filter's display name as %1%.
using Harnel::ThrowBadArgument;

}}}} // namespace Orl::Ostrel::Filter::Detail
