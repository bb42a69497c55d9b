// orl: the library's filters and statistics on raster files, read and written through GDAL.
//
// The tool parses, converts and reports; the pixels are the library's. Each subcommand is one row
// of g_aCommands (see Commands.h for adding one).

#include "Commands.h"

#include "Foundation/ConsoleProgressSink.h"

#include <boost/make_shared.hpp>
#include <cpl_conv.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <unistd.h>

namespace Orl { namespace Tools {

namespace {

const SCommand g_aCommands[] = {
  {"fill", "Fill no-data holes by inverse-distance interpolation along rows, columns and diagonals", &DefineFill},
  {"stats", "Counts, extremes, mean, standard deviation, median, mode, percentiles and histogram of a band",
   &DefineStats},
  {"distance", "Distance of each pixel to the nearest zero pixel: exact (Meijster) or chamfer", &DefineDistance},
  {"thin", "Skeleton of the non-zero pixels: Zhang-Suen, Guo-Hall A1 or A2, or simple thinning", &DefineThin},
  {"reconstruct", "Grayscale reconstruction by dilation of a marker under a mask", &DefineReconstruct},
  {"equalize", "Histogram equalization", &DefineEqualize},
  {"resample", "Resample by a factor or to a size: nearest, bilinear, cubic, lanczos3 or average", &DefineResample},
  {"fft", "2-D Fourier transform into a real and an imaginary band, or back", &DefineFft},
  {"gradient", "Sobel gradient orientation in [0, pi) radians, averaged over cells", &DefineGradient},
  {"mask", "Set to no-data the pixels that a mask blanks", &DefineMask},
  {"calc", "Pixel arithmetic: one band and options, two bands, or a band and a constant", &DefineCalc},
  {"convert", "Copy a band into another pixel type, rounded and saturated", &DefineConvert},
  {"color", "Colour space conversion of three bands (RGB, HSV, HSL, YCbCr, Lab, gray)", &DefineColor},
  {"medoid", "Per pixel, the medoid of a stack of bands", &DefineMedoid},
  {"select", "Per pixel, the band of a stack that an index band names", &DefineSelect},
  {"merge-masks", "Weighted majority vote of mask bands", &DefineMergeMasks},
};

} // namespace

std::uint64_t GetMemoryBudget(const SGlobalOptions& oGlobal)
{
  return oGlobal.m_strMemory.empty() ? Ostrel::Band::CTileCache::GetDefaultMemoryBudget()
                                     : ParseSize(oGlobal.m_strMemory);
}

bool UseTileBands(std::uint64_t nBytes, std::uint64_t nBudget)
{
  if (nBytes <= nBudget)
    return false;
  const auto pCache = Ostrel::Band::CTileCache::GetGlobal();
  pCache->SetMemoryBudget(nBudget);
  const auto fnKiB = [](std::uint64_t n) { return (n + 1023) >> 10; };
  Note(Text("the bands take %1% KiB, more than the memory budget of %2% KiB: they are held in tiles that spill to %3%",
            fnKiB(nBytes), fnKiB(nBudget), pCache->GetSpillDirectory()));
  return true;
}

TLoggerPtr MakeLogger(const SGlobalOptions& oGlobal)
{
  using namespace Harnel::Progress;
  if (oGlobal.m_bQuiet || !::isatty(STDERR_FILENO))
    return TLoggerPtr();
  return boost::make_shared<CLogger>(boost::make_shared<CConsoleProgressSink>(std::cerr), eVerbosityNotice);
}

void AddBandsArgs(CLI::App& oApp, SBandsArgs& oArgs, const std::string& strInputs, std::size_t nMinPaths,
                  std::size_t nMaxPaths)
{
  oApp.add_option(strInputs + " OUT", oArgs.m_vecPaths,
                  "Input rasters (any format GDAL reads), then the output raster, written beside under a "
                  "temporary name and renamed when done")
    ->required()
    ->expected(int(nMinPaths), nMaxPaths ? int(nMaxPaths) : -1);
  oApp.add_option("-b,--band", oArgs.m_vecBands, "Band numbers, from 1, e.g. 1 or 3,2,1")->delimiter(',')->allow_extra_args(false);
  oApp.add_option("--of", oArgs.m_oOutput.m_strFormat, "Output format, a GDAL driver name (also -of)")->capture_default_str();
  oApp.add_option("--co", oArgs.m_oOutput.m_vecCreationOptions,
                  "Creation option NAME=VALUE (also -co), repeatable; GTiff defaults: TILED=YES COMPRESS=ZSTD ZSTD_LEVEL=1 "
                  "BIGTIFF=IF_SAFER NUM_THREADS=ALL_CPUS")
    ->allow_extra_args(false);
  oApp.add_flag("--overwrite", oArgs.m_oOutput.m_bOverwrite, "Replace OUT if it exists (only once the run succeeds)");
}

std::vector<std::unique_ptr<CInput>> OpenInputs(const SBandsArgs& oArgs, const SFilterShape& oShape,
                                                const std::string& strName)
{
  const std::vector<std::string> vecFiles(oArgs.m_vecPaths.begin(), oArgs.m_vecPaths.end() - 1);
  std::vector<std::pair<std::string, int>> vecBands;
  if (vecFiles.size() == 1 && oArgs.m_vecBands.size() != 1)
  {
    std::vector<int> vecNumbers = oArgs.m_vecBands;
    if (vecNumbers.empty())
    {
      // The first band's opening checks the file.
      const unsigned int nBands = unsigned(GDALGetRasterCount(CInput(vecFiles[0], 1).m_hDataset));
      if (nBands < oShape.m_nInputs)
        throw CToolError(Text("%1% takes %2% input bands: %3% has %4%", strName, oShape.m_nInputs, vecFiles[0], nBands));
      const unsigned int nCount = oShape.m_nInputs ? oShape.m_nInputs : nBands;
      for (unsigned int i = 1; i <= nCount; ++i)
        vecNumbers.push_back(int(i));
    }
    for (const int nBand : vecNumbers)
      vecBands.emplace_back(vecFiles[0], nBand);
  }
  else if (oArgs.m_vecBands.size() <= 1)
    for (const std::string& strFile : vecFiles)
      vecBands.emplace_back(strFile, oArgs.m_vecBands.empty() ? 1 : oArgs.m_vecBands[0]);
  else
    throw CToolError(Text("-b takes one band for several input files, or a list of bands of one file"), 2);
  if (oShape.m_nInputs != 0 && vecBands.size() != oShape.m_nInputs)
    throw CToolError(Text("%1% takes %2% input band(s), not %3%", strName, oShape.m_nInputs, vecBands.size()), 2);
  std::vector<std::unique_ptr<CInput>> vecInputs;
  for (const auto& oBand : vecBands)
  {
    vecInputs.push_back(std::make_unique<CInput>(oBand.first, oBand.second));
    const CInput& oInput = *vecInputs.back();
    if (oInput.m_nWidth != vecInputs[0]->m_nWidth || oInput.m_nHeight != vecInputs[0]->m_nHeight)
      throw CToolError(Text("%1% is %2% x %3% pixels, %4% %5% x %6%", oInput.m_strPath, oInput.m_nWidth,
                            oInput.m_nHeight, vecInputs[0]->m_strPath, vecInputs[0]->m_nWidth, vecInputs[0]->m_nHeight));
  }
  return vecInputs;
}

void NoteConversion(const CInput& oInput, GDALDataType eType, const std::string& strName)
{
  if (oInput.m_eWorkingType != eType)
    Note(Text("%1% band %2%: %3% pixels are read as %4% for %5%", oInput.m_strPath, oInput.m_nBand,
              GDALGetDataTypeName(oInput.m_eWorkingType), GDALGetDataTypeName(eType), strName));
}

}} // namespace Orl::Tools

int main(int argc, char** argv)
{
  using namespace Orl::Tools;
  CLI::App oApp("Raster filters and statistics on files GDAL reads, with the Orl library", "orl");
  oApp.set_version_flag("--version", std::string("orl ") + ORL_VERSION + " (GDAL " + GDALVersionInfo("RELEASE_NAME") + ")");
  oApp.require_subcommand(1);
  oApp.fallthrough();
  SGlobalOptions oGlobal;
  oApp.add_flag("-q,--quiet", oGlobal.m_bQuiet, "No progress bar and no notes");
  oApp.add_option("--memory", oGlobal.m_strMemory,
                  "Memory budget for the bands, e.g. 256M or 4G (default: a quarter of the memory). Larger "
                  "rasters are held in tiles that spill to disk; the result is the same")
    ->type_name("SIZE");
  std::vector<std::pair<CLI::App*, TRunner>> vecCommands;
  for (const SCommand& oCommand : g_aCommands)
  {
    CLI::App* pSub = oApp.add_subcommand(oCommand.m_szName, oCommand.m_szSummary);
    pSub->footer(Text("Also -q (no progress bar, no notes) and --memory SIZE (see orl --help)."));
    vecCommands.emplace_back(pSub, oCommand.m_fnDefine(*pSub));
  }
  // GDAL's tools spell these with one dash, which CLI11 takes for a cluster of short options.
  std::vector<std::string> vecArgs(argv + 1, argv + argc);
  for (std::string& strArg : vecArgs)
    if (strArg == "-of" || strArg == "-co" || strArg == "-ot")
      strArg.insert(0, "-");
  std::reverse(vecArgs.begin(), vecArgs.end());
  try
  {
    oApp.parse(vecArgs);
  }
  catch (const CLI::ParseError& oError)
  {
    if (oError.get_exit_code() == 0)
      return oApp.exit(oError);
    std::cerr << "orl: " << Text("error") << ": " << oError.what() << " (" << Text("see orl --help") << ")" << std::endl;
    return 2;
  }

  // Writes past a file size limit fail with an error instead of ending the process.
  std::signal(SIGXFSZ, SIG_IGN);
  InstallGdalErrorHandler(oGlobal.m_bQuiet);
  GDALAllRegister();
  if (!CPLGetConfigOption("GDAL_NUM_THREADS", nullptr))
    CPLSetConfigOption("GDAL_NUM_THREADS", "ALL_CPUS");
  // Uncompressed GeoTIFF strips are read straight into the band, not through GDAL's block cache.
  if (!CPLGetConfigOption("GTIFF_DIRECT_IO", nullptr))
    CPLSetConfigOption("GTIFF_DIRECT_IO", "YES");
  // Whole strips go through GDAL once: its block cache only needs to hold the blocks of one strip.
  if (!CPLGetConfigOption("GDAL_CACHEMAX", nullptr))
    GDALSetCacheMax64(std::int64_t(64) << 20);
  try
  {
    GetMemoryBudget(oGlobal); // a bad --memory is an argument error, found before any work
    for (auto& oCommand : vecCommands)
      if (oCommand.first->parsed())
        oCommand.second(oGlobal);
    return 0;
  }
  catch (const CToolError& oError)
  {
    std::cerr << "orl: " << Text("error") << ": " << oError.what() << std::endl;
    return oError.GetExitStatus();
  }
  catch (const std::bad_alloc&)
  {
    std::cerr << "orl: " << Text("error") << ": " << Text("out of memory: try a smaller --memory") << std::endl;
    return 1;
  }
  catch (const std::exception& oError)
  {
    std::cerr << "orl: " << Text("error") << ": " << oError.what() << std::endl;
    return 1;
  }
}
