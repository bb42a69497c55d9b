#include "Band/TileCache.h"

#include "Support/ScratchFiles.h"
#include "TileTestSupport.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace Orl::Test;
using Orl::Harnel::Fileio::g_oFailHandler;
using Orl::Ostrel::Band::CTileCache;
using Orl::Ostrel::Band::STileCacheCounters;

namespace {

constexpr std::uint64_t g_nFullBlock = 524288;
constexpr std::uint64_t g_nSlot = 524800; // the record slot of a full tile

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
  CTileCacheTest() { m_pCache->SetSpillDirectory(m_oDirectory.GetPath()); }
  // A fresh cache with its own spill file.
  void NewCache(std::uint64_t nBudget)
  {
    m_pCache.reset(new CTileCache);
    m_pCache->SetSpillDirectory(m_oDirectory.GetPath());
    m_pCache->SetMemoryBudget(nBudget);
  }
  ~CTileCacheTest() override { g_oFailHandler.reset(); }

  STileRecord Register(const boost::shared_ptr<CTileBase>& pTile, EContent eContent = EContent::eNoise)
  {
    Fill(*pTile, ++m_nSeed, eContent);
    return STileRecord{m_pCache->RegisterTile(pTile), m_nSeed, eContent};
  }
  // New contents through a write access, as an iterator writes.
  void Rewrite(STileRecord& oRecord)
  {
    oRecord.m_nSeed = ++m_nSeed;
    Fill(*m_pCache->GetTile(oRecord.m_nId, true), oRecord.m_nSeed, oRecord.m_eContent);
  }
  // A full float tile, registered and then written as a band does with a new tile.
  STileRecord Add()
  {
    STileRecord oRecord = Register(MakeTile<float>(512, 256));
    Rewrite(oRecord);
    return oRecord;
  }
  bool Intact(const STileRecord& oRecord)
  {
    return Holds(*m_pCache->GetTile(oRecord.m_nId, false), oRecord.m_nSeed, oRecord.m_eContent);
  }
  bool AllIntact(const std::vector<STileRecord>& vecTiles) // reads every one of them
  {
    return std::count_if(vecTiles.begin(), vecTiles.end(), [&](const STileRecord& o) { return Intact(o); }) ==
           std::ptrdiff_t(vecTiles.size());
  }
  STileCacheCounters Counters() const { return m_pCache->GetCounters(); }
  int File(const STileRecord& oRecord) { return m_pCache->GetTile(oRecord.m_nId, false)->GetFile(); }
  static struct stat Stat(int nFile)
  {
    struct stat oStat{};
    ::fstat(nFile, &oStat);
    return oStat;
  }

  CScratchDirectory m_oDirectory;
  std::unique_ptr<CTileCache> m_pCache{new CTileCache};
  std::uint64_t m_nSeed = 0;
};

} // namespace

TEST_F(CTileCacheTest, TinyBudgetSpillsAndReloadsTilesOfSeveralTypesIntact)
{
  m_pCache->SetMemoryBudget(3 * g_nFullBlock);
  // Tiles on their way out behind the caller may hold up to an eighth of the budget more.
  const std::uint64_t nMaxResident = 3 * g_nFullBlock + 3 * g_nFullBlock / 8;
  const std::function<boost::shared_ptr<CTileBase>()> aMakers[] = {
    [] { return MakeTile<unsigned char>(1024, 512); }, [] { return MakeTile<float>(512, 256); },
    [] { return MakeTile<double>(256, 256); },         [] { return MakeTile<short>(300, 170); },
    [] { return MakeTile<unsigned int>(1, 7); },       [] { return MakeTile<float>(512, 3); }};
  std::vector<STileRecord> vecTiles;
  for (int i = 0; i < 60; ++i)
  {
    vecTiles.push_back(Register(aMakers[i % 6](), i % 3 ? EContent::eNoise : EContent::eConstant));
    EXPECT_LE(Counters().m_nResidentBytes, nMaxResident);
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
  EXPECT_TRUE(AllIntact(vecTiles));
  const STileCacheCounters oCounters = Counters();
  EXPECT_EQ(60u, oCounters.m_nResidentTiles + oCounters.m_nSpilledTiles);
  EXPECT_GT(oCounters.m_nRecordsRead, 100u);
  EXPECT_LE(oCounters.m_nResidentBytes, nMaxResident);
  EXPECT_TRUE(m_oDirectory.GetEntries().empty()) << "the spill file has a name";
  for (const STileRecord& oRecord : vecTiles)
    m_pCache->ReleaseTile(oRecord.m_nId);
  EXPECT_EQ(0u, Counters().m_nTiles + Counters().m_nResidentBytes + Counters().m_nFileBytes);
}

TEST_F(CTileCacheTest, HeldTilesStayWhateverTheBudget)
{
  std::vector<STileRecord> vecTiles;
  for (int i = 0; i < 6; ++i)
    vecTiles.push_back(Register(MakeTile<float>(512, 256)));
  std::vector<boost::shared_ptr<CTileBase> > vecHeld{m_pCache->GetTile(vecTiles[1].m_nId, true),
                                                     m_pCache->GetTile(vecTiles[4].m_nId, false)};
  m_pCache->SetMemoryBudget(0);
  EXPECT_EQ(2u, Counters().m_nResidentTiles);
  EXPECT_TRUE(vecHeld[0]->GetDataLocation() && vecHeld[1]->GetDataLocation() && vecHeld[0]->IsModified());
  vecHeld.clear();
  m_pCache->SetMemoryBudget(0);
  EXPECT_EQ(0u, Counters().m_nResidentTiles);
  EXPECT_TRUE(AllIntact(vecTiles));
}

TEST_F(CTileCacheTest, SlotsAreReusedAndTheFileShrinksAsItsEndFallsFree)
{
  m_pCache->SetMemoryBudget(0);
  const STileRecord oA = Register(MakeTile<float>(512, 256)), oB = Register(MakeTile<float>(512, 256)),
                    oC = Register(MakeTile<float>(512, 256));
  m_pCache->SetMemoryBudget(0);
  EXPECT_EQ(3 * g_nSlot, Counters().m_nFileBytes);
  m_pCache->ReleaseTile(oB.m_nId);
  const STileRecord oD = Register(MakeTile<float>(512, 256));
  m_pCache->SetMemoryBudget(0);
  EXPECT_EQ(3 * g_nSlot, Counters().m_nFileBytes) << "the free slot was not reused";
  m_pCache->ReleaseTile(oC.m_nId);
  EXPECT_EQ(static_cast<off_t>(2 * g_nSlot), Stat(File(oA)).st_size);
  EXPECT_TRUE(Intact(oA) && Intact(oD));
  m_pCache->ReleaseTile(oA.m_nId);
  EXPECT_EQ(2 * g_nSlot, Counters().m_nFileBytes);
  const int nFile = File(oD);
  m_pCache->ReleaseTile(oD.m_nId);
  EXPECT_EQ(0, Stat(nFile).st_size);
}

// Only new or written tiles are written out, and constant ones cost little disk.
TEST_F(CTileCacheTest, OnlyNewOrWrittenTilesAreWrittenOutAndConstantOnesSmall)
{
  m_pCache->SetMemoryBudget(0);
  std::vector<STileRecord> vecTiles;
  for (int i = 0; i < 20; ++i)
    vecTiles.push_back(Register(MakeTile<unsigned char>(1024, 512), EContent::eConstant));
  m_pCache->SetMemoryBudget(0);
  EXPECT_LE(Counters().m_nBytesWritten, 20u * 4096);
  // Blocks the file takes, where the file system keeps files sparse as the usual ones do.
  EXPECT_LE(Stat(File(vecTiles[0])).st_blocks * 512, 20 * 16384);
  EXPECT_TRUE(AllIntact(vecTiles));
  m_pCache->SetMemoryBudget(0);
  EXPECT_EQ(20u, Counters().m_nRecordsWritten);
  Rewrite(vecTiles[2]);
  m_pCache->SetMemoryBudget(0);
  EXPECT_EQ(21u, Counters().m_nRecordsWritten);
  EXPECT_TRUE(Intact(vecTiles[2]));
}

TEST_F(CTileCacheTest, TilesInUseSurviveAScanLargerThanTheBudget)
{
  // Room for eight small tiles; four are used all along while 200 new tiles stream through.
  m_pCache->SetMemoryBudget(8 * 65536);
  std::vector<STileRecord> vecHot, vecScan;
  for (int i = 0; i < 4; ++i)
    vecHot.push_back(Register(MakeTile<unsigned char>(256, 256)));
  for (int i = 0; i < 200; ++i)
  {
    vecScan.push_back(Register(MakeTile<unsigned char>(256, 256)));
    for (const STileRecord& oHot : vecHot)
      m_pCache->GetTile(oHot.m_nId, false);
  }
  EXPECT_EQ(0u, Counters().m_nRecordsRead) << "a tile in use was pushed out by the scan";
  EXPECT_TRUE(AllIntact(vecScan));
}

TEST_F(CTileCacheTest, MissingSpillDirectoryFailsTheRegistrationUntilItIsThere)
{
  m_pCache->SetMemoryBudget(g_nFullBlock);
  m_pCache->SetSpillDirectory(m_oDirectory.GetPath() + "/missing");
  const STileRecord oFirst = Register(MakeTile<float>(512, 256));
  const auto pSecond = MakeTile<float>(512, 256);
  const std::string strEntries = Entries([&] { m_pCache->RegisterTile(pSecond); });
  EXPECT_NE(std::string::npos, strEntries.find("/missing")) << strEntries;
  EXPECT_NE(std::string::npos, strEntries.find("(" + std::to_string(ENOENT) + ")")) << strEntries;
  EXPECT_EQ(1u, Counters().m_nTiles);
  m_pCache->SetSpillDirectory(m_oDirectory.GetPath());
  EXPECT_TRUE(AllIntact({oFirst, Register(pSecond)}));
}

// Room for one full tile: each new tile pushes the one before it out, and the spill fails unless the
// fail handler makes room on the file's descriptor. The tile that was to go stays in memory, modified
// and whole; once there is room on disk the next registration goes through and nothing is lost.
TEST_F(CTileCacheTest, FailedSpillKeepsTheTileModifiedInMemoryAndReportsBothEntries)
{
  const std::string strBoth = " / Failed to write to the disk tile cache / 2";
  const struct
  {
    const char* pWhat;
    std::uint64_t nCap; // of the file size
    int nHandler;       // -1: no handler, else the retries it grants, the last after making room
    std::string strEntries;
  } aFaults[] = {{"no room", 0, -1, "Failed to write to a file (" + std::to_string(EFBIG) + ")" + strBoth},
                 {"room for one record", g_nSlot + 1000, -1, "Failed to write enough data to a file (0)" + strBoth},
                 {"a handler that gives up", g_nSlot + 1000, 0, "Failed to write enough data to a file (0)" + strBoth},
                 {"a handler that makes room", g_nSlot + 1000, 1, "nothing raised"}};
  for (const auto& oFault : aFaults)
  {
    SCOPED_TRACE(oFault.pWhat);
    NewCache(g_nFullBlock);
    CFileSizeLimit oLimit(static_cast<rlim_t>(oFault.nCap));
    const auto pHandler = boost::make_shared<CCountingFailHandler>(std::max(oFault.nHandler, 0), &oLimit);
    if (oFault.nHandler >= 0)
      g_oFailHandler = pHandler;
    std::vector<STileRecord> vecTiles{Add()};
    EXPECT_EQ(oFault.strEntries, Entries([&] {
                for (int i = 0; i < 3; ++i)
                  vecTiles.push_back(Add());
              }));
    g_oFailHandler.reset();
    EXPECT_EQ(oFault.nHandler >= 0 ? 1 : 0, pHandler->m_nCalls);
    EXPECT_EQ(vecTiles.size(), Counters().m_nTiles);
    const auto nReads = Counters().m_nRecordsRead;
    EXPECT_TRUE(m_pCache->GetTile(vecTiles.back().m_nId, false)->IsModified());
    EXPECT_TRUE(Intact(vecTiles.back()));
    EXPECT_EQ(nReads, Counters().m_nRecordsRead) << "it had to be read back";
    oLimit.Lift();
    vecTiles.push_back(Add());
    EXPECT_TRUE(AllIntact(vecTiles));
    EXPECT_TRUE(pHandler->m_nCalls == 0 || pHandler->m_nFile == File(vecTiles[0]));
  }
}

TEST_F(CTileCacheTest, ShortReadReportsBothEntriesAndTheNextGetTileTriesAgain)
{
  m_pCache->SetMemoryBudget(g_nFullBlock);
  const std::vector<STileRecord> vecTiles{Add(), Add(), Add()};
  m_pCache->SetMemoryBudget(0);
  const int nFile = File(vecTiles[1]);
  const off_t nCut = m_pCache->GetTile(vecTiles[1].m_nId, false)->GetFileOffset() + 1000;
  m_pCache->SetMemoryBudget(0); // out again, without a write: it is clean

  // Cut the file inside the record, keeping what is cut for later.
  std::vector<char> vecCut(static_cast<std::size_t>(Stat(nFile).st_size - nCut));
  ASSERT_EQ(static_cast<ssize_t>(vecCut.size()), ::pread(nFile, vecCut.data(), vecCut.size(), nCut));
  ASSERT_EQ(0, ::ftruncate(nFile, nCut));
  EXPECT_EQ("Failed to read enough bytes from a file / Failed to read from the disk tile cache / 2",
            Entries([&] { m_pCache->GetTile(vecTiles[1].m_nId, false); }, false));
  EXPECT_EQ(0u, Counters().m_nResidentBytes);
  // The fault passes: the record is still the truth.
  ASSERT_EQ(static_cast<ssize_t>(vecCut.size()), ::pwrite(nFile, vecCut.data(), vecCut.size(), nCut));
  EXPECT_TRUE(AllIntact(vecTiles));
}

// The environment sets the budget only when it holds a byte count; anything else falls back to the
// default with a line on std::cerr.
TEST(TileCacheBudgetTest, EnvironmentSetsTheBudgetWhenItIsAByteCount)
{
  const std::uint64_t nDefault = Orl::Ostrel::Band::GetUsableMemory() / 4;
  EXPECT_GT(nDefault, 0u);
  const struct
  {
    const char* pValue;
    std::uint64_t nBudget;
    bool bMessage;
  } aCases[] = {
    {"123", 123, false},       {"64M", 64u << 20, false}, {"2g", 2ull << 30, false}, {"7K", 7168, false},
    {"12X", nDefault, true},   {"-5", nDefault, true},    {" -5", nDefault, true},   {" 5", nDefault, true},
    {"+5", nDefault, true},    {"5 ", nDefault, true},    {"5KB", nDefault, true},   {"", nDefault, true},
    {"18446744073709551616", nDefault, true},             {"17179869184G", nDefault, true},
  };
  for (const auto& oCase : aCases)
  {
    SCOPED_TRACE(std::string("\"") + oCase.pValue + "\"");
    ::setenv("ORL_TILE_CACHE_BYTES", oCase.pValue, 1);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(oCase.nBudget, CTileCache().GetMemoryBudget());
    EXPECT_EQ(oCase.bMessage, !::testing::internal::GetCapturedStderr().empty());
  }
  ::unsetenv("ORL_TILE_CACHE_BYTES");
  EXPECT_EQ(nDefault, CTileCache().GetMemoryBudget());
}

// The global cache is made once, also by threads that ask at the same time, and a scoped budget
// restores the one it found, in nested scopes too.
TEST(TileCacheBudgetTest, GlobalCacheAndScopedBudgets)
{
  std::vector<boost::shared_ptr<CTileCache>> vecSeen(4);
  std::vector<std::thread> vecThreads;
  for (auto& pSeen : vecSeen)
    vecThreads.emplace_back([&pSeen] { pSeen = CTileCache::GetGlobal(); });
  for (std::thread& oThread : vecThreads)
    oThread.join();
  EXPECT_EQ(vecSeen, std::vector<boost::shared_ptr<CTileCache>>(4, CTileCache::GetGlobal()));

  CTileCache& oCache = *CTileCache::GetGlobal();
  const std::uint64_t nBefore = oCache.GetMemoryBudget();
  {
    const Orl::Ostrel::Band::CScopedTileCacheBudget oOuter(5 << 20);
    {
      const Orl::Ostrel::Band::CScopedTileCacheBudget oInner(1 << 20);
      EXPECT_EQ(oCache.GetMemoryBudget(), 1u << 20);
    }
    EXPECT_EQ(oCache.GetMemoryBudget(), 5u << 20);
  }
  EXPECT_EQ(oCache.GetMemoryBudget(), nBefore);
}
