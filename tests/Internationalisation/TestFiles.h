#pragma once

#include "Internationalisation/TranslatorData.h"
#include "Internationalisation/TranslatorFile.h"
#include "Support/ScratchFiles.h"

#include <boost/filesystem.hpp>

#include <fstream>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

using Orl::Test::CScratchDirectory;

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
