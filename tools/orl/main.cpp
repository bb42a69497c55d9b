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

void AddFilterArgs(CLI::App& oApp, SFilterArgs& oArgs)
{
  oApp.add_option("IN", oArgs.m_strIn, "Input raster (any format GDAL reads)")->required();
  oApp.add_option("OUT", oArgs.m_strOut, "Output raster, written beside under a temporary name and renamed when done")
    ->required();
  oApp.add_option("-b,--band", oArgs.m_nBand, "Band number, from 1")->capture_default_str();
  oApp.add_option("--of", oArgs.m_oOutput.m_strFormat, "Output format, a GDAL driver name (also -of)")->capture_default_str();
  oApp.add_option("--co", oArgs.m_oOutput.m_vecCreationOptions,
                  "Creation option NAME=VALUE (also -co), repeatable; GTiff defaults: TILED=YES COMPRESS=ZSTD ZSTD_LEVEL=1 "
                  "BIGTIFF=IF_SAFER NUM_THREADS=ALL_CPUS")
    ->allow_extra_args(false);
  oApp.add_flag("--overwrite", oArgs.m_oOutput.m_bOverwrite, "Replace OUT if it exists (only once the run succeeds)");
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
    if (strArg == "-of" || strArg == "-co")
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
