#include "Fileio/FileioUnix.h"

#include "Support/ScratchFiles.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace Orl::Harnel::Fileio;
using Orl::Test::CFileSizeLimit;
using Orl::Test::CScratchDirectory;

namespace {

class CFileioTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    m_nFile = ::open((m_oDirectory.GetPath() + "/f").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(m_nFile, 0);
  }
  void TearDown() override
  {
    g_oFailHandler.reset();
    ::close(m_nFile);
  }

  std::string ReadAll() const
  {
    struct stat oStat;
    ::fstat(m_nFile, &oStat);
    std::string strContent(static_cast<std::size_t>(oStat.st_size), '\0');
    EXPECT_EQ(oStat.st_size, ::pread(m_nFile, &strContent[0], strContent.size(), 0));
    return strContent;
  }

  // Runs fnBody and returns the single entry of the CFileioError it must raise.
  static CFileioError::SExceptionInfo Expect(const std::function<void()>& fnBody)
  {
    try
    {
      fnBody();
    }
    catch (const CFileioError& oError)
    {
      EXPECT_EQ(1u, oError.GetInfoCount());
      return oError.GetInfo(0);
    }
    ADD_FAILURE() << "no CFileioError";
    return CFileioError::SExceptionInfo{};
  }

  CScratchDirectory m_oDirectory;
  int m_nFile = -1;
};

// Answers from a script, then false; may run an action before answering.
class CScriptedHandler : public CFailHandler
{
public:
  explicit CScriptedHandler(std::vector<bool> vecAnswers, std::function<void()> fnAction = {})
    : m_vecAnswers(std::move(vecAnswers)), m_fnAction(std::move(fnAction))
  {
  }
  bool OnWriteFailed(int nFile) override
  {
    m_nLastFile = nFile;
    if (m_fnAction)
      m_fnAction();
    return m_nCalls < m_vecAnswers.size() && m_vecAnswers[m_nCalls++];
  }
  std::size_t m_nCalls = 0;
  int m_nLastFile = -1;

private:
  std::vector<bool> m_vecAnswers;
  std::function<void()> m_fnAction;
};

} // namespace

TEST_F(CFileioTest, ReadPastTheEndFallsShortButAnEmptyReadAtTheEndSucceeds)
{
  WriteFile(m_nFile, "abcdef", 6);
  SeekFile(m_nFile, 2, eSeekBegin);
  char aBuffer[8];
  const auto oInfo = Expect([&] { ReadFile(m_nFile, aBuffer, 8); });
  EXPECT_EQ("Failed to read enough bytes from a file", oInfo.m_strMessage);
  EXPECT_EQ(std::string("cdef"), std::string(aBuffer, 4));
  EXPECT_NO_THROW(ReadFile(m_nFile, aBuffer, 0));
  EXPECT_NO_THROW(ReadFileAt(m_nFile, aBuffer, 0, 6));
  EXPECT_EQ("Failed to read enough bytes from a file", Expect([&] { ReadFileAt(m_nFile, aBuffer, 3, 4); }).m_strMessage);
}

TEST_F(CFileioTest, FailedCallsCarryTheirMessageAndErrno)
{
  char aBuffer[4] = {};
  const auto oRead = Expect([&] { ReadFile(-1, aBuffer, 4); });
  EXPECT_EQ("Failed to read from a file", oRead.m_strMessage);
  EXPECT_EQ(EBADF, oRead.m_nErrorCode);
  const auto oSeek = Expect([&] { SeekFile(m_nFile, -1, eSeekBegin); });
  EXPECT_EQ("Failed to seek within a file", oSeek.m_strMessage);
  EXPECT_EQ(EINVAL, oSeek.m_nErrorCode);
  EXPECT_EQ("", oSeek.m_strDetail);
}

TEST_F(CFileioTest, SeekOriginsMapToTheirCalls)
{
  WriteFile(m_nFile, "0123456789", 10);
  char c = 0;
  SeekFile(m_nFile, -3, eSeekEnd);
  ReadFile(m_nFile, &c, 1);
  EXPECT_EQ('7', c);
  SeekFile(m_nFile, -3, eSeekCurrent);
  ReadFile(m_nFile, &c, 1);
  EXPECT_EQ('5', c);
}

TEST_F(CFileioTest, ShortWriteWithoutHandlerFailsAtOnceWithCodeZero)
{
  CFileSizeLimit oLimit(4);
  const auto oInfo = Expect([&] { WriteFile(m_nFile, "abcdefgh", 8); });
  EXPECT_EQ("Failed to write enough data to a file", oInfo.m_strMessage);
  EXPECT_EQ(0, oInfo.m_nErrorCode);
}

TEST_F(CFileioTest, FailedWriteAsksTheHandlerAndGivesUpWhenItSaysSo)
{
  auto pHandler = boost::make_shared<CScriptedHandler>(std::vector<bool>{false});
  g_oFailHandler = pHandler;
  const auto oInfo = Expect([&] { WriteFile(-1, "ab", 2); });
  EXPECT_EQ("Failed to write to a file", oInfo.m_strMessage);
  EXPECT_EQ(EBADF, oInfo.m_nErrorCode);
  EXPECT_EQ(1u, pHandler->m_nCalls);
  EXPECT_EQ(-1, pHandler->m_nLastFile);
}

TEST_F(CFileioTest, RetryAfterAShortAppendRewritesTheWholeBufferWhereItStarted)
{
  WriteFile(m_nFile, "head", 4);
  CFileSizeLimit oLimit(7);
  auto pHandler = boost::make_shared<CScriptedHandler>(std::vector<bool>{true}, [&] { oLimit.Lift(); });
  g_oFailHandler = pHandler;
  WriteFile(m_nFile, "abcdef", 6);  // 3 bytes go out, then the retry
  EXPECT_EQ(1u, pHandler->m_nCalls);
  EXPECT_EQ("headabcdef", ReadAll());
}

TEST_F(CFileioTest, RetryAfterAShortWriteInTheMiddleSeeksFromTheEndOfTheFile)
{
  WriteFile(m_nFile, "0123456789", 10);
  CFileSizeLimit oLimit(8);
  auto pHandler = boost::make_shared<CScriptedHandler>(std::vector<bool>{true}, [&] { oLimit.Lift(); });
  g_oFailHandler = pHandler;
  // From 5, 3 bytes fit under the limit; the retry goes to end - 3 = 7, not back to 5.
  SeekFile(m_nFile, 5, eSeekBegin);
  WriteFile(m_nFile, "abcdef", 6);
  EXPECT_EQ("01234ababcdef", ReadAll());
}

TEST_F(CFileioTest, HandlerThatRemovesItselfEndsTheLoop)
{
  CFileSizeLimit oLimit(0);
  auto pHandler = boost::make_shared<CScriptedHandler>(std::vector<bool>{true, true, true},
                                                       [] { g_oFailHandler.reset(); });
  g_oFailHandler = pHandler;
  const auto oInfo = Expect([&] { WriteFile(m_nFile, "ab", 2); });
  EXPECT_EQ("Failed to write to a file", oInfo.m_strMessage);
  EXPECT_EQ(EFBIG, oInfo.m_nErrorCode);
  EXPECT_EQ(1u, pHandler->m_nCalls);
}

TEST_F(CFileioTest, PositionalRetryGoesBackToItsOwnOffset)
{
  WriteFile(m_nFile, "0123456789", 10);
  CFileSizeLimit oLimit(8);
  int nCalls = 0;
  // The first retry falls short again; the second has room.
  auto pHandler = boost::make_shared<CScriptedHandler>(std::vector<bool>{true, true}, [&] {
    if (++nCalls == 2)
      oLimit.Lift();
  });
  g_oFailHandler = pHandler;
  WriteFileAt(m_nFile, "abcdef", 6, 5);
  EXPECT_EQ(2u, pHandler->m_nCalls);
  EXPECT_EQ("01234abcdef", ReadAll());
}
