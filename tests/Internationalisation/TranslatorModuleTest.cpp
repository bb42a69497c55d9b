// Whole-process behaviour of the translator, through the probe program (TranslatorProbe.cpp): the
// probe and a test module are copied into temporary directories, so that their own directories,
// working directory and LANGUAGEPATH are under the test's control.
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>

#include <map>
#include <string>
#include <utility>

using namespace Orl::Harnel::Internationalisation;
namespace fs = boost::filesystem;

namespace {

typedef std::map<std::string, std::string> TTable;

// The probe copied to <dir>/bin/probe, run in <dir>/work.
struct SProbe
{
  explicit SProbe(const CScratchDirectory& oDir)
    : m_strDirectory(oDir.Sub("bin", true)), m_strProgram(m_strDirectory + "/probe"), m_strWorking(oDir.Sub("work", true))
  {
    fs::copy_file(ORL_TEST_PROBE, m_strProgram);
  }
  // What "info" should print: the search path is its own directory, "./", the working one, LANGUAGEPATH.
  std::string Info(const std::string& strLanguagePath = "") const
  {
    return "name=probe\nlanguage=Default\nbase=" + m_strDirectory + "\npath=" + m_strDirectory + "|./|" +
           m_strWorking + (strLanguagePath.empty() ? "" : "|" + strLanguagePath) + "\n";
  }
  // Runs in the working directory with LANGUAGEPATH set to strLanguagePath (unset when empty), found
  // through PATH where asked (argv[0] then names no directory); returns what it printed and fails the
  // test unless it exits with 0.
  std::string Run(const std::string& strArguments, const std::string& strLanguagePath = "", bool bByPath = false) const
  {
    const std::string strCommand =
      "cd '" + m_strWorking + "' && " +
      (strLanguagePath.empty() ? "unset LANGUAGEPATH && " : "export LANGUAGEPATH='" + strLanguagePath + "' && ") +
      (bByPath ? "PATH='" + m_strDirectory + "' probe " : "'" + m_strProgram + "' ") + strArguments;
    FILE* const pPipe = popen(strCommand.c_str(), "r");
    std::string strOutput;
    char aBuffer[4096];
    for (std::size_t n; pPipe && (n = fread(aBuffer, 1, sizeof(aBuffer), pPipe)) > 0;)
      strOutput.append(aBuffer, n);
    const int nStatus = pPipe ? pclose(pPipe) : -1;
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << strCommand << ": " << nStatus << "\n" << strOutput;
    return strOutput;
  }

  std::string m_strDirectory, m_strProgram, m_strWorking;
};

// "name/language" and the table of a file; an empty name when it cannot be read.
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
  CScratchDirectory oDir;
  const SProbe oProbe(oDir);
  EXPECT_EQ(oProbe.Run("info tr hello"), oProbe.Info() + "hello\n");
  const std::string strFile = oProbe.m_strDirectory + "/probeDefault.trl";
  EXPECT_EQ(ReadModule(strFile), std::make_pair(std::string("probe/Default"), TTable{{"hello", "hello"}}));
  EXPECT_TRUE(fs::is_empty(oProbe.m_strWorking));

  // A translator has been at work; a run that meets only known texts leaves the file alone. The
  // program is started as through PATH: argv[0] names no directory, and its file is still found.
  ASSERT_TRUE(WriteModule(oProbe.m_strDirectory, "probe", "Default", {}, {{"hello", "hallo"}}));
  const std::string strTranslated = ReadBytes(strFile);
  EXPECT_EQ(oProbe.Run("info tr hello", "", true), oProbe.Info() + "hallo\n");
  EXPECT_EQ(ReadBytes(strFile), strTranslated);
  EXPECT_EQ(oProbe.Run("tr new tr hello"), "new\nhallo\n");
  EXPECT_EQ(ReadModule(strFile).second, (TTable{{"hello", "hallo"}, {"new", "new"}}));
}

// LANGUAGEPATH is one more directory, after the program's own and the working directory.
TEST(TranslatorModule, LanguagePathComesLastAndIsOneDirectory)
{
  CScratchDirectory oDir;
  const SProbe oProbe(oDir);
  const std::string strLanguages = oDir.Sub("languages", true);
  for (const auto& oStep : {std::make_pair(strLanguages, "languages"), std::make_pair(oProbe.m_strWorking, "work"),
                            std::make_pair(oProbe.m_strDirectory, "bin")})
  {
    ASSERT_TRUE(WriteModule(oStep.first, "probe", "Default", {}, {{"k", oStep.second}}));
    EXPECT_EQ(oProbe.Run("tr k", strLanguages), std::string(oStep.second) + "\n");
  }
  fs::remove(oProbe.m_strDirectory + "/probeDefault.trl");
  fs::remove(oProbe.m_strWorking + "/probeDefault.trl");

  // A list is taken as a single directory: nothing is found.
  const std::string strTwo = strLanguages + ":" + oDir.Sub("other", true);
  EXPECT_EQ(oProbe.Run("info tr k", strTwo), oProbe.Info(strTwo) + "k\n");
}

TEST(TranslatorModule, LibraryWithAVersionedFileName)
{
  CScratchDirectory oDir;
  const SProbe oProbe(oDir);
  const std::string strLibrary = oDir.Sub("lib", true) + "/libX.so.1.2";
  fs::copy_file(ORL_TEST_VERSIONED_MODULE, strLibrary);
  EXPECT_EQ(oProbe.Run("lib " + strLibrary + " text"), "text\n");
  EXPECT_EQ(ReadModule(oDir.Sub("lib/libX.so.1Default.trl")),
            std::make_pair(std::string("libX.so.1/Default"), TTable{{"text", "text"}}));
  // The probe's own translator was never made, so it left nothing.
  EXPECT_FALSE(fs::exists(oProbe.m_strDirectory + "/probeDefault.trl"));

  // A module whose translator is made after the application chose a language for all starts in it.
  EXPECT_EQ(oProbe.Run("all German lib " + strLibrary + " Text"), "Text\n");
  EXPECT_EQ(ReadModule(oDir.Sub("lib/libX.so.1German.trl")),
            std::make_pair(std::string("libX.so.1/German"), TTable{{"Text", "Text"}}));
}
