#pragma once

// The subcommands of orl: the table's row type, the options every subcommand shares, and the run of
// a band filter (read IN, filter, write OUT) that the filter subcommands build on.
//
// Adding a filter subcommand: a Define function that declares its options with AddFilterArgs plus
// its own, and returns a runner calling RunBandFilter with a generic lambda that applies the filter
// to (oDest, oSrc, oRun); then one row in the table in main.cpp. RunBandFilter picks the pixel type
// and the storage, and takes care of progress, no-data, georeferencing and the atomic output.

#include "Raster.h"

#include "Band/TileCache.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <functional>
#include <limits>

namespace Orl { namespace Tools {

struct SGlobalOptions
{
  bool m_bQuiet = false;
  std::string m_strMemory; // empty: the tile cache's default budget
};

using TRunner = std::function<void(const SGlobalOptions&)>;

// A row of the subcommand table: its name, a one-line summary for --help, and the function that
// declares its options on its CLI11 app and returns what runs it once they are parsed.
struct SCommand
{
  const char* m_szName;
  const char* m_szSummary;
  TRunner (*m_fnDefine)(CLI::App& oApp);
};

TRunner DefineFill(CLI::App& oApp);
TRunner DefineStats(CLI::App& oApp);

// The memory budget: --memory, or the tile cache's default (a quarter of the usable memory).
std::uint64_t GetMemoryBudget(const SGlobalOptions& oGlobal);
// Whether bands of nBytes in all exceed the budget; if so, the tile cache is set up with it.
bool UseTileBands(std::uint64_t nBytes, std::uint64_t nBudget);
// A logger drawing a bar on stderr; empty when quiet or when stderr is not a terminal.
TLoggerPtr MakeLogger(const SGlobalOptions& oGlobal);
// Declares IN, OUT, -b, -of, -co and --overwrite.
struct SFilterArgs
{
  std::string m_strIn;
  std::string m_strOut;
  int m_nBand = 1;
  SOutputOptions m_oOutput;
};
void AddFilterArgs(CLI::App& oApp, SFilterArgs& oArgs);

// A file's no-data value as a pixel, when the type can hold it exactly.
template <class TPixel>
bool ToPixel(double dValue, TPixel& tPixel)
{
  if (std::is_floating_point<TPixel>::value || std::isnan(dValue))
  {
    tPixel = TPixel(dValue);
    return std::is_floating_point<TPixel>::value;
  }
  if (dValue < double(std::numeric_limits<TPixel>::lowest()) || dValue > double(std::numeric_limits<TPixel>::max()) ||
      double(TPixel(dValue)) != dValue)
    return false;
  tPixel = TPixel(dValue);
  return true;
}

// Reads a band of the input as TPixel onto tag TTag with its no-data value; nInvalid gets the
// number of pixels that are no-data, NaN or infinite.
template <class TPixel, class TTag>
Ostrel::Band::CBand<TPixel, TTag> ReadInput(const CInput& oInput, const TLoggerPtr& pLogger, std::uint64_t& nInvalid)
{
  Ostrel::Band::CBand<TPixel, TTag> oBand(oInput.m_nWidth, oInput.m_nHeight);
  TPixel tNoData = TPixel();
  const bool bNoData = oInput.m_bHasNoData && ToPixel(oInput.m_dNoData, tNoData);
  if (oInput.m_bHasNoData && !bNoData)
    Note(Text("%1%: the no-data value %2% does not fit the pixel type and is ignored", oInput.m_strPath,
              oInput.m_dNoData));
  nInvalid = 0;
  constexpr bool BFloating = std::is_floating_point<TPixel>::value;
  ReadBand(oInput, oBand, pLogger, [&](const TPixel* pData, std::size_t nPixels) {
    if (!bNoData && !BFloating)
      return;
    // Branch-free, so that it vectorises: a pixel is invalid when it equals the no-data value, or is
    // NaN or infinite (no comparison holds for NaN).
    const TPixel tCompare = bNoData ? tNoData : TPixel();
    std::uint32_t nCount = 0; // a strip holds far fewer than 2^32 pixels
    for (std::size_t i = 0; i < nPixels; ++i)
    {
      const TPixel t = pData[i];
      if constexpr (BFloating)
        nCount += std::uint32_t((bNoData & (t == tCompare)) | !(std::abs(t) <= std::numeric_limits<TPixel>::max()));
      else
        nCount += std::uint32_t(t == tCompare);
    }
    nInvalid += nCount;
  });
  if (bNoData)
    oBand.SetNoDataValue(tNoData);
  return oBand;
}

template <class TPixel>
struct SSamePixel
{
  using type = TPixel;
};

// What a filter's lambda gets besides its bands.
struct SFilterRun
{
  const CInput& m_oInput;
  std::uint64_t m_nInvalid; // source pixels that are no-data, NaN or infinite
  TLoggerPtr m_pLogger;
};

namespace Detail {

template <class TPixel, class TDestPixel, class TTag, class TApply>
void RunBandFilterOn(const CInput& oInput, COutput& oOutput, const SGlobalOptions& oGlobal, const std::string& strName,
                     TApply& fnApply)
{
  using namespace Harnel::Progress;
  const TLoggerPtr pLogger = MakeLogger(oGlobal);
  if (pLogger) // reading 1, filtering 2, writing 1
    pLogger->Push("orl " + strName, 1.0, 4.0, 0.0, false, eLayerOperation, eLayerPublic, std::string());
  std::uint64_t nInvalid = 0;
  const auto oSrc = ReadInput<TPixel, TTag>(oInput, pLogger, nInvalid);
  Ostrel::Band::CBand<TDestPixel, TTag> oDest(oInput.m_nWidth, oInput.m_nHeight);
  if (pLogger)
    pLogger->Push(strName, 2.0, 2.0, 0.0, false, eLayerOperation, eLayerPublic, std::string());
  fnApply(oDest, oSrc, SFilterRun{oInput, nInvalid, pLogger});
  if (pLogger)
    pLogger->Pop();
  const GDALRasterBandH hBand = oOutput.Create(oInput, SGdalType<TDestPixel>::ms_eType, oDest.HasNoDataValue(),
                                               double(oDest.GetNoDataValue()));
  WriteBand(oDest, hBand, oInput.m_nStripRows, oOutput.GetPath(), pLogger);
  if (pLogger)
    pLogger->Pop();
  oOutput.Commit();
}

} // namespace Detail

// Reads IN's band, calls fnApply(oDest, oSrc, const SFilterRun&) on bands of the input's size
// (memory bands when source and destination fit the memory budget, tile bands under it otherwise),
// and writes the destination with its no-data value to OUT. TDestOf<TPixel>::type is the
// destination's pixel type. The output is checked before the input is read.
template <template <class> class TDestOf = SSamePixel, class TApply>
void RunBandFilter(const std::string& strName, const SFilterArgs& oArgs, const SGlobalOptions& oGlobal, TApply fnApply)
{
  COutput oOutput(oArgs.m_strOut, oArgs.m_oOutput);
  const CInput oInput(oArgs.m_strIn, oArgs.m_nBand);
  const std::uint64_t nBudget = GetMemoryBudget(oGlobal);
  DispatchPixelType(oInput.m_eWorkingType, [&](auto tPixel) {
    using TPixel = decltype(tPixel);
    using TDestPixel = typename TDestOf<TPixel>::type;
    // Source, destination, and room for a mask and the filter's own lists.
    if (UseTileBands(oInput.GetPixels() * (2 * sizeof(TPixel) + 2 * sizeof(TDestPixel)), nBudget))
      Detail::RunBandFilterOn<TPixel, TDestPixel, Ostrel::Band::STileTag>(oInput, oOutput, oGlobal, strName, fnApply);
    else
      Detail::RunBandFilterOn<TPixel, TDestPixel, Ostrel::Band::SMemoryTag>(oInput, oOutput, oGlobal, strName, fnApply);
  });
}

}} // namespace Orl::Tools
