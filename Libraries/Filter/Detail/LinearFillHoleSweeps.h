#pragma once

// The two sweeps of the linear fill-hole filter, written once for every storage kind.
//
// The algorithm never asks what kind of band it walks. It reaches pixels and hole-list entries only
// through two small access traits:
//
//   SRowAccess<TIterator>      makes a row cursor from a band iterator standing on a row:
//                              *c, ++c, --c walk that row. The generic form wraps the iterator and
//                              moves its X, which is what tile iterators need; memory iterators are
//                              specialised to a raw pointer computed from data pointer, stride, X, Y.
//   SHoleListAccess<TBand>     gives the cursor on the first entry of an auxiliary band: *c, ++c, --c
//                              walk the entries in scan order. Memory bands give a pointer into the
//                              pixel block; tile bands specialise it with their scan-order iterator.
//
// Rows are moved with the band iterators' own Y movers. Everything else (classification, the order
// of the line updates and contributions, the float arithmetic, the conversion of the result, the
// no-data bookkeeping) is in the function templates below and is shared by all instances.

#include "Band/Band.h"
#include "Band/MemoryBandIterator.h"
#include "Foundation/Logger.h"

#include <boost/tuple/tuple.hpp>

#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// --- Reaching pixels -------------------------------------------------------------------------------

// A cursor along one row of any band iterator: the iterator itself, moved on X.
template <class TIterator>
class CRowCursor
{
public:
  explicit CRowCursor(const TIterator& it) : m_it(it) {}

  decltype(auto) operator*() const { return *m_it; }
  CRowCursor& operator++()
  {
    ++m_it.X;
    return *this;
  }
  CRowCursor& operator--()
  {
    --m_it.X;
    return *this;
  }

private:
  TIterator m_it;
};

template <class TIterator>
struct SRowAccess
{
  using TCursor = CRowCursor<TIterator>;
  static TCursor At(const TIterator& it) { return TCursor(it); }
};

// Memory bands: the address of the iterator's position. Also valid one past a row's last pixel.
template <class TIterator, class TPixel>
TPixel* MemoryAddress(const TIterator& it, TPixel* pData)
{
  return pData + (std::ptrdiff_t(it.Y) * std::ptrdiff_t(it.m_nWidth) + std::ptrdiff_t(it.X));
}

template <class TPixel, class TCoord>
struct SRowAccess<Band::Detail::CMemoryBandIterator<TPixel, TCoord>>
{
  using TCursor = const TPixel*;
  static TCursor At(const Band::Detail::CMemoryBandIterator<TPixel, TCoord>& it)
  {
    return MemoryAddress(it, static_cast<const TPixel*>(it.m_pData));
  }
};

template <class TPixel, class TCoord>
struct SRowAccess<Band::Detail::CMutableMemoryBandIterator<TPixel, TCoord>>
{
  using TCursor = TPixel*;
  static TCursor At(const Band::Detail::CMutableMemoryBandIterator<TPixel, TCoord>& it)
  {
    return MemoryAddress(it, it.m_pData);
  }
};

// --- Reaching hole-list entries ----------------------------------------------------------------------

template <class TBand, class TRep = typename TBand::TRep>
struct SHoleListAccess; // STileTag bands specialise this with their scan-order iterators

template <class TBand, class TPixel>
struct SHoleListAccess<TBand, Band::CMemoryBandRep<TPixel>>
{
  using TCursor = TPixel*;
  static TCursor Begin(TBand& oBand) { return oBand.GetRep().GetDataLocation(); }
};

// The hole list: per hole, in the order the forward sweep meets them, the sum of weights, the sum of
// weighted values and the number of contributions. Held in bands of the filtered bands' storage kind
// so that on tile bands it can leave memory like the bands themselves.
template <class TTag>
struct SHoleList
{
  static constexpr std::uint32_t ms_nWidth = 1024;

  using TWeightBand = Band::CBand<float, TTag>;
  using TCountBand = Band::CBand<unsigned char, TTag>;
  using TWeightCursor = typename SHoleListAccess<TWeightBand>::TCursor;
  using TCountCursor = typename SHoleListAccess<TCountBand>::TCursor;

  // Room for ms_nWidth * ((nMaxHolePixels >> 10) + 1) entries, made and cleared in the order weights,
  // values, counts.
  explicit SHoleList(std::uint32_t nMaxHolePixels)
    : m_oWeights(_Made<float>(nMaxHolePixels)), m_oValues(_Made<float>(nMaxHolePixels)),
      m_oCounts(_Made<unsigned char>(nMaxHolePixels))
  {
  }

  std::uint64_t GetCapacity() const { return std::uint64_t(ms_nWidth) * m_oCounts.GetHeight(); }

  // The moving position in the list: the forward sweep steps it on after each hole, the backward
  // sweep back before each hole, starting where the forward sweep ended.
  struct SCursor
  {
    TWeightCursor m_itWeight;
    TWeightCursor m_itValue;
    TCountCursor m_itCount;

    void operator++()
    {
      ++m_itWeight;
      ++m_itValue;
      ++m_itCount;
    }
    void operator--()
    {
      --m_itWeight;
      --m_itValue;
      --m_itCount;
    }
  };

  SCursor Begin()
  {
    return SCursor{SHoleListAccess<TWeightBand>::Begin(m_oWeights), SHoleListAccess<TWeightBand>::Begin(m_oValues),
                   SHoleListAccess<TCountBand>::Begin(m_oCounts)};
  }

  TWeightBand m_oWeights;
  TWeightBand m_oValues;
  TCountBand m_oCounts;

private:
  template <class TPixel>
  static Band::CBand<TPixel, TTag> _Made(std::uint32_t nMaxHolePixels)
  {
    Band::CBand<TPixel, TTag> oBand(ms_nWidth, (nMaxHolePixels >> 10) + 1);
    oBand.Clear(TPixel(0));
    return oBand;
  }
};

// --- Pixel classes -----------------------------------------------------------------------------------

// Validity on the source band. Floating types: NaN and infinities are never valid; a finite value is
// valid unless it equals the band's no-data value (a NaN no-data value equals nothing). Integers:
// invalid exactly when the band has a no-data value and the pixel equals it.
template <class TPixel, bool BFloat = std::is_floating_point<TPixel>::value>
struct SValidPixel
{
  template <class TBand>
  explicit SValidPixel(const TBand& oBand)
    : m_tNoData(oBand.HasNoDataValue() ? oBand.GetNoDataValue() : TPixel()), m_bHasNoData(oBand.HasNoDataValue())
  {
  }
  bool operator()(TPixel tPixel) const { return !(m_bHasNoData && tPixel == m_tNoData); }

  TPixel m_tNoData;
  bool m_bHasNoData;
};

template <class TPixel>
struct SValidPixel<TPixel, true>
{
  // Without a no-data value the comparison is made against NaN, which no pixel equals.
  template <class TBand>
  explicit SValidPixel(const TBand& oBand)
    : m_tNoData(oBand.HasNoDataValue() ? oBand.GetNoDataValue() : std::numeric_limits<TPixel>::quiet_NaN())
  {
  }
  bool operator()(TPixel tPixel) const
  {
    return std::fabs(tPixel) <= std::numeric_limits<TPixel>::max() && tPixel != m_tNoData;
  }

  TPixel m_tNoData;
};

// --- Float to pixel ----------------------------------------------------------------------------------

// Truncation toward zero with the x86 result for NaN and out-of-range values (the smallest value of
// the target type), so that every input has one defined answer on every platform.
inline std::int32_t TruncateToInt32(float f)
{
#if defined(__x86_64__)
  return _mm_cvtt_ss2si(_mm_set_ss(f));
#else
  return (f >= -2147483648.0f && f < 2147483648.0f) ? std::int32_t(f) : std::numeric_limits<std::int32_t>::min();
#endif
}

inline std::int64_t TruncateToInt64(float f)
{
#if defined(__x86_64__)
  return _mm_cvttss_si64(_mm_set_ss(f));
#else
  return (f >= -9223372036854775808.0f && f < 9223372036854775808.0f) ? std::int64_t(f)
                                                                        : std::numeric_limits<std::int64_t>::min();
#endif
}

inline std::int64_t TruncateToInt64(double d)
{
#if defined(__x86_64__)
  return _mm_cvttsd_si64(_mm_set_sd(d));
#else
  return (d >= -9223372036854775808.0 && d < 9223372036854775808.0) ? std::int64_t(d)
                                                                      : std::numeric_limits<std::int64_t>::min();
#endif
}

// The interpolated value in the destination's type. Not rounded, not clamped: integers keep the low
// bits of the truncated value. Results of bands written this way depend on it.
template <class TPixel>
struct SFillValue
{
  static_assert(sizeof(TPixel) < 4, "wider types have their own conversion");
  static TPixel From(float f) { return TPixel(TruncateToInt32(f)); }
};
template <>
struct SFillValue<int>
{
  static int From(float f) { return TruncateToInt32(f); }
};
template <>
struct SFillValue<unsigned int>
{
  static unsigned int From(float f) { return static_cast<unsigned int>(std::uint64_t(TruncateToInt64(f))); }
};
template <>
struct SFillValue<float>
{
  static float From(float f) { return f; }
};
template <>
struct SFillValue<double>
{
  static double From(float f) { return f; }
};

// A mask range bound in the mask's type: integers truncate toward zero and keep the low bits, float
// rounds to nearest, double stays.
template <class TPixel>
TPixel RangeBound(double d)
{
  if constexpr (std::is_floating_point<TPixel>::value)
    return TPixel(d);
  else
    return static_cast<TPixel>(std::uint64_t(TruncateToInt64(d)));
}

// --- Lines -------------------------------------------------------------------------------------------

// Required of TLineData: an aggregate with the float fields m_fDistance, m_fMaxDistance, m_fValue and
// the bool m_bValid, in this order.
template <class TLineData>
struct SFillHoleTables
{
  SFillHoleTables(std::uint32_t nWidth, std::uint32_t nHeight, float fMaxDistance)
    : m_oFresh{0.0f, fMaxDistance, 0.0f, false}, m_vecVertical(nWidth, m_oFresh),
      m_vecMainDiagonal(std::size_t(nWidth) + nHeight, m_oFresh),
      m_vecAntiDiagonal(std::size_t(nWidth) + nHeight, m_oFresh)
  {
  }

  void Reset()
  {
    std::fill(m_vecVertical.begin(), m_vecVertical.end(), m_oFresh);
    std::fill(m_vecMainDiagonal.begin(), m_vecMainDiagonal.end(), m_oFresh);
    std::fill(m_vecAntiDiagonal.begin(), m_vecAntiDiagonal.end(), m_oFresh);
  }

  const TLineData m_oFresh;
  std::vector<TLineData> m_vecVertical;     // one per column x
  std::vector<TLineData> m_vecMainDiagonal; // x - y + Hs: from upper left to lower right
  std::vector<TLineData> m_vecAntiDiagonal; // x + y: from upper right to lower left
};

// The accumulating half of a hole-list entry while its hole is being worked on.
struct SHoleSums
{
  float m_fWeights;
  float m_fValues;
  unsigned int m_nCount;
};

// One line's contribution to a hole. The distance grows whatever the line's state; a line that is out
// of reach (or has a NaN maximum: the comparison fails) turns invalid until a valid pixel sets it again.
inline void Contribute(float& fDistance, float fMaxDistance, float fValue, bool& bValid, SHoleSums& oSums)
{
  fDistance += 1.0f;
  if (bValid && fMaxDistance >= fDistance)
  {
    const float fWeight = 1.0f / fDistance;
    oSums.m_fWeights += fWeight;
    oSums.m_fValues += fWeight * fValue;
    ++oSums.m_nCount;
  }
  else
    bValid = false;
}

template <class TLineData>
inline void Contribute(TLineData& oLine, SHoleSums& oSums)
{
  Contribute(oLine.m_fDistance, oLine.m_fMaxDistance, oLine.m_fValue, oLine.m_bValid, oSums);
}

// The horizontal line of the current row, as plain locals of the sweep.
struct SHorizontalLine
{
  explicit SHorizontalLine(float fMaxDistance) : m_fMaxDistance(fMaxDistance) {}

  void Set(float fValue)
  {
    m_fDistance = 0.0f;
    m_fValue = fValue;
    m_bValid = true;
  }
  void Contribute(SHoleSums& oSums) { Detail::Contribute(m_fDistance, m_fMaxDistance, m_fValue, m_bValid, oSums); }

  float m_fDistance = 0.0f;
  float m_fValue = 0.0f;
  const float m_fMaxDistance;
  bool m_bValid = false;
};

// --- The sweeps --------------------------------------------------------------------------------------

// What both sweeps share of one call.
template <class TLineData>
struct SFillHoleSweepContext
{
  SFillHoleTables<TLineData>& m_oTables;
  std::ptrdiff_t m_nSrcRepHeight; // Hs, the height of the source's representation
  std::uint32_t m_nWidth;         // W of the common rectangle
  std::uint32_t m_nMinDirections;
  std::uint64_t m_nHoleCapacity;
  Harnel::Progress::CLogger* m_pLogger;
};

// Classification shared by both sweeps. They must agree exactly: the backward sweep finds its entries
// by walking the hole list back.
enum class EFillHoleClass
{
  eValid,
  eHole,
  eSkipped
};

// Without a mask its iterators are neither moved nor read.
template <bool BUseMask, class TMaskIterator>
auto MaskCursor(const TMaskIterator& itMaskRow)
{
  if constexpr (BUseMask)
    return SRowAccess<TMaskIterator>::At(itMaskRow);
  else
  {
    (void)itMaskRow;
    return nullptr;
  }
}

template <bool BUseMask, class TPixel, class TMaskCursor, class TComparator, class TValid>
inline EFillHoleClass Classify(TPixel tPixel, const TMaskCursor& itMask, const TComparator& oComparator,
                               const TValid& oValid)
{
  if constexpr (BUseMask)
  {
    if (oComparator(*itMask))
      return EFillHoleClass::eHole; // the mask overrides a valid source pixel
    return oValid(tPixel) ? EFillHoleClass::eValid : EFillHoleClass::eSkipped;
  }
  else
  {
    (void)itMask;
    (void)oComparator;
    return oValid(tPixel) ? EFillHoleClass::eValid : EFillHoleClass::eHole;
  }
}

// Rows top to bottom, pixels left to right. A valid pixel sets its four lines; a hole takes the next
// entry and gets the contributions from the left, from above, from upper left and from upper right,
// in this order; a skipped pixel leaves every line as it is. Returns whether a hole was met.
//
// Required of the iterators: the iterator contract's X, Y and ++it.Y, and SRowAccess for their type.
template <bool BUseMask, class TLineData, class TSrcIterator, class TMaskIterator, class TComparator, class TValid,
          class THoleCursor>
bool FillHoleForwardSweep(const SFillHoleSweepContext<TLineData>& oContext,
                          const boost::tuples::tuple<TSrcIterator, TSrcIterator>& oSrc,
                          const boost::tuples::tuple<TMaskIterator, TMaskIterator>& oMask,
                          const TComparator& oComparator, const TValid& oValid, THoleCursor& oHoles)
{
  using TSrcCursor = typename SRowAccess<TSrcIterator>::TCursor;

  SFillHoleTables<TLineData>& oTables = oContext.m_oTables;
  const float fMaxDistance = oTables.m_oFresh.m_fMaxDistance;
  const TLineData oSetLine{0.0f, fMaxDistance, 0.0f, true};
  std::uint64_t nHoles = 0;

  TSrcIterator itSrcRow = boost::get<0>(oSrc);
  const TSrcIterator& itSrcEnd = boost::get<1>(oSrc);
  TMaskIterator itMaskRow = boost::get<0>(oMask);
  for (; itSrcRow.Y != itSrcEnd.Y; ++itSrcRow.Y)
  {
    const std::ptrdiff_t nX = itSrcRow.X;
    const std::ptrdiff_t nY = itSrcRow.Y;
    TLineData* pVertical = oTables.m_vecVertical.data() + nX;
    TLineData* pMain = oTables.m_vecMainDiagonal.data() + (nX - nY + oContext.m_nSrcRepHeight);
    TLineData* pAnti = oTables.m_vecAntiDiagonal.data() + (nX + nY);
    SHorizontalLine oHorizontal(fMaxDistance);

    TSrcCursor itSrc = SRowAccess<TSrcIterator>::At(itSrcRow);
    auto itMask = MaskCursor<BUseMask>(itMaskRow);

    for (std::uint32_t n = oContext.m_nWidth; n != 0; --n, ++pVertical, ++pMain, ++pAnti)
    {
      const auto tPixel = *itSrc;
      const EFillHoleClass eClass = Classify<BUseMask>(tPixel, itMask, oComparator, oValid);
      if (eClass == EFillHoleClass::eValid)
      {
        const float fValue = float(tPixel);
        oHorizontal.Set(fValue);
        TLineData oLine = oSetLine;
        oLine.m_fValue = fValue;
        *pVertical = oLine;
        *pMain = oLine;
        *pAnti = oLine;
      }
      else if (eClass == EFillHoleClass::eHole)
      {
        assert(nHoles < oContext.m_nHoleCapacity && "more holes than the filter's maximum");
        ++nHoles;
        SHoleSums oSums{*oHoles.m_itWeight, *oHoles.m_itValue, 0};
        oHorizontal.Contribute(oSums);
        Contribute(*pVertical, oSums);
        Contribute(*pMain, oSums);
        Contribute(*pAnti, oSums);
        *oHoles.m_itWeight = oSums.m_fWeights;
        *oHoles.m_itValue = oSums.m_fValues;
        *oHoles.m_itCount = static_cast<unsigned char>(oSums.m_nCount);
        ++oHoles;
      }
      ++itSrc;
      if constexpr (BUseMask)
        ++itMask;
    }
    if constexpr (BUseMask)
      ++itMaskRow.Y;
    if (oContext.m_pLogger)
      oContext.m_pLogger->IncrementProgress();
  }
  return nHoles != 0;
}

// Rows bottom to top, pixels right to left, the destination in step with the source and the hole
// list walked back from where the forward sweep left it. A valid pixel sets its lines and is copied
// unchanged; a hole gets the contributions from the right, from below, from lower left and from lower
// right, in this order, and then its value or, with too few directions, the no-data value; a skipped
// pixel gets the no-data value. Returns whether any pixel got the no-data value.
template <bool BUseMask, class TLineData, class TSrcIterator, class TMaskIterator, class TDestIterator,
          class TComparator, class TValid, class THoleCursor>
bool FillHoleBackwardSweep(const SFillHoleSweepContext<TLineData>& oContext,
                           const boost::tuples::tuple<TSrcIterator, TSrcIterator>& oSrc,
                           const boost::tuples::tuple<TMaskIterator, TMaskIterator>& oMask,
                           const boost::tuples::tuple<TDestIterator, TDestIterator>& oDest,
                           const TComparator& oComparator, const TValid& oValid, THoleCursor& oHoles,
                           typename TDestIterator::TPixelType tNoData)
{
  using TSrcCursor = typename SRowAccess<TSrcIterator>::TCursor;
  using TDestCursor = typename SRowAccess<TDestIterator>::TCursor;
  using TDestPixel = typename TDestIterator::TPixelType;

  SFillHoleTables<TLineData>& oTables = oContext.m_oTables;
  const float fMaxDistance = oTables.m_oFresh.m_fMaxDistance;
  const TLineData oSetLine{0.0f, fMaxDistance, 0.0f, true};
  const unsigned int nMinDirections = oContext.m_nMinDirections;
  bool bWroteNoData = false;

  TSrcIterator itSrcRow = boost::get<1>(oSrc);
  const TSrcIterator& itSrcBegin = boost::get<0>(oSrc);
  TMaskIterator itMaskRow = boost::get<1>(oMask);
  TDestIterator itDestRow = boost::get<1>(oDest);
  while (itSrcRow.Y != itSrcBegin.Y)
  {
    --itSrcRow.Y;
    if constexpr (BUseMask)
      --itMaskRow.Y;
    --itDestRow.Y;
    // One past the row's last pixel; every step below moves back first.
    const std::ptrdiff_t nX = itSrcRow.X;
    const std::ptrdiff_t nY = itSrcRow.Y;
    TLineData* pVertical = oTables.m_vecVertical.data() + nX;
    TLineData* pMain = oTables.m_vecMainDiagonal.data() + (nX - nY + oContext.m_nSrcRepHeight);
    TLineData* pAnti = oTables.m_vecAntiDiagonal.data() + (nX + nY);
    SHorizontalLine oHorizontal(fMaxDistance);

    TSrcCursor itSrc = SRowAccess<TSrcIterator>::At(itSrcRow);
    TDestCursor itDest = SRowAccess<TDestIterator>::At(itDestRow);
    auto itMask = MaskCursor<BUseMask>(itMaskRow);

    for (std::uint32_t n = oContext.m_nWidth; n != 0; --n)
    {
      --itSrc;
      --itDest;
      if constexpr (BUseMask)
        --itMask;
      --pVertical;
      --pMain;
      --pAnti;

      const auto tPixel = *itSrc;
      const EFillHoleClass eClass = Classify<BUseMask>(tPixel, itMask, oComparator, oValid);
      if (eClass == EFillHoleClass::eValid)
      {
        const float fValue = float(tPixel);
        oHorizontal.Set(fValue);
        TLineData oLine = oSetLine;
        oLine.m_fValue = fValue;
        *pVertical = oLine;
        *pMain = oLine;
        *pAnti = oLine;
        *itDest = tPixel;
      }
      else if (eClass == EFillHoleClass::eHole)
      {
        --oHoles;
        SHoleSums oSums{*oHoles.m_itWeight, *oHoles.m_itValue, *oHoles.m_itCount};
        oHorizontal.Contribute(oSums);
        Contribute(*pVertical, oSums);
        Contribute(*pAnti, oSums);
        Contribute(*pMain, oSums);
        if (oSums.m_nCount >= nMinDirections)
          *itDest = SFillValue<TDestPixel>::From(oSums.m_fValues / oSums.m_fWeights);
        else
        {
          *itDest = tNoData;
          bWroteNoData = true;
        }
      }
      else
      {
        *itDest = tNoData;
        bWroteNoData = true;
      }
    }
    if (oContext.m_pLogger)
      oContext.m_pLogger->IncrementProgress();
  }
  return bWroteNoData;
}

}}}} // namespace Orl::Ostrel::Filter::Detail
