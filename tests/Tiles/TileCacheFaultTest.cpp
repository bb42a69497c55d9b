#include "Band/TileCache.h"

#include "Support/ScratchFiles.h"
#include "TileTestSupport.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace Orl::Test;
using Orl::Harnel::Fileio::CFailHandler;
using Orl::Harnel::Fileio::g_oFailHandler;
using Orl::Ostrel::Band::CTileCache;

namespace {

constexpr long long g_nSlot = 524800;  // the record slot of a full tile

// Counts its calls, lifts a file size cap if it has one, and answers as told.
class CFaultHandler : public CFailHandler
{
public:
  CFaultHandler(bool bAnswer, CFileSizeLimit* pLimit) : m_bAnswer(bAnswer), m_pLimit(pLimit) {}
  bool OnWriteFailed(int nFile) override
  {
    ++m_nCalls;
    m_nFile = nFile;
    if (m_pLimit)
      m_pLimit->Lift();
    return m_bAnswer;
  }
  int m_nCalls = 0;
  int m_nFile = -1;

private:
  bool m_bAnswer;
  CFileSizeLimit* m_pLimit;
};

// Registers a tile and writes noise into it, as a band does with a new tile.
unsigned int AddTile(CTileCache& oCache, const boost::shared_ptr<CTileBase>& pTile)
{
  const unsigned int nId = oCache.RegisterTile(pTile);
  Fill(*oCache.GetTile(nId, true), nId, EContent::eNoise);
  return nId;
}

bool Intact(CTileCache& oCache, unsigned int nId)
{
  return Holds(*oCache.GetTile(nId, false), nId, EContent::eNoise);
}

// Room for one full tile: each new tile pushes the one before it out.
struct SSmallCache
{
  SSmallCache()
  {
    m_oCache.SetSpillDirectory(m_oDirectory.GetPath());
    m_oCache.SetMemoryBudget(524288);
  }
  ~SSmallCache() { g_oFailHandler.reset(); }

  CScratchDirectory m_oDirectory;
  CTileCache m_oCache;
};

} // namespace

TEST(TileCacheFaultTest, FailedSpillKeepsTheTileModifiedInMemoryAndReportsBothEntries)
{
  // File size cap, whether a handler that gives up is installed, expected first entry.
  const struct
  {
    long long nCap;
    bool bHandler;
    std::string strEntry;
  } aFaults[] = {{0, false, "Failed to write to a file (" + std::to_string(EFBIG) + ")"},
                 {g_nSlot + 1000, false, "Failed to write enough data to a file (0)"},
                 {g_nSlot + 1000, true, "Failed to write enough data to a file (0)"}};
  for (const auto& oFault : aFaults)
  {
    SSmallCache oSmall;
    CTileCache& oCache = oSmall.m_oCache;
    CFileSizeLimit oLimit(static_cast<rlim_t>(oFault.nCap));
    const auto pHandler = boost::make_shared<CFaultHandler>(false, nullptr);
    if (oFault.bHandler)
      g_oFailHandler = pHandler;
    std::vector<unsigned int> vecIds{AddTile(oCache, MakeTile<float>(512, 256))};
    boost::shared_ptr<CTileBase> pPending;
    EXPECT_EQ(oFault.strEntry + " / Failed to write to the disk tile cache / 2", Entries([&] {
                for (int i = 0; i < 3; ++i)
                  vecIds.push_back(AddTile(oCache, pPending = MakeTile<float>(512, 256)));
              }));
    g_oFailHandler.reset();
    EXPECT_EQ(oFault.bHandler ? 1 : 0, pHandler->m_nCalls);
    // The tile that was to go is in memory, modified and whole; the new one did not come in.
    EXPECT_EQ(vecIds.size(), oCache.GetCounters().m_nTiles);
    const auto nReads = oCache.GetCounters().m_nRecordsRead;
    EXPECT_TRUE(oCache.GetTile(vecIds.back(), false)->IsModified());
    EXPECT_TRUE(Intact(oCache, vecIds.back()));
    EXPECT_EQ(nReads, oCache.GetCounters().m_nRecordsRead) << "it had to be read back";

    // With room on disk the same registration goes through and nothing is lost.
    oLimit.Lift();
    vecIds.push_back(oCache.RegisterTile(pPending));
    Fill(*oCache.GetTile(vecIds.back(), true), vecIds.back(), EContent::eNoise);
    for (unsigned int nId : vecIds)
      EXPECT_TRUE(Intact(oCache, nId)) << nId;
  }
}

TEST(TileCacheFaultTest, FailHandlerThatMakesRoomRescuesTheSpill)
{
  SSmallCache oSmall;
  CTileCache& oCache = oSmall.m_oCache;
  CFileSizeLimit oLimit(static_cast<rlim_t>(g_nSlot + 1000));
  const auto pHandler = boost::make_shared<CFaultHandler>(true, &oLimit);
  g_oFailHandler = pHandler;
  std::vector<unsigned int> vecIds;
  for (int i = 0; i < 4; ++i)
    vecIds.push_back(AddTile(oCache, MakeTile<float>(512, 256)));
  EXPECT_EQ(1, pHandler->m_nCalls);
  EXPECT_EQ(oCache.GetTile(vecIds[0], false)->GetFile(), pHandler->m_nFile);
  for (unsigned int nId : vecIds)
    EXPECT_TRUE(Intact(oCache, nId)) << nId;
}

TEST(TileCacheFaultTest, ShortReadReportsBothEntriesAndTheNextGetTileTriesAgain)
{
  SSmallCache oSmall;
  CTileCache& oCache = oSmall.m_oCache;
  std::vector<unsigned int> vecIds;
  for (int i = 0; i < 3; ++i)
    vecIds.push_back(AddTile(oCache, MakeTile<float>(512, 256)));
  oCache.SetMemoryBudget(0);
  const int nFile = oCache.GetTile(vecIds[1], false)->GetFile();
  const long long nCut = oCache.GetTile(vecIds[1], false)->GetFileOffset() + 1000;
  oCache.SetMemoryBudget(0);  // out again, without a write: it is clean

  // Cut the file inside the record, keeping what is cut for later.
  struct stat oStat{};
  ::fstat(nFile, &oStat);
  std::vector<char> vecCut(static_cast<std::size_t>(oStat.st_size - nCut));
  ASSERT_EQ(static_cast<ssize_t>(vecCut.size()), ::pread(nFile, vecCut.data(), vecCut.size(), nCut));
  ASSERT_EQ(0, ::ftruncate(nFile, nCut));
  EXPECT_EQ("Failed to read enough bytes from a file / Failed to read from the disk tile cache / 2",
            Entries([&] { oCache.GetTile(vecIds[1], false); }, false));
  EXPECT_EQ(0u, oCache.GetCounters().m_nResidentBytes);

  // The fault passes: the record is still the truth.
  ASSERT_EQ(static_cast<ssize_t>(vecCut.size()), ::pwrite(nFile, vecCut.data(), vecCut.size(), nCut));
  for (unsigned int nId : vecIds)
    EXPECT_TRUE(Intact(oCache, nId)) << nId;
}
