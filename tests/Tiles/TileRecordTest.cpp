#include "Band/Tile.h"

#include "Support/PixelTypes.h"
#include "Support/ScratchFiles.h"
#include "TileTestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <map>
#include <unistd.h>

using namespace Orl::Test;
using Orl::Ostrel::Band::Detail::EncodeTileRecord;
using Orl::Ostrel::Band::Detail::GetTileRecordRest;

namespace {

// The three ways a tile writes and reads records: plain, buffered, buffered positional.
enum EWay { ePlain, eBuffered, eBufferedAt };

void _Write(CTileBase& oTile, EWay eWay, char* pBuffer)
{
  eWay == ePlain ? oTile.WriteBinary() : eWay == eBuffered ? oTile.WriteBinaryWithBuffer(pBuffer) : oTile.WriteBinaryWithBufferAt(pBuffer);
}

void _Read(CTileBase& oTile, EWay eWay, char* pBuffer)
{
  eWay == ePlain ? oTile.ReadBinary() : eWay == eBuffered ? oTile.ReadBinaryWithBuffer(pBuffer) : oTile.ReadBinaryWithBufferAt(pBuffer);
}

std::int32_t _Header(const std::vector<char>& vecBuffer)
{
  std::int32_t nHeader;
  return std::memcpy(&nHeader, vecBuffer.data(), 4), nHeader;
}

// A scratch file, also open for reading only, where every write fails.
struct SRecordFile
{
  CScratchDirectory m_oDirectory;
  int m_nFile = ::open((m_oDirectory.GetPath() + "/records").c_str(), O_RDWR | O_CREAT, 0600);
  int m_nReadOnly = ::open((m_oDirectory.GetPath() + "/records").c_str(), O_RDONLY);
  ~SRecordFile() { ::close(m_nFile), ::close(m_nReadOnly); }
  long long GetSize() const { return ::lseek(m_nFile, 0, SEEK_END); }
};

template <class TPixel>
struct TileRecordTest : ::testing::Test
{
};
TYPED_TEST_SUITE(TileRecordTest, TAllPixelTypes);

} // namespace

// Written one way and read another, at an offset that is not a multiple of a slot. A failed write
// (to a descriptor open for reading) or a read of a record cut short raises the file error and the
// tile's own entry, and leaves the pixels and the modified mark as they were.
TYPED_TEST(TileRecordTest, RecordsRoundTripAndFailuresLeavePixelsAndFlag)
{
  // A full tile is 524288 bytes whatever the pixel type; edge tiles are anything smaller.
  const unsigned int nFullX = 2048 / sizeof(TypeParam);
  const unsigned int aSizes[][2] = {{nFullX, 256}, {nFullX - 1, 255}, {37, 13}, {1, 1}};
  const EWay aWays[][2] = {{ePlain, ePlain}, {eBuffered, eBuffered}, {eBuffered, eBufferedAt}, {eBufferedAt, eBuffered}};
  const char* const aWriteMessages[] = {"Failed to write the tile cache", "Failed to write to the disk tile cache",
                                        "Failed to write to the disk tile cache"};
  SRecordFile oFile;
  std::uint64_t nSeed = 1;
  for (const auto& aSize : aSizes)
    for (EContent eContent : {EContent::eConstant, EContent::eNoise})
      for (const auto& aWay : aWays)
      {
        SCOPED_TRACE(std::to_string(aSize[0]) + "x" + std::to_string(aSize[1]) + " ways " + std::to_string(aWay[0]) +
                     std::to_string(aWay[1]) + (eContent == EContent::eNoise ? " noise" : " constant"));
        const auto pWritten = MakeTile<TypeParam>(aSize[0], aSize[1]);
        const auto pRead = MakeTile<TypeParam>(aSize[0], aSize[1]);
        std::vector<char> vecBuffer(pWritten->GetRecordCapacity());
        Fill(*pWritten, ++nSeed, eContent);
        pWritten->SetModified(true);
        pWritten->SetFileLocation(oFile.m_nReadOnly, 1024);
        EXPECT_EQ("Failed to write to a file (" + std::to_string(EBADF) + ") / " + aWriteMessages[aWay[0]] + " / 2",
                  Entries([&] { _Write(*pWritten, aWay[0], vecBuffer.data()); }));
        EXPECT_TRUE(pWritten->IsModified() && Holds(*pWritten, nSeed, eContent));

        pWritten->SetFileLocation(oFile.m_nFile, 1024);
        pRead->SetFileLocation(oFile.m_nFile, 1024);
        ASSERT_EQ(0, ::ftruncate(oFile.m_nFile, 0));
        _Write(*pWritten, aWay[0], vecBuffer.data());
        EXPECT_FALSE(pWritten->IsModified());
        const long long nRecord = oFile.GetSize() - 1024;
        if (aWay[0] == ePlain)
          EXPECT_EQ(pWritten->GetMemorySize(), nRecord);
        else if (eContent == EContent::eNoise && pWritten->GetMemorySize() > 64)
          EXPECT_TRUE(nRecord == static_cast<long long>(vecBuffer.size()) && _Header(vecBuffer) == 0) << nRecord;
        else
          EXPECT_TRUE(nRecord % 512 == 0 && nRecord <= static_cast<long long>(vecBuffer.size())) << nRecord;

        // Read over pixels in memory: in place, and clean afterwards.
        void* const pData = pRead->GetDataLocation();
        pRead->SetModified(true);
        _Read(*pRead, aWay[1], vecBuffer.data());
        EXPECT_TRUE(Holds(*pRead, nSeed, eContent));
        EXPECT_EQ(pData, pRead->GetDataLocation());
        EXPECT_FALSE(pRead->IsModified());

        ASSERT_EQ(0, ::ftruncate(oFile.m_nFile, 1024 + nRecord / 2));
        pRead->SetModified(true);
        EXPECT_EQ("Failed to read enough bytes from a file / Failed to read from the disk tile cache / 2",
                  Entries([&] { _Read(*pRead, aWay[1], vecBuffer.data()); }, false));
        EXPECT_TRUE(pRead->IsModified());
      }
}

TEST(TileRecordTest, PayloadsUpTo508BytesTakeOneBlockAndLongerOnesMore)
{
  // Noise followed by a constant run compresses to about the noise's length plus the run's: look for
  // noise lengths that give payloads of exactly 508 and 509 bytes.
  const auto pTile = MakeTile<unsigned char>(256, 256);
  std::vector<char> vecBuffer(pTile->GetRecordCapacity());
  std::map<std::int32_t, std::pair<unsigned long, unsigned long> > mapLengthAndRest;
  for (std::size_t nNoise = 100; nNoise < 540; ++nNoise)
  {
    Fill(*pTile, 3, EContent::eConstant);
    std::memcpy(pTile->GetDataLocation(), MakeBytes(nNoise, 5, EContent::eNoise).data(), nNoise);
    const unsigned long nLength = EncodeTileRecord(pTile->GetDataLocation(), pTile->GetMemorySize(), vecBuffer.data());
    mapLengthAndRest[_Header(vecBuffer)] = {nLength, GetTileRecordRest(vecBuffer.data(), pTile->GetMemorySize())};
  }
  const struct
  {
    std::int32_t nPayload;
    unsigned long nLength, nRest; // of the record, and what is read after its first block
  } aRows[] = {{508, 512, 0}, {509, 1024, 512}};
  for (const auto& oRow : aRows)
  {
    SCOPED_TRACE(oRow.nPayload);
    ASSERT_TRUE(mapLengthAndRest.count(oRow.nPayload)) << "no such noise length found";
    EXPECT_EQ(oRow.nLength, mapLengthAndRest[oRow.nPayload].first);
    EXPECT_EQ(oRow.nRest, mapLengthAndRest[oRow.nPayload].second);
  }

  const auto pFull = MakeTile<float>(512, 256);
  Fill(*pFull, 9, EContent::eNoise);
  std::vector<char> vecFull(pFull->GetRecordCapacity());
  EXPECT_EQ(524800u, EncodeTileRecord(pFull->GetDataLocation(), pFull->GetMemorySize(), vecFull.data()));
  EXPECT_EQ(524800u - 512, GetTileRecordRest(vecFull.data(), pFull->GetMemorySize()));
}
