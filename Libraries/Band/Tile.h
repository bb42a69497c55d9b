#pragma once

#include "Band/TileAlloc.h"
#include "Band/TileSourceInfo.h"
#include "Fileio/FileioUnix.h"
#include "Foundation/BasicException.h"
#include "Foundation/PixelTypes.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// Buffered tile records (the layout the tile cache spills):
//   bytes 0..3   signed 32-bit header in machine order: > 0 is the byte count c of one LZ4 block,
//                0 or less means the n pixel bytes follow raw;
//   bytes 4..    the payload, c or n bytes;
//   filler       up to the next multiple of 512, meaningless.
// The first 512 bytes always tell the record's length. Compression may not produce more than n bytes, so
// a record never exceeds GetTileRecordCapacity(n): one slot of that size serves a tile for any contents.
constexpr unsigned long g_nTileRecordAlign = 512;

constexpr unsigned long GetTileRecordCapacity(unsigned int nPixelBytes)
{
  return (static_cast<unsigned long>(nPixelBytes) + 4 + g_nTileRecordAlign - 1) / g_nTileRecordAlign *
         g_nTileRecordAlign;
}

// Fills pBuffer with the record of the nPixelBytes at pPixels; returns the count to write.
ORL_OSTREL_API unsigned long EncodeTileRecord(const void* pPixels, unsigned int nPixelBytes, char* pBuffer);
// With the first 512 bytes of a record in pBuffer: how many bytes follow them.
ORL_OSTREL_API unsigned long GetTileRecordRest(const char* pBuffer, unsigned int nPixelBytes);
// With the whole record in pBuffer: the pixels.
ORL_OSTREL_API void DecodeTileRecord(const char* pBuffer, unsigned int nPixelBytes, void* pPixels);
// Appends the tile's own entry (translated, code 0, empty detail) to a failure of the file primitives.
ORL_OSTREL_API void AddTileMessage(Harnel::CBasicException& oError, const char* pFile, int nLine, const char* pMessage);

// A rectangular piece of a tile band, handled by shared pointer through this untyped base by the tile
// cache and the band. Its pixels can leave memory for a record in a file and come back; the object
// itself, with its geometry and bookkeeping, stays. Tiles do not lock: the tile cache serialises what
// it does with them and touches only tiles that nobody else holds.
class ORL_OSTREL_API CTileBase
{
public:
  CTileBase(unsigned int nSizeX, unsigned int nSizeY, unsigned int nPosX, unsigned int nPosY,
            const boost::shared_ptr<CTileSourceInfo>& pSourceInfo)
    : m_nPosX(nPosX), m_nPosY(nPosY), m_nSizeX(nSizeX), m_nSizeY(nSizeY), m_nAllocSizeX(nSizeX),
      m_nAllocBytes(0), m_pSourceInfo(pSourceInfo), m_nFile(-1), m_nFileOffset(-1), m_bModified(false)
  {
  }
  CTileBase(const CTileBase&) = delete;
  CTileBase& operator=(const CTileBase&) = delete;
  virtual ~CTileBase() = default;

  // Null while the pixels are not in memory; cast to the pixel type by the caller.
  virtual void* GetDataLocation() const = 0;
  // The exact byte count of the pixels, less than the block for most edge tiles.
  virtual unsigned int GetMemorySize() const = 0;
  // Both are no-ops in the state that they lead to. AllocMemory raises CBasicException.
  virtual void FreeMemory() = 0;
  virtual void AllocMemory() = 0;

  // Records at GetFileOffset() in GetFile(); each clears the modified flag when it succeeds. A record
  // has to be read by the operation of the kind that wrote it. The buffer is the caller's, at least
  // GetRecordCapacity() bytes. Failures of the file primitives pass as CFileioError with the tile's
  // entry behind theirs; a failed write leaves pixels, memory and modified flag as they were.
  virtual void WriteBinary() = 0;                      // plain record: the pixels, nothing else
  virtual void WriteBinaryWithBuffer(char* pBuffer) = 0; // buffered record
  virtual void ReadBinary() = 0;
  virtual void ReadBinaryWithBuffer(char* pBuffer) = 0;
  // The buffered record again, with positional reads and writes that leave the descriptor's position
  // alone: the tile cache's way, so that records of different tiles move at once on one descriptor.
  virtual void WriteBinaryWithBufferAt(char* pBuffer) = 0;
  virtual void ReadBinaryWithBufferAt(char* pBuffer) = 0;

  unsigned int GetPosX() const { return m_nPosX; }
  unsigned int GetPosY() const { return m_nPosY; }
  unsigned int GetSizeX() const { return m_nSizeX; }
  unsigned int GetSizeY() const { return m_nSizeY; }
  unsigned int GetAllocSizeX() const { return m_nAllocSizeX; }
  // The rounded block that the allocator set aside.
  unsigned int GetAllocBytes() const { return m_nAllocBytes; }
  const boost::shared_ptr<CTileSourceInfo>& GetSourceInfo() const { return m_pSourceInfo; }

  bool IsModified() const { return m_bModified; }
  void SetModified(bool bModified) { m_bModified = bModified; }

  // Where the tile's record lies; -1 and -1 until a file is given.
  int GetFile() const { return m_nFile; }
  std::int64_t GetFileOffset() const { return m_nFileOffset; }
  void SetFileLocation(int nFile, std::int64_t nFileOffset)
  {
    m_nFile = nFile;
    m_nFileOffset = nFileOffset;
  }

  // The longest buffered record of this tile: the size of its work buffer and of its slot in a file.
  unsigned long GetRecordCapacity() const { return GetTileRecordCapacity(GetMemorySize()); }

protected:
  unsigned int m_nPosX;
  unsigned int m_nPosY;
  unsigned int m_nSizeX;
  unsigned int m_nSizeY;
  unsigned int m_nAllocSizeX;
  unsigned int m_nAllocBytes;
  boost::shared_ptr<CTileSourceInfo> m_pSourceInfo;
  int m_nFile;
  std::int64_t m_nFileOffset;
  bool m_bModified;
};

// A tile of TPixel with memory from TAlloc (the system uses CDefaultTileAlloc<TPixel>). A new tile has
// memory, not cleared.
template <class TPixel, class TAlloc>
class CTile : public CTileBase
{
public:
  CTile(unsigned int nSizeX, unsigned int nSizeY, unsigned int nPosX, unsigned int nPosY,
        const boost::shared_ptr<CTileSourceInfo>& pSourceInfo)
    : CTileBase(nSizeX, nSizeY, nPosX, nPosY, pSourceInfo), m_pData(nullptr)
  {
    AllocMemory();
  }

  ~CTile() override { FreeMemory(); }

  TPixel* GetData() const { return m_pData; }

  void* GetDataLocation() const override { return m_pData; }

  unsigned int GetMemorySize() const override
  {
    return m_nAllocSizeX * m_nSizeY * static_cast<unsigned int>(sizeof(TPixel));
  }

  void FreeMemory() override
  {
    if (!m_pData)
      return;
    TAlloc::Release(m_pData, m_nSizeX, m_nSizeY, m_nAllocSizeX, m_nAllocBytes);
    m_pData = nullptr;
  }

  void AllocMemory() override
  {
    if (m_pData)
      return;
    m_pData = TAlloc::Allocate(m_nSizeX, m_nSizeY, m_nAllocSizeX, m_nAllocBytes);
  }

  void WriteBinary() override
  {
    try
    {
      Harnel::Fileio::SeekFile(m_nFile, m_nFileOffset, Harnel::Fileio::eSeekBegin);
      Harnel::Fileio::WriteFile(m_nFile, m_pData, GetMemorySize());
    }
    catch (Harnel::Fileio::CFileioError& oError)
    {
      AddTileMessage(oError, __FILE__, __LINE__, "Failed to write the tile cache");
      throw;
    }
    SetModified(false);
  }

  void WriteBinaryWithBuffer(char* pBuffer) override
  {
    try
    {
      Harnel::Fileio::SeekFile(m_nFile, m_nFileOffset, Harnel::Fileio::eSeekBegin);
      Harnel::Fileio::WriteFile(m_nFile, pBuffer, EncodeTileRecord(m_pData, GetMemorySize(), pBuffer));
    }
    catch (Harnel::Fileio::CFileioError& oError)
    {
      AddTileMessage(oError, __FILE__, __LINE__, "Failed to write to the disk tile cache");
      throw;
    }
    SetModified(false);
  }

  void ReadBinary() override
  {
    // An allocation failure passes without the tile's entry: it is not a failure of the file.
    AllocMemory();
    try
    {
      Harnel::Fileio::SeekFile(m_nFile, m_nFileOffset, Harnel::Fileio::eSeekBegin);
      Harnel::Fileio::ReadFile(m_nFile, m_pData, GetMemorySize());
    }
    catch (Harnel::Fileio::CFileioError& oError)
    {
      AddTileMessage(oError, __FILE__, __LINE__, "Failed to read from the disk tile cache");
      throw;
    }
    SetModified(false);
  }

  void ReadBinaryWithBuffer(char* pBuffer) override
  {
    AllocMemory();
    try
    {
      Harnel::Fileio::SeekFile(m_nFile, m_nFileOffset, Harnel::Fileio::eSeekBegin);
      Harnel::Fileio::ReadFile(m_nFile, pBuffer, g_nTileRecordAlign);
      Harnel::Fileio::ReadFile(m_nFile, pBuffer + g_nTileRecordAlign, GetTileRecordRest(pBuffer, GetMemorySize()));
    }
    catch (Harnel::Fileio::CFileioError& oError)
    {
      AddTileMessage(oError, __FILE__, __LINE__, "Failed to read from the disk tile cache");
      throw;
    }
    DecodeTileRecord(pBuffer, GetMemorySize(), m_pData);
    SetModified(false);
  }

  void WriteBinaryWithBufferAt(char* pBuffer) override
  {
    try
    {
      Harnel::Fileio::WriteFileAt(m_nFile, pBuffer, EncodeTileRecord(m_pData, GetMemorySize(), pBuffer),
                                  m_nFileOffset);
    }
    catch (Harnel::Fileio::CFileioError& oError)
    {
      AddTileMessage(oError, __FILE__, __LINE__, "Failed to write to the disk tile cache");
      throw;
    }
    SetModified(false);
  }

  void ReadBinaryWithBufferAt(char* pBuffer) override
  {
    AllocMemory();
    try
    {
      Harnel::Fileio::ReadFileAt(m_nFile, pBuffer, g_nTileRecordAlign, m_nFileOffset);
      Harnel::Fileio::ReadFileAt(m_nFile, pBuffer + g_nTileRecordAlign,
                                 GetTileRecordRest(pBuffer, GetMemorySize()),
                                 m_nFileOffset + static_cast<std::int64_t>(g_nTileRecordAlign));
    }
    catch (Harnel::Fileio::CFileioError& oError)
    {
      AddTileMessage(oError, __FILE__, __LINE__, "Failed to read from the disk tile cache");
      throw;
    }
    DecodeTileRecord(pBuffer, GetMemorySize(), m_pData);
    SetModified(false);
  }

private:
  TPixel* m_pData;
};

#define ORL_TILE_EXTERN(T) extern template class CTile<T, CDefaultTileAlloc<T> >;
ORL_FOR_EACH_PIXEL_TYPE(ORL_TILE_EXTERN)
#undef ORL_TILE_EXTERN

}}}} // namespace Orl::Ostrel::Band::Detail
