#pragma once

#include "Fileio/FileioUnix.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace Orl { namespace Test {

// A fresh directory under TMPDIR (or /tmp), removed with whatever is left in it. Its path has no
// links in it, the way /proc names it.
class CScratchDirectory
{
public:
  CScratchDirectory()
  {
    const char* pBase = std::getenv("TMPDIR");
    std::string strTemplate = std::string(pBase && *pBase ? pBase : "/tmp") + "/orl-test-XXXXXX";
    if (::mkdtemp(&strTemplate[0]))
      m_strPath = std::filesystem::canonical(strTemplate).string();
    EXPECT_FALSE(m_strPath.empty());
  }
  ~CScratchDirectory()
  {
    std::error_code oError;
    std::filesystem::remove_all(m_strPath, oError);
  }
  CScratchDirectory(const CScratchDirectory&) = delete;
  CScratchDirectory& operator=(const CScratchDirectory&) = delete;

  const std::string& GetPath() const { return m_strPath; }
  // The path of strName in this directory; with bCreate it is made as a directory.
  std::string Sub(const std::string& strName, bool bCreate = false) const
  {
    if (bCreate)
      std::filesystem::create_directories(m_strPath + "/" + strName);
    return m_strPath + "/" + strName;
  }

  std::vector<std::string> GetEntries() const
  {
    std::vector<std::string> vecNames;
    for (const auto& oEntry : std::filesystem::directory_iterator(m_strPath))
      vecNames.push_back(oEntry.path().filename().string());
    return vecNames;
  }

private:
  std::string m_strPath;
};

// Caps the size of files this process may write (RLIMIT_FSIZE) with SIGXFSZ ignored, so that a write
// beyond the cap falls short or fails with EFBIG instead of killing the process. No privileges needed;
// the old limit and signal disposition come back on destruction.
class CFileSizeLimit
{
public:
  explicit CFileSizeLimit(rlim_t nBytes) : m_pOldHandler(std::signal(SIGXFSZ, SIG_IGN))
  {
    ::getrlimit(RLIMIT_FSIZE, &m_oOld);
    Set(nBytes);
  }
  ~CFileSizeLimit()
  {
    ::setrlimit(RLIMIT_FSIZE, &m_oOld);
    std::signal(SIGXFSZ, m_pOldHandler);
  }
  CFileSizeLimit(const CFileSizeLimit&) = delete;
  CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;

  // Lowering is always allowed; raising only up to the hard limit we started with.
  void Set(rlim_t nBytes)
  {
    rlimit oNew = m_oOld;
    oNew.rlim_cur = nBytes;
    EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &oNew));
  }
  void Lift() { Set(m_oOld.rlim_cur); }

private:
  void (*m_pOldHandler)(int);
  rlimit m_oOld{};
};

// A fail handler that answers true nTrue times, lifting the size cap (if it has one) on the last of
// them, then false. It counts its calls and keeps the descriptor of the last.
class CCountingFailHandler : public Harnel::Fileio::CFailHandler
{
public:
  CCountingFailHandler(int nTrue, CFileSizeLimit* pLimit) : m_nTrue(nTrue), m_pLimit(pLimit) {}
  bool OnWriteFailed(int nFile) override
  {
    m_nFile = nFile;
    if (++m_nCalls == m_nTrue && m_pLimit)
      m_pLimit->Lift();
    return m_nCalls <= m_nTrue;
  }
  int m_nCalls = 0, m_nFile = -1;

private:
  int m_nTrue;
  CFileSizeLimit* m_pLimit;
};

}} // namespace Orl::Test
