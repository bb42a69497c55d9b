#include "Band/Tile.h"

#include "Support/PixelTypes.h"
#include "Support/ScratchFiles.h"
#include "TileTestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

using namespace Orl::Test;
using Orl::Harnel::Fileio::CFileioError;
using Orl::Ostrel::Band::Detail::EncodeTileRecord;
using Orl::Ostrel::Band::Detail::GetTileRecordCapacity;
using Orl::Ostrel::Band::Detail::GetTileRecordRest;

namespace {

class CRecordFile
{
public:
  CRecordFile()
  {
    m_nFile = ::open((m_oDirectory.GetPath() + "/records").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    EXPECT_GE(m_nFile, 0);
  }
  ~CRecordFile() { ::close(m_nFile); }
  int Get() const { return m_nFile; }
  long long GetSize() const
  {
    struct stat oStat;
    ::fstat(m_nFile, &oStat);
    return oStat.st_size;
  }

private:
  CScratchDirectory m_oDirectory;
  int m_nFile = -1;
};

std::int32_t _Header(const std::vector<char>& vecBuffer)
{
  std::int32_t nHeader;
  std::memcpy(&nHeader, vecBuffer.data(), 4);
  return nHeader;
}

// The ways a tile writes and reads its records; each pair has to agree with itself, and the buffered
// pairs with each other.
enum class EWay
{
  ePlain,
  eBuffered,
  eBufferedAt
};

void _Write(CTileBase& oTile, EWay eWay, std::vector<char>& vecBuffer)
{
  switch (eWay)
  {
  case EWay::ePlain:
    oTile.WriteBinary();
    break;
  case EWay::eBuffered:
    oTile.WriteBinaryWithBuffer(vecBuffer.data());
    break;
  case EWay::eBufferedAt:
    oTile.WriteBinaryWithBufferAt(vecBuffer.data());
    break;
  }
}

void _Read(CTileBase& oTile, EWay eWay, std::vector<char>& vecBuffer)
{
  switch (eWay)
  {
  case EWay::ePlain:
    oTile.ReadBinary();
    break;
  case EWay::eBuffered:
    oTile.ReadBinaryWithBuffer(vecBuffer.data());
    break;
  case EWay::eBufferedAt:
    oTile.ReadBinaryWithBufferAt(vecBuffer.data());
    break;
  }
}

template <class TPixel>
class TileRecordTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(TileRecordTest, TAllPixelTypes);

} // namespace

TYPED_TEST(TileRecordTest, RecordsRoundTripForFullAndEdgeTilesOfAnyContent)
{
  // A full tile is 524288 bytes whatever the pixel type; edge tiles are anything smaller.
  const unsigned int nFullX = 2048 / sizeof(TypeParam);
  const struct
  {
    unsigned int nSizeX, nSizeY;
  } aSizes[] = {{nFullX, 256}, {nFullX - 1, 255}, {37, 13}, {1, 1}, {nFullX, 1}};
  const std::pair<EWay, EWay> aWays[] = {{EWay::ePlain, EWay::ePlain},
                                         {EWay::eBuffered, EWay::eBuffered},
                                         {EWay::eBuffered, EWay::eBufferedAt},
                                         {EWay::eBufferedAt, EWay::eBuffered}};
  CRecordFile oFile;
  std::uint64_t nSeed = 1;
  for (const auto& oSize : aSizes)
    for (EContent eContent : {EContent::eConstant, EContent::eNoise})
      for (const auto& oWays : aWays)
      {
        ++nSeed;
        const auto pWritten = MakeTile<TypeParam>(oSize.nSizeX, oSize.nSizeY);
        const auto pRead = MakeTile<TypeParam>(oSize.nSizeX, oSize.nSizeY);
        const unsigned long nCapacity = pWritten->GetRecordCapacity();
        std::vector<char> vecBuffer(nCapacity);
        Fill(*pWritten, nSeed, eContent);
        pWritten->SetModified(true);
        // An offset that is not a multiple of the slot, behind bytes that must stay.
        pWritten->SetFileLocation(oFile.Get(), 1024);
        pRead->SetFileLocation(oFile.Get(), 1024);
        ASSERT_EQ(0, ::ftruncate(oFile.Get(), 0));

        _Write(*pWritten, oWays.first, vecBuffer);
        EXPECT_FALSE(pWritten->IsModified());
        const long long nRecord = oFile.GetSize() - 1024;
        if (oWays.first == EWay::ePlain)
          EXPECT_EQ(pWritten->GetMemorySize(), nRecord);
        else
        {
          EXPECT_EQ(0, nRecord % 512);
          EXPECT_LE(nRecord, static_cast<long long>(nCapacity));
          // Noise never compresses into fewer bytes than it has.
          if (eContent == EContent::eNoise && pWritten->GetMemorySize() > 64)
          {
            EXPECT_EQ(0, _Header(vecBuffer));
          }
        }

        pRead->SetModified(true);
        _Read(*pRead, oWays.second, vecBuffer);
        EXPECT_TRUE(Holds(*pRead, nSeed, eContent))
          << oSize.nSizeX << "x" << oSize.nSizeY << " ways " << int(oWays.first) << "," << int(oWays.second);
        EXPECT_FALSE(pRead->IsModified());
      }
}

TEST(TileRecordTest, CompressedPayloadUpTo508BytesTakesOneBlockAnd509TakesTwo)
{
  // Noise followed by a constant run compresses to about the noise's length: look for the lengths that
  // give payloads of exactly 508 and 509 bytes.
  const auto pTile = MakeTile<unsigned char>(256, 256);
  std::vector<char> vecBuffer(pTile->GetRecordCapacity());
  std::map<std::int32_t, unsigned long> mapRecordLength;
  for (std::size_t nNoise = 100; nNoise < 540; ++nNoise)
  {
    Fill(*pTile, 3, EContent::eConstant);
    const std::vector<char> vecNoise = MakeBytes(nNoise, 5, EContent::eNoise);
    std::memcpy(pTile->GetDataLocation(), vecNoise.data(), nNoise);
    const unsigned long nLength = EncodeTileRecord(pTile->GetDataLocation(), pTile->GetMemorySize(), vecBuffer.data());
    mapRecordLength[_Header(vecBuffer)] = nLength;
    if (_Header(vecBuffer) == 508 || _Header(vecBuffer) == 509)
    {
      EXPECT_EQ(nLength - 512, GetTileRecordRest(vecBuffer.data(), pTile->GetMemorySize()));
    }
  }
  ASSERT_TRUE(mapRecordLength.count(508) && mapRecordLength.count(509)) << "no such noise length found";
  EXPECT_EQ(512u, mapRecordLength[508]);
  EXPECT_EQ(1024u, mapRecordLength[509]);
}

TEST(TileRecordTest, IncompressibleFullTileTakesItsBytesPlusHeaderRoundedUp)
{
  const auto pTile = MakeTile<float>(512, 256);
  Fill(*pTile, 9, EContent::eNoise);
  std::vector<char> vecBuffer(pTile->GetRecordCapacity());
  EXPECT_EQ(524800u, vecBuffer.size());
  EXPECT_EQ(524800u, EncodeTileRecord(pTile->GetDataLocation(), pTile->GetMemorySize(), vecBuffer.data()));
  EXPECT_EQ(0, _Header(vecBuffer));
  EXPECT_EQ(524800u - 512, GetTileRecordRest(vecBuffer.data(), pTile->GetMemorySize()));
  EXPECT_EQ(512u, GetTileRecordCapacity(508));
  EXPECT_EQ(1024u, GetTileRecordCapacity(509));
}

TEST(TileRecordTest, PlainReadOfAResidentTileReadsInPlace)
{
  CRecordFile oFile;
  const auto pTile = MakeTile<short>(100, 100);
  pTile->SetFileLocation(oFile.Get(), 0);
  Fill(*pTile, 4, EContent::eNoise);
  pTile->WriteBinary();
  void* const pData = pTile->GetDataLocation();
  Fill(*pTile, 5, EContent::eNoise);
  pTile->SetModified(true);
  pTile->ReadBinary();
  EXPECT_EQ(pData, pTile->GetDataLocation());
  EXPECT_TRUE(Holds(*pTile, 4, EContent::eNoise));
  EXPECT_FALSE(pTile->IsModified());
}

TEST(TileRecordTest, FailedWritesCarryBothEntriesAndKeepPixelsAndFlag)
{
  CRecordFile oFile;
  const int nReadOnly = ::open(("/proc/self/fd/" + std::to_string(oFile.Get())).c_str(), O_RDONLY);
  ASSERT_GE(nReadOnly, 0);
  const std::pair<EWay, const char*> aCases[] = {{EWay::ePlain, "Failed to write the tile cache"},
                                                 {EWay::eBuffered, "Failed to write to the disk tile cache"},
                                                 {EWay::eBufferedAt, "Failed to write to the disk tile cache"}};
  for (const auto& oCase : aCases)
  {
    const auto pTile = MakeTile<double>(64, 64);
    Fill(*pTile, 6, EContent::eNoise);
    pTile->SetModified(true);
    pTile->SetFileLocation(nReadOnly, 0);
    std::vector<char> vecBuffer(pTile->GetRecordCapacity());
    try
    {
      _Write(*pTile, oCase.first, vecBuffer);
      ADD_FAILURE() << "nothing raised";
    }
    catch (const CFileioError& oError)
    {
      ASSERT_EQ(2u, oError.GetInfoCount());
      EXPECT_EQ("Failed to write to a file", oError.GetInfo(0).m_strMessage);
      EXPECT_EQ(EBADF, oError.GetInfo(0).m_nErrorCode);
      EXPECT_EQ(oCase.second, oError.GetInfo(1).m_strMessage);
      EXPECT_EQ(0, oError.GetInfo(1).m_nErrorCode);
    }
    EXPECT_TRUE(pTile->IsModified());
    EXPECT_TRUE(Holds(*pTile, 6, EContent::eNoise));
  }
  ::close(nReadOnly);
}

TEST(TileRecordTest, TruncatedRecordsFailToReadWithBothEntries)
{
  for (EWay eWay : {EWay::ePlain, EWay::eBuffered, EWay::eBufferedAt})
    for (EContent eContent : {EContent::eConstant, EContent::eNoise})
    {
      CRecordFile oFile;
      const auto pTile = MakeTile<unsigned short>(300, 200);
      Fill(*pTile, 7, eContent);
      pTile->SetFileLocation(oFile.Get(), 0);
      std::vector<char> vecBuffer(pTile->GetRecordCapacity());
      _Write(*pTile, eWay, vecBuffer);
      // A constant record lies within its first block: cut into that, else into the rest.
      ASSERT_EQ(0, ::ftruncate(oFile.Get(), eContent == EContent::eConstant ? 100 : 1000));
      pTile->SetModified(true);
      try
      {
        _Read(*pTile, eWay, vecBuffer);
        ADD_FAILURE() << "nothing raised";
      }
      catch (const CFileioError& oError)
      {
        ASSERT_EQ(2u, oError.GetInfoCount());
        EXPECT_EQ("Failed to read enough bytes from a file", oError.GetInfo(0).m_strMessage);
        EXPECT_EQ("Failed to read from the disk tile cache", oError.GetInfo(1).m_strMessage);
      }
      EXPECT_TRUE(pTile->IsModified());
      EXPECT_NE(nullptr, pTile->GetDataLocation());
    }
}
