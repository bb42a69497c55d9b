#include "TestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <vector>

using namespace Orl::Harnel::Internationalisation;

namespace {

CTranslatorData Fresh()
{
  CTranslatorData oData;
  oData.Init("fresh", "Default");
  return oData;
}

// Reads strPath into fresh data; returns the result and what the reader printed.
std::pair<bool, std::string> Read(const std::string& strPath, CTranslatorData& oData)
{
  oData = Fresh();
  CCaptureStderr oCapture;
  const bool bResult = CTranslatorFile(strPath).Read(oData);
  return {bResult, oCapture.Text()};
}

void ExpectSameContent(const CTranslatorData& oExpected, const CTranslatorData& oActual)
{
  EXPECT_EQ(oActual.GetName(), oExpected.GetName());
  EXPECT_EQ(oActual.GetLanguage(), oExpected.GetLanguage());
  ASSERT_EQ(oActual.GetNumBaseModules(), oExpected.GetNumBaseModules());
  for (unsigned int n = 0; n < oExpected.GetNumBaseModules(); ++n)
  {
    EXPECT_EQ(oActual.GetBaseModule(n).GetName(), oExpected.GetBaseModule(n).GetName());
    // Stubs: the reader gives them the file's language and nothing else.
    EXPECT_EQ(oActual.GetBaseModule(n).GetLanguage(), oExpected.GetLanguage());
    EXPECT_TRUE(oActual.GetBaseModule(n).GetTranslatorMap().empty());
  }
  EXPECT_EQ(oActual.GetTranslatorMap(), oExpected.GetTranslatorMap());
}

const std::string g_strSettings = "\nSettings\n(\n\tModuleName(\"m\")\n\tLanguage(\"L\")\n\tBaseModules(  )\n)";
const std::string g_strBody = g_strSettings + "\nTranslations\n(\n\"k\"=\"v\"\n)\n";

} // namespace

TEST(TranslatorFile, EveryByteSurvivesWriteAndRead)
{
  std::string strAll;
  for (int c = 0; c < 256; ++c)
    strAll.push_back(static_cast<char>(c));
  CTranslatorData oData;
  oData.Init("mod\"ule\\\n", "Lang\r\n'\t");
  for (const char* pBase : {"base \"one\"", "two\\", "x\ny"})
  {
    CTranslatorData oBase;
    oBase.Init(pBase, oData.GetLanguage());
    oData.AddBaseModule(oBase);
  }
  oData.SetTranslation(strAll, "all bytes as a key");
  oData.SetTranslation("all bytes as a value", strAll);
  oData.SetTranslation("", "");
  oData.SetTranslation("\\\"", "'\"'");
  oData.SetTranslation("\r\n\r\n", "\n\r");
  oData.SetTranslation(std::string(1, '\0'), std::string("a\0b", 3));
  for (int c = 0; c < 256; ++c) // each byte alone, and next to a quote and a backslash
    oData.SetTranslation(std::string(1, static_cast<char>(c)) + "\"\\", std::string(1, static_cast<char>(c)));

  CTempDirectory oDir;
  const std::string strPath = oDir.Sub("allBytes.trl");
  ASSERT_TRUE(CTranslatorFile(strPath).Write(oData));
  CTranslatorData oRead;
  EXPECT_EQ(Read(strPath, oRead), std::make_pair(true, std::string()));
  ExpectSameContent(oData, oRead);
  // Every string stays on its line: 10 fixed lines, one per entry.
  const std::string strBytes = ReadBytes(strPath);
  EXPECT_EQ(static_cast<std::size_t>(std::count(strBytes.begin(), strBytes.end(), '\n')),
            10 + oData.GetTranslatorMap().size());
}

TEST(TranslatorFile, WriterLayoutIsExact)
{
  CTranslatorData oData;
  oData.Init("core", "German");
  for (const char* pBase : {"base1", "base2"})
  {
    CTranslatorData oBase;
    oBase.Init(pBase, "German");
    oBase.SetTranslation("not", "written");
    oData.AddBaseModule(oBase);
  }
  oData.SetTranslation("b\tkey", "it's");
  oData.SetTranslation("a", "\b\f\r");
  CTempDirectory oDir;
  const std::string strPath = oDir.Sub("coreGerman.trl");
  WriteBytes(strPath, std::string(1000, 'x')); // truncated, not overwritten in place
  ASSERT_TRUE(CTranslatorFile(strPath).Write(oData));
  EXPECT_EQ(ReadBytes(strPath), "TF(0001)\nSettings\n(\n\tModuleName(\"core\")\n\tLanguage(\"German\")\n"
                                "\tBaseModules( \"base1\", \"base2\" )\n)\nTranslations\n(\n"
                                "\"a\"=\"\\b\\f\\r\"\n\"b\\tkey\"=\"it\\'s\"\n)\n");
  EXPECT_FALSE(CTranslatorFile(oDir.Sub("missing/x.trl")).Write(oData));
}

// Result, message, and what the data holds afterwards: a failed read keeps what came before the fault.
TEST(TranslatorFile, GrammarAcceptsAndRefuses)
{
  struct SCase
  {
    const char* pWhat;
    std::string strBytes;
    bool bResult;
    std::string strError;
    std::size_t nBases, nEntries;
    const char* pValueOfK = nullptr; // the translation of "k", where it matters
  };
  const std::string strEntries = "\nTranslations\n(\n\"k1\"=\"v1\"\n\"k2\"=\"v2\"\n";
  const auto Position = [](const std::string& strBody, std::size_t nPosition) {
    EXPECT_NE(nPosition, std::string::npos) << strBody;
    return "Parse Error at position " + std::to_string(nPosition) + "\n";
  };
  const std::string strVersion = "Invalid file version (TF(0001) expected)\n";
  const std::string strLower = "\nSettings\n(\n\tmodulename(\"m\")\n\tLanguage(\"L\")\n\tBaseModules( )\n)" + strEntries + ")";
  const std::string strComma = "\nSettings\n(\n\tModuleName(\"m\")\n\tLanguage(\"L\")\n\tBaseModules( \"a\", )\n)" + strEntries + ")";
  const std::string strNoComma = "Settings(ModuleName(\"m\")Language(\"L\")BaseModules(\"b\" \"c\"))Translations()";
  const std::string strNoBases = "\nSettings\n(\n\tModuleName(\"m\")\n\tLanguage(\"L\")\n)" + strEntries + ")";
  const std::string strBadEscape = g_strSettings + strEntries + "\"k3\"=\"a\\x\"\n)";
  const std::string strOpen = g_strSettings + strEntries + "\"k3\"=\"never closed\n)\n";
  const std::string strMissingClose = g_strSettings + strEntries;
  const std::string strTrailing = g_strBody + " \n x";

  const SCase vecCases[] = {
    {"canonical", "TF(0001)" + g_strBody, true, "", 0, 1},
    {"leading zeros", "TF(000000000000000000001)" + g_strBody, true, "", 0, 1},
    {"blanks everywhere",
     "TF(1) \r\n Settings ( ModuleName ( \"a\" ) Language(\"L\")BaseModules( \"x\" , \"y\"\t) ) "
     "Translations ( \"k\" = \"v\" \"k2\"=\"v2\")\n\n\t ",
     true, "", 2, 2},
    {"BaseModules()", "TF(1)\nSettings(ModuleName(\"a\")Language(\"L\")BaseModules())Translations()", true, "", 0, 0},
    {"raw line end, tab, quote", "TF(1)" + g_strSettings + "\nTranslations(\"k\"=\"a\nb\tc'd\")", true, "", 0, 1, "a\nb\tc'd"},
    {"first of a duplicate wins", "TF(1)" + g_strSettings + "\nTranslations(\"k\"=\"1\"\"k\"=\"2\")", true, "", 0, 1, "1"},

    {"blank before header", " TF(1)" + g_strBody, false, "", 0, 0},
    {"no number", "TF()" + g_strBody, false, "", 0, 0},
    {"lower case header", "tf(1)" + g_strBody, false, "", 0, 0},
    {"number over 32 bits", "TF(4294967297)" + g_strBody, false, "", 0, 0},
    {"empty file", "", false, "", 0, 0},
    {"version 2", "TF(0002)" + g_strBody, false, strVersion, 0, 0},
    {"largest 32-bit version", "TF(4294967295)" + g_strBody, false, strVersion, 0, 0},
    {"header only", "TF(1)", false, Position("", 0), 0, 0},
    {"lower case keyword", "TF(1)" + strLower, false, Position(strLower, strLower.find("modulename")), 0, 0},
    {"comma after the last base", "TF(1)" + strComma, false, Position(strComma, strComma.find(", )")), 0, 0},
    {"no comma between bases", "TF(1)" + strNoComma, false, Position(strNoComma, strNoComma.find("\"c\"")), 0, 0},
    {"BaseModules left out", "TF(1)" + strNoBases, false, Position(strNoBases, strNoBases.find(")\nTrans")), 0, 0},
    {"unknown escape", "TF(1)" + strBadEscape, false, Position(strBadEscape, strBadEscape.find("\"k3\"")), 0, 2},
    {"unclosed string", "TF(1)" + strOpen, false, Position(strOpen, strOpen.find("\"k3\"")), 0, 2},
    {"unclosed block", "TF(1)" + strMissingClose, false, Position(strMissingClose, strMissingClose.size()), 0, 2},
    {"text after the end", "TF(0001)" + strTrailing, false, Position(strTrailing, strTrailing.size() - 1), 0, 1},
  };
  CTempDirectory oDir;
  for (const SCase& oCase : vecCases)
  {
    SCOPED_TRACE(oCase.pWhat);
    WriteBytes(oDir.Sub("case.trl"), oCase.strBytes);
    CTranslatorData oData;
    EXPECT_EQ(Read(oDir.Sub("case.trl"), oData), std::make_pair(oCase.bResult, oCase.strError));
    EXPECT_EQ(oData.GetNumBaseModules(), oCase.nBases);
    EXPECT_EQ(oData.GetTranslatorMap().size(), oCase.nEntries);
    if (oCase.pValueOfK)
    {
      EXPECT_EQ(oData.GetTranslatorMap().at("k"), oCase.pValueOfK);
    }
    if (!oCase.bResult && oCase.nEntries > 0)
    {
      EXPECT_EQ(oData.GetName(), "m"); // a failed read keeps what came before
    }
  }
}

TEST(TranslatorFile, DirectoriesAndMissingFilesAreRefusedQuietly)
{
  CTempDirectory oDir;
  const std::string strDirectory = oDir.Sub("dirGerman.trl", true);
  EXPECT_TRUE(CTranslatorFile::Exists(strDirectory));
  EXPECT_FALSE(CTranslatorFile::Exists(oDir.Sub("missing.trl")));
  for (const std::string& strPath : {strDirectory, oDir.Sub("missing.trl")})
  {
    CTranslatorData oData;
    EXPECT_EQ(Read(strPath, oData), std::make_pair(false, std::string()));
    EXPECT_FALSE(oData.IsModified());
  }
}

TEST(TranslatorFile, BuildFileName)
{
  const char* const aCases[][4] = {
    {"/opt/app", "core", "German", "/opt/app/coreGerman.trl"},
    {"/opt/app/", "core", "German", "/opt/app/coreGerman.trl"},
    {"", "core", "German", "/coreGerman.trl"},
    {"./", "core", "", "./core.trl"},
    {"a////b//", "/x//y", "", "a/b/x/y.trl"},
    {"rel", "", "", "rel/.trl"},
  };
  for (const auto& aCase : aCases)
    EXPECT_EQ(CTranslatorFile::BuildFileName(aCase[0], aCase[1], aCase[2]), aCase[3]);
}

// Modules of one process may read their files at the same time; the parser keeps no shared state.
TEST(TranslatorFile, ConcurrentReads)
{
  CTempDirectory oDir;
  std::vector<int> vecFailures(4, 0);
  std::vector<std::thread> vecThreads;
  for (int n = 0; n < 4; ++n)
  {
    const std::string strName = "m" + std::to_string(n);
    ASSERT_TRUE(WriteModule(oDir.Path(), strName, "L", {}, {{"7", strName.c_str()}, {"8", "x"}, {"9", "y"}}));
    vecThreads.emplace_back([&, n, strName] {
      for (int nRound = 0; nRound < 50; ++nRound)
      {
        CTranslatorData oData;
        if (!CTranslatorFile(oDir.Sub(strName + "L.trl")).Read(oData) || oData.GetName() != strName ||
            oData.GetTranslatorMap().at("7") != strName)
          ++vecFailures[n];
      }
    });
  }
  for (std::thread& oThread : vecThreads)
    oThread.join();
  EXPECT_EQ(vecFailures, std::vector<int>(4, 0));
}
