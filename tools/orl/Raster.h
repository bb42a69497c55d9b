#pragma once

// GDAL access for the orl tool: inputs opened with clear errors, pixels moved between GDAL bands and
// Orl bands strip by strip, and outputs that appear under their name only when complete.

#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Foundation/Logger.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>
#include <cpl_virtualmem.h>
#include <gdal.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace Orl { namespace Tools {

using TLoggerPtr = boost::shared_ptr<Harnel::Progress::CLogger>;
using TRect = Pravik::GraphObject2d::CRect<unsigned int>;

// A failure reported as one line. Exit status 2 for bad arguments, 1 for everything else.
class CToolError : public std::runtime_error
{
public:
  explicit CToolError(const std::string& strText, int nExitStatus = 1)
    : std::runtime_error(strText), m_nExitStatus(nExitStatus)
  {
  }
  int GetExitStatus() const { return m_nExitStatus; }

private:
  int m_nExitStatus;
};

// A translated text with its %1%, %2%, ... filled in.
template <class... TArgs>
std::string Text(const char* szText, const TArgs&... args)
{
  boost::format oFormat(Harnel::Internationalisation::CTranslator::Translate(szText));
  (void)std::initializer_list<int>{((void)(oFormat % args), 0)...};
  return oFormat.str();
}

// The message of GDAL's last failure since ResetGdalError(), or an empty string. The tool's error
// handler keeps GDAL's own printing off the terminal; warnings are printed unless quiet.
void InstallGdalErrorHandler(bool bQuiet);
void ResetGdalError();
bool HasGdalError();
std::string GetGdalError();
// Prints a note on stderr unless quiet ("orl: note: ...").
void Note(const std::string& strText);

// A byte count with an optional K, M, G or T suffix (powers of 1024), e.g. 256M.
std::uint64_t ParseSize(const std::string& strText);

template <class TPixel>
struct SGdalType;
template <> struct SGdalType<unsigned char> { static constexpr GDALDataType ms_eType = GDT_Byte; };
template <> struct SGdalType<unsigned short> { static constexpr GDALDataType ms_eType = GDT_UInt16; };
template <> struct SGdalType<short> { static constexpr GDALDataType ms_eType = GDT_Int16; };
template <> struct SGdalType<unsigned int> { static constexpr GDALDataType ms_eType = GDT_UInt32; };
template <> struct SGdalType<int> { static constexpr GDALDataType ms_eType = GDT_Int32; };
template <> struct SGdalType<float> { static constexpr GDALDataType ms_eType = GDT_Float32; };
template <> struct SGdalType<double> { static constexpr GDALDataType ms_eType = GDT_Float64; };

// The pixel type that holds eType: its own for the seven band types, Float64 for 64-bit integers
// (with a note, since large values lose precision), Int16 for signed bytes. Complex types throw.
GDALDataType GetWorkingType(GDALDataType eType, const std::string& strWhat);

// Calls fn(TPixel()) for the band pixel type of eType, which must be one of the seven.
template <class TFunction>
decltype(auto) DispatchPixelType(GDALDataType eType, TFunction&& fn)
{
  switch (eType)
  {
  case GDT_Byte: return fn((unsigned char)0);
  case GDT_UInt16: return fn((unsigned short)0);
  case GDT_Int16: return fn(short(0));
  case GDT_UInt32: return fn(0u);
  case GDT_Int32: return fn(0);
  case GDT_Float32: return fn(0.0f);
  default: return fn(0.0);
  }
}

// One band of an opened raster. The constructor checks the file, the dataset and the band number.
class CInput
{
public:
  CInput(const std::string& strPath, int nBand);
  ~CInput();
  CInput(const CInput&) = delete;
  CInput& operator=(const CInput&) = delete;

  const std::string m_strPath;
  const int m_nBand;
  GDALDatasetH m_hDataset = nullptr;
  GDALRasterBandH m_hBand = nullptr;
  unsigned int m_nWidth = 0;
  unsigned int m_nHeight = 0;
  GDALDataType m_eType = GDT_Unknown; // the file's
  GDALDataType m_eWorkingType = GDT_Unknown; // what the tool reads it as
  bool m_bHasNoData = false;
  double m_dNoData = 0.0;
  unsigned int m_nStripRows = 0; // rows per strip: whole GDAL blocks, at least 256 rows

  std::uint64_t GetPixels() const { return std::uint64_t(m_nWidth) * m_nHeight; }

  // The band's pixels straight from the file, read-only, when GDAL maps them as a memory band lays
  // them out: pixels of the working type in the machine's byte order, rows one after another without
  // gaps (an uncompressed GeoTIFF in strips, raw formats such as ENVI or EHdr). Nothing is read when
  // the input is opened: pages come in as pixels are first touched, from the page cache when the file
  // is there. Null for any other layout. Valid while the input lives; bands over these pixels must
  // not outlive it.
  const void* GetMappedPixels() const { return m_pMapped; }

private:
  void _Map();

  CPLVirtualMem* m_pMapping = nullptr;
  const void* m_pMapped = nullptr;
};

// Where the output goes: the target, its driver and creation options. The constructor checks what
// can be checked before any work (driver, directory, an existing target); Create makes a temporary
// dataset beside the target, Commit closes it and renames it to the target. A COutput destroyed
// without Commit removes the temporary file.
struct SOutputOptions
{
  std::string m_strFormat = "GTiff";
  std::vector<std::string> m_vecCreationOptions; // NAME=VALUE, over the defaults for GeoTIFF
  bool m_bOverwrite = false;
};

class COutput
{
public:
  COutput(const std::string& strPath, const SOutputOptions& oOptions);
  ~COutput();
  COutput(const COutput&) = delete;
  COutput& operator=(const COutput&) = delete;

  // nBands bands of eType and nWidth x nHeight pixels, each with oLike's unit, scale and offset; when
  // bGeoreferenced, oLike's projection and georeferencing, its pixel size scaled to the new size.
  GDALDatasetH Create(const CInput& oLike, unsigned int nBands, GDALDataType eType, unsigned int nWidth,
                      unsigned int nHeight, bool bGeoreferenced);
  void Commit();
  const std::string& GetPath() const { return m_strPath; }

private:
  void _Discard();

  std::string m_strPath;
  std::string m_strTempPath;
  SOutputOptions m_oOptions;
  GDALDriverH m_hDriver = nullptr;
  GDALDatasetH m_hDataset = nullptr;
};

// Drops the pages wholly before pEnd, from the one holding pBegin on, out of this process's resident
// set after they were copied out of a file mapping. The page cache keeps them and a later read faults
// them in again; without this, reading into tile bands would grow the process by the file's size
// whatever the tile cache's budget.
inline void ReleaseMappedPages(const unsigned char* pBegin, const unsigned char* pEnd)
{
  const std::uintptr_t nPage = std::uintptr_t(sysconf(_SC_PAGESIZE));
  const std::uintptr_t nBegin = std::uintptr_t(pBegin) & ~(nPage - 1), nEnd = std::uintptr_t(pEnd) & ~(nPage - 1);
  if (nEnd > nBegin)
    madvise(reinterpret_cast<void*>(nBegin), nEnd - nBegin, MADV_DONTNEED);
}

// Reads the input's band into oBand (of the input's size), converted by GDAL to TPixel: the whole band
// strip by strip, or only the rectangles *pRects (for instance the band's sample for approximate
// statistics; the other pixels stay as they were). fnVisit(const TPixel* p, std::size_t n) sees the
// pixels right after they are read, a run of n at a time, on the thread that read them: memory bands
// are read by one thread per core, so fnVisit must take calls on distinct runs at once. Tile bands are
// read by one thread through one buffer. Pixels that the input maps (CInput::GetMappedPixels) are
// copied from the mapping; others come through GDAL, each thread with its own handle of the file.
template <class TPixel, class TTag, class TVisit>
void ReadBand(const CInput& oInput, Ostrel::Band::CBand<TPixel, TTag>& oBand, const TLoggerPtr& pLogger,
              TVisit&& fnVisit, const std::vector<TRect>* pRects = nullptr)
{
  using namespace Ostrel::Band;
  const unsigned int nWidth = oInput.m_nWidth, nHeight = oInput.m_nHeight;
  std::vector<TRect> vecStrips;
  if (!pRects)
    for (unsigned int y = 0; y < nHeight; y += oInput.m_nStripRows)
      vecStrips.emplace_back(0, y, nWidth, std::min(oInput.m_nStripRows, nHeight - y));
  const std::vector<TRect>& vecRects = pRects ? *pRects : vecStrips;
  double dTotal = 0.0;
  for (const TRect& oRect : vecRects)
    dTotal += double(oRect.GetWidth()) * oRect.GetHeight();
  if (pLogger)
    pLogger->Push(Text("Read %1%", oInput.m_strPath), 1.0, dTotal, 0.0, false, Harnel::Progress::eLayerOperation,
                  Harnel::Progress::eLayerPublic, std::string());
  constexpr bool BMemory = std::is_same<TTag, SMemoryTag>::value;
  const auto* pMapped = SGdalType<TPixel>::ms_eType == oInput.m_eType
                          ? static_cast<const unsigned char*>(oInput.GetMappedPixels())
                          : nullptr;
  const std::size_t nRects = vecRects.size();
  std::atomic<std::size_t> nNextRect(0);
  std::mutex oProgressMutex;
  // Reads the rectangles not yet taken, through hBand (unused for mapped pixels), until none is left.
  const auto fnRead = [&](GDALRasterBandH hBand) {
    std::unique_ptr<CBand<TPixel, SMemoryTag>> pBuffer;
    for (std::size_t nRect; (nRect = nNextRect++) < nRects;)
    {
      const TRect& oRect = vecRects[nRect];
      const unsigned int x = oRect.GetStart().x, y = oRect.GetStart().y;
      const unsigned int nColumns = oRect.GetWidth(), nRows = oRect.GetHeight();
      TPixel* pData = nullptr;
      std::size_t nLine = nColumns; // pixels from one row of pData to the next
      if constexpr (BMemory)
      {
        pData = oBand.GetRep().GetDataLocation() + std::size_t(y) * nWidth + x;
        nLine = nWidth;
      }
      else
      {
        if (!pBuffer || pBuffer->GetWidth() != nColumns || pBuffer->GetHeight() < nRows)
          pBuffer = std::make_unique<CBand<TPixel, SMemoryTag>>(nColumns, std::max(nRows, oInput.m_nStripRows));
        pData = pBuffer->GetRep().GetDataLocation();
      }
      if (pMapped)
      {
        for (unsigned int nRow = 0; nRow < nRows; ++nRow)
          std::memcpy(pData + nRow * nLine, pMapped + ((std::size_t(y) + nRow) * nWidth + x) * sizeof(TPixel),
                      std::size_t(nColumns) * sizeof(TPixel));
        if constexpr (!BMemory)
          ReleaseMappedPages(pMapped + (std::size_t(y) * nWidth + x) * sizeof(TPixel),
                             pMapped + ((std::size_t(y) + nRows - 1) * nWidth + x + nColumns) * sizeof(TPixel));
      }
      else if (GDALRasterIOEx(hBand, GF_Read, int(x), int(y), int(nColumns), int(nRows), pData, int(nColumns),
                              int(nRows), SGdalType<TPixel>::ms_eType, sizeof(TPixel),
                              GSpacing(nLine * sizeof(TPixel)), nullptr) != CE_None)
        throw CToolError(Text("cannot read %1%: %2%", oInput.m_strPath, GetGdalError()));
      if (nLine == nColumns)
        fnVisit(static_cast<const TPixel*>(pData), std::size_t(nColumns) * nRows);
      else
        for (unsigned int nRow = 0; nRow < nRows; ++nRow)
          fnVisit(static_cast<const TPixel*>(pData + nRow * nLine), std::size_t(nColumns));
      if constexpr (!BMemory)
        Copy2D(static_cast<const CBand<TPixel, SMemoryTag>&>(*pBuffer).GetBandIterators(TRect(0, 0, nColumns, nRows)),
               oBand.GetBandIterators(oRect), TLoggerPtr(), SAllowParallelFor());
      if (pLogger)
      {
        const std::lock_guard<std::mutex> oLock(oProgressMutex);
        pLogger->IncrementProgress(double(nColumns) * nRows);
      }
    }
  };
  ResetGdalError();
  const std::size_t nThreads =
    BMemory ? std::min<std::size_t>(std::max(std::thread::hardware_concurrency(), 1u), nRects) : 1;
  std::vector<std::thread> vecThreads;
  std::vector<std::exception_ptr> vecErrors(nThreads);
  for (std::size_t i = 1; i < nThreads; ++i)
    vecThreads.emplace_back([&, i] {
      try
      {
        if (pMapped)
          return fnRead(nullptr);
        const std::unique_ptr<void, void (*)(void*)> pOwn(
          GDALOpenEx(oInput.m_strPath.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr),
          [](void* hDataset) { if (hDataset) GDALClose(hDataset); });
        if (!pOwn)
          throw CToolError(Text("cannot read %1%: %2%", oInput.m_strPath, GetGdalError()));
        fnRead(GDALGetRasterBand(pOwn.get(), oInput.m_nBand));
      }
      catch (...)
      {
        vecErrors[i] = std::current_exception();
        nNextRect = nRects; // the others stop at their next rectangle
      }
    });
  try
  {
    fnRead(oInput.m_hBand);
  }
  catch (...)
  {
    if (!vecErrors.empty())
      vecErrors[0] = std::current_exception();
    nNextRect = nRects;
  }
  for (std::thread& oThread : vecThreads)
    oThread.join();
  for (const std::exception_ptr& pError : vecErrors)
    if (pError)
      std::rethrow_exception(pError);
  if (pLogger)
    pLogger->Pop();
}

// Writes oBand to hBand (of the band's size) strip by strip, nStripRows rows at a time.
template <class TPixel, class TTag>
void WriteBand(const Ostrel::Band::CBand<TPixel, TTag>& oBand, GDALRasterBandH hBand, unsigned int nStripRows,
               const std::string& strPath, const TLoggerPtr& pLogger)
{
  using namespace Ostrel::Band;
  const unsigned int nWidth = oBand.GetWidth(), nHeight = oBand.GetHeight();
  if (pLogger)
    pLogger->Push(Text("Write %1%", strPath), 1.0, double(nHeight), 0.0, false, Harnel::Progress::eLayerOperation,
                  Harnel::Progress::eLayerPublic, std::string());
  std::unique_ptr<CBand<TPixel, SMemoryTag>> pStrip;
  for (unsigned int y = 0; y < nHeight; y += nStripRows)
  {
    const unsigned int nRows = std::min(nStripRows, nHeight - y);
    const TPixel* pData = nullptr;
    if constexpr (std::is_same<TTag, SMemoryTag>::value)
      pData = oBand.GetRep().GetDataLocation() + std::size_t(y) * nWidth;
    else
    {
      if (!pStrip)
        pStrip = std::make_unique<CBand<TPixel, SMemoryTag>>(nWidth, nStripRows);
      Copy2D(oBand.GetBandIterators(TRect(0, y, nWidth, nRows)), pStrip->GetBandIterators(TRect(0, 0, nWidth, nRows)),
             TLoggerPtr(), SAllowParallelFor());
      pData = pStrip->GetRep().GetDataLocation();
    }
    ResetGdalError();
    if (GDALRasterIO(hBand, GF_Write, 0, int(y), int(nWidth), int(nRows), const_cast<TPixel*>(pData), int(nWidth),
                     int(nRows), SGdalType<TPixel>::ms_eType, 0, 0) != CE_None)
      throw CToolError(Text("cannot write %1%: %2%", strPath, GetGdalError()));
    if (pLogger)
      pLogger->IncrementProgress(nRows);
  }
  if (pLogger)
    pLogger->Pop();
}

}} // namespace Orl::Tools
