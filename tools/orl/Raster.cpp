#include "Raster.h"

#include "Band/MemorySize.h"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace Orl { namespace Tools {

namespace {

// GDAL's worker threads (compression, decoding) report through the same handler.
std::mutex g_oGdalErrorMutex;
std::string g_strGdalError;
bool g_bQuiet = false;

void CPL_STDCALL GdalErrorHandler(CPLErr eClass, CPLErrorNum, const char* szMessage)
{
  const std::lock_guard<std::mutex> oLock(g_oGdalErrorMutex);
  if (eClass >= CE_Failure)
  {
    if (g_strGdalError.empty())
      g_strGdalError = szMessage;
  }
  else if (eClass == CE_Warning && !g_bQuiet)
    std::cerr << "orl: GDAL: " << szMessage << std::endl;
}

// The temporary output, removed when a signal ends the run. A fixed buffer: the handler may only
// call async-signal-safe functions.
char g_szTempPath[4096];

extern "C" void RemoveTempAndExit(int nSignal)
{
  if (g_szTempPath[0])
    ::unlink(g_szTempPath);
  ::_exit(128 + nSignal);
}

bool IsDirectory(const std::string& strPath)
{
  struct stat oStat;
  return ::stat(strPath.c_str(), &oStat) == 0 && S_ISDIR(oStat.st_mode);
}

std::string GetDirectory(const std::string& strPath)
{
  const auto nSlash = strPath.rfind('/');
  return nSlash == std::string::npos ? "." : nSlash == 0 ? "/" : strPath.substr(0, nSlash);
}

} // namespace

void InstallGdalErrorHandler(bool bQuiet)
{
  g_bQuiet = bQuiet;
  CPLSetErrorHandler(GdalErrorHandler);
}

void ResetGdalError()
{
  const std::lock_guard<std::mutex> oLock(g_oGdalErrorMutex);
  g_strGdalError.clear();
}

bool HasGdalError()
{
  const std::lock_guard<std::mutex> oLock(g_oGdalErrorMutex);
  return !g_strGdalError.empty();
}

std::string GetGdalError()
{
  const std::lock_guard<std::mutex> oLock(g_oGdalErrorMutex);
  return g_strGdalError.empty() ? Text("unknown GDAL error") : g_strGdalError;
}

void Note(const std::string& strText)
{
  if (!g_bQuiet)
    std::cerr << "orl: " << Text("note") << ": " << strText << std::endl;
}

std::uint64_t ParseSize(const std::string& strText)
{
  std::uint64_t nBytes = 0;
  if (!Ostrel::Band::ParseByteCount(strText.c_str(), nBytes) || nBytes == 0)
    throw CToolError(Text("invalid size '%1%': expected a positive byte count such as 512M or 2G", strText), 2);
  return nBytes;
}

GDALDataType GetWorkingType(GDALDataType eType, const std::string& strWhat)
{
  switch (eType)
  {
  case GDT_Byte: case GDT_UInt16: case GDT_Int16: case GDT_UInt32: case GDT_Int32: case GDT_Float32: case GDT_Float64:
    return eType;
#if GDAL_VERSION_NUM >= 3070000
  case GDT_Int8:
    Note(Text("%1%: Int8 pixels are read as Int16", strWhat));
    return GDT_Int16;
#endif
  case GDT_Int64: case GDT_UInt64:
    Note(Text("%1%: %2% pixels are read as Float64 (exact up to 2^53)", strWhat, GDALGetDataTypeName(eType)));
    return GDT_Float64;
  default:
    throw CToolError(Text("%1%: pixel type %2% is not supported", strWhat, GDALGetDataTypeName(eType)));
  }
}

CInput::CInput(const std::string& strPath, int nBand) : m_strPath(strPath), m_nBand(nBand)
{
  // The file's own errors first: GDAL's message for a missing file is less direct.
  struct stat oStat;
  const bool bVirtual = strPath.rfind("/vsi", 0) == 0 || strPath.find(':') != std::string::npos;
  if (!bVirtual && ::stat(strPath.c_str(), &oStat) != 0)
    throw CToolError(Text("cannot open %1%: %2%", strPath, std::strerror(errno)));
  if (!bVirtual && ::access(strPath.c_str(), R_OK) != 0)
    throw CToolError(Text("cannot read %1%: %2%", strPath, std::strerror(errno)));
  ResetGdalError();
  m_hDataset = GDALOpenEx(strPath.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr);
  if (!m_hDataset)
    throw CToolError(Text("%1% is not a raster GDAL can read", strPath));
  const int nBands = GDALGetRasterCount(m_hDataset);
  if (nBand < 1 || nBand > nBands)
  {
    GDALClose(m_hDataset);
    throw CToolError(Text("band %1% is out of range: %2% has %3% band(s)", nBand, strPath, nBands));
  }
  m_hBand = GDALGetRasterBand(m_hDataset, nBand);
  m_nWidth = unsigned(GDALGetRasterBandXSize(m_hBand));
  m_nHeight = unsigned(GDALGetRasterBandYSize(m_hBand));
  m_eType = GDALGetRasterDataType(m_hBand);
  int bHasNoData = 0;
  m_dNoData = GDALGetRasterNoDataValue(m_hBand, &bHasNoData);
  m_bHasNoData = bHasNoData != 0;
  int nBlockX = 0, nBlockY = 0;
  GDALGetBlockSize(m_hBand, &nBlockX, &nBlockY);
  nBlockY = std::max(nBlockY, 1);
  m_nStripRows = unsigned((255 / nBlockY + 1) * nBlockY);
  try
  {
    m_eWorkingType = GetWorkingType(m_eType, strPath);
  }
  catch (...)
  {
    GDALClose(m_hDataset);
    throw;
  }
}

CInput::~CInput()
{
  GDALClose(m_hDataset);
}

COutput::COutput(const std::string& strPath, const SOutputOptions& oOptions) : m_strPath(strPath), m_oOptions(oOptions)
{
  m_hDriver = GDALGetDriverByName(oOptions.m_strFormat.c_str());
  if (!m_hDriver || !GDALGetMetadataItem(m_hDriver, GDAL_DCAP_RASTER, nullptr))
    throw CToolError(Text("unknown raster format '%1%' (gdalinfo --formats lists them)", oOptions.m_strFormat), 2);
  if (!GDALGetMetadataItem(m_hDriver, GDAL_DCAP_CREATE, nullptr))
    throw CToolError(
      Text("format %1% cannot be written band by band: write GTiff and convert with gdal_translate", oOptions.m_strFormat),
      2);
  for (const std::string& strOption : oOptions.m_vecCreationOptions)
    if (strOption.find('=') == std::string::npos || strOption[0] == '=')
      throw CToolError(Text("invalid creation option '%1%': expected NAME=VALUE", strOption), 2);
  const std::string strDirectory = GetDirectory(strPath);
  if (!IsDirectory(strDirectory))
    throw CToolError(Text("output directory %1% does not exist", strDirectory));
  if (::access(strDirectory.c_str(), W_OK | X_OK) != 0)
    throw CToolError(Text("output directory %1% is not writable: %2%", strDirectory, std::strerror(errno)));
  struct stat oStat;
  if (::stat(strPath.c_str(), &oStat) == 0)
  {
    if (!oOptions.m_bOverwrite)
      throw CToolError(Text("%1% exists: pass --overwrite to replace it", strPath));
    if (S_ISDIR(oStat.st_mode))
      throw CToolError(Text("%1% is a directory", strPath));
  }
  // Beside the target, so that the rename stays on one file system; the name keeps the extension
  // for drivers that derive side files from it.
  const auto nSlash = strPath.rfind('/');
  m_strTempPath = (nSlash == std::string::npos ? std::string() : strPath.substr(0, nSlash + 1)) + ".orl-" +
                  std::to_string(::getpid()) + "-" + strPath.substr(nSlash == std::string::npos ? 0 : nSlash + 1);
}

COutput::~COutput()
{
  _Discard();
}

GDALDatasetH COutput::Create(const CInput& oLike, unsigned int nBands, GDALDataType eType, unsigned int nWidth,
                             unsigned int nHeight, bool bGeoreferenced)
{
  char** papszOptions = nullptr;
  if (EQUAL(m_oOptions.m_strFormat.c_str(), "GTiff"))
  {
    for (const char* szDefault : {"TILED=YES", "COMPRESS=ZSTD", "ZSTD_LEVEL=1", "BIGTIFF=IF_SAFER", "NUM_THREADS=ALL_CPUS"})
      papszOptions = CSLAddString(papszOptions, szDefault);
    if (nBands > 1)
      papszOptions = CSLAddString(papszOptions, "INTERLEAVE=BAND");
  }
  for (const std::string& strOption : m_oOptions.m_vecCreationOptions)
  {
    const auto nEquals = strOption.find('=');
    papszOptions = CSLSetNameValue(papszOptions, strOption.substr(0, nEquals).c_str(), strOption.c_str() + nEquals + 1);
  }
  std::strncpy(g_szTempPath, m_strTempPath.c_str(), sizeof(g_szTempPath) - 1);
  for (int nSignal : {SIGINT, SIGTERM, SIGHUP})
    std::signal(nSignal, RemoveTempAndExit);
  ResetGdalError();
  m_hDataset = GDALCreate(m_hDriver, m_strTempPath.c_str(), int(nWidth), int(nHeight), int(nBands), eType, papszOptions);
  CSLDestroy(papszOptions);
  if (!m_hDataset)
    throw CToolError(Text("cannot create %1%: %2%", m_strPath, GetGdalError()));
  double adTransform[6];
  if (bGeoreferenced && GDALGetGeoTransform(oLike.m_hDataset, adTransform) == CE_None)
  {
    const double dScaleX = double(oLike.m_nWidth) / nWidth, dScaleY = double(oLike.m_nHeight) / nHeight;
    adTransform[1] *= dScaleX;
    adTransform[4] *= dScaleX;
    adTransform[2] *= dScaleY;
    adTransform[5] *= dScaleY;
    GDALSetGeoTransform(m_hDataset, adTransform);
  }
  const char* szProjection = GDALGetProjectionRef(oLike.m_hDataset);
  if (bGeoreferenced && szProjection && *szProjection)
    GDALSetProjection(m_hDataset, szProjection);
  int bHasScale = 0, bHasOffset = 0;
  const double dScale = GDALGetRasterScale(oLike.m_hBand, &bHasScale);
  const double dOffset = GDALGetRasterOffset(oLike.m_hBand, &bHasOffset);
  for (unsigned int i = 1; i <= nBands; ++i)
  {
    GDALRasterBandH hBand = GDALGetRasterBand(m_hDataset, int(i));
    GDALSetRasterUnitType(hBand, GDALGetRasterUnitType(oLike.m_hBand));
    if (bHasScale || bHasOffset)
    {
      GDALSetRasterScale(hBand, dScale);
      GDALSetRasterOffset(hBand, dOffset);
    }
  }
  return m_hDataset;
}

void COutput::Commit()
{
  ResetGdalError();
  GDALClose(m_hDataset); // flushes the cache and the file: disk-full errors come out here
  m_hDataset = nullptr;
  if (HasGdalError())
    throw CToolError(Text("cannot write %1%: %2%", m_strPath, GetGdalError()));
  if (GDALRenameDataset(m_hDriver, m_strPath.c_str(), m_strTempPath.c_str()) != CE_None)
    throw CToolError(Text("cannot rename the finished file to %1%: %2%", m_strPath, GetGdalError()));
  m_strTempPath.clear();
  g_szTempPath[0] = '\0';
}

void COutput::_Discard()
{
  if (m_strTempPath.empty())
    return;
  if (m_hDataset)
    GDALClose(m_hDataset);
  m_hDataset = nullptr;
  CPLPushErrorHandler(CPLQuietErrorHandler);
  VSIStatBufL oStat;
  if (VSIStatL(m_strTempPath.c_str(), &oStat) == 0 && GDALDeleteDataset(m_hDriver, m_strTempPath.c_str()) != CE_None)
    VSIUnlink(m_strTempPath.c_str());
  VSIUnlink((m_strTempPath + ".aux.xml").c_str());
  CPLPopErrorHandler();
  m_strTempPath.clear();
  g_szTempPath[0] = '\0';
}

}} // namespace Orl::Tools
