#pragma once

// An independent reference for the linear fill-hole filter: per hole, walk the eight lines outward and
// take the weighted mean in float. Plus random cases and one runner for memory and tile bands.

#include "Filter/LinearFillHoleFilter.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Orl { namespace Test { namespace FillHole {

using namespace Orl::Ostrel;
using CFilter = Filter::CLinearFillHoleFilter<Filter::SDefaultLineData>;

// Truncation toward zero; NaN and values out of range give the smallest value of the 32- or 64-bit
// integer, which then keeps its low bits.
template <class T, class TFrom>
T Truncate(TFrom f)
{
  if constexpr (std::is_floating_point<T>::value)
    return T(f);
  else if constexpr (std::is_same<T, unsigned int>::value || std::is_same<TFrom, double>::value)
    return T(std::uint64_t(f >= TFrom(-0x1p63) && f < TFrom(0x1p63) ? std::int64_t(f) : INT64_MIN));
  else
    return T(f >= -0x1p31f && f < 0x1p31f ? std::int32_t(f) : INT32_MIN);
}

struct SParams
{
  unsigned int m_nMinDirections;
  float m_fMaxDistance;
  bool m_bUseMask, m_bUseRange;
  double m_dLow, m_dHigh;
};

template <class TPixel, class TMask>
struct SCase
{
  unsigned int m_nWidth = 0, m_nHeight = 0;
  std::vector<TPixel> m_vecSrc;
  std::vector<TMask> m_vecMask;
  std::optional<TPixel> m_oSrcNoData, m_oDestNoData;
  std::optional<TMask> m_oMaskNoData;
};

template <class TPixel>
struct SResult
{
  std::vector<TPixel> m_vecPixels;
  std::optional<TPixel> m_oNoData;
  std::uint64_t m_nHoles = 0;
};

template <class TPixel, class TMask>
SResult<TPixel> Reference(const SCase<TPixel, TMask>& oCase, const SParams& oParams)
{
  enum EClass { eValid, eHole, eSkipped };
  const int nW = int(oCase.m_nWidth), nH = int(oCase.m_nHeight);
  const auto fnClass = [&](int x, int y) {
    const TPixel t = oCase.m_vecSrc[y * nW + x];
    bool bValid = oCase.m_oSrcNoData != t;
    if constexpr (std::is_floating_point<TPixel>::value)
      bValid = bValid && std::isfinite(t);
    if (!oParams.m_bUseMask)
      return bValid ? eValid : eHole;
    const TMask m = oCase.m_vecMask[y * nW + x];
    const bool bSelected = oParams.m_bUseRange ? m < Truncate<TMask>(oParams.m_dLow) || m > Truncate<TMask>(oParams.m_dHigh)
                                               : m == oCase.m_oMaskNoData.value_or(TMask(0));
    return bSelected ? eHole : bValid ? eValid : eSkipped;
  };

  SResult<TPixel> oResult{oCase.m_vecSrc, oCase.m_oDestNoData};
  const TPixel tNoData = oCase.m_oDestNoData.value_or(std::is_signed<TPixel>::value ? std::numeric_limits<TPixel>::lowest()
                                                                                    : std::numeric_limits<TPixel>::max());
  bool bAnyHole = false, bAnyNoData = false;
  // Left, up, upper left, upper right, then right, down, lower left, lower right.
  static const int s_aDirections[8][2] = {{-1, 0}, {0, -1}, {-1, -1}, {1, -1}, {1, 0}, {0, 1}, {-1, 1}, {1, 1}};
  for (int y = 0; y < nH; ++y)
    for (int x = 0; x < nW; ++x)
    {
      const EClass eClass = fnClass(x, y);
      bAnyHole = bAnyHole || eClass == eHole;
      oResult.m_nHoles += eClass == eHole;
      if (eClass == eValid)
        continue;
      float fWeights = 0.0f, fValues = 0.0f;
      unsigned int nCount = 0;
      for (const auto& aDir : s_aDirections)
        for (int u = x + aDir[0], v = y + aDir[1], nHoles = 1; eClass == eHole && u >= 0 && u < nW && v >= 0 && v < nH;
             u += aDir[0], v += aDir[1])
        {
          const EClass eOther = fnClass(u, v);
          nHoles += eOther == eHole;
          if (eOther != eValid)
            continue;
          if (oParams.m_fMaxDistance >= float(nHoles))
          {
            fWeights += 1.0f / float(nHoles);
            fValues += (1.0f / float(nHoles)) * float(oCase.m_vecSrc[v * nW + u]);
            ++nCount;
          }
          break;
        }
      const bool bNoData = eClass == eSkipped || nCount < oParams.m_nMinDirections;
      oResult.m_vecPixels[y * nW + x] = bNoData ? tNoData : Truncate<TPixel>(fValues / fWeights);
      bAnyNoData = bAnyNoData || bNoData;
    }
  if (!bAnyHole)
    oResult.m_vecPixels = oCase.m_vecSrc; // copied as they are, skipped pixels included
  else if (bAnyNoData)
    oResult.m_oNoData = tNoData;
  return oResult;
}

// Runs the filter on bands of the tag, or of the given types (a stand-in with other iterators), with
// the filter's own count of the holes as its bound, which is thus checked to be enough. Tile bands
// are filled and read through their row runs, the others through their memory.
template <class TTag, class TPixel, class TMask, class TImageBand = Band::CBand<TPixel, TTag>,
          class TMaskBand = Band::CBand<TMask, TTag>>
SResult<TPixel> RunFilter(const SCase<TPixel, TMask>& oCase, const SParams& oParams)
{
  constexpr bool bTiles = std::is_same<TTag, Band::STileTag>::value;
  TImageBand oSrc(oCase.m_nWidth, oCase.m_nHeight), oDest(oCase.m_nWidth, oCase.m_nHeight);
  TMaskBand oMask(oCase.m_nWidth, oCase.m_nHeight);
  const auto fnPrepare = [](auto& oBand, const auto& vecPixels, const auto& oNoData) {
    if constexpr (bTiles)
      WritePixels(oBand, vecPixels);
    else
      std::copy(vecPixels.begin(), vecPixels.end(), oBand.GetRep().GetDataLocation());
    if (oNoData)
      oBand.SetNoDataValue(*oNoData);
  };
  fnPrepare(oSrc, oCase.m_vecSrc, oCase.m_oSrcNoData);
  fnPrepare(oMask, oCase.m_vecMask, oCase.m_oMaskNoData);
  oDest.Clear(TPixel(7));
  if (oCase.m_oDestNoData)
    oDest.SetNoDataValue(*oCase.m_oDestNoData);
  const auto fnFilter = [&](unsigned int nMaxHoles) {
    return oParams.m_bUseRange ? CFilter(oParams.m_dLow, oParams.m_dHigh, nMaxHoles, oParams.m_nMinDirections,
                                         oParams.m_fMaxDistance, oParams.m_bUseMask)
                               : CFilter(nMaxHoles, oParams.m_nMinDirections, oParams.m_fMaxDistance, oParams.m_bUseMask);
  };
  SResult<TPixel> oResult;
  oResult.m_nHoles = fnFilter(0).CountHoles(oSrc, oMask);
  fnFilter(unsigned(oResult.m_nHoles)).Apply(oDest, oSrc, oMask);
  if (oDest.HasNoDataValue())
    oResult.m_oNoData = oDest.GetNoDataValue();
  if constexpr (bTiles)
    oResult.m_vecPixels = ReadPixels(oDest);
  else
    oResult.m_vecPixels.assign(oDest.GetRep().GetDataLocation(), oDest.GetRep().GetDataLocation() + oCase.m_vecSrc.size());
  return oResult;
}

template <class TPixel>
void ExpectSame(const SResult<TPixel>& oExpected, const SResult<TPixel>& oActual, const std::string& strWhat)
{
  ASSERT_EQ(oExpected.m_nHoles, oActual.m_nHoles) << strWhat;
  ASSERT_EQ(oExpected.m_vecPixels.size(), oActual.m_vecPixels.size());
  for (std::size_t i = 0; i < oExpected.m_vecPixels.size(); ++i)
    ASSERT_EQ(0, std::memcmp(&oExpected.m_vecPixels[i], &oActual.m_vecPixels[i], sizeof(TPixel)))
      << strWhat << " pixel " << i << ": " << +oExpected.m_vecPixels[i] << " != " << +oActual.m_vecPixels[i];
  ASSERT_EQ(oExpected.m_oNoData.has_value(), oActual.m_oNoData.has_value()) << strWhat;
  ASSERT_TRUE(!oExpected.m_oNoData || !std::memcmp(&*oExpected.m_oNoData, &*oActual.m_oNoData, sizeof(TPixel))) << strWhat;
}

// The pixel and mask types the filter is built for.
using TInstances = ::testing::Types<
  std::pair<unsigned char, unsigned char>, std::pair<unsigned short, unsigned char>, std::pair<unsigned short, unsigned short>,
  std::pair<short, unsigned char>, std::pair<short, unsigned short>, std::pair<unsigned int, unsigned char>,
  std::pair<unsigned int, unsigned int>, std::pair<int, unsigned char>, std::pair<int, unsigned int>,
  std::pair<float, unsigned char>, std::pair<float, float>, std::pair<double, unsigned char>, std::pair<double, double>>;

template <class T>
T RandomValue(std::mt19937& oRng, bool bFullRange)
{
  if constexpr (std::is_floating_point<T>::value)
  {
    if (bFullRange && oRng() % 8 == 0) // beyond float for double, the extremes for float
      return (oRng() % 2 ? 1 : -1) * std::numeric_limits<T>::max() / T(1 + oRng() % 4);
    return T(std::uniform_real_distribution<double>(bFullRange ? -1e7 : -100.0, bFullRange ? 1e7 : 100.0)(oRng));
  }
  else
    return T(std::uniform_int_distribution<long long>(bFullRange ? std::numeric_limits<T>::lowest() : 0,
                                                      bFullRange ? std::numeric_limits<T>::max() : 100)(oRng));
}

enum EPattern { eScattered, eDense, eBlobs, eAllHoles, eNoHoles };

template <class TPixel, class TMask>
SCase<TPixel, TMask> MakeCase(std::mt19937& oRng, unsigned int nW, unsigned int nH, EPattern ePattern,
                              const SParams& oParams)
{
  SCase<TPixel, TMask> oCase;
  oCase.m_nWidth = nW;
  oCase.m_nHeight = nH;
  const bool bFullRange = oRng() % 3 == 0;
  if (std::is_integral<TPixel>::value || oRng() % 2)
    oCase.m_oSrcNoData = RandomValue<TPixel>(oRng, bFullRange);
  if (oRng() % 2)
    oCase.m_oDestNoData = RandomValue<TPixel>(oRng, true);
  if (oRng() % 2) // a NaN no-data value marks nothing
    oCase.m_oMaskNoData = oRng() % 4 ? RandomValue<TMask>(oRng, false) : std::numeric_limits<TMask>::quiet_NaN();

  // Blobs are four discs.
  int aDiscs[4][3];
  for (auto& aDisc : aDiscs)
    aDisc[0] = int(oRng() % nW), aDisc[1] = int(oRng() % nH), aDisc[2] = int(oRng() % (2 + nW / 5));
  for (int i = 0; i < int(nW * nH); ++i)
  {
    const int x = i % int(nW), y = i / int(nW);
    const bool bHole = ePattern == eAllHoles || (ePattern == eScattered && oRng() % 10 == 0) ||
                       (ePattern == eDense && oRng() % 10 < 6) ||
                       (ePattern == eBlobs && std::any_of(std::begin(aDiscs), std::end(aDiscs), [&](const int* a) {
                          return (x - a[0]) * (x - a[0]) + (y - a[1]) * (y - a[1]) <= a[2] * a[2];
                        }));
    TPixel tValue = RandomValue<TPixel>(oRng, bFullRange);
    TMask tMask = RandomValue<TMask>(oRng, true);
    // Invalid source pixels: holes without a mask, mostly skipped ones with a mask.
    if (oParams.m_bUseMask ? oRng() % 8 == 0 : bHole)
    {
      tValue = oCase.m_oSrcNoData.value_or(0);
      if constexpr (std::is_floating_point<TPixel>::value)
      {
        const TPixel atInvalid[] = {NAN, INFINITY, -INFINITY, tValue};
        tValue = atInvalid[oRng() % (oCase.m_oSrcNoData ? 4 : 3)];
      }
    }
    // The equality mask marks the holes; the range mask puts the other pixels inside the range.
    if (oParams.m_bUseMask && bHole != oParams.m_bUseRange)
      tMask = bHole ? oCase.m_oMaskNoData.value_or(TMask(0)) : Truncate<TMask>(oParams.m_dLow);
    if constexpr (std::is_floating_point<TMask>::value)
      if (oRng() % 16 == 0)
        tMask = oRng() % 2 ? NAN : -INFINITY; // NaN is never a hole, -inf outside any range
    oCase.m_vecSrc.push_back(tValue);
    oCase.m_vecMask.push_back(tMask);
  }
  return oCase;
}

// Calls fn(case, parameters, label) for random bands of several sizes and hole
// patterns, without and with a mask (equality and range), under a rotation of reach and minimum.
template <class TPixel, class TMask, class TFn>
void ForEachRandomCase(TFn fn)
{
  const std::pair<unsigned, float> aLimits[] = {{1, 3.0f}, {2, 5.5f}, {0, 2.0f},  {3, 1000.0f},
                                                {8, 1e6f}, {9, 2.0f}, {1, 0.0f}, {2, NAN}, {4, 1.0f}};
  // The last ones are tall enough to be swept in stripes on more than one thread.
  const std::pair<unsigned, unsigned> aSizes[] = {{1, 1},    {1, 9},     {9, 1},   {5, 4},    {31, 17},
                                                  {64, 48},  {300, 21},  {613, 12}, {40, 300}, {97, 260},
                                                  {5, 1500}};
  const std::pair<double, double> aRanges[] = {{10.5, 60.25}, {-1.5, 300.7}, {0.0, 0.0}, {-1e12, 1e12}};
  std::mt19937 oRng(1234);
  unsigned int nCase = 0;
  for (const auto& oSize : aSizes)
    for (EPattern ePattern : {eScattered, eDense, eBlobs, eAllHoles, eNoHoles})
      for (int nMode = 0; nMode < 3; ++nMode, ++nCase)
      {
        const auto& oLimits = aLimits[nCase % 8];
        const auto& oRange = aRanges[nCase % 4];
        const SParams oParams{oLimits.first, oLimits.second, nMode > 0, nMode == 2, oRange.first, oRange.second};
        const auto oCase = MakeCase<TPixel, TMask>(oRng, oSize.first, oSize.second, ePattern, oParams);
        fn(oCase, oParams, "case " + std::to_string(nCase));
      }
}

}}} // namespace Orl::Test::FillHole
