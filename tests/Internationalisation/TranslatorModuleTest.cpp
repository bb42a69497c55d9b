// Whole-process behaviour of the translator, through the probe program (TranslatorProbe.cpp): the
// probe and a test module are copied into temporary directories, so that their own directories,
// working directory and LANGUAGEPATH are under the test's control.
#include "Internationalisation/TranslatorData.h"
#include "Internationalisation/TranslatorFile.h"

#include "TestFiles.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

using namespace Orl::Harnel::Internationalisation;

namespace {

typedef std::map<std::string, std::string> TTable;

struct SProbe
{
  std::string m_strProgram;   // the copy to run
  std::string m_strDirectory; // where it was copied to
  std::string m_strWorking;   // its working directory
};

// Copies the probe to <dir>/bin/probe and makes <dir>/work.
SProbe InstallProbe(const CTempDirectory& oDir)
{
  SProbe oProbe{oDir.Sub("bin", true) + "/probe", oDir.Sub("bin"), oDir.Sub("work", true)};
  boost::filesystem::copy_file(ORL_TEST_PROBE, oProbe.m_strProgram);
  return oProbe;
}

// Runs the probe in its working directory with LANGUAGEPATH set to pLanguagePath (unset for null)
// and returns what it printed. Fails the test when it does not exit with 0.
std::string RunProbe(const SProbe& oProbe, const std::vector<std::string>& vecArguments,
                     const char* pLanguagePath = nullptr, const char* pArgv0 = nullptr)
{
  int aPipe[2];
  if (pipe(aPipe) != 0)
    throw std::runtime_error("pipe failed");
  const pid_t nChild = fork();
  if (nChild == 0)
  {
    dup2(aPipe[1], 1);
    close(aPipe[0]);
    close(aPipe[1]);
    if (chdir(oProbe.m_strWorking.c_str()) != 0)
      _exit(126);
    if (pLanguagePath)
      setenv("LANGUAGEPATH", pLanguagePath, 1);
    else
      unsetenv("LANGUAGEPATH");
    std::vector<char*> vecArgv{const_cast<char*>(pArgv0 ? pArgv0 : oProbe.m_strProgram.c_str())};
    for (const std::string& strArgument : vecArguments)
      vecArgv.push_back(const_cast<char*>(strArgument.c_str()));
    vecArgv.push_back(nullptr);
    execv(oProbe.m_strProgram.c_str(), vecArgv.data());
    _exit(127);
  }
  close(aPipe[1]);
  std::string strOutput;
  char aBuffer[4096];
  for (ssize_t n; (n = read(aPipe[0], aBuffer, sizeof(aBuffer))) > 0;)
    strOutput.append(aBuffer, static_cast<std::size_t>(n));
  close(aPipe[0]);
  int nStatus = 0;
  waitpid(nChild, &nStatus, 0);
  EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << "status " << nStatus << ", output:\n" << strOutput;
  return strOutput;
}

void WriteModule(const std::string& strDirectory, const std::string& strName, const std::string& strLanguage,
                 std::initializer_list<const char*> listBases, const TTable& mapEntries)
{
  CTranslatorData oData;
  oData.Init(strName, strLanguage);
  for (const char* pBase : listBases)
  {
    CTranslatorData oBase;
    oBase.Init(pBase, strLanguage);
    oData.AddBaseModule(oBase);
  }
  for (const auto& oEntry : mapEntries)
    oData.SetTranslation(oEntry.first, oEntry.second);
  ASSERT_TRUE(CTranslatorFile(CTranslatorFile::BuildFileName(strDirectory, strName, strLanguage)).Write(oData));
}

// The file's names and table; the name is empty when the file cannot be read.
std::pair<std::string, TTable> ReadModule(const std::string& strPath)
{
  CTranslatorData oData;
  if (!CTranslatorFile(strPath).Read(oData))
    return {};
  return {oData.GetName() + "/" + oData.GetLanguage(), oData.GetTranslatorMap()};
}

} // namespace

TEST(TranslatorModule, LeavesItsFileBesideTheProgramAndReadsItBack)
{
  CTempDirectory oDir;
  const SProbe oProbe = InstallProbe(oDir);
  EXPECT_EQ(RunProbe(oProbe, {"info", "tr", "hello"}), "name=probe\nlanguage=Default\nbase=" + oProbe.m_strDirectory +
                                                    "\npath=" + oProbe.m_strDirectory + "|./|" + oProbe.m_strWorking +
                                                    "\nhello\n");
  const std::string strFile = oProbe.m_strDirectory + "/probeDefault.trl";
  EXPECT_EQ(ReadModule(strFile), std::make_pair(std::string("probe/Default"), TTable{{"hello", "hello"}}));
  EXPECT_TRUE(boost::filesystem::is_empty(oProbe.m_strWorking));

  // A translator has been at work; a run that meets only known texts leaves the file alone.
  WriteModule(oProbe.m_strDirectory, "probe", "Default", {}, {{"hello", "hallo"}});
  const std::string strTranslated = ReadBytes(strFile);
  EXPECT_EQ(RunProbe(oProbe, {"tr", "hello"}), "hallo\n");
  EXPECT_EQ(ReadBytes(strFile), strTranslated);

  EXPECT_EQ(RunProbe(oProbe, {"tr", "new", "tr", "hello"}), "new\nhallo\n");
  EXPECT_EQ(ReadModule(strFile).second, (TTable{{"hello", "hallo"}, {"new", "new"}}));
}

// As if started through PATH: argv[0] names no directory, and the program's file is still found.
TEST(TranslatorModule, ProgramStartedByABareName)
{
  CTempDirectory oDir;
  const SProbe oProbe = InstallProbe(oDir);
  EXPECT_EQ(RunProbe(oProbe, {"info"}, nullptr, "probe"),
            "name=probe\nlanguage=Default\nbase=" + oProbe.m_strDirectory + "\npath=" + oProbe.m_strDirectory + "|./|" +
              oProbe.m_strWorking + "\n");
}

TEST(TranslatorModule, FindsBaseModulesAlongTheSearchPath)
{
  CTempDirectory oDir;
  const SProbe oProbe = InstallProbe(oDir);
  const std::string strLanguages = oDir.Sub("languages", true);
  WriteModule(oProbe.m_strDirectory, "probe", "German", {"common", "missing"}, {{"own", "eigen"}, {"shared", "probe"}});
  WriteModule(oProbe.m_strWorking, "common", "German", {"deep"}, {{"c", "gemeinsam"}, {"shared", "common"}});
  WriteModule(strLanguages, "deep", "German", {}, {{"d", "tief"}, {"shared", "deep"}});
  const std::string strOwnFile = oProbe.m_strDirectory + "/probeGerman.trl";
  const std::string strBefore = ReadBytes(strOwnFile);

  EXPECT_EQ(RunProbe(oProbe, {"init", "German", "tr", "own", "tr", "c", "tr", "d", "tr", "shared", "shallow", "tr", "shared"},
                strLanguages.c_str()),
            "eigen\ngemeinsam\ntief\ndeep\nprobe\n");
  // Nothing new was learnt: the dropped base module alone does not rewrite the file, and the
  // Default table that Init dropped is not written either.
  EXPECT_EQ(ReadBytes(strOwnFile), strBefore);
  EXPECT_FALSE(FileExists(oProbe.m_strDirectory + "/probeDefault.trl"));
}

TEST(TranslatorModule, LanguagePathIsOneDirectory)
{
  CTempDirectory oDir;
  const SProbe oProbe = InstallProbe(oDir);
  const std::string strLanguages = oDir.Sub("languages", true);
  WriteModule(strLanguages, "probe", "Default", {}, {{"k", "from LANGUAGEPATH"}});
  EXPECT_EQ(RunProbe(oProbe, {"tr", "k"}, strLanguages.c_str()), "from LANGUAGEPATH\n");
  EXPECT_FALSE(FileExists(oProbe.m_strDirectory + "/probeDefault.trl"));

  const std::string strTwo = strLanguages + ":" + oDir.Sub("other", true);
  EXPECT_EQ(RunProbe(oProbe, {"info", "tr", "k"}, strTwo.c_str()),
            "name=probe\nlanguage=Default\nbase=" + oProbe.m_strDirectory + "\npath=" + oProbe.m_strDirectory +
              "|./|" + oProbe.m_strWorking + "|" + strTwo + "\nk\n");
  EXPECT_EQ(ReadModule(oProbe.m_strDirectory + "/probeDefault.trl").second, (TTable{{"k", "k"}}));
}

TEST(TranslatorModule, WorkingDirectoryComesAfterTheProgramsDirectory)
{
  CTempDirectory oDir;
  const SProbe oProbe = InstallProbe(oDir);
  WriteModule(oProbe.m_strWorking, "probe", "Default", {}, {{"k", "work"}});
  EXPECT_EQ(RunProbe(oProbe, {"tr", "k"}), "work\n");
  WriteModule(oProbe.m_strDirectory, "probe", "Default", {}, {{"k", "bin"}});
  EXPECT_EQ(RunProbe(oProbe, {"tr", "k"}), "bin\n");
}

TEST(TranslatorModule, LibraryWithAVersionedFileName)
{
  CTempDirectory oDir;
  const SProbe oProbe = InstallProbe(oDir);
  const std::string strLibrary = oDir.Sub("lib", true) + "/libX.so.1.2";
  boost::filesystem::copy_file(ORL_TEST_VERSIONED_MODULE, strLibrary);
  EXPECT_EQ(RunProbe(oProbe, {"lib", strLibrary, "text"}), "text\n");
  EXPECT_EQ(ReadModule(oDir.Sub("lib/libX.so.1Default.trl")),
            std::make_pair(std::string("libX.so.1/Default"), TTable{{"text", "text"}}));
  // The probe's own translator was never made, so it left nothing.
  EXPECT_FALSE(FileExists(oProbe.m_strDirectory + "/probeDefault.trl"));

  // A module whose translator is made after the application chose a language for all starts in it.
  EXPECT_EQ(RunProbe(oProbe, {"all", "German", "lib", strLibrary, "Text"}), "Text\n");
  EXPECT_EQ(ReadModule(oDir.Sub("lib/libX.so.1German.trl")),
            std::make_pair(std::string("libX.so.1/German"), TTable{{"Text", "Text"}}));
}
