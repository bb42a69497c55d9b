#include "Band/TileCache.h"

#include "Support/ScratchFiles.h"
#include "TileTestSupport.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <unistd.h>
#include <vector>

using namespace Orl::Test;
using Orl::Harnel::Fileio::CFailHandler;
using Orl::Harnel::Fileio::CFileioError;
using Orl::Harnel::Fileio::g_oFailHandler;
using Orl::Ostrel::Band::CTileCache;

namespace {

constexpr std::uint64_t g_nFullBlock = 524288;
constexpr long long g_nSlot = 524800;

class CFaultHandler : public CFailHandler
{
public:
  CFaultHandler(bool bAnswer, CFileSizeLimit* pLimitToLift) : m_bAnswer(bAnswer), m_pLimitToLift(pLimitToLift) {}
  bool OnWriteFailed(int nFile) override
  {
    ++m_nCalls;
    m_nFile = nFile;
    if (m_pLimitToLift)
      m_pLimitToLift->Lift();
    return m_bAnswer;
  }
  int m_nCalls = 0;
  int m_nFile = -1;

private:
  bool m_bAnswer;
  CFileSizeLimit* m_pLimitToLift;
};

class CTileCacheFaultTest : public ::testing::Test
{
protected:
  CTileCacheFaultTest()
  {
    m_oCache.SetSpillDirectory(m_oDirectory.GetPath());
    m_oCache.SetMemoryBudget(g_nFullBlock);
  }
  ~CTileCacheFaultTest() override { g_oFailHandler.reset(); }

  // Registers a full float tile of noise and writes into it, as a band does with a new tile.
  unsigned int AddTile(const boost::shared_ptr<CTileBase>& pTile)
  {
    const unsigned int nId = m_oCache.RegisterTile(pTile);
    Fill(*m_oCache.GetTile(nId, true), nId, EContent::eNoise);
    return nId;
  }

  ::testing::AssertionResult Intact(unsigned int nId)
  {
    if (Holds(*m_oCache.GetTile(nId, false), nId, EContent::eNoise))
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "tile " << nId << " lost its pixels";
  }

  CScratchDirectory m_oDirectory;
  CTileCache m_oCache;
};

struct SWriteFault
{
  long long m_nFileLimit;     // the second record (at one slot) falls short, or the first fails
  int m_nHandler;             // 0 none, 1 one that gives up
  const char* m_pMessage;
  int m_nErrorCode;
};

class CWriteFaultTest : public CTileCacheFaultTest, public ::testing::WithParamInterface<SWriteFault>
{
};

} // namespace

TEST_P(CWriteFaultTest, FailedSpillKeepsTheTileModifiedInMemoryAndReportsBothEntries)
{
  const SWriteFault& oFault = GetParam();
  CFileSizeLimit oLimit(static_cast<rlim_t>(oFault.m_nFileLimit));
  boost::shared_ptr<CFaultHandler> pHandler;
  if (oFault.m_nHandler)
    g_oFailHandler = pHandler = boost::make_shared<CFaultHandler>(false, nullptr);

  // Room for one tile: each new tile pushes the last one out, until a write fails.
  std::vector<unsigned int> vecIds{AddTile(MakeTile<float>(512, 256))};
  boost::shared_ptr<CTileBase> pPending;
  try
  {
    for (int i = 0; i < 3; ++i)
    {
      pPending = MakeTile<float>(512, 256);
      vecIds.push_back(AddTile(pPending));
    }
    FAIL() << "no write failed";
  }
  catch (const CFileioError& oError)
  {
    ASSERT_EQ(2u, oError.GetInfoCount()) << oError;
    EXPECT_EQ(oFault.m_pMessage, oError.GetInfo(0).m_strMessage);
    EXPECT_EQ(oFault.m_nErrorCode, oError.GetInfo(0).m_nErrorCode);
    EXPECT_EQ("Failed to write to the disk tile cache", oError.GetInfo(1).m_strMessage);
  }
  if (pHandler)
  {
    EXPECT_EQ(1, pHandler->m_nCalls);
  }
  // The tile that was to make room is still in memory and still modified; the new one never came in.
  const auto oCounters = m_oCache.GetCounters();
  EXPECT_EQ(vecIds.size(), oCounters.m_nTiles);
  const auto pVictim = m_oCache.GetTile(vecIds.back(), false);
  EXPECT_TRUE(pVictim->IsModified());
  EXPECT_EQ(oCounters.m_nRecordsRead, m_oCache.GetCounters().m_nRecordsRead) << "it was read back";
  EXPECT_TRUE(Holds(*pVictim, vecIds.back(), EContent::eNoise));

  // The process goes on: with room on disk the same registration succeeds and nothing is lost.
  oLimit.Lift();
  vecIds.push_back(m_oCache.RegisterTile(pPending));
  Fill(*m_oCache.GetTile(vecIds.back(), true), vecIds.back(), EContent::eNoise);
  for (unsigned int nId : vecIds)
    EXPECT_TRUE(Intact(nId));
}

INSTANTIATE_TEST_SUITE_P(
  TileCacheFaultTest, CWriteFaultTest,
  ::testing::Values(SWriteFault{0, 0, "Failed to write to a file", EFBIG},
                    SWriteFault{g_nSlot + 1000, 0, "Failed to write enough data to a file", 0},
                    SWriteFault{g_nSlot + 1000, 1, "Failed to write enough data to a file", 0}));

TEST_F(CTileCacheFaultTest, FailHandlerThatMakesRoomRescuesTheSpill)
{
  CFileSizeLimit oLimit(static_cast<rlim_t>(g_nSlot + 1000));
  const auto pHandler = boost::make_shared<CFaultHandler>(true, &oLimit);
  g_oFailHandler = pHandler;
  std::vector<unsigned int> vecIds;
  for (int i = 0; i < 4; ++i)
    vecIds.push_back(AddTile(MakeTile<float>(512, 256)));
  EXPECT_EQ(1, pHandler->m_nCalls);
  EXPECT_EQ(m_oCache.GetTile(vecIds[0], false)->GetFile(), pHandler->m_nFile);
  for (unsigned int nId : vecIds)
    EXPECT_TRUE(Intact(nId));
}

TEST_F(CTileCacheFaultTest, ShortReadReportsBothEntriesAndTheNextGetTileTriesAgain)
{
  std::vector<unsigned int> vecIds;
  for (int i = 0; i < 3; ++i)
    vecIds.push_back(AddTile(MakeTile<float>(512, 256)));
  m_oCache.SetMemoryBudget(0);
  int nFile = -1;
  long long nOffset = -1;
  {
    const auto pTile = m_oCache.GetTile(vecIds[1], false);
    nFile = pTile->GetFile();
    nOffset = pTile->GetFileOffset();
  }
  m_oCache.SetMemoryBudget(0);

  // Cut the file inside the record, keeping what is cut for later.
  struct stat oStat{};
  ASSERT_EQ(0, ::fstat(nFile, &oStat));
  std::vector<char> vecTail(static_cast<std::size_t>(oStat.st_size - nOffset - 1000));
  ASSERT_EQ(static_cast<ssize_t>(vecTail.size()), ::pread(nFile, vecTail.data(), vecTail.size(), nOffset + 1000));
  ASSERT_EQ(0, ::ftruncate(nFile, nOffset + 1000));
  try
  {
    m_oCache.GetTile(vecIds[1], false);
    FAIL() << "nothing raised";
  }
  catch (const CFileioError& oError)
  {
    ASSERT_EQ(2u, oError.GetInfoCount()) << oError;
    EXPECT_EQ("Failed to read enough bytes from a file", oError.GetInfo(0).m_strMessage);
    EXPECT_EQ("Failed to read from the disk tile cache", oError.GetInfo(1).m_strMessage);
  }
  EXPECT_EQ(0u, m_oCache.GetCounters().m_nResidentTiles);
  EXPECT_EQ(0u, m_oCache.GetCounters().m_nResidentBytes);

  // The fault passes: the record is still the truth.
  ASSERT_EQ(static_cast<ssize_t>(vecTail.size()), ::pwrite(nFile, vecTail.data(), vecTail.size(), nOffset + 1000));
  for (unsigned int nId : vecIds)
    EXPECT_TRUE(Intact(nId));
}
