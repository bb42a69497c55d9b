#pragma once

// Generic definitions of CColorConversionFilter. Included by the unit that instantiates it.
//
// Each task reads its rows of the three sources into float buffers, decodes them to the float
// ranges (unsigned char channels through a scale and an offset per space and channel), converts
// pixel by pixel in float, encodes and writes the rows back. The conversion is chosen once per
// call: the pixel loop is instantiated per conversion, with no switch inside it.

#include "Filter/ColorConversionFilter.h"
#include "Filter/Detail/RowBuffers.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <type_traits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

enum EColorSpace
{
  eSpaceRgb,
  eSpaceHsv,
  eSpaceHsl,
  eSpaceYCbCr,
  eSpaceLab,
  eSpaceGray
};

// float value = (byte - offset) / scale, byte = value * scale + offset, per space and channel.
struct SChannelCode
{
  float m_fScale, m_fOffset;
};
inline const std::array<SChannelCode, 3>& ByteCodes(EColorSpace eSpace)
{
  static const std::array<SChannelCode, 3> s_aCodes[] = {
    {{{255.0f, 0.0f}, {255.0f, 0.0f}, {255.0f, 0.0f}}},                  // RGB
    {{{255.0f / 360.0f, 0.0f}, {255.0f, 0.0f}, {255.0f, 0.0f}}},          // HSV
    {{{255.0f / 360.0f, 0.0f}, {255.0f, 0.0f}, {255.0f, 0.0f}}},          // HSL
    {{{255.0f, 0.0f}, {255.0f, 128.0f}, {255.0f, 128.0f}}},               // YCbCr
    {{{255.0f / 100.0f, 0.0f}, {1.0f, 128.0f}, {1.0f, 128.0f}}},          // Lab
    {{{255.0f, 0.0f}, {255.0f, 0.0f}, {255.0f, 0.0f}}}};                  // gray
  return s_aCodes[eSpace];
}

inline float Hue(float r, float g, float b, float fMax, float fRange)
{
  if (fRange <= 0.0f)
    return 0.0f;
  float h = fMax == r ? (g - b) / fRange : fMax == g ? 2.0f + (b - r) / fRange : 4.0f + (r - g) / fRange;
  h *= 60.0f;
  return h < 0.0f ? h + 360.0f : h >= 360.0f ? h - 360.0f : h;
}

// RGB from hue and chroma, plus m for every channel.
inline void FromHue(float h, float c, float m, float* pOut)
{
  // Any hue wraps into [0, 360); a NaN or infinite one (a no-data pixel, dropped later) takes sector 0
  // instead of an undefined conversion to int.
  const float hh = (h - 360.0f * std::floor(h / 360.0f)) / 60.0f;
  const float x = c * (1.0f - std::abs(std::fmod(hh, 2.0f) - 1.0f));
  float r = 0, g = 0, b = 0;
  switch (hh >= 0.0f && hh < 6.0f ? int(hh) : 0)
  {
  case 0: r = c, g = x; break;
  case 1: r = x, g = c; break;
  case 2: g = c, b = x; break;
  case 3: g = x, b = c; break;
  case 4: r = x, b = c; break;
  default: r = c, b = x; break;
  }
  pOut[0] = r + m, pOut[1] = g + m, pOut[2] = b + m;
}

inline float SrgbToLinear(float c)
{
  return c <= 0.04045f ? c / 12.92f : std::pow((c + 0.055f) / 1.055f, 2.4f);
}
inline float LinearToSrgb(float c)
{
  return c <= 0.0031308f ? c * 12.92f : 1.055f * std::pow(c, 1.0f / 2.4f) - 0.055f;
}
inline float LabF(float t)
{
  return t > 0.008856452f ? std::cbrt(t) : t / 0.128418549f + 4.0f / 29.0f;
}
inline float LabFInverse(float t)
{
  return t > 6.0f / 29.0f ? t * t * t : 0.128418549f * (t - 4.0f / 29.0f);
}
constexpr float g_fWhiteX = 0.95047f, g_fWhiteZ = 1.08883f; // D65, Y = 1

template <EColorConversion EConversion>
inline void ConvertPixel(const float* p, float* q)
{
  if constexpr (EConversion == eRgbToHsv)
  {
    const float fMax = std::max({p[0], p[1], p[2]}), fMin = std::min({p[0], p[1], p[2]});
    q[0] = Hue(p[0], p[1], p[2], fMax, fMax - fMin);
    q[1] = fMax > 0.0f ? (fMax - fMin) / fMax : 0.0f;
    q[2] = fMax;
  }
  else if constexpr (EConversion == eHsvToRgb)
  {
    const float c = p[2] * p[1];
    FromHue(p[0], c, p[2] - c, q);
  }
  else if constexpr (EConversion == eRgbToHsl)
  {
    const float fMax = std::max({p[0], p[1], p[2]}), fMin = std::min({p[0], p[1], p[2]});
    const float l = 0.5f * (fMax + fMin), d = 1.0f - std::abs(2.0f * l - 1.0f);
    q[0] = Hue(p[0], p[1], p[2], fMax, fMax - fMin);
    q[1] = d > 0.0f ? (fMax - fMin) / d : 0.0f;
    q[2] = l;
  }
  else if constexpr (EConversion == eHslToRgb)
  {
    const float c = (1.0f - std::abs(2.0f * p[2] - 1.0f)) * p[1];
    FromHue(p[0], c, p[2] - 0.5f * c, q);
  }
  else if constexpr (EConversion == eRgbToYCbCr)
  {
    q[0] = 0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2];
    q[1] = (p[2] - q[0]) * (0.5f / 0.886f);
    q[2] = (p[0] - q[0]) * (0.5f / 0.701f);
  }
  else if constexpr (EConversion == eYCbCrToRgb)
  {
    q[0] = p[0] + 1.402f * p[2];
    q[1] = p[0] - (0.114f * 1.772f / 0.587f) * p[1] - (0.299f * 1.402f / 0.587f) * p[2];
    q[2] = p[0] + 1.772f * p[1];
  }
  else if constexpr (EConversion == eRgbToLab)
  {
    const float r = SrgbToLinear(p[0]), g = SrgbToLinear(p[1]), b = SrgbToLinear(p[2]);
    const float fx = LabF((0.4124564f * r + 0.3575761f * g + 0.1804375f * b) / g_fWhiteX);
    const float fy = LabF(0.2126729f * r + 0.7151522f * g + 0.0721750f * b);
    const float fz = LabF((0.0193339f * r + 0.1191920f * g + 0.9503041f * b) / g_fWhiteZ);
    q[0] = 116.0f * fy - 16.0f;
    q[1] = 500.0f * (fx - fy);
    q[2] = 200.0f * (fy - fz);
  }
  else if constexpr (EConversion == eLabToRgb)
  {
    const float fy = (p[0] + 16.0f) / 116.0f;
    const float x = g_fWhiteX * LabFInverse(fy + p[1] / 500.0f), y = LabFInverse(fy);
    const float z = g_fWhiteZ * LabFInverse(fy - p[2] / 200.0f);
    q[0] = LinearToSrgb(3.2404542f * x - 1.5371385f * y - 0.4985314f * z);
    q[1] = LinearToSrgb(-0.9692660f * x + 1.8760108f * y + 0.0415560f * z);
    q[2] = LinearToSrgb(0.0556434f * x - 0.2040259f * y + 1.0572252f * z);
  }
  else
    q[0] = q[1] = q[2] = 0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2];
}

inline std::pair<EColorSpace, EColorSpace> Spaces(EColorConversion e)
{
  switch (e)
  {
  case eRgbToHsv: return {eSpaceRgb, eSpaceHsv};
  case eHsvToRgb: return {eSpaceHsv, eSpaceRgb};
  case eRgbToHsl: return {eSpaceRgb, eSpaceHsl};
  case eHslToRgb: return {eSpaceHsl, eSpaceRgb};
  case eRgbToYCbCr: return {eSpaceRgb, eSpaceYCbCr};
  case eYCbCrToRgb: return {eSpaceYCbCr, eSpaceRgb};
  case eRgbToLab: return {eSpaceRgb, eSpaceLab};
  case eLabToRgb: return {eSpaceLab, eSpaceRgb};
  default: return {eSpaceRgb, eSpaceGray};
  }
}

// nDest destination iterators (1 or 3) from three sources; pNoData[i] the destinations' no-data.
template <EColorConversion EConversion, class TPixel, class TSrcIt, class TDestIt>
void ConvertRows(const TSrcIt* pSrc, const TDestIt* pDest, int nDest, int nWidth, int nHeight, const bool* pHasNoData,
                 const TPixel* pSrcNoData, const TPixel* pDestNoData, std::atomic<bool>& bWroteNoData,
                 const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  constexpr bool bBytes = !std::is_floating_point<TPixel>::value;
  const auto oSpaces = Spaces(EConversion);
  const auto& aIn = ByteCodes(oSpaces.first);
  const auto& aOut = ByteCodes(oSpaces.second);
  ParallelBlocks(nHeight, 16, [&](int nBegin, int nEnd) {
    std::vector<TPixel> vecIn(3 * std::size_t(nWidth)), vecOut(3 * std::size_t(nWidth));
    std::vector<unsigned char> vecValid(static_cast<std::size_t>(nWidth));
    std::vector<CRowCursor<TSrcIt>> vecSrc;
    std::vector<CRowCursor<TDestIt>> vecDest;
    for (int c = 0; c < 3; ++c)
      vecSrc.emplace_back(pSrc[c], 0, nWidth);
    for (int c = 0; c < nDest; ++c)
      vecDest.emplace_back(pDest[c], 0, nWidth);
    bool bNoDataHere = false;
    for (int y = nBegin; y < nEnd; ++y)
    {
      std::fill(vecValid.begin(), vecValid.end(), 1);
      for (int c = 0; c < 3; ++c)
      {
        TPixel* pRow = vecIn.data() + std::size_t(c) * nWidth;
        vecSrc[std::size_t(c)].Read(y, pRow);
        for (int x = 0; x < nWidth; ++x)
          vecValid[x] &= IsValidPixel(pRow[x], pHasNoData[c], pSrcNoData[c]);
      }
      for (int x = 0; x < nWidth; ++x)
      {
        float aP[3], aQ[3];
        for (int c = 0; c < 3; ++c)
        {
          const float f = float(vecIn[std::size_t(c) * nWidth + x]);
          aP[c] = bBytes ? (f - aIn[c].m_fOffset) / aIn[c].m_fScale : f;
        }
        ConvertPixel<EConversion>(aP, aQ);
        for (int c = 0; c < nDest; ++c)
        {
          TPixel& tOut = vecOut[std::size_t(c) * nWidth + x];
          tOut = bBytes ? ToPixel<TPixel>(aQ[c] * aOut[c].m_fScale + aOut[c].m_fOffset) : TPixel(aQ[c]);
          if (!vecValid[x])
            tOut = pDestNoData[c], bNoDataHere = true;
        }
      }
      for (int c = 0; c < nDest; ++c)
        vecDest[std::size_t(c)].Write(y, vecOut.data() + std::size_t(c) * nWidth);
      if (pLogger)
        pLogger->IncrementProgress();
    }
    if (bNoDataHere)
      bWroteNoData.store(true, std::memory_order_relaxed);
  });
}

template <class TPixel, class TSrcIt, class TDestIt>
void ConvertColors(EColorConversion e, const TSrcIt* pSrc, const TDestIt* pDest, int nDest, int nWidth, int nHeight,
                   const bool* pHasNoData, const TPixel* pSrcNoData, const TPixel* pDestNoData,
                   std::atomic<bool>& bWroteNoData, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
#define ORL_COLOR_CASE(E)                                                                               \
  case E:                                                                                               \
    ConvertRows<E>(pSrc, pDest, nDest, nWidth, nHeight, pHasNoData, pSrcNoData, pDestNoData, bWroteNoData, pLogger); \
    break;
  switch (e)
  {
    ORL_COLOR_CASE(eRgbToHsv)
    ORL_COLOR_CASE(eHsvToRgb)
    ORL_COLOR_CASE(eRgbToHsl)
    ORL_COLOR_CASE(eHslToRgb)
    ORL_COLOR_CASE(eRgbToYCbCr)
    ORL_COLOR_CASE(eYCbCrToRgb)
    ORL_COLOR_CASE(eRgbToLab)
    ORL_COLOR_CASE(eLabToRgb)
    ORL_COLOR_CASE(eRgbToGray)
  }
#undef ORL_COLOR_CASE
}

template <class TDest, class TSrc>
void ApplyColor(const CColorConversionFilter& oFilter, TDest* const* ppDest, int nDest, const TSrc* const* ppSrc,
                const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger)
{
  static_assert(std::is_same<typename TDest::TPixel, typename TSrc::TPixel>::value, "one pixel type");
  using TPixel = typename TSrc::TPixel;
  const unsigned nWidth = ppSrc[0]->GetWidth(), nHeight = ppSrc[0]->GetHeight();
  for (int c = 0; c < 3; ++c)
    if (ppSrc[c]->GetWidth() != nWidth || ppSrc[c]->GetHeight() != nHeight ||
        (c < nDest && (ppDest[c]->GetWidth() != nWidth || ppDest[c]->GetHeight() != nHeight)))
      ThrowBadArgument(__FILE__, __LINE__, "%1%: all bands must have one size", oFilter.GetName());
  if ((nDest == 1) != (oFilter.GetConversion() == eRgbToGray) || oFilter.GetConversion() < eRgbToHsv ||
      oFilter.GetConversion() > eRgbToGray)
    ThrowBadArgument(__FILE__, __LINE__, "%1%: the conversion does not fit the number of bands", oFilter.GetName());
  if (nWidth == 0 || nHeight == 0)
    return;

  PushFilterLayer(pLogger, "Apply Color Conversion Filter", double(nHeight));
  using TSrcIt = std::decay_t<decltype(BeginOf(*ppSrc[0]))>;
  using TDestIt = std::decay_t<decltype(MutableBeginOf(*ppDest[0]))>;
  std::vector<TSrcIt> vecSrc;
  std::vector<TDestIt> vecDest;
  bool abHasNoData[3];
  TPixel atSrcNoData[3], atDestNoData[3];
  for (int c = 0; c < 3; ++c)
  {
    vecSrc.push_back(BeginOf(*ppSrc[c]));
    abHasNoData[c] = ppSrc[c]->HasNoDataValue();
    atSrcNoData[c] = abHasNoData[c] ? ppSrc[c]->GetNoDataValue() : TPixel(0);
  }
  for (int c = 0; c < nDest; ++c)
    atDestNoData[c] = GetOutputNoDataValue(*ppDest[c]);
  for (int c = 0; c < nDest; ++c)
    vecDest.push_back(MutableBeginOf(*ppDest[c]));
  std::atomic<bool> bWroteNoData(false);
  ConvertColors(oFilter.GetConversion(), vecSrc.data(), vecDest.data(), nDest, int(nWidth), int(nHeight), abHasNoData,
                atSrcNoData, atDestNoData, bWroteNoData, pLogger);
  if (bWroteNoData.load())
    for (int c = 0; c < nDest; ++c)
      ppDest[c]->SetNoDataValue(atDestNoData[c]);
  if (pLogger)
    pLogger->Pop();
}

} // namespace Detail

template <class TDest, class TSrc>
void CColorConversionFilter::Apply(TDest& oDest0, TDest& oDest1, TDest& oDest2, const TSrc& oSrc0, const TSrc& oSrc1,
                                   const TSrc& oSrc2) const
{
  TDest* const apDest[3] = {&oDest0, &oDest1, &oDest2};
  const TSrc* const apSrc[3] = {&oSrc0, &oSrc1, &oSrc2};
  Detail::ApplyColor(*this, apDest, 3, apSrc, m_pLogger);
}

template <class TDest, class TSrc>
void CColorConversionFilter::Apply(TDest& oGray, const TSrc& oRed, const TSrc& oGreen, const TSrc& oBlue) const
{
  TDest* const apDest[1] = {&oGray};
  const TSrc* const apSrc[3] = {&oRed, &oGreen, &oBlue};
  Detail::ApplyColor(*this, apDest, 1, apSrc, m_pLogger);
}

}}} // namespace Orl::Ostrel::Filter
