// Fills the holes of a synthetic elevation band with the linear fill-hole filter and shows the result.
//
// Makes a terrain of smooth hills with fine noise, punches many small holes and some large ones into
// it (set as no-data), fills them with a console progress bar, and reports how many holes and hole
// pixels there were, how many pixels were filled, the time taken and the error of the filled pixels
// against the terrain. Writes before and after pictures (whole band and a detail) as PNG.
//
// With --tile-budget the filter runs on tile bands instead, with the tile cache's memory budget set to
// the given size, which may be far below the bands': the bands and the filter's hole list then go to
// the spill file and back. The cache's counters are printed after the filter.
//
//   FillHoleDemo [--size N] [--hole-density F] [--large-holes N] [--max-distance F]
//                [--min-directions N] [--seed N] [--out DIR] [--tile-budget SIZE]
#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Band/MemorySize.h"
#include "Band/TileCache.h"
#include "Filter/LinearFillHoleFilter.h"
#include "Foundation/ConsoleProgressSink.h"
#include "Foundation/Logger.h"

#include <boost/make_shared.hpp>
#include <png.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Ostrel::Filter;
using TBand = CBand<float, SMemoryTag>;

constexpr float g_fNoData = -9999.0f;

struct SOptions
{
  unsigned int m_nSize = 4096;
  double m_dHoleDensity = 0.05; // share of the band in small holes
  unsigned int m_nLargeHoles = 0; // 0: about 3 per million pixels
  float m_fMaxDistance = 64.0f;
  unsigned int m_nMinDirections = 2;
  unsigned int m_nSeed = 1;
  std::string m_strOut = "out";
  std::uint64_t m_nTileBudget = 0; // 0: memory bands
};

void Usage()
{
  std::cerr << "usage: FillHoleDemo [--size N] [--hole-density F] [--large-holes N] [--max-distance F]\n"
               "                    [--min-directions N] [--seed N] [--out DIR] [--tile-budget SIZE]\n"
               "defaults: 4096 x 4096 pixels, 5% of them in small holes, about 3 large holes per million\n"
               "pixels, reach 64 pixels, at least 2 directions, seed 1, pictures into out/\n"
               "--tile-budget: run on tile bands with a tile cache of SIZE bytes (suffix K, M or G), for\n"
               "instance 16M for a quarter of the default band\n";
}

SOptions ParseOptions(int argc, char** argv)
{
  SOptions oOptions;
  for (int n = 1; n < argc; ++n)
  {
    std::string strName = argv[n];
    std::string strValue;
    const auto nEquals = strName.find('=');
    if (nEquals != std::string::npos)
    {
      strValue = strName.substr(nEquals + 1);
      strName.erase(nEquals);
    }
    else if (strName != "--help" && strName != "-h" && n + 1 < argc)
      strValue = argv[++n];
    if (strName == "--help" || strName == "-h")
    {
      Usage();
      std::exit(0);
    }
    if (strValue.empty())
      throw std::invalid_argument("missing value for " + strName);
    if (strName == "--size")
      oOptions.m_nSize = unsigned(std::stoul(strValue));
    else if (strName == "--hole-density")
      oOptions.m_dHoleDensity = std::stod(strValue);
    else if (strName == "--large-holes")
      oOptions.m_nLargeHoles = unsigned(std::stoul(strValue));
    else if (strName == "--max-distance")
      oOptions.m_fMaxDistance = std::stof(strValue);
    else if (strName == "--min-directions")
      oOptions.m_nMinDirections = unsigned(std::stoul(strValue));
    else if (strName == "--seed")
      oOptions.m_nSeed = unsigned(std::stoul(strValue));
    else if (strName == "--out")
      oOptions.m_strOut = strValue;
    else if (strName == "--tile-budget")
    {
      if (!ParseByteCount(strValue.c_str(), oOptions.m_nTileBudget))
        throw std::invalid_argument("tile budget must be a byte count with K, M or G");
      if (oOptions.m_nTileBudget == 0)
        throw std::invalid_argument("tile budget must be above 0");
    }
    else
      throw std::invalid_argument("unknown option " + strName);
  }
  if (oOptions.m_nSize < 16 || oOptions.m_dHoleDensity < 0.0 || oOptions.m_dHoleDensity > 0.9)
    throw std::invalid_argument("size must be at least 16 and hole density between 0 and 0.9");
  return oOptions;
}

// --- Terrain --------------------------------------------------------------------------------------

// Value noise: random heights on a lattice, blended with a smooth step. Hashing the lattice point
// keeps it free of tables and the same on every thread.
float LatticeValue(std::int32_t nX, std::int32_t nY, std::uint32_t nSeed)
{
  std::uint32_t h = std::uint32_t(nX) * 0x8da6b343u ^ std::uint32_t(nY) * 0xd8163841u ^ nSeed * 0xcb1ab31fu;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return float(h & 0xffffff) / float(0xffffff) * 2.0f - 1.0f;
}

float ValueNoise(float fX, float fY, std::uint32_t nSeed)
{
  const float fX0 = std::floor(fX), fY0 = std::floor(fY);
  const auto nX = std::int32_t(fX0), nY = std::int32_t(fY0);
  const auto fnSmooth = [](float t) { return t * t * (3.0f - 2.0f * t); };
  const float u = fnSmooth(fX - fX0), v = fnSmooth(fY - fY0);
  const float a = LatticeValue(nX, nY, nSeed), b = LatticeValue(nX + 1, nY, nSeed);
  const float c = LatticeValue(nX, nY + 1, nSeed), d = LatticeValue(nX + 1, nY + 1, nSeed);
  return (a + (b - a) * u) * (1.0f - v) + (c + (d - c) * u) * v;
}

// Hills and valleys over six octaves, a regional slope and a little measurement noise; heights in
// metres, roughly 200 to 1800.
void MakeTerrain(TBand& oBand, std::uint32_t nSeed)
{
  const unsigned int nSize = oBand.GetWidth();
  float* pData = oBand.GetRep().GetDataLocation();
  tbb::parallel_for(tbb::blocked_range<unsigned int>(0, nSize), [&](const tbb::blocked_range<unsigned int>& oRows) {
    std::mt19937 oRng(nSeed * 7919u + oRows.begin());
    std::normal_distribution<float> oNoise(0.0f, 0.4f);
    for (unsigned int y = oRows.begin(); y != oRows.end(); ++y)
      for (unsigned int x = 0; x < nSize; ++x)
      {
        float fHeight = 0.0f, fAmplitude = 1.0f, fScale = 6.0f / float(nSize);
        for (std::uint32_t nOctave = 0; nOctave < 6; ++nOctave)
        {
          fHeight += fAmplitude * ValueNoise(x * fScale, y * fScale, nSeed + nOctave);
          fAmplitude *= 0.45f;
          fScale *= 2.1f;
        }
        const float fSlope = 300.0f * float(x + y) / float(nSize);
        pData[std::size_t(y) * nSize + x] = 900.0f + 700.0f * fHeight + fSlope + oNoise(oRng);
      }
  });
}

// --- Holes ----------------------------------------------------------------------------------------

void Disc(std::vector<std::uint8_t>& vecHole, unsigned int nSize, int nCx, int nCy, int nRadius)
{
  for (int y = std::max(0, nCy - nRadius); y <= std::min(int(nSize) - 1, nCy + nRadius); ++y)
    for (int x = std::max(0, nCx - nRadius); x <= std::min(int(nSize) - 1, nCx + nRadius); ++x)
      if ((x - nCx) * (x - nCx) + (y - nCy) * (y - nCy) <= nRadius * nRadius)
        vecHole[std::size_t(y) * nSize + x] = 1;
}

// Small holes of radius 0 to 2 until about the asked share is covered, plus large discs of radius
// 15 to 90 (as found in real elevation data: lakes, shadows, failed correlation).
std::vector<std::uint8_t> MakeHoles(const SOptions& oOptions)
{
  const unsigned int nSize = oOptions.m_nSize;
  std::vector<std::uint8_t> vecHole(std::size_t(nSize) * nSize, 0);
  std::mt19937 oRng(oOptions.m_nSeed);
  std::uniform_int_distribution<int> oPos(0, int(nSize) - 1);
  const double dPixels = double(nSize) * nSize;
  const auto nSmall = std::uint64_t(oOptions.m_dHoleDensity * dPixels / 5.0); // a small hole is ~5 pixels on average
  for (std::uint64_t n = 0; n < nSmall; ++n)
    Disc(vecHole, nSize, oPos(oRng), oPos(oRng), int(oRng() % 3));
  const unsigned int nLarge = oOptions.m_nLargeHoles ? oOptions.m_nLargeHoles : unsigned(3e-6 * dPixels) + 1;
  for (unsigned int n = 0; n < nLarge; ++n)
    Disc(vecHole, nSize, oPos(oRng), oPos(oRng), 15 + int(oRng() % 76));
  return vecHole;
}

// Connected holes (8-neighbourhood), the way a person counts them on the picture.
std::uint64_t CountHoles(const std::vector<std::uint8_t>& vecHole, unsigned int nSize)
{
  std::vector<std::uint8_t> vecSeen(vecHole.size(), 0);
  std::vector<std::uint32_t> vecStack;
  std::uint64_t nHoles = 0;
  for (std::size_t i = 0; i < vecHole.size(); ++i)
  {
    if (!vecHole[i] || vecSeen[i])
      continue;
    ++nHoles;
    vecSeen[i] = 1;
    vecStack.assign(1, std::uint32_t(i));
    while (!vecStack.empty())
    {
      const std::uint32_t n = vecStack.back();
      vecStack.pop_back();
      const int x = int(n % nSize), y = int(n / nSize);
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx)
        {
          const int u = x + dx, v = y + dy;
          if (u < 0 || v < 0 || u >= int(nSize) || v >= int(nSize))
            continue;
          const std::size_t m = std::size_t(v) * nSize + u;
          if (vecHole[m] && !vecSeen[m])
          {
            vecSeen[m] = 1;
            vecStack.push_back(std::uint32_t(m));
          }
        }
    }
  }
  return nHoles;
}

// --- Pictures -------------------------------------------------------------------------------------

// Hypsometric tint (green lowland to brown to white) with hillshade from the north-west; no-data in
// magenta so that holes stand out.
std::array<std::uint8_t, 3> Colour(const float* pData, unsigned int nSize, unsigned int x, unsigned int y, float fLow,
                                   float fHigh)
{
  const float fHeight = pData[std::size_t(y) * nSize + x];
  if (fHeight == g_fNoData)
    return {255, 0, 255};
  static const float s_aafRamp[5][4] = {{0.0f, 60, 120, 60},    {0.3f, 150, 170, 90}, {0.6f, 160, 120, 70},
                                        {0.85f, 130, 110, 100}, {1.0f, 245, 245, 245}};
  const float t = std::clamp((fHeight - fLow) / (fHigh - fLow), 0.0f, 1.0f);
  int k = 0;
  while (k < 3 && t > s_aafRamp[k + 1][0])
    ++k;
  const float s = (t - s_aafRamp[k][0]) / (s_aafRamp[k + 1][0] - s_aafRamp[k][0]);
  const auto fnAt = [&](unsigned int u, unsigned int v) {
    const float f = pData[std::size_t(std::min(v, nSize - 1)) * nSize + std::min(u, nSize - 1)];
    return f == g_fNoData ? fHeight : f;
  };
  const float fDx = fnAt(x + 1, y) - fnAt(x ? x - 1 : 0, y);
  const float fDy = fnAt(x, y + 1) - fnAt(x, y ? y - 1 : 0);
  const float fShade = std::clamp(0.75f + 0.04f * (-fDx - fDy), 0.35f, 1.15f);
  std::array<std::uint8_t, 3> aRgb{};
  for (int c = 0; c < 3; ++c)
    aRgb[c] = std::uint8_t(std::clamp(
      (s_aafRamp[k][c + 1] + (s_aafRamp[k + 1][c + 1] - s_aafRamp[k][c + 1]) * s) * fShade, 0.0f, 255.0f));
  return aRgb;
}

void WritePng(const std::string& strPath, const TBand& oBand, unsigned int nX0, unsigned int nY0, unsigned int nWidth,
              float fLow, float fHigh)
{
  FILE* pFile = std::fopen(strPath.c_str(), "wb");
  if (!pFile)
    throw std::runtime_error("cannot write " + strPath);
  png_structp pPng = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop pInfo = png_create_info_struct(pPng);
  if (setjmp(png_jmpbuf(pPng)))
  {
    png_destroy_write_struct(&pPng, &pInfo);
    std::fclose(pFile);
    throw std::runtime_error("libpng failed on " + strPath);
  }
  png_init_io(pPng, pFile);
  png_set_compression_level(pPng, 1);
  png_set_filter(pPng, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
  png_set_IHDR(pPng, pInfo, nWidth, nWidth, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(pPng, pInfo);
  const float* pData = oBand.GetRep().GetDataLocation();
  std::vector<png_byte> vecRow(std::size_t(nWidth) * 3);
  for (unsigned int y = 0; y < nWidth; ++y)
  {
    for (unsigned int x = 0; x < nWidth; ++x)
    {
      const auto aRgb = Colour(pData, oBand.GetWidth(), nX0 + x, nY0 + y, fLow, fHigh);
      std::copy(aRgb.begin(), aRgb.end(), vecRow.begin() + 3 * std::ptrdiff_t(x));
    }
    png_write_row(pPng, vecRow.data());
  }
  png_write_end(pPng, nullptr);
  png_destroy_write_struct(&pPng, &pInfo);
  std::fclose(pFile);
}

// Read through the band's cached getters: the mean and variance pass also caches the extremes and the
// counts, so only the median costs a second (histogram) pass.
template <class TAnyBand>
void PrintStatistics(const char* szLabel, const TAnyBand& oBand)
{
  double dMean = 0.0, dVariance = 0.0;
  oBand.GetMeanVariance(dMean, dVariance);
  float fMin = 0.0f, fMax = 0.0f;
  oBand.GetMinMax(fMin, fMax);
  unsigned long nValid = 0, nInvalid = 0;
  oBand.GetCounts(nValid, nInvalid);
  std::cout << szLabel << ": " << nValid << " valid, " << nInvalid << " no-data; min " << fMin << ", max " << fMax
            << ", mean " << dMean << ", std. dev. " << std::sqrt(std::max(dVariance, 0.0)) << ", median "
            << oBand.GetMedian() << std::endl;
}

double Seconds(std::chrono::steady_clock::time_point oStart)
{
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - oStart).count();
}

// Copies between bands of the same size and any storage kind, on all processors.
template <class TTo, class TFrom>
void CopyPixels(TTo& oTo, const TFrom& oFrom)
{
  Copy2D(oFrom.GetBandIterators(oFrom), oTo.GetBandIterators(oTo), {}, SAllowParallelFor());
  if (oFrom.HasNoDataValue())
    oTo.SetNoDataValue(oFrom.GetNoDataValue());
}

// The pixels of a band that are still no-data, by a read-only walk. std::as_const asks for the const
// iterators, which keep the band's cached statistics; the same loop serves memory and tile bands.
template <class TBand>
std::uint64_t CountNoData(TBand& oBand)
{
  std::uint64_t nCount = 0;
  const auto [itBegin, itEnd] = std::as_const(oBand).GetBandIterators(oBand);
  for (auto itRow = itBegin; itRow.Y != itEnd.Y; ++itRow.Y)
    for (auto it = itRow; it.X != itEnd.X; ++it.X)
      nCount += *it == g_fNoData;
  return nCount;
}

void PrintTileCache()
{
  const STileCacheCounters oCounters = CTileCache::GetGlobal()->GetCounters();
  const auto fnMiB = [](std::uint64_t n) { return double(n) / 1048576.0; };
  std::cout << "Tile cache: budget " << fnMiB(oCounters.m_nBudgetBytes) << " MiB, " << oCounters.m_nTiles
            << " tiles, " << oCounters.m_nResidentTiles << " in memory (" << fnMiB(oCounters.m_nResidentBytes)
            << " MiB, at most " << fnMiB(oCounters.m_nPeakResidentBytes) << " MiB), " << oCounters.m_nSpilledTiles
            << " on disk\n"
            << "  written: " << oCounters.m_nRecordsWritten << " records, " << fnMiB(oCounters.m_nBytesWritten)
            << " MiB; read: " << oCounters.m_nRecordsRead << " records, " << fnMiB(oCounters.m_nBytesRead)
            << " MiB; spill file " << fnMiB(oCounters.m_nFileBytes) << " MiB" << std::endl;
}

int Run(const SOptions& oOptions)
{
  const unsigned int nSize = oOptions.m_nSize;
  std::cout << "Terrain " << nSize << " x " << nSize << " (float), seed " << oOptions.m_nSeed << std::endl;
  TBand oTerrain(nSize, nSize), oSrc(nSize, nSize), oDest(nSize, nSize);
  MakeTerrain(oTerrain, oOptions.m_nSeed);

  const std::vector<std::uint8_t> vecHole = MakeHoles(oOptions);
  const float* pTerrain = oTerrain.GetRep().GetDataLocation();
  float* pSrc = oSrc.GetRep().GetDataLocation();
  std::uint64_t nHolePixels = 0;
  for (std::size_t i = 0; i < vecHole.size(); ++i)
  {
    pSrc[i] = vecHole[i] ? g_fNoData : pTerrain[i];
    nHolePixels += vecHole[i];
  }
  oSrc.SetNoDataValue(g_fNoData);
  oDest.SetNoDataValue(g_fNoData); // what the unfilled pixels get
  oDest.Clear(g_fNoData);          // memory touched before the clock starts
  const std::uint64_t nHoles = CountHoles(vecHole, nSize);
  std::cout << "Holes: " << nHoles << " (" << nHolePixels << " pixels, "
            << 100.0 * double(nHolePixels) / (double(nSize) * nSize) << "% of the band)" << std::endl;

  // The filter needs an upper bound of the hole pixels: here it is known exactly.
  CLinearFillHoleFilter<SDefaultLineData> oFilter(unsigned(nHolePixels), oOptions.m_nMinDirections,
                                                  oOptions.m_fMaxDistance, false);
  using namespace Orl::Harnel::Progress;
  oFilter.SetLogger(boost::make_shared<CLogger>(boost::make_shared<CConsoleProgressSink>(std::cout)));
  double dSeconds = 0.0;
  if (oOptions.m_nTileBudget == 0)
  {
    PrintStatistics("Before", oSrc);
    const auto oStart = std::chrono::steady_clock::now();
    oFilter.Apply(oDest, oSrc, oSrc); // without a mask the source's no-data pixels are the holes
    dSeconds = Seconds(oStart);
  }
  else
  {
    // The same on tile bands, made and filled under the small budget, so that they spill from the start.
    const CScopedTileCacheBudget oBudget(oOptions.m_nTileBudget);
    CBand<float, STileTag> oTileSrc(nSize, nSize), oTileDest(nSize, nSize);
    CopyPixels(oTileSrc, oSrc);
    oTileDest.SetNoDataValue(g_fNoData);
    oTileDest.Clear(g_fNoData);
    std::cout << "On tile bands: " << 2.0 * double(nSize) * nSize * sizeof(float) / 1048576.0
              << " MiB of source and destination" << std::endl;
    PrintStatistics("Before", oTileSrc);
    PrintTileCache();
    const auto oStart = std::chrono::steady_clock::now();
    oFilter.Apply(oTileDest, oTileSrc, oTileSrc);
    dSeconds = Seconds(oStart);
    PrintTileCache();
    std::cout << "Unfilled on the tile band: " << CountNoData(oTileDest) << " pixels" << std::endl;
    CopyPixels(oDest, oTileDest);
  }

  const float* pDest = oDest.GetRep().GetDataLocation();
  std::uint64_t nFilled = 0;
  double dSquares = 0.0, dMax = 0.0;
  for (std::size_t i = 0; i < vecHole.size(); ++i)
    if (vecHole[i] && pDest[i] != g_fNoData)
    {
      ++nFilled;
      const double dError = double(pDest[i]) - pTerrain[i];
      dSquares += dError * dError;
      dMax = std::max(dMax, std::abs(dError));
    }
  std::cout << "Filled: " << nFilled << " of " << nHolePixels << " hole pixels ("
            << (nHolePixels ? 100.0 * double(nFilled) / double(nHolePixels) : 100.0) << "%), reach "
            << oOptions.m_fMaxDistance << " pixels, at least " << oOptions.m_nMinDirections << " directions\n"
            << "Time: " << dSeconds * 1e3 << " ms (" << dSeconds * 1e9 / (double(nSize) * nSize) << " ns per pixel)\n"
            << "Error of the filled pixels against the terrain: RMSE "
            << (nFilled ? std::sqrt(dSquares / double(nFilled)) : 0.0) << " m, max " << dMax << " m" << std::endl;
  PrintStatistics("After", oDest);

  // Pictures: the whole band, and a detail around the largest hole's neighbourhood (the centre).
  ::mkdir(oOptions.m_strOut.c_str(), 0777);
  const auto oMinMax = std::minmax_element(pTerrain, pTerrain + vecHole.size());
  const float fLow = *oMinMax.first, fHigh = *oMinMax.second;
  const unsigned int nDetail = std::min(512u, nSize);
  unsigned int nBestX = 0, nBestY = 0, nBest = 0;
  for (unsigned int y = 0; y + nDetail <= nSize; y += nDetail / 2)
    for (unsigned int x = 0; x + nDetail <= nSize; x += nDetail / 2)
    {
      unsigned int nCount = 0;
      for (unsigned int v = y; v < y + nDetail; v += 4)
        for (unsigned int u = x; u < x + nDetail; u += 4)
          nCount += vecHole[std::size_t(v) * nSize + u];
      if (nCount > nBest)
      {
        nBest = nCount;
        nBestX = x;
        nBestY = y;
      }
    }
  const auto oPngStart = std::chrono::steady_clock::now();
  const std::string strOut = oOptions.m_strOut + "/";
  WritePng(strOut + "before.png", oSrc, 0, 0, nSize, fLow, fHigh);
  WritePng(strOut + "after.png", oDest, 0, 0, nSize, fLow, fHigh);
  WritePng(strOut + "before-detail.png", oSrc, nBestX, nBestY, nDetail, fLow, fHigh);
  WritePng(strOut + "after-detail.png", oDest, nBestX, nBestY, nDetail, fLow, fHigh);
  std::cout << "Pictures (holes and unfilled pixels in magenta): " << strOut
            << "{before,after}.png and {before,after}-detail.png, a " << nDetail << " x " << nDetail
            << " detail at (" << nBestX << ", " << nBestY << ") (" << Seconds(oPngStart) << " s)" << std::endl;
  return 0;
}

} // namespace

int main(int argc, char** argv)
{
  try
  {
    return Run(ParseOptions(argc, argv));
  }
  catch (const std::exception& oError)
  {
    std::cerr << "FillHoleDemo: " << oError.what() << std::endl;
    Usage();
    return 2;
  }
}
