// Fuzz target of the translation file reader. Every input is written to a scratch file and read,
// since the reader parses from a memory mapping of a real file. Whatever the reader made of the
// input, also after a failed read, must then survive Write and Read unchanged.
//
// Built with clang's libFuzzer when ORL_BUILD_FUZZ is on; otherwise FuzzReplayMain.cpp feeds it the
// committed corpus.
#include "Internationalisation/TranslatorData.h"
#include "Internationalisation/TranslatorFile.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include <stdlib.h>

using namespace Orl::Harnel::Internationalisation;

namespace {

std::string g_strInputFile, g_strOutputFile;

void RemoveScratchFiles()
{
  std::remove(g_strInputFile.c_str());
  std::remove(g_strOutputFile.c_str());
}

// In memory where possible: each input is written once and read twice.
std::string MakeScratchFile()
{
  const char* pBase = std::getenv("TMPDIR");
  if (!pBase || !*pBase)
    pBase = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string strTemplate = std::string(pBase) + "/orl-fuzz-XXXXXX";
  const int nFile = mkstemp(&strTemplate[0]);
  if (nFile < 0)
  {
    std::perror("mkstemp");
    std::abort();
  }
  close(nFile);
  return strTemplate;
}

CTranslatorData Fresh()
{
  CTranslatorData oData;
  oData.Init("fuzz", "Default");
  return oData;
}

void Check(bool bCondition, const char* pWhat)
{
  if (!bCondition)
  {
    std::fprintf(stderr, "round trip broken: %s\n", pWhat);
    std::abort();
  }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  g_strInputFile = MakeScratchFile();
  g_strOutputFile = MakeScratchFile();
  std::atexit(RemoveScratchFiles);
  std::cerr.rdbuf(nullptr); // the reader's one-line messages, by the thousand
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize)
{
  {
    std::ofstream oInput(g_strInputFile, std::ios::binary | std::ios::trunc);
    oInput.write(reinterpret_cast<const char*>(pData), static_cast<std::streamsize>(nSize));
    Check(static_cast<bool>(oInput.flush()), "cannot write the scratch file");
  }
  CTranslatorData oFirst = Fresh();
  CTranslatorFile(g_strInputFile).Read(oFirst);

  Check(CTranslatorFile(g_strOutputFile).Write(oFirst), "write failed");
  CTranslatorData oSecond = Fresh();
  Check(CTranslatorFile(g_strOutputFile).Read(oSecond), "written file refused");
  Check(oSecond.GetName() == oFirst.GetName(), "name");
  Check(oSecond.GetLanguage() == oFirst.GetLanguage(), "language");
  Check(oSecond.GetNumBaseModules() == oFirst.GetNumBaseModules(), "number of base modules");
  for (unsigned int n = 0; n < oFirst.GetNumBaseModules(); ++n)
    Check(oSecond.GetBaseModule(n).GetName() == oFirst.GetBaseModule(n).GetName(), "base module name");
  Check(oSecond.GetTranslatorMap() == oFirst.GetTranslatorMap(), "table");
  return 0;
}
