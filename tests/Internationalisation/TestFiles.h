#pragma once

#include "Internationalisation/TranslatorData.h"
#include "Internationalisation/TranslatorFile.h"

#include <boost/filesystem.hpp>

#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

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
  ~CTempDirectory() { boost::system::error_code oError; boost::filesystem::remove_all(m_strPath, oError); }
  const std::string& Path() const { return m_strPath; }
  // The path of strName in this directory; with bCreate it is made as a directory.
  std::string Sub(const std::string& strName, bool bCreate = false) const
  {
    if (bCreate)
      boost::filesystem::create_directories(m_strPath + "/" + strName);
    return m_strPath + "/" + strName;
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
  if (!(std::ofstream(strPath, std::ios::binary | std::ios::trunc) << strBytes).flush())
    throw std::runtime_error("cannot write " + strPath);
}

// Writes <directory>/<name><language>.trl, naming pFileName as its module where given.
inline bool WriteModule(const std::string& strDirectory, const std::string& strName, const std::string& strLanguage,
                        std::initializer_list<std::string> listBases,
                        std::initializer_list<std::pair<const char*, const char*>> listEntries,
                        const char* pFileName = nullptr)
{
  using namespace Orl::Harnel::Internationalisation;
  CTranslatorData oData;
  oData.Init(pFileName ? pFileName : strName, strLanguage);
  for (const std::string& strBase : listBases)
  {
    CTranslatorData oBase;
    oBase.Init(strBase, strLanguage);
    oData.AddBaseModule(oBase);
  }
  for (const auto& oEntry : listEntries)
    oData.SetTranslation(oEntry.first, oEntry.second);
  return CTranslatorFile(CTranslatorFile::BuildFileName(strDirectory, strName, strLanguage)).Write(oData);
}
