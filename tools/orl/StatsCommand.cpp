// orl stats: a band's statistics for people (plain text) or scripts (--json).

#include "Commands.h"

#include <cstdio>
#include <iostream>

namespace Orl { namespace Tools {

namespace {

struct SStatsOptions
{
  std::string m_strIn;
  int m_nBand = 1;
  bool m_bApprox = false;
  unsigned int m_nBins = 0; // 0: no histogram printed, the band's default bins for median and mode
  std::vector<double> m_vecPercentiles;
  bool m_bJson = false;
};

// A number as JSON (null when not finite) or for people.
std::string Number(double dValue, bool bJson)
{
  if (!std::isfinite(dValue))
    return bJson ? "null" : std::to_string(dValue);
  char szText[32];
  std::snprintf(szText, sizeof(szText), bJson ? "%.17g" : "%.10g", dValue);
  return szText;
}

std::string JsonString(const std::string& strText)
{
  std::string strOut = "\"";
  for (const char c : strText)
  {
    if (c == '"' || c == '\\')
      strOut += '\\';
    if (static_cast<unsigned char>(c) < 0x20)
    {
      char szEscape[8];
      std::snprintf(szEscape, sizeof(szEscape), "\\u%04x", unsigned(c));
      strOut += szEscape;
    }
    else
      strOut += c;
  }
  return strOut + "\"";
}

template <class TPixel, class TTag>
void PrintStats(const CInput& oInput, const SStatsOptions& oOptions, const SGlobalOptions& oGlobal)
{
  using namespace Harnel::Progress;
  const TLoggerPtr pLogger = MakeLogger(oGlobal);
  if (pLogger) // reading 1, the two passes over the band 1
    pLogger->Push("orl stats", 1.0, 2.0, 0.0, false, eLayerOperation, eLayerPublic, std::string());
  std::uint64_t nInvalidRead = 0;
  auto oBand = ReadInput<TPixel, TTag, false>(oInput, pLogger, nInvalidRead); // the band counts its own
  if (oOptions.m_nBins)
    oBand.SetHistogramBins(oOptions.m_nBins);
  const bool bApprox = oOptions.m_bApprox;
  if (pLogger)
    pLogger->Push(Text("Statistics"), 1.0, 2.0, 0.0, false, eLayerOperation, eLayerPublic, std::string());
  double dMean = 0.0, dVariance = 0.0;
  oBand.GetMeanVariance(dMean, dVariance, bApprox, pLogger);
  unsigned long nValid = 0, nInvalid = 0;
  oBand.GetCounts(nValid, nInvalid, bApprox);
  TPixel tMin = TPixel(), tMax = TPixel();
  oBand.GetMinMax(tMin, tMax, bApprox);
  std::vector<unsigned long> vecHistogram;
  double dLow = 0.0, dStep = 0.0, dWidth = 0.0;
  unsigned long nMaxCount = 0;
  oBand.GetHistogram(vecHistogram, dLow, dStep, dWidth, nMaxCount, bApprox, pLogger);
  const bool bHistogram = !vecHistogram.empty();
  const double dNaN = std::numeric_limits<double>::quiet_NaN();
  const double dMedian = bHistogram ? oBand.GetMedian(bApprox) : dNaN;
  const double dMode = bHistogram ? oBand.GetMode(bApprox) : dNaN;
  std::vector<double> vecPercentiles;
  for (const double dPercent : oOptions.m_vecPercentiles)
    vecPercentiles.push_back(bHistogram ? oBand.GetPercentile(dPercent, bApprox) : dNaN);
  if (pLogger)
  {
    pLogger->Pop();
    pLogger->Pop();
  }

  const bool bJson = oOptions.m_bJson;
  const bool bAny = nValid > 0;
  const auto fnValue = [&](double d) { return Number(bAny ? d : dNaN, bJson); };
  const char* szType = GDALGetDataTypeName(oInput.m_eType);
  std::ostream& os = std::cout;
  if (bJson)
  {
    os << "{\n  \"file\": " << JsonString(oInput.m_strPath) << ",\n  \"band\": " << oInput.m_nBand
       << ",\n  \"width\": " << oInput.m_nWidth << ",\n  \"height\": " << oInput.m_nHeight << ",\n  \"type\": \""
       << szType << "\",\n  \"no_data\": " << (oBand.HasNoDataValue() ? Number(double(oBand.GetNoDataValue()), true) : "null")
       << ",\n  \"approximate\": " << (bApprox ? "true" : "false") << ",\n  \"valid\": " << nValid
       << ",\n  \"invalid\": " << nInvalid << ",\n  \"min\": " << fnValue(double(tMin)) << ",\n  \"max\": "
       << fnValue(double(tMax)) << ",\n  \"mean\": " << fnValue(dMean) << ",\n  \"std_dev\": "
       << fnValue(std::sqrt(std::max(dVariance, 0.0))) << ",\n  \"median\": " << Number(dMedian, true)
       << ",\n  \"mode\": " << Number(dMode, true) << ",\n  \"percentiles\": {";
    for (std::size_t i = 0; i < vecPercentiles.size(); ++i)
      os << (i ? ", " : "") << "\"" << Number(oOptions.m_vecPercentiles[i], false) << "\": " << Number(vecPercentiles[i], true);
    os << "}";
    if (oOptions.m_nBins)
    {
      os << ",\n  \"histogram\": {\"first_bin_centre\": " << Number(dLow, true) << ", \"bin_step\": "
         << Number(dStep, true) << ", \"bin_width\": " << Number(dWidth, true) << ", \"counts\": [";
      for (std::size_t i = 0; i < vecHistogram.size(); ++i)
        os << (i ? ", " : "") << vecHistogram[i];
      os << "]}";
    }
    os << "\n}\n";
    return;
  }
  os << oInput.m_strPath << ", " << Text("band %1%: %2% x %3% %4%", oInput.m_nBand, oInput.m_nWidth, oInput.m_nHeight, szType);
  if (oBand.HasNoDataValue())
    os << ", " << Text("no-data %1%", Number(double(oBand.GetNoDataValue()), false));
  os << (bApprox ? Text(" (approximate)") : "") << "\n";
  const auto fnLine = [&](const std::string& strName, const std::string& strValue) {
    os << "  " << strName << std::string(strName.size() < 16 ? 16 - strName.size() : 1, ' ') << strValue << "\n";
  };
  const auto fnShown = [&](double d) { return std::isfinite(d) && bAny ? Number(d, false) : Text("none"); };
  fnLine(Text("valid pixels"), std::to_string(nValid));
  fnLine(Text("no-data pixels"), std::to_string(nInvalid));
  fnLine(Text("minimum"), fnShown(double(tMin)));
  fnLine(Text("maximum"), fnShown(double(tMax)));
  fnLine(Text("mean"), fnShown(dMean));
  fnLine(Text("std. deviation"), fnShown(std::sqrt(std::max(dVariance, 0.0))));
  fnLine(Text("median"), fnShown(dMedian));
  fnLine(Text("mode"), fnShown(dMode));
  for (std::size_t i = 0; i < vecPercentiles.size(); ++i)
    fnLine(Text("percentile %1%", Number(oOptions.m_vecPercentiles[i], false)), fnShown(vecPercentiles[i]));
  if (oOptions.m_nBins)
  {
    os << "  " << Text("histogram: %1% bins, the first centred on %2%, %3% apart:", vecHistogram.size(),
                       Number(dLow, false), Number(dStep, false))
       << "\n   ";
    for (const unsigned long nCount : vecHistogram)
      os << " " << nCount;
    os << "\n";
  }
}

void RunStats(const SStatsOptions& oOptions, const SGlobalOptions& oGlobal)
{
  const CInput oInput(oOptions.m_strIn, oOptions.m_nBand);
  const std::uint64_t nBudget = GetMemoryBudget(oGlobal);
  DispatchPixelType(oInput.m_eWorkingType, [&](auto tPixel) {
    using TPixel = decltype(tPixel);
    if (UseTileBands(oInput.GetPixels() * sizeof(TPixel), nBudget))
      PrintStats<TPixel, Ostrel::Band::STileTag>(oInput, oOptions, oGlobal);
    else
      PrintStats<TPixel, Ostrel::Band::SMemoryTag>(oInput, oOptions, oGlobal);
  });
}

} // namespace

TRunner DefineStats(CLI::App& oApp)
{
  auto pOptions = std::make_shared<SStatsOptions>();
  oApp.add_option("IN", pOptions->m_strIn, "Input raster (any format GDAL reads)")->required();
  oApp.add_option("-b,--band", pOptions->m_nBand, "Band number, from 1")->capture_default_str();
  oApp.add_flag("--approx", pOptions->m_bApprox, "Statistics of a sample of the band's tiles, faster");
  oApp.add_flag("--histogram{256}", pOptions->m_nBins,
                "Print the histogram, with BINS bins (256 unless given as --histogram=BINS); also the bins that "
                "median, mode and percentiles come from (1024 without this option)")
    ->type_name("[=BINS]")
    ->check(CLI::Range(1u, 1u << 20));
  oApp.add_option("--percentiles,-p", pOptions->m_vecPercentiles, "Percentiles to print, e.g. 5,50,95")
    ->delimiter(',')
    ->allow_extra_args(false)
    ->check(CLI::Range(0.0, 100.0));
  oApp.add_flag("--json", pOptions->m_bJson, "Print JSON for scripts");
  return [pOptions](const SGlobalOptions& oGlobal) { RunStats(*pOptions, oGlobal); };
}

}} // namespace Orl::Tools
