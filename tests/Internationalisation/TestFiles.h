#pragma once

#include <boost/filesystem.hpp>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

#include <stdlib.h>

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it at the end of the scope.
class CTempDirectory
{
public:
  CTempDirectory()
  {
    const char* pBase = std::getenv("TMPDIR");
    std::string strTemplate = std::string(pBase && *pBase ? pBase : "/tmp") + "/orl-translator-XXXXXX";
    if (!mkdtemp(&strTemplate[0]))
      throw std::runtime_error("mkdtemp failed for " + strTemplate);
    m_strPath = boost::filesystem::canonical(strTemplate).string(); // the way /proc names it
  }
  CTempDirectory(const CTempDirectory&) = delete;
  CTempDirectory& operator=(const CTempDirectory&) = delete;
  ~CTempDirectory()
  {
    boost::system::error_code oError;
    boost::filesystem::remove_all(m_strPath, oError);
  }

  const std::string& Path() const { return m_strPath; }
  // The path of strName in this directory; with bCreate it is made as a directory.
  std::string Sub(const std::string& strName, bool bCreate = false) const
  {
    const std::string strPath = m_strPath + "/" + strName;
    if (bCreate)
      boost::filesystem::create_directories(strPath);
    return strPath;
  }

private:
  std::string m_strPath;
};

inline std::string ReadBytes(const std::string& strPath)
{
  std::ifstream oStream(strPath, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(oStream), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const std::string& strPath, const std::string& strBytes)
{
  std::ofstream oStream(strPath, std::ios::binary | std::ios::trunc);
  oStream.write(strBytes.data(), static_cast<std::streamsize>(strBytes.size()));
  if (!oStream.flush())
    throw std::runtime_error("cannot write " + strPath);
}

inline bool FileExists(const std::string& strPath)
{
  return boost::filesystem::exists(strPath);
}

// Captures what is written to std::cerr while it lives.
class CCaptureStderr
{
public:
  CCaptureStderr() : m_pOld(std::cerr.rdbuf(m_oBuffer.rdbuf())) {}
  CCaptureStderr(const CCaptureStderr&) = delete;
  CCaptureStderr& operator=(const CCaptureStderr&) = delete;
  ~CCaptureStderr() { std::cerr.rdbuf(m_pOld); }
  std::string Text() const { return m_oBuffer.str(); }

private:
  std::ostringstream m_oBuffer;
  std::streambuf* m_pOld;
};
