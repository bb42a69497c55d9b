#include "Fileio/FileioUnix.h"

#include "Support/ScratchFiles.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unistd.h>

using namespace Orl::Harnel::Fileio;
using Orl::Harnel::CBasicException;
using Orl::Test::CFileSizeLimit;

static_assert(!std::is_base_of<std::exception, CBasicException>::value, "caught by name only");
static_assert(std::is_base_of<CBasicException, CFileioError>::value, "a handler for the root catches file errors");

TEST(BasicExceptionTest, PrintsTheChainOldestFirstWithPositionsDetailAndError)
{
  CFileioError oError("/src/Libraries/Fileio/FileioUnix.cpp", 57, "Failed to write to a file", ENOSPC, "flush");
  oError.AddMessage("/src/Libraries/Band/Tile.h", 240, "Failed to write to the disk tile cache", 0, "");
  EXPECT_EQ("Failed to write to a file - flush [FileioUnix.cpp:57] (error " + std::to_string(ENOSPC) +
              ": No space left on device)\n  Failed to write to the disk tile cache [Tile.h:240]",
            oError.ToString());
}

namespace {

// fnBody must raise a CFileioError of one entry with this message and, unless -1, this error code.
void ExpectRaised(const std::function<void()>& fnBody, const std::string& strMessage, int nErrorCode = -1)
{
  try
  {
    fnBody();
    ADD_FAILURE() << "no CFileioError";
  }
  catch (const CFileioError& oError)
  {
    ASSERT_EQ(1u, oError.GetInfoCount());
    EXPECT_EQ(strMessage, oError.GetInfo(0).m_strMessage);
    EXPECT_TRUE(nErrorCode == -1 || nErrorCode == oError.GetInfo(0).m_nErrorCode) << oError.GetInfo(0).m_nErrorCode;
  }
}

class CFileioTest : public ::testing::Test
{
protected:
  ~CFileioTest() override
  {
    g_oFailHandler.reset();
    ::close(m_nFile);
  }

  std::string ReadAll() const
  {
    char aContent[64];
    return std::string(aContent, static_cast<std::size_t>(::pread(m_nFile, aContent, sizeof aContent, 0)));
  }

  // fnWrite under a file size cap with a handler that retries nTrue times.
  void WriteWithHandler(rlim_t nLimit, int nTrue, const std::function<void()>& fnWrite)
  {
    CFileSizeLimit oLimit(nLimit);
    g_oFailHandler = m_pHandler = boost::make_shared<Orl::Test::CCountingFailHandler>(nTrue, &oLimit);
    fnWrite();
  }

  Orl::Test::CScratchDirectory m_oDirectory;
  int m_nFile = ::open((m_oDirectory.GetPath() + "/f").c_str(), O_RDWR | O_CREAT, 0600);
  boost::shared_ptr<Orl::Test::CCountingFailHandler> m_pHandler;
};

} // namespace

TEST_F(CFileioTest, ShortReadsAreFinalAndFailedCallsCarryErrno)
{
  WriteFile(m_nFile, "abcdef", 6);
  SeekFile(m_nFile, 2, eSeekBegin);
  char aBuffer[8];
  ExpectRaised([&] { ReadFile(m_nFile, aBuffer, 8); }, "Failed to read enough bytes from a file");
  EXPECT_NO_THROW(ReadFile(m_nFile, aBuffer, 0));
  ExpectRaised([&] { ReadFileAt(m_nFile, aBuffer, 3, 4); }, "Failed to read enough bytes from a file");
  ExpectRaised([&] { ReadFile(-1, aBuffer, 4); }, "Failed to read from a file", EBADF);
  ExpectRaised([&] { SeekFile(m_nFile, -1, eSeekBegin); }, "Failed to seek within a file", EINVAL);
}

TEST_F(CFileioTest, FailedWritesWithoutAWillingHandlerAreFinal)
{
  {
    CFileSizeLimit oLimit(4);
    ExpectRaised([&] { WriteFile(m_nFile, "abcdefgh", 8); }, "Failed to write enough data to a file", 0);
  }
  WriteWithHandler(0, 0, [&] { ExpectRaised([&] { WriteFile(m_nFile, "ab", 2); }, "Failed to write to a file", EFBIG); });
  EXPECT_EQ(1, m_pHandler->m_nCalls);
}

// A willing handler's retry writes the whole buffer again: a short append where it started, a short write in
// the middle from the end back (from 5 three bytes fit under the cap; the retry goes to end - 3 = 7, not to 5),
// a positional one at its own offset, here after a first retry that falls short again.
TEST_F(CFileioTest, RetriesRewriteTheWholeBuffer)
{
  WriteFile(m_nFile, "head", 4);
  WriteWithHandler(7, 1, [&] { WriteFile(m_nFile, "abcdef", 6); });
  EXPECT_EQ("headabcdef", ReadAll());
  SeekFile(m_nFile, 5, eSeekBegin);
  WriteWithHandler(8, 1, [&] { WriteFile(m_nFile, "123456", 6); });
  EXPECT_EQ("heada12123456", ReadAll());
  WriteWithHandler(12, 2, [&] { WriteFileAt(m_nFile, "xyz", 3, 11); });
  EXPECT_EQ(2, m_pHandler->m_nCalls);
  EXPECT_EQ("heada121234xyz", ReadAll());
}
