// Fuzz target of the translation file reader. Every input is written to a scratch file and read,
// since the reader parses from a memory mapping of a real file. Whatever the reader made of the
// input, also after a failed read, must then survive Write and Read unchanged.
//
// Built with clang's libFuzzer when ORL_BUILD_FUZZ is on; with ORL_FUZZ_REPLAY it has a main of its
// own that feeds it every file of the directories given, for the committed corpus in every build.
#include "Internationalisation/TranslatorData.h"
#include "Internationalisation/TranslatorFile.h"

#include <boost/filesystem.hpp>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

using namespace Orl::Harnel::Internationalisation;

namespace {

std::string g_strInputFile, g_strOutputFile;

// In memory where possible: each input is written once and read twice.
std::string MakeScratchFile()
{
  const char* pBase = std::getenv("TMPDIR");
  if (!pBase || !*pBase)
    pBase = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string strTemplate = std::string(pBase) + "/orl-fuzz-XXXXXX";
  const int nFile = mkstemp(&strTemplate[0]);
  if (nFile < 0)
    std::abort();
  close(nFile);
  return strTemplate;
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
  std::atexit([] {
    std::remove(g_strInputFile.c_str());
    std::remove(g_strOutputFile.c_str());
  });
  std::cerr.rdbuf(nullptr); // the reader's one-line messages, by the thousand
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize)
{
  Check(static_cast<bool>(std::ofstream(g_strInputFile, std::ios::binary | std::ios::trunc)
                            .write(reinterpret_cast<const char*>(pData), static_cast<std::streamsize>(nSize))
                            .flush()),
        "cannot write the scratch file");
  CTranslatorData oFirst, oSecond;
  oFirst.Init("fuzz", "Default");
  oSecond.Init("fuzz", "Default");
  CTranslatorFile(g_strInputFile).Read(oFirst);
  Check(CTranslatorFile(g_strOutputFile).Write(oFirst), "write failed");
  Check(CTranslatorFile(g_strOutputFile).Read(oSecond), "written file refused");
  Check(oSecond.GetName() == oFirst.GetName() && oSecond.GetLanguage() == oFirst.GetLanguage(), "names");
  Check(oSecond.GetNumBaseModules() == oFirst.GetNumBaseModules(), "number of base modules");
  for (unsigned int n = 0; n < oFirst.GetNumBaseModules(); ++n)
    Check(oSecond.GetBaseModule(n).GetName() == oFirst.GetBaseModule(n).GetName(), "base module name");
  Check(oSecond.GetTranslatorMap() == oFirst.GetTranslatorMap(), "table");
  return 0;
}

#ifdef ORL_FUZZ_REPLAY
int main(int argc, char** argv)
{
  LLVMFuzzerInitialize(&argc, &argv);
  std::size_t nInputs = 0;
  for (int i = 1; i < argc; ++i)
    for (const auto& oEntry : boost::filesystem::directory_iterator(argv[i]))
    {
      std::ifstream oStream(oEntry.path().string(), std::ios::binary);
      const std::string strBytes((std::istreambuf_iterator<char>(oStream)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(strBytes.data()), strBytes.size());
      ++nInputs;
    }
  std::printf("replayed %zu inputs\n", nInputs);
  return nInputs > 0 ? 0 : 1;
}
#endif
