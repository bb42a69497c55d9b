#include "Band/TileCache.h"

#include "Support/ScratchFiles.h"
#include "TileTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <sys/stat.h>
#include <vector>

using namespace Orl::Test;
using Orl::Ostrel::Band::CTileCache;
using Orl::Ostrel::Band::STileCacheCounters;

namespace {

constexpr std::uint64_t g_nFullBlock = 524288;

// A registered tile and what it should hold.
struct STileRecord
{
  unsigned int m_nId;
  std::uint64_t m_nSeed;
  EContent m_eContent;
};

class CTileCacheTest : public ::testing::Test
{
protected:
  CTileCacheTest() { m_oCache.SetSpillDirectory(m_oDirectory.GetPath()); }

  STileRecord Register(const boost::shared_ptr<CTileBase>& pTile, EContent eContent = EContent::eNoise)
  {
    Fill(*pTile, ++m_nSeed, eContent);
    return STileRecord{m_oCache.RegisterTile(pTile), m_nSeed, eContent};
  }

  // New contents through a write access, as an iterator writes.
  void Rewrite(STileRecord& oRecord)
  {
    oRecord.m_nSeed = ++m_nSeed;
    Fill(*m_oCache.GetTile(oRecord.m_nId, true), oRecord.m_nSeed, oRecord.m_eContent);
  }

  bool Intact(const STileRecord& oRecord)
  {
    return Holds(*m_oCache.GetTile(oRecord.m_nId, false), oRecord.m_nSeed, oRecord.m_eContent);
  }

  STileCacheCounters Counters() const { return m_oCache.GetCounters(); }

  static struct stat FileStat(int nFile)
  {
    struct stat oStat{};
    ::fstat(nFile, &oStat);
    return oStat;
  }

  CScratchDirectory m_oDirectory;
  CTileCache m_oCache;
  std::uint64_t m_nSeed = 0;
};

} // namespace

TEST_F(CTileCacheTest, TinyBudgetSpillsAndReloadsTilesOfSeveralTypesIntact)
{
  m_oCache.SetMemoryBudget(3 * g_nFullBlock);
  const std::function<boost::shared_ptr<CTileBase>()> aMakers[] = {
    [] { return MakeTile<unsigned char>(1024, 512); }, [] { return MakeTile<float>(512, 256); },
    [] { return MakeTile<double>(256, 256); },         [] { return MakeTile<short>(300, 170); },
    [] { return MakeTile<unsigned int>(1, 7); },       [] { return MakeTile<float>(512, 3); }};
  std::vector<STileRecord> vecTiles;
  for (int i = 0; i < 60; ++i)
  {
    vecTiles.push_back(Register(aMakers[i % 6](), i % 3 ? EContent::eNoise : EContent::eConstant));
    EXPECT_LE(Counters().m_nResidentBytes, 3 * g_nFullBlock);
  }
  std::mt19937 oRandom(42);
  for (int nRound = 0; nRound < 2; ++nRound)
  {
    std::shuffle(vecTiles.begin(), vecTiles.end(), oRandom);
    for (std::size_t i = 0; i < vecTiles.size(); ++i)
    {
      EXPECT_TRUE(Intact(vecTiles[i])) << vecTiles[i].m_nId;
      if (i % 2)
        Rewrite(vecTiles[i]);
    }
  }
  for (const STileRecord& oRecord : vecTiles)
    EXPECT_TRUE(Intact(oRecord)) << oRecord.m_nId;

  const STileCacheCounters oCounters = Counters();
  EXPECT_EQ(60u, oCounters.m_nResidentTiles + oCounters.m_nSpilledTiles);
  EXPECT_GT(oCounters.m_nRecordsRead, 100u);
  EXPECT_LE(oCounters.m_nResidentBytes, 3 * g_nFullBlock);
  EXPECT_TRUE(m_oDirectory.GetEntries().empty()) << "the spill file has a name";

  const int nFile = m_oCache.GetTile(vecTiles[0].m_nId, false)->GetFile();
  for (const STileRecord& oRecord : vecTiles)
    m_oCache.ReleaseTile(oRecord.m_nId);
  EXPECT_EQ(0u, Counters().m_nTiles + Counters().m_nResidentBytes + Counters().m_nFileBytes);
  EXPECT_EQ(0, FileStat(nFile).st_size);
}

TEST_F(CTileCacheTest, HeldTilesStayWhateverTheBudget)
{
  std::vector<STileRecord> vecTiles;
  for (int i = 0; i < 6; ++i)
    vecTiles.push_back(Register(MakeTile<float>(512, 256)));
  std::vector<boost::shared_ptr<CTileBase> > vecHeld{m_oCache.GetTile(vecTiles[1].m_nId, true),
                                                     m_oCache.GetTile(vecTiles[4].m_nId, false)};
  m_oCache.SetMemoryBudget(0);
  EXPECT_EQ(2u, Counters().m_nResidentTiles);
  EXPECT_TRUE(vecHeld[0]->GetDataLocation() && vecHeld[1]->GetDataLocation() && vecHeld[0]->IsModified());
  vecHeld.clear();
  m_oCache.SetMemoryBudget(0);
  EXPECT_EQ(0u, Counters().m_nResidentTiles);
  for (const STileRecord& oRecord : vecTiles)
    EXPECT_TRUE(Intact(oRecord));
}

TEST_F(CTileCacheTest, SlotsAreReusedAndTheFileShrinksAsItsEndFallsFree)
{
  m_oCache.SetMemoryBudget(0);
  constexpr std::uint64_t nSlot = 524800;
  const STileRecord oA = Register(MakeTile<float>(512, 256)), oB = Register(MakeTile<float>(512, 256)),
                    oC = Register(MakeTile<float>(512, 256));
  m_oCache.SetMemoryBudget(0);
  EXPECT_EQ(3 * nSlot, Counters().m_nFileBytes);
  const int nFile = m_oCache.GetTile(oC.m_nId, false)->GetFile();

  m_oCache.ReleaseTile(oB.m_nId);
  const STileRecord oD = Register(MakeTile<float>(512, 256));
  m_oCache.SetMemoryBudget(0);
  EXPECT_EQ(3 * nSlot, Counters().m_nFileBytes) << "the free slot was not reused";
  m_oCache.ReleaseTile(oC.m_nId);
  EXPECT_EQ(static_cast<off_t>(2 * nSlot), FileStat(nFile).st_size);
  EXPECT_TRUE(Intact(oA) && Intact(oD));
  m_oCache.ReleaseTile(oA.m_nId);
  EXPECT_EQ(2 * nSlot, Counters().m_nFileBytes);
  m_oCache.ReleaseTile(oD.m_nId);
  EXPECT_EQ(0, FileStat(nFile).st_size);
}

// Only new or written tiles are written out, and constant ones cost little disk.
TEST_F(CTileCacheTest, OnlyNewOrWrittenTilesAreWrittenOutAndConstantOnesSmall)
{
  m_oCache.SetMemoryBudget(0);
  std::vector<STileRecord> vecTiles;
  for (int i = 0; i < 20; ++i)
    vecTiles.push_back(Register(MakeTile<unsigned char>(1024, 512), EContent::eConstant));
  m_oCache.SetMemoryBudget(0);
  EXPECT_LE(Counters().m_nBytesWritten, 20u * 4096);
  // Blocks the file takes, where the file system keeps files sparse as the usual ones do.
  EXPECT_LE(FileStat(m_oCache.GetTile(vecTiles[0].m_nId, false)->GetFile()).st_blocks * 512, 20 * 16384);
  for (const STileRecord& oRecord : vecTiles)
    EXPECT_TRUE(Intact(oRecord));
  m_oCache.SetMemoryBudget(0);
  EXPECT_EQ(20u, Counters().m_nRecordsWritten);
  Rewrite(vecTiles[2]);
  m_oCache.SetMemoryBudget(0);
  EXPECT_EQ(21u, Counters().m_nRecordsWritten);
  EXPECT_TRUE(Intact(vecTiles[2]));
}

TEST_F(CTileCacheTest, TilesInUseSurviveAScanLargerThanTheBudget)
{
  // Room for eight small tiles; four are used all along while 200 new tiles stream through.
  m_oCache.SetMemoryBudget(8 * 65536);
  std::vector<STileRecord> vecHot, vecScan;
  for (int i = 0; i < 4; ++i)
    vecHot.push_back(Register(MakeTile<unsigned char>(256, 256)));
  for (int i = 0; i < 200; ++i)
  {
    vecScan.push_back(Register(MakeTile<unsigned char>(256, 256)));
    for (const STileRecord& oHot : vecHot)
      m_oCache.GetTile(oHot.m_nId, false);
  }
  EXPECT_EQ(0u, Counters().m_nRecordsRead) << "a tile in use was pushed out by the scan";
  for (const STileRecord& oRecord : vecScan)
    EXPECT_TRUE(Intact(oRecord));
}

TEST_F(CTileCacheTest, MissingSpillDirectoryFailsTheRegistrationUntilItIsThere)
{
  m_oCache.SetMemoryBudget(g_nFullBlock);
  m_oCache.SetSpillDirectory(m_oDirectory.GetPath() + "/missing");
  const STileRecord oFirst = Register(MakeTile<float>(512, 256));
  const auto pSecond = MakeTile<float>(512, 256);
  const std::string strEntries = Entries([&] { m_oCache.RegisterTile(pSecond); });
  EXPECT_NE(std::string::npos, strEntries.find("/missing")) << strEntries;
  EXPECT_NE(std::string::npos, strEntries.find("(" + std::to_string(ENOENT) + ")")) << strEntries;
  EXPECT_EQ(1u, Counters().m_nTiles);
  m_oCache.SetSpillDirectory(m_oDirectory.GetPath());
  const STileRecord oSecond = Register(pSecond);
  EXPECT_TRUE(Intact(oFirst) && Intact(oSecond));
}

TEST(TileCacheBudgetTest, EnvironmentSetsTheBudgetWhenItIsAByteCount)
{
  const std::uint64_t nDefault = CTileCache::GetUsableMemory() / 4;
  EXPECT_GT(nDefault, 0u);
  const std::pair<const char*, std::uint64_t> aCases[] = {
    {"123", 123}, {"64M", 64u << 20}, {"2g", 2ull << 30}, {"7K", 7168}, {"12X", nDefault}, {"-5", nDefault}};
  for (const auto& oCase : aCases)
  {
    ::setenv("ORL_TILE_CACHE_BYTES", oCase.first, 1);
    EXPECT_EQ(oCase.second, CTileCache().GetMemoryBudget()) << oCase.first;
  }
  ::unsetenv("ORL_TILE_CACHE_BYTES");
  EXPECT_EQ(nDefault, CTileCache().GetMemoryBudget());
}
