#pragma once

// The subcommands of orl: the table's row type, the options every subcommand shares, and the run of
// a band filter (read IN, filter, write OUT) that the filter subcommands build on.
//
// Adding a filter subcommand: a Define function that declares its options with AddBandsArgs plus
// its own, and returns a runner calling RunFilter (N bands in, M out) or RunBandFilter (one in, one
// out) with a generic lambda that applies the filter; then one row in the table in main.cpp. The
// runners pick the pixel type and the storage, and take care of progress, no-data, georeferencing
// and the atomic output.

#include "Raster.h"

#include "Band/TileCache.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

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
TRunner DefineDistance(CLI::App& oApp);
TRunner DefineThin(CLI::App& oApp);
TRunner DefineReconstruct(CLI::App& oApp);
TRunner DefineEqualize(CLI::App& oApp);
TRunner DefineResample(CLI::App& oApp);
TRunner DefineFft(CLI::App& oApp);
TRunner DefineGradient(CLI::App& oApp);
TRunner DefineMask(CLI::App& oApp);
TRunner DefineCalc(CLI::App& oApp);
TRunner DefineConvert(CLI::App& oApp);
TRunner DefineColor(CLI::App& oApp);
TRunner DefineMedoid(CLI::App& oApp);
TRunner DefineSelect(CLI::App& oApp);
TRunner DefineMergeMasks(CLI::App& oApp);

// The memory budget: --memory, or the tile cache's default (a quarter of the usable memory).
std::uint64_t GetMemoryBudget(const SGlobalOptions& oGlobal);
// Whether bands of nBytes in all exceed the budget; if so, the tile cache is set up with it.
bool UseTileBands(std::uint64_t nBytes, std::uint64_t nBudget);
// A logger drawing a bar on stderr; empty when quiet or when stderr is not a terminal.
TLoggerPtr MakeLogger(const SGlobalOptions& oGlobal);
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
// number of pixels that are no-data, NaN or infinite (0 unless BCount).
template <class TPixel, class TTag, bool BCount = true>
Ostrel::Band::CBand<TPixel, TTag> ReadInput(const CInput& oInput, const TLoggerPtr& pLogger, std::uint64_t& nInvalid)
{
  Ostrel::Band::CBand<TPixel, TTag> oBand(oInput.m_nWidth, oInput.m_nHeight);
  TPixel tNoData = TPixel();
  const bool bNoData = oInput.m_bHasNoData && ToPixel(oInput.m_dNoData, tNoData);
  if (oInput.m_bHasNoData && !bNoData)
    Note(Text("%1%: the no-data value %2% does not fit the pixel type and is ignored", oInput.m_strPath,
              oInput.m_dNoData));
  std::atomic<std::uint64_t> nAtomicInvalid(0);
  constexpr bool BFloating = std::is_floating_point<TPixel>::value;
  ReadBand(oInput, oBand, pLogger, [&](const TPixel* pData, std::size_t nPixels) {
    if (!BCount || (!bNoData && !BFloating))
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
    nAtomicInvalid += nCount;
  });
  nInvalid = nAtomicInvalid;
  if (bNoData)
    oBand.SetNoDataValue(tNoData);
  return oBand;
}

template <class TPixel>
struct SSamePixel
{
  using type = TPixel;
};

// SAs<T>::template SOf: every pixel type to T.
template <class T>
struct SAs
{
  template <class>
  struct SOf
  {
    using type = T;
  };
};

// What a filter's lambda gets besides its bands.
struct SFilterRun
{
  const CInput& m_oInput; // the first input
  std::uint64_t m_nInvalid; // source pixels that are no-data, NaN or infinite, over all inputs
  TLoggerPtr m_pLogger;
};

// The bands a filter subcommand reads and writes: IN... OUT on the command line, -b, and the output.
struct SBandsArgs
{
  std::vector<std::string> m_vecPaths; // the inputs, then OUT
  std::vector<int> m_vecBands;
  SOutputOptions m_oOutput;
};
// Declares "strInputs OUT" as positionals (nMinPaths to nMaxPaths in all, 0: no limit), -b, -of,
// -co and --overwrite.
void AddBandsArgs(CLI::App& oApp, SBandsArgs& oArgs, const std::string& strInputs, std::size_t nMinPaths,
                  std::size_t nMaxPaths);

// Applies oFilter to the bands with the run's logger.
template <class TFilter, class... TBands>
void ApplyWith(TFilter&& oFilter, const SFilterRun& oRun, TBands&&... oBands)
{
  oFilter.SetLogger(oRun.m_pLogger);
  oFilter.Apply(std::forward<TBands>(oBands)...);
}

// The shape of a filter's run. m_nInputs bands are read (0: any number from one): with one input
// file and no -b, its bands 1 to m_nInputs (all of them for 0); with several files, band -b (1 by
// default) of each; with one file and a list -b, those bands. m_nOutputs bands are written, of
// m_fnSize(input width, input height) pixels (the input's size when empty).
struct SFilterShape
{
  unsigned int m_nInputs = 1;
  unsigned int m_nOutputs = 1;
  std::function<std::pair<unsigned int, unsigned int>(unsigned int, unsigned int)> m_fnSize;
  bool m_bGeoreferenced = true; // the output keeps the input's georeferencing (scaled to its size)
  std::vector<std::string> m_vecBandNames; // the output bands' descriptions, else the inputs'
};

// Opens the inputs that oArgs and oShape name; throws on a wrong count or extent.
std::vector<std::unique_ptr<CInput>> OpenInputs(const SBandsArgs& oArgs, const SFilterShape& oShape,
                                                const std::string& strName);
// Notes a conversion of the input's pixels to eType for the filter strName.
void NoteConversion(const CInput& oInput, GDALDataType eType, const std::string& strName);

namespace Detail {

template <class TWork, class TDest, class TTag, class TApply>
void RunFilterOn(const std::vector<std::unique_ptr<CInput>>& vecInputs, COutput& oOutput, const SFilterShape& oShape,
                 std::pair<unsigned int, unsigned int> oSize, const SGlobalOptions& oGlobal, const std::string& strName,
                 TApply& fnApply)
{
  using namespace Harnel::Progress;
  using namespace Ostrel::Band;
  const TLoggerPtr pLogger = MakeLogger(oGlobal);
  const double dInputs = double(vecInputs.size());
  if (pLogger) // reading 1 per input, filtering 2, writing 1
    pLogger->Push("orl " + strName, 1.0, dInputs + 3.0, 0.0, false, eLayerOperation, eLayerPublic, std::string());
  std::uint64_t nInvalid = 0;
  std::vector<CBand<TWork, TTag>> vecSrc;
  vecSrc.reserve(vecInputs.size());
  for (const auto& pInput : vecInputs)
  {
    std::uint64_t nBandInvalid = 0;
    vecSrc.push_back(ReadInput<TWork, TTag>(*pInput, pLogger, nBandInvalid));
    nInvalid += nBandInvalid;
  }
  std::vector<CBand<TDest, TTag>> vecDest;
  vecDest.reserve(oShape.m_nOutputs);
  for (unsigned int i = 0; i < oShape.m_nOutputs; ++i)
  {
    vecDest.emplace_back(oSize.first, oSize.second);
    // A result of the source's type carries its no-data value; filters that make no-data set theirs.
    if (std::is_same<TWork, TDest>::value && vecSrc[0].HasNoDataValue())
      vecDest.back().SetNoDataValue(TDest(vecSrc[0].GetNoDataValue()));
  }
  if (pLogger)
    pLogger->Push(strName, 2.0, 2.0, 0.0, false, eLayerOperation, eLayerPublic, std::string());
  fnApply(vecDest, vecSrc, SFilterRun{*vecInputs[0], nInvalid, pLogger});
  if (pLogger)
    pLogger->Pop();
  vecSrc.clear();
  const GDALDatasetH hDataset = oOutput.Create(*vecInputs[0], oShape.m_nOutputs, SGdalType<TDest>::ms_eType,
                                               oSize.first, oSize.second, oShape.m_bGeoreferenced);
  for (unsigned int i = 0; i < oShape.m_nOutputs; ++i)
  {
    const GDALRasterBandH hBand = GDALGetRasterBand(hDataset, int(i) + 1);
    const CInput& oLike = *vecInputs[std::min<std::size_t>(i, vecInputs.size() - 1)];
    GDALSetDescription(hBand, i < oShape.m_vecBandNames.size() ? oShape.m_vecBandNames[i].c_str()
                                                               : GDALGetDescription(oLike.m_hBand));
    if (vecDest[i].HasNoDataValue())
      GDALSetRasterNoDataValue(hBand, double(vecDest[i].GetNoDataValue()));
    WriteBand(vecDest[i], hBand, vecInputs[0]->m_nStripRows, oOutput.GetPath(), pLogger);
  }
  if (pLogger)
    pLogger->Pop();
  oOutput.Commit();
}

} // namespace Detail

// Reads the input bands that oArgs and oShape name, calls
//   fnApply(std::vector<CBand<TDest, Tag>>& vecDest, std::vector<CBand<TWork, Tag>>& vecSrc, const SFilterRun&)
// and writes vecDest, with its no-data values, as the bands of OUT. TWork is TWorkOf<the first
// input's pixel type>::type (the other inputs are read as that type too, with a note when it is not
// theirs), TDest is TDestOf<TWork>::type. Memory bands when the bands fit the memory budget, tile
// bands under it otherwise. Arguments and the output are checked before the inputs are read.
template <template <class> class TWorkOf = SSamePixel, template <class> class TDestOf = SSamePixel, class TApply>
void RunFilter(const std::string& strName, const SBandsArgs& oArgs, const SFilterShape& oShape,
               const SGlobalOptions& oGlobal, TApply fnApply)
{
  COutput oOutput(oArgs.m_vecPaths.back(), oArgs.m_oOutput);
  const auto vecInputs = OpenInputs(oArgs, oShape, strName);
  const CInput& oFirst = *vecInputs[0];
  const auto oSize = oShape.m_fnSize ? oShape.m_fnSize(oFirst.m_nWidth, oFirst.m_nHeight)
                                     : std::make_pair(oFirst.m_nWidth, oFirst.m_nHeight);
  if (oSize.first == 0 || oSize.second == 0)
    throw CToolError(Text("%1%: the output would have no pixels", strName), 2);
  const std::uint64_t nBudget = GetMemoryBudget(oGlobal);
  DispatchPixelType(oFirst.m_eWorkingType, [&](auto tPixel) {
    using TWork = typename TWorkOf<decltype(tPixel)>::type;
    using TDest = typename TDestOf<TWork>::type;
    for (const auto& pInput : vecInputs)
      NoteConversion(*pInput, SGdalType<TWork>::ms_eType, strName);
    // The bands, and as much again for the filter's own buffers.
    const std::uint64_t nBytes = 2 * (vecInputs.size() * oFirst.GetPixels() * sizeof(TWork) +
                                      oShape.m_nOutputs * std::uint64_t(oSize.first) * oSize.second * sizeof(TDest));
    if (UseTileBands(nBytes, nBudget))
      Detail::RunFilterOn<TWork, TDest, Ostrel::Band::STileTag>(vecInputs, oOutput, oShape, oSize, oGlobal, strName, fnApply);
    else
      Detail::RunFilterOn<TWork, TDest, Ostrel::Band::SMemoryTag>(vecInputs, oOutput, oShape, oSize, oGlobal, strName, fnApply);
  });
}

// RunFilter for one band in and one out of the input's size, with fnApply(oDest, oSrc, oRun).
template <template <class> class TWorkOf = SSamePixel, template <class> class TDestOf = SSamePixel, class TApply>
void RunBandFilter(const std::string& strName, const SBandsArgs& oArgs, const SGlobalOptions& oGlobal, TApply fnApply)
{
  RunFilter<TWorkOf, TDestOf>(strName, oArgs, SFilterShape(), oGlobal,
                              [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) { fnApply(vecDest[0], vecSrc[0], oRun); });
}

}} // namespace Orl::Tools
