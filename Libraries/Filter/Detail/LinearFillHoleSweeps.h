#pragma once

// The two sweeps of the linear fill-hole filter, written once for every storage kind.
//
// The algorithm never asks what kind of band it walks. It takes a band's rows as plain arrays through
// the band layer's row access (Band/Detail/RowAccess.h: the row's own memory where it is one run,
// else a row buffer), moves rows with the band iterators' own Y movers, and keeps its hole list in
// CHoleList (LinearFillHoleList.h). Everything else (classification, the order of the line updates
// and contributions, the float arithmetic, the conversion of the result, the no-data bookkeeping) is
// in the function templates below and is shared by all instances; within a row it works on plain
// arrays, so that the common case, a run of valid pixels, is a tight loop.

#include "Band/Band.h"
#include "Band/Detail/RowAccess.h"
#include "Filter/DefaultLineData.h"
#include "Filter/Detail/LinearFillHoleList.h"
#include "Filter/Detail/PixelConversion.h"
#include "Foundation/BadArgument.h"
#include "Foundation/Logger.h"
#include "Math/Detail/CpuFeatures.h"

#include <boost/tuple/tuple.hpp>

#include <algorithm>
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
    // One branch for the caller instead of two: almost every pixel is valid.
    return (std::fabs(tPixel) <= std::numeric_limits<TPixel>::max()) & (tPixel != m_tNoData);
  }

  TPixel m_tNoData;
};

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

// Sets the three table lines of a valid pixel: distance 0, the reach, the value, valid. The default
// line data is written as one 16-byte vector per line.
template <class TLineData>
struct SValidLineSetter
{
  explicit SValidLineSetter(float fMaxDistance) : m_fMaxDistance(fMaxDistance) {}
  void operator()(TLineData& oLine1, TLineData& oLine2, TLineData& oLine3, float fValue) const
  {
    const TLineData oLine{0.0f, m_fMaxDistance, fValue, true};
    oLine1 = oLine;
    oLine2 = oLine;
    oLine3 = oLine;
  }

  float m_fMaxDistance;
};

#if defined(__SSE2__)
template <>
struct SValidLineSetter<SDefaultLineData>
{
  static_assert(sizeof(SDefaultLineData) == 16 && offsetof(SDefaultLineData, m_fValue) == 8 &&
                  offsetof(SDefaultLineData, m_bValid) == 12,
                "the vector below is laid out like the line");

  // Lanes: distance 0, the reach, (the value), true in the low byte of the last lane and 0 in the
  // padding after it.
  explicit SValidLineSetter(float fMaxDistance)
    : m_vecConstant(_mm_setr_ps(0.0f, fMaxDistance, 0.0f, _mm_cvtss_f32(_mm_castsi128_ps(_mm_cvtsi32_si128(1)))))
  {
  }
  void operator()(SDefaultLineData& oLine1, SDefaultLineData& oLine2, SDefaultLineData& oLine3, float fValue) const
  {
    const __m128 vecLast = _mm_move_ss(m_vecConstant, _mm_set_ss(fValue)); // value, reach, 0, true
    const __m128 vecLine = _mm_shuffle_ps(m_vecConstant, vecLast, _MM_SHUFFLE(3, 0, 1, 0));
    _mm_storeu_ps(reinterpret_cast<float*>(&oLine1), vecLine);
    _mm_storeu_ps(reinterpret_cast<float*>(&oLine2), vecLine);
    _mm_storeu_ps(reinterpret_cast<float*>(&oLine3), vecLine);
  }

  __m128 m_vecConstant;
};
#endif

// The weights 1 / d of the distances up to ms_nSize - 1, as the division gives them (a constant
// division is rounded as the processor's is): the sweeps look them up instead of dividing four times
// per hole.
struct SFillHoleReciprocals
{
  static constexpr int ms_nSize = 256;
  float m_afWeight[ms_nSize];
};

constexpr SFillHoleReciprocals MakeFillHoleReciprocals()
{
  SFillHoleReciprocals o{};
  for (int k = 1; k < SFillHoleReciprocals::ms_nSize; ++k)
    o.m_afWeight[k] = 1.0f / float(k);
  return o;
}

inline constexpr SFillHoleReciprocals g_oFillHoleReciprocals = MakeFillHoleReciprocals();

// 1 / fDistance for a line's distance: a whole number from 1 on.
inline float FillHoleWeight(float fDistance)
{
  return fDistance < float(SFillHoleReciprocals::ms_nSize) ? g_oFillHoleReciprocals.m_afWeight[int(fDistance)]
                                                           : 1.0f / fDistance;
}

// One line's contribution to a hole. The distance grows whatever the line's state; a line that is out
// of reach (or has a NaN maximum: the comparison fails) turns invalid until a valid pixel sets it again.
inline void Contribute(float& fDistance, float fMaxDistance, float fValue, bool& bValid, SHoleSums& oSums)
{
  fDistance += 1.0f;
  if (bValid && fMaxDistance >= fDistance)
  {
    const float fWeight = FillHoleWeight(fDistance);
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

  // Sets the line from a valid pixel's value if bSet: distance 0, valid. Without a branch, as whether
  // the pixel before a hole is valid is as good as random.
  void SetIf(bool bSet, float fValue)
  {
    m_fDistance = bSet ? 0.0f : m_fDistance;
    m_fValue = bSet ? fValue : m_fValue;
    m_bValid = bSet | m_bValid;
  }
  void Contribute(SHoleSums& oSums) { Detail::Contribute(m_fDistance, m_fMaxDistance, m_fValue, m_bValid, oSums); }

  float m_fDistance = 0.0f;
  float m_fValue = 0.0f;
  const float m_fMaxDistance;
  bool m_bValid = false;
};

// --- Row classes -------------------------------------------------------------------------------------

enum EFillHoleClass : unsigned char
{
  eFillHoleValid = 0,
  eFillHoleHole = 1,
  eFillHoleSkipped = 2,
  eFillHoleOutside = 3 // before and after the row
};

#if defined(__x86_64__) && defined(__GNUC__)
// The classes of the first 64 * nWords pixels of a float row without a mask, as SValidPixel<float>
// and CFillHoleRowClasses::Classify give them: byte 1 and an event bit for an invalid pixel, byte 0
// and a valid bit for the others; with pCopy, the pixels are also copied there. For processors with
// AVX2, asked at run time: every vector of it stays inside this one function.
__attribute__((target("avx2"))) inline void ClassifyFloatWordsAvx2(const float* pSrc, std::size_t nWords,
                                                                   float fNoData, unsigned char* pClass,
                                                                   std::uint64_t* pValid, std::uint64_t* pEvents,
                                                                   float* pCopy)
{
  const __m256 vecAbs = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
  const __m256 vecMax = _mm256_set1_ps(std::numeric_limits<float>::max());
  const __m256 vecNoData = _mm256_set1_ps(fNoData);
  // Bit b of a 32-bit mask into byte b: byte b takes the mask's byte b / 8 and keeps bit b % 8.
  const __m256i vecSpread = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 2,
                                             2, 3, 3, 3, 3, 3, 3, 3, 3);
  const __m256i vecBit = _mm256_set1_epi64x(std::int64_t(0x8040201008040201ull));
  const __m256i vecOne = _mm256_set1_epi8(1);
  for (std::size_t w = 0; w < nWords; ++w, pSrc += 64, pClass += 64)
  {
    std::uint64_t nInvalid = 0;
    for (int k = 0; k < 8; ++k)
    {
      const __m256 vec = _mm256_loadu_ps(pSrc + 8 * k);
      if (pCopy)
        _mm256_storeu_ps(pCopy + 64 * w + 8 * k, vec);
      // Finite (NaN fails the ordered comparison) and unequal to no-data (a NaN no-data equals nothing).
      const __m256 vecValid = _mm256_and_ps(_mm256_cmp_ps(_mm256_and_ps(vec, vecAbs), vecMax, _CMP_LE_OQ),
                                            _mm256_cmp_ps(vec, vecNoData, _CMP_NEQ_UQ));
      nInvalid |= std::uint64_t(~unsigned(_mm256_movemask_ps(vecValid)) & 0xffu) << (8 * k);
    }
    for (int h = 0; h < 2; ++h)
    {
      const __m256i vecBytes = _mm256_shuffle_epi8(_mm256_set1_epi32(int(std::uint32_t(nInvalid >> (32 * h)))), vecSpread);
      const __m256i vecSet = _mm256_cmpeq_epi8(_mm256_and_si256(vecBytes, vecBit), vecBit);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(pClass + 32 * h), _mm256_and_si256(vecSet, vecOne));
    }
    pValid[w] = ~nInvalid;
    pEvents[w] = nInvalid;
  }
}
#endif

// The classes of one row's pixels, as bytes and as bit words (bit b of word w stands for pixel
// 64 w + b). Both sweeps classify with this one function: they must agree exactly, as the backward
// sweep finds its entries by walking the hole list back.
class CFillHoleRowClasses
{
public:
  explicit CFillHoleRowClasses(std::uint32_t nWidth)
    : m_nWidth(nWidth), m_nWords((std::size_t(nWidth) + 63) / 64),
      m_vecClasses(m_nWords * 64 + 2, eFillHoleOutside), m_vecValid(m_nWords, 0), m_vecEvents(m_nWords + 2, 0)
  {
  }

  // With a mask: selected pixels are holes (also valid ones: the mask overrides them), the others are
  // valid or skipped by the source. Without: the source's valid pixels are valid, the others holes.
  // Written without branches, so that it vectorises.
  // A destination row, if given, receives a copy of the source row in the same pass.
  template <bool BUseMask, class TPixel, class TMaskPixel, class TComparator, class TValid>
  void Classify(const TPixel* pSrc, const TMaskPixel* pMask, const TComparator& oComparator, const TValid& oValid,
                TPixel* pCopy)
  {
    if (pCopy)
      _Classify<BUseMask, true>(pSrc, pMask, oComparator, oValid, pCopy);
    else
      _Classify<BUseMask, false>(pSrc, pMask, oComparator, oValid, pCopy);
  }

  // The class of one pixel; tMask is looked at only with BUseMask.
  template <bool BUseMask, class TPixel, class TMaskPixel, class TComparator, class TValid>
  static unsigned char ClassOf(TPixel tPixel, TMaskPixel tMask, const TComparator& oComparator, const TValid& oValid)
  {
    const unsigned char nInvalid = !oValid(tPixel);
    if constexpr (BUseMask)
    {
      const unsigned char nSelected = oComparator(tMask);
      return static_cast<unsigned char>(nSelected | ((nInvalid & (nSelected ^ 1)) << 1));
    }
    else
    {
      (void)tMask;
      (void)oComparator;
      return nInvalid;
    }
  }

  // A row beyond the band: no events.
  void SetOutside() { std::fill(m_vecEvents.begin(), m_vecEvents.end(), std::uint64_t(0)); }

  std::size_t GetWords() const { return m_nWords; }
  // Index -1 and the indices from W on hold eFillHoleOutside.
  const unsigned char* GetClasses() const { return m_vecClasses.data() + 1; }
  const std::uint64_t* GetValidBits() const { return m_vecValid.data(); }
  // Holes and skipped pixels; words -1 and m_nWords are 0.
  const std::uint64_t* GetEventBits() const { return m_vecEvents.data() + 1; }

private:
  template <bool BUseMask, bool BCopy, class TPixel, class TMaskPixel, class TComparator, class TValid>
  void _Classify(const TPixel* pSrc, const TMaskPixel* pMask, const TComparator& oComparator, const TValid& oValid,
                 TPixel* pCopy)
  {
    // Local copies: the byte stores below may alias anything reached through a reference, and would
    // keep the compiler from hoisting (and vectorising).
    unsigned char* pClass = m_vecClasses.data() + 1;
    const std::uint32_t nWidth = m_nWidth;
    const TValid oValidCopy = oValid;
    const TComparator oComparatorCopy = oComparator;
    std::uint32_t nFirst = 0; // the first pixel the loop below classifies
#if defined(__x86_64__) && defined(__GNUC__)
    if constexpr (!BUseMask && std::is_same<TValid, SValidPixel<float>>::value)
      if (Harnel::Math::Detail::HasAvx2())
      {
        // The whole words; the loop below takes the rest, and the last word's bits after it.
        const std::size_t nWords = nWidth / 64;
        ClassifyFloatWordsAvx2(pSrc, nWords, oValidCopy.m_tNoData, pClass, m_vecValid.data(), m_vecEvents.data() + 1,
                               BCopy ? pCopy : nullptr);
        nFirst = std::uint32_t(64 * nWords);
      }
#endif
    for (std::uint32_t n = nFirst; n < nWidth; ++n)
    {
      const TPixel tPixel = pSrc[n];
      if constexpr (BCopy)
        pCopy[n] = tPixel;
      pClass[n] = ClassOf<BUseMask>(tPixel, BUseMask ? pMask[n] : TMaskPixel(), oComparatorCopy, oValidCopy);
    }
    for (std::size_t w = nFirst / 64; w < m_nWords; ++w)
      _ToBits(pClass + 64 * w, m_vecValid[w], m_vecEvents[w + 1]);
  }

  static void _ToBits(const unsigned char* pClass, std::uint64_t& nValid, std::uint64_t& nEvents)
  {
    nValid = 0;
    nEvents = 0;
#if defined(__SSE2__)
    const __m128i vecOutside = _mm_set1_epi8(char(eFillHoleOutside));
    for (int k = 0; k < 4; ++k)
    {
      const __m128i vecClass = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pClass + 16 * k));
      const std::uint64_t nValid16 = std::uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(vecClass, _mm_setzero_si128())));
      const std::uint64_t nOutside16 = std::uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(vecClass, vecOutside)));
      nValid |= nValid16 << (16 * k);
      nEvents |= (~(nValid16 | nOutside16) & 0xffffu) << (16 * k);
    }
#else
    for (int b = 0; b < 64; ++b)
    {
      nValid |= std::uint64_t(pClass[b] == eFillHoleValid) << b;
      nEvents |= std::uint64_t(pClass[b] == eFillHoleHole || pClass[b] == eFillHoleSkipped) << b;
    }
#endif
  }

  std::uint32_t m_nWidth;
  std::size_t m_nWords;
  std::vector<unsigned char> m_vecClasses;
  std::vector<std::uint64_t> m_vecValid;
  std::vector<std::uint64_t> m_vecEvents;
};

// The valid pixels of a row whose lines the next row of the sweep may read: those with a hole or a
// skipped pixel after them on the vertical or on a diagonal. A valid pixel there sets the line again
// without reading it, so the lines of all other valid pixels are never read and are not written.
inline std::uint64_t LinesToSet(const std::uint64_t* pValid, const std::uint64_t* pNextEvents, std::size_t w)
{
  const std::uint64_t* pNext = pNextEvents;
  const std::uint64_t nSpread = pNext[w] | (pNext[w] << 1) | (pNext[w - 1] >> 63) | (pNext[w] >> 1) | (pNext[w + 1] << 63);
  return pValid[w] & nSpread;
}

// --- The sweeps --------------------------------------------------------------------------------------

// What both sweeps share of one call.
template <class TLineData>
struct SFillHoleSweepContext
{
  SFillHoleTables<TLineData>* m_pTables; // the sweeps' line tables; null for FillHoleStripeSweeps
  std::ptrdiff_t m_nSrcRepHeight; // Hs, the height of the source's representation
  std::uint32_t m_nWidth;         // W of the common rectangle
  std::uint32_t m_nHeight;        // H of the common rectangle
  std::uint32_t m_nMinDirections;
  Harnel::Progress::CLogger* m_pLogger;
};

// Reads the mask row only when there is a mask.
template <bool BUseMask, class TMaskIterator>
const Band::Detail::TRowPixel<TMaskIterator>* ReadMaskRow(const TMaskIterator& itRow, std::uint32_t nWidth,
                                                          Band::Detail::CRowReader<TMaskIterator>& oReader)
{
  if constexpr (BUseMask)
    return oReader.Read(itRow, nWidth);
  else
  {
    (void)itRow;
    (void)nWidth;
    (void)oReader;
    return nullptr;
  }
}

// The forward sweep's refusal of a hole beyond the bound; out of line, as it is never taken in a
// correct call.
[[noreturn]] __attribute__((noinline, cold)) inline void ThrowTooManyHoles(std::uint32_t nMaxHoles)
{
  Harnel::ThrowBadArgument(__FILE__, __LINE__,
                           "The source has more holes than the fill-hole filter's maximum of %1%; "
                           "the filter's CountHoles gives the number to pass",
                           nMaxHoles);
}

// One row of the source as the sweeps see it: its pixels and their classes. Two of them alternate,
// the current row and the next one in the sweep's direction.
template <class TSrcIterator>
struct SFillHoleSrcRow
{
  explicit SFillHoleSrcRow(std::uint32_t nWidth) : m_oClasses(nWidth) {}

  using TPixel = Band::Detail::TRowPixel<TSrcIterator>;

  // With pCopy, the pixels are also copied there in the same pass.
  template <bool BUseMask, class TMaskIterator, class TComparator, class TValid>
  void Read(const TSrcIterator& itSrcRow, const TMaskIterator& itMaskRow, std::uint32_t nWidth,
            Band::Detail::CRowReader<TMaskIterator>& oMaskReader, const TComparator& oComparator,
            const TValid& oValid, TPixel* pCopy = nullptr)
  {
    m_pPixels = m_oReader.Read(itSrcRow, nWidth);
    m_oClasses.template Classify<BUseMask>(m_pPixels, ReadMaskRow<BUseMask>(itMaskRow, nWidth, oMaskReader),
                                           oComparator, oValid, pCopy);
  }

  const TPixel* m_pPixels = nullptr;
  Band::Detail::CRowReader<TSrcIterator> m_oReader;
  CFillHoleRowClasses m_oClasses;
};

// The three table lines that pass through pixel x of row y; index n of each is the line of pixel x + n.
template <class TLineData>
struct STableRow
{
  STableRow(SFillHoleTables<TLineData>& oTables, std::ptrdiff_t nX, std::ptrdiff_t nY, std::ptrdiff_t nSrcRepHeight)
    : m_pVertical(oTables.m_vecVertical.data() + nX),
      m_pMain(oTables.m_vecMainDiagonal.data() + (nX - nY + nSrcRepHeight)),
      m_pAnti(oTables.m_vecAntiDiagonal.data() + (nX + nY))
  {
  }

  TLineData* m_pVertical;
  TLineData* m_pMain;
  TLineData* m_pAnti;
};

// Sets the lines of the row's valid pixels that the next row may read.
template <class TLineData, class TPixel>
void SetValidLines(const STableRow<TLineData>& oTables, const TPixel* pSrc, const CFillHoleRowClasses& oRow,
                   const CFillHoleRowClasses& oNext, const SValidLineSetter<TLineData>& oSetLines)
{
  // All in locals: the line stores may alias anything reached through a reference.
  const SValidLineSetter<TLineData> oSet = oSetLines;
  TLineData* const pVertical = oTables.m_pVertical;
  TLineData* const pMain = oTables.m_pMain;
  TLineData* const pAnti = oTables.m_pAnti;
  const std::uint64_t* const pValid = oRow.GetValidBits();
  const std::uint64_t* const pNextEvents = oNext.GetEventBits();
  const std::size_t nWords = oRow.GetWords();
  for (std::size_t w = 0; w < nWords; ++w)
    for (std::uint64_t nBits = LinesToSet(pValid, pNextEvents, w); nBits != 0; nBits &= nBits - 1)
    {
      const std::size_t n = 64 * w + std::size_t(__builtin_ctzll(nBits));
      oSet(pVertical[n], pMain[n], pAnti[n], float(pSrc[n]));
    }
}

// Rows top to bottom, pixels left to right. A valid pixel sets its four lines; a hole takes the next
// entry and gets the contributions from the left, from above, from upper left and from upper right,
// in this order; a skipped pixel leaves every line as it is. Returns the number of holes met.
//
// Within a row only the holes and skipped pixels are visited one by one. The horizontal line is set
// from the valid pixel just before each of them; the table lines of valid pixels are set as far as a
// later pixel may read them (SetValidLines). Each table entry is touched by one pixel per row, so the
// order of the two within a row does not matter.
//
// Throws CBasicException, before the destination is touched, at the first hole beyond the list's
// bound.
//
// Required of the iterators: X and Y, ++it.Y, and what CRowReader asks.
template <bool BUseMask, class TLineData, class TSrcIterator, class TMaskIterator, class TComparator, class TValid,
          class THoleTag>
std::uint64_t FillHoleForwardSweep(const SFillHoleSweepContext<TLineData>& oContext,
                          const boost::tuples::tuple<TSrcIterator, TSrcIterator>& oSrc,
                          const boost::tuples::tuple<TMaskIterator, TMaskIterator>& oMask,
                          const TComparator& oComparator, const TValid& oValid, CHoleList<THoleTag>& oHoles)
{
  assert(oContext.m_pTables);
  SFillHoleTables<TLineData>& oTables = *oContext.m_pTables;
  const float fMaxDistance = oTables.m_oFresh.m_fMaxDistance;
  const SValidLineSetter<TLineData> oSetLines(fMaxDistance);
  const std::uint32_t nWidth = oContext.m_nWidth;
  const std::uint32_t nHeight = oContext.m_nHeight;
  Band::Detail::CRowReader<TMaskIterator> oMaskReader;
  SFillHoleSrcRow<TSrcIterator> aRows[2] = {SFillHoleSrcRow<TSrcIterator>(nWidth),
                                            SFillHoleSrcRow<TSrcIterator>(nWidth)};
  const std::uint64_t nMaxHoles = oHoles.GetMaxHoles();
  std::uint64_t nHoles = 0;
  CHoleAppender<THoleTag> oAppender(oHoles);

  TSrcIterator itSrcRow = boost::get<0>(oSrc);
  TMaskIterator itMaskRow = boost::get<0>(oMask);
  if (nHeight != 0)
    aRows[0].template Read<BUseMask>(itSrcRow, itMaskRow, nWidth, oMaskReader, oComparator, oValid);
  for (std::uint32_t nRow = 0; nRow < nHeight; ++nRow)
  {
    const SFillHoleSrcRow<TSrcIterator>& oRow = aRows[nRow % 2];
    SFillHoleSrcRow<TSrcIterator>& oNext = aRows[(nRow + 1) % 2];
    const STableRow<TLineData> oTableRow(oTables, itSrcRow.X, itSrcRow.Y, oContext.m_nSrcRepHeight);
    ++itSrcRow.Y;
    if constexpr (BUseMask)
      ++itMaskRow.Y;
    if (nRow + 1 < nHeight)
      oNext.template Read<BUseMask>(itSrcRow, itMaskRow, nWidth, oMaskReader, oComparator, oValid);
    else
      oNext.m_oClasses.SetOutside();

    const auto* pSrc = oRow.m_pPixels;
    const unsigned char* pClass = oRow.m_oClasses.GetClasses();
    SetValidLines(oTableRow, pSrc, oRow.m_oClasses, oNext.m_oClasses, oSetLines);
    SHorizontalLine oHorizontal(fMaxDistance);
    const std::uint64_t* pEvents = oRow.m_oClasses.GetEventBits();
    for (std::size_t w = 0; w < oRow.m_oClasses.GetWords(); ++w)
      for (std::uint64_t nBits = pEvents[w]; nBits != 0; nBits &= nBits - 1)
      {
        const std::ptrdiff_t n = std::ptrdiff_t(64 * w) + __builtin_ctzll(nBits);
        // At the row's start the value read is pixel 0's, and it is not used.
        oHorizontal.SetIf(pClass[n - 1] == eFillHoleValid, float(pSrc[n - (n != 0)]));
        if (pClass[n] != eFillHoleHole)
          continue; // skipped
        if (nHoles == nMaxHoles)
          ThrowTooManyHoles(std::uint32_t(nMaxHoles));
        ++nHoles;
        SHoleSums oSums{0.0f, 0.0f, 0};
        oHorizontal.Contribute(oSums);
        Contribute(oTableRow.m_pVertical[n], oSums);
        Contribute(oTableRow.m_pMain[n], oSums);
        Contribute(oTableRow.m_pAnti[n], oSums);
        oAppender.Append(oSums);
      }

    if (oContext.m_pLogger)
      oContext.m_pLogger->IncrementProgress();
  }
  oHoles.EndForward(nHoles);
  return nHoles;
}

// Rows bottom to top, pixels right to left, the destination in step with the source and the hole
// list walked back from where the forward sweep left it. A valid pixel sets its lines and is copied
// unchanged; a hole gets the contributions from the right, from below, from lower left and from lower
// right, in this order, and then its value or, with too few directions, the no-data value; a skipped
// pixel gets the no-data value. Returns whether any pixel got the no-data value.
//
// As in the forward sweep, only holes and skipped pixels are visited one by one; the destination row
// is first the source row, and they overwrite their pixels in it.
//
// Required of the iterators: X and Y, --it.Y, it += CPoint<int>, and what CRowReader and CRowWriter
// ask.
template <bool BUseMask, class TLineData, class TSrcIterator, class TMaskIterator, class TDestIterator,
          class TComparator, class TValid, class THoleTag>
bool FillHoleBackwardSweep(const SFillHoleSweepContext<TLineData>& oContext,
                           const boost::tuples::tuple<TSrcIterator, TSrcIterator>& oSrc,
                           const boost::tuples::tuple<TMaskIterator, TMaskIterator>& oMask,
                           const boost::tuples::tuple<TDestIterator, TDestIterator>& oDest,
                           const TComparator& oComparator, const TValid& oValid, CHoleList<THoleTag>& oHoles,
                           Band::Detail::TRowPixel<TDestIterator> tNoData)
{
  using TDestPixel = Band::Detail::TRowPixel<TDestIterator>;

  assert(oContext.m_pTables);
  SFillHoleTables<TLineData>& oTables = *oContext.m_pTables;
  const float fMaxDistance = oTables.m_oFresh.m_fMaxDistance;
  const SValidLineSetter<TLineData> oSetLines(fMaxDistance);
  const unsigned int nMinDirections = oContext.m_nMinDirections;
  const std::uint32_t nWidth = oContext.m_nWidth;
  const std::uint32_t nHeight = oContext.m_nHeight;
  Band::Detail::CRowReader<TMaskIterator> oMaskReader;
  Band::Detail::CRowWriter<TDestIterator> aDestWriters[2];
  TDestPixel* apDest[2] = {nullptr, nullptr};
  CHoleTaker<THoleTag> oTaker(oHoles);
  SFillHoleSrcRow<TSrcIterator> aRows[2] = {SFillHoleSrcRow<TSrcIterator>(nWidth),
                                            SFillHoleSrcRow<TSrcIterator>(nWidth)};
  bool bWroteNoData = false;

  // On the last row; each further row steps up. The destination row starts as a copy of the source
  // row, made while the source row is read; holes and skipped pixels then overwrite their pixels.
  const Pravik::GraphObject2d::CPoint<int> oToLast(0, int(nHeight) - 1);
  TSrcIterator itSrcRow = boost::get<0>(oSrc);
  TMaskIterator itMaskRow = boost::get<0>(oMask);
  TDestIterator itDestRow = boost::get<0>(oDest);
  if (nHeight != 0)
  {
    itSrcRow += oToLast;
    if constexpr (BUseMask)
      itMaskRow += oToLast;
    itDestRow += oToLast;
    apDest[0] = aDestWriters[0].BeginWrite(itDestRow, nWidth);
    aRows[0].template Read<BUseMask>(itSrcRow, itMaskRow, nWidth, oMaskReader, oComparator, oValid, apDest[0]);
  }
  for (std::uint32_t nRow = 0; nRow < nHeight; ++nRow)
  {
    const SFillHoleSrcRow<TSrcIterator>& oRow = aRows[nRow % 2];
    SFillHoleSrcRow<TSrcIterator>& oNext = aRows[(nRow + 1) % 2];
    const STableRow<TLineData> oTableRow(oTables, itSrcRow.X, itSrcRow.Y, oContext.m_nSrcRepHeight);
    TDestPixel* pDest = apDest[nRow % 2];
    TDestIterator itDestNext = itDestRow;
    if (nRow + 1 < nHeight)
    {
      --itSrcRow.Y;
      if constexpr (BUseMask)
        --itMaskRow.Y;
      --itDestNext.Y;
      apDest[(nRow + 1) % 2] = aDestWriters[(nRow + 1) % 2].BeginWrite(itDestNext, nWidth);
      oNext.template Read<BUseMask>(itSrcRow, itMaskRow, nWidth, oMaskReader, oComparator, oValid,
                                    apDest[(nRow + 1) % 2]);
    }
    else
      oNext.m_oClasses.SetOutside();

    const auto* pSrc = oRow.m_pPixels;
    const unsigned char* pClass = oRow.m_oClasses.GetClasses();
    SetValidLines(oTableRow, pSrc, oRow.m_oClasses, oNext.m_oClasses, oSetLines);
    SHorizontalLine oHorizontal(fMaxDistance);
    const std::uint64_t* pEvents = oRow.m_oClasses.GetEventBits();
    for (std::size_t w = oRow.m_oClasses.GetWords(); w-- != 0;)
      for (std::uint64_t nBits = pEvents[w]; nBits != 0;)
      {
        const int nBit = 63 - __builtin_clzll(nBits);
        nBits &= ~(std::uint64_t(1) << nBit);
        const std::ptrdiff_t n = std::ptrdiff_t(64 * w) + nBit;
        oHorizontal.SetIf(pClass[n + 1] == eFillHoleValid, float(pSrc[n + (n + 1 != std::ptrdiff_t(nWidth))]));
        if (pClass[n] != eFillHoleHole)
        {
          pDest[n] = tNoData; // skipped
          bWroteNoData = true;
          continue;
        }
        SHoleSums oSums = oTaker.TakeBack();
        oHorizontal.Contribute(oSums);
        Contribute(oTableRow.m_pVertical[n], oSums);
        Contribute(oTableRow.m_pAnti[n], oSums);
        Contribute(oTableRow.m_pMain[n], oSums);
        if (oSums.m_nCount >= nMinDirections)
          pDest[n] = FloatToPixel<TDestPixel>(oSums.m_fValues / oSums.m_fWeights);
        else
        {
          pDest[n] = tNoData;
          bWroteNoData = true;
        }
      }

    aDestWriters[nRow % 2].EndWrite();
    itDestRow = itDestNext;
    if (oContext.m_pLogger)
      oContext.m_pLogger->IncrementProgress();
  }
  return bWroteNoData;
}

// The holes of the nWidth x nHeight rectangles from the begin iterators, classified as the sweeps
// classify them.
template <bool BUseMask, class TSrcIterator, class TMaskIterator, class TComparator, class TValid>
std::uint64_t CountFillHoles(std::uint32_t nWidth, std::uint32_t nHeight, TSrcIterator itSrcRow,
                             TMaskIterator itMaskRow, const TComparator& oComparator, const TValid& oValid)
{
  SFillHoleSrcRow<TSrcIterator> oRow(nWidth);
  Band::Detail::CRowReader<TMaskIterator> oMaskReader;
  std::uint64_t nHoles = 0;
  for (std::uint32_t nRow = 0; nRow < nHeight; ++nRow)
  {
    if (nRow != 0)
    {
      ++itSrcRow.Y;
      if constexpr (BUseMask)
        ++itMaskRow.Y;
    }
    oRow.template Read<BUseMask>(itSrcRow, itMaskRow, nWidth, oMaskReader, oComparator, oValid);
    const unsigned char* pClass = oRow.m_oClasses.GetClasses();
    nHoles += std::uint64_t(std::count(pClass, pClass + nWidth, static_cast<unsigned char>(eFillHoleHole)));
  }
  return nHoles;
}

}}}} // namespace Orl::Ostrel::Filter::Detail

