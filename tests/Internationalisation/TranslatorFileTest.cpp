#include "TestFiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

using namespace Orl::Harnel::Internationalisation;

namespace {

CTranslatorData MakeModule(const char* pName, std::initializer_list<std::pair<const char*, const char*>> entries,
                           std::initializer_list<CTranslatorData> bases = {})
{
  CTranslatorData oData;
  oData.Init(pName, "de");
  for (const auto& oEntry : entries)
    oData.SetTranslation(oEntry.first, oEntry.second);
  for (const CTranslatorData& oBase : bases)
    oData.AddBaseModule(oBase);
  oData.SetModifiedFlag(false);
  return oData;
}

// Top -> B1 -> B1a, and Top -> B2 -> B2a -> B2b.
CTranslatorData MakeTree()
{
  const CTranslatorData oB1 = MakeModule("B1", {{"both", "b1"}, {"near-far", "b1"}, {"tie", "b1"}},
                                         {MakeModule("B1a", {{"deep-only", "b1a"}, {"far-first", "b1a"}, {"deep-tie", "b1a"}})});
  const CTranslatorData oB2a = MakeModule("B2a", {{"deep-tie", "b2a"}}, {MakeModule("B2b", {{"near-far", "b2b"}})});
  return MakeModule("Top", {{"both", "top"}, {"", "empty"}}, {oB1, MakeModule("B2", {{"tie", "b2"}, {"far-first", "b2"}}, {oB2a})});
}

// Reads strPath into freshly initialised data; returns the result and what the reader printed.
std::pair<bool, std::string> Read(const std::string& strPath, CTranslatorData& oData)
{
  oData.Init("fresh", "Default");
  std::ostringstream oCapture;
  std::streambuf* const pOld = std::cerr.rdbuf(oCapture.rdbuf());
  const bool bResult = CTranslatorFile(strPath).Read(oData);
  std::cerr.rdbuf(pOld);
  return {bResult, oCapture.str()};
}

} // namespace

TEST(TranslatorData, ShallowTakesNearestAndDeepTakesDeepest)
{
  const char* const aCases[][3] = {
    // key, shallow, deep
    {"both", "top", "b1"},      // own table against a direct base
    {"", "empty", "empty"},     // the empty key is a key like any other
    {"near-far", "b1", "b2b"},  // direct base against three levels down
    {"far-first", "b2", "b1a"}, // a later, nearer base against an earlier, deeper one
    {"tie", "b1", "b1"},        // equal distance: the first base wins
    {"deep-tie", "b1a", "b1a"},
    {"deep-only", "b1a", "b1a"},
  };
  for (const auto& aCase : aCases)
    for (const bool bDeep : {false, true})
    {
      CTranslatorData oData = MakeTree();
      const auto mapBefore = oData.GetTranslatorMap();
      EXPECT_EQ(oData.Translate(aCase[0], bDeep), aCase[bDeep ? 2 : 1]) << aCase[0];
      EXPECT_EQ(oData.GetTranslatorMap(), mapBefore);
      EXPECT_FALSE(oData.IsModified());
    }
  EXPECT_TRUE(MakeTree().HasBaseModule("B2b", true));
  EXPECT_FALSE(MakeTree().HasBaseModule("B2b", false));
}

TEST(TranslatorData, UnknownKeyIsLearntOnlyByTheModuleAsked)
{
  for (const bool bDeep : {false, true})
  {
    CTranslatorData oData = MakeTree();
    const std::string& strFirst = oData.Translate("unknown", bDeep);
    EXPECT_EQ(strFirst, "unknown");
    EXPECT_TRUE(oData.IsModified());
    EXPECT_FALSE(oData.GetBaseModule(0).CanTranslate("unknown"));
    oData.SetModifiedFlag(false);
    EXPECT_EQ(&oData.Translate("unknown", bDeep), &strFirst);
    EXPECT_FALSE(oData.IsModified());
    // A learnt entry shadows a base module's only in the shallow search.
    oData.GetBaseModule(0).SetTranslation("unknown", "b1");
    EXPECT_EQ(oData.Translate("unknown", false), "unknown");
    EXPECT_EQ(oData.Translate("unknown", true), "b1");
  }
}

// Init with its own strings, which it clears on the way.
TEST(TranslatorData, InitAcceptsItsOwnStrings)
{
  CTranslatorData oData = MakeTree();
  oData.Init(oData.GetLanguage(), oData.GetName());
  EXPECT_EQ(oData.GetName() + "/" + oData.GetLanguage(), "de/Top");
  oData = MakeTree();
  oData.Init(oData.GetBaseModule(1).GetName(), oData.GetLanguage());
  EXPECT_EQ(oData.GetName() + "/" + oData.GetLanguage(), "B2/de");
  EXPECT_EQ(oData.GetNumBaseModules() + oData.GetTranslatorMap().size(), 0u);
}

TEST(TranslatorFile, EveryByteSurvivesWriteAndRead)
{
  std::string strAll;
  for (int c = 0; c < 256; ++c)
    strAll.push_back(static_cast<char>(c));
  CTranslatorData oData;
  oData.Init("mod\"ule\\\n", "Lang\r\n'\t");
  for (const char* pBase : {"base \"one\"", "two\\", "x\ny"})
    oData.AddBaseModule(MakeModule(pBase, {{"not", "written"}}));
  oData.SetTranslation(strAll, "all bytes as a key");
  oData.SetTranslation("all bytes as a value", strAll);
  oData.SetTranslation("", "");
  for (int c = 0; c < 256; ++c) // each byte alone, and next to a quote and a backslash
    oData.SetTranslation(std::string(1, static_cast<char>(c)) + "\"\\", std::string(1, static_cast<char>(c)));

  CScratchDirectory oDir;
  const std::string strPath = oDir.Sub("allBytes.trl");
  ASSERT_TRUE(CTranslatorFile(strPath).Write(oData));
  CTranslatorData oRead;
  EXPECT_EQ(Read(strPath, oRead), std::make_pair(true, std::string()));
  EXPECT_EQ(oRead.GetName() + "/" + oRead.GetLanguage(), oData.GetName() + "/" + oData.GetLanguage());
  ASSERT_EQ(oRead.GetNumBaseModules(), 3u);
  for (unsigned int n = 0; n < 3; ++n)
  {
    // Stubs: the reader gives them the file's language and nothing else.
    EXPECT_EQ(oRead.GetBaseModule(n).GetName(), oData.GetBaseModule(n).GetName());
    EXPECT_EQ(oRead.GetBaseModule(n).GetLanguage(), oData.GetLanguage());
    EXPECT_TRUE(oRead.GetBaseModule(n).GetTranslatorMap().empty());
  }
  EXPECT_EQ(oRead.GetTranslatorMap(), oData.GetTranslatorMap());
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
    oData.AddBaseModule(MakeModule(pBase, {{"not", "written"}}));
  oData.SetTranslation("b\tkey", "it's");
  oData.SetTranslation("a", "\b\f\r");
  CScratchDirectory oDir;
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
  const std::string strSettings = "\nSettings\n(\n\tModuleName(\"m\")\n\tLanguage(\"L\")\n\tBaseModules(  )\n)";
  const std::string strBody = strSettings + "\nTranslations\n(\n\"k\"=\"v\"\n)\n";
  const std::string strEntries = "\nTranslations\n(\n\"k1\"=\"v1\"\n\"k2\"=\"v2\"\n";
  const auto Position = [](const std::string& strText, std::size_t nPosition) {
    EXPECT_NE(nPosition, std::string::npos) << strText;
    return "Parse Error at position " + std::to_string(nPosition) + "\n";
  };
  const std::string strVersion = "Invalid file version (TF(0001) expected)\n";
  const std::string strLower = "\nSettings\n(\n\tmodulename(\"m\")\n\tLanguage(\"L\")\n\tBaseModules( )\n)" + strEntries + ")";
  const std::string strComma = "\nSettings\n(\n\tModuleName(\"m\")\n\tLanguage(\"L\")\n\tBaseModules( \"a\", )\n)" + strEntries + ")";
  const std::string strNoComma = "Settings(ModuleName(\"m\")Language(\"L\")BaseModules(\"b\" \"c\"))Translations()";
  const std::string strNoBases = "\nSettings\n(\n\tModuleName(\"m\")\n\tLanguage(\"L\")\n)" + strEntries + ")";
  const std::string strBadEscape = strSettings + strEntries + "\"k3\"=\"a\\x\"\n)";
  const std::string strOpen = strSettings + strEntries + "\"k3\"=\"never closed\n)\n";
  const std::string strMissingClose = strSettings + strEntries;
  const std::string strTrailing = strBody + " \n x";

  const struct
  {
    const char* pWhat;
    std::string strBytes;
    bool bResult;
    std::string strError;
    std::size_t nBases, nEntries;
    const char* pValueOfK; // the translation of "k", if any
  } aCases[] = {
    {"canonical", "TF(0001)" + strBody, true, "", 0, 1, "v"},
    {"leading zeros", "TF(000000000000000000001)" + strBody, true, "", 0, 1, "v"},
    {"blanks everywhere",
     "TF(1) \r\n Settings ( ModuleName ( \"a\" ) Language(\"L\")BaseModules( \"x\" , \"y\"\t) ) "
     "Translations ( \"k\" = \"v\" \"k2\"=\"v2\")\n\n\t ",
     true, "", 2, 2, "v"},
    {"BaseModules()", "TF(1)\nSettings(ModuleName(\"a\")Language(\"L\")BaseModules())Translations()", true, "", 0, 0, nullptr},
    {"raw line end, tab, quote", "TF(1)" + strSettings + "\nTranslations(\"k\"=\"a\nb\tc'd\")", true, "", 0, 1, "a\nb\tc'd"},
    {"first of a duplicate wins", "TF(1)" + strSettings + "\nTranslations(\"k\"=\"1\"\"k\"=\"2\")", true, "", 0, 1, "1"},

    {"blank before header", " TF(1)" + strBody, false, "", 0, 0, nullptr},
    {"no number", "TF()" + strBody, false, "", 0, 0, nullptr},
    {"lower case header", "tf(1)" + strBody, false, "", 0, 0, nullptr},
    {"number over 32 bits", "TF(4294967297)" + strBody, false, "", 0, 0, nullptr},
    {"empty file", "", false, "", 0, 0, nullptr},
    {"version 2", "TF(0002)" + strBody, false, strVersion, 0, 0, nullptr},
    {"largest 32-bit version", "TF(4294967295)" + strBody, false, strVersion, 0, 0, nullptr},
    {"header only", "TF(1)", false, Position("", 0), 0, 0, nullptr},
    {"lower case keyword", "TF(1)" + strLower, false, Position(strLower, strLower.find("modulename")), 0, 0, nullptr},
    {"comma after the last base", "TF(1)" + strComma, false, Position(strComma, strComma.find(", )")), 0, 0, nullptr},
    {"no comma between bases", "TF(1)" + strNoComma, false, Position(strNoComma, strNoComma.find("\"c\"")), 0, 0, nullptr},
    {"BaseModules left out", "TF(1)" + strNoBases, false, Position(strNoBases, strNoBases.find(")\nTrans")), 0, 0, nullptr},
    {"unknown escape", "TF(1)" + strBadEscape, false, Position(strBadEscape, strBadEscape.find("\"k3\"")), 0, 2, nullptr},
    {"unclosed string", "TF(1)" + strOpen, false, Position(strOpen, strOpen.find("\"k3\"")), 0, 2, nullptr},
    {"unclosed block", "TF(1)" + strMissingClose, false, Position(strMissingClose, strMissingClose.size()), 0, 2, nullptr},
    {"text after the end", "TF(0001)" + strTrailing, false, Position(strTrailing, strTrailing.size() - 1), 0, 1, "v"},
  };
  CScratchDirectory oDir;
  for (const auto& oCase : aCases)
  {
    SCOPED_TRACE(oCase.pWhat);
    WriteBytes(oDir.Sub("case.trl"), oCase.strBytes);
    CTranslatorData oData;
    const auto [bResult, strError] = Read(oDir.Sub("case.trl"), oData);
    EXPECT_EQ(bResult, oCase.bResult);
    EXPECT_EQ(strError, oCase.strError);
    EXPECT_EQ(oData.GetNumBaseModules(), oCase.nBases);
    EXPECT_EQ(oData.GetTranslatorMap().size(), oCase.nEntries);
    const auto& mapTable = oData.GetTranslatorMap();
    EXPECT_EQ(mapTable.count("k") ? mapTable.at("k") : "-", oCase.pValueOfK ? oCase.pValueOfK : "-");
    EXPECT_TRUE(oCase.bResult || oCase.nEntries == 0 || oData.GetName() == "m"); // a failed read keeps what came before
  }
}

// Only regular files are there; anything else is refused quietly, a FIFO without waiting for a writer.
TEST(TranslatorFile, OnlyRegularFilesExist)
{
  CScratchDirectory oDir;
  const std::string strFifo = oDir.Sub("fifo.trl");
  ASSERT_EQ(mkfifo(strFifo.c_str(), 0644), 0);
  for (const std::string& strPath : {oDir.Sub("dirGerman.trl", true), oDir.Sub("missing.trl"), strFifo})
  {
    EXPECT_FALSE(CTranslatorFile::Exists(strPath)) << strPath;
    CTranslatorData oData;
    EXPECT_EQ(Read(strPath, oData), std::make_pair(false, std::string()));
    EXPECT_FALSE(oData.IsModified());
    EXPECT_EQ(CTranslatorFile(strPath).Write(oData), strPath == oDir.Sub("missing.trl"));
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

#if defined(__SANITIZE_THREAD__)
// The grammar makes its per-thread definition slot once, behind boost::call_once, which publishes the
// slot inside libboost_thread. That library is not instrumented, so ThreadSanitizer takes the first
// uses of the slot on other threads for races with its construction.
extern "C" const char* __tsan_default_suppressions()
{
  return "race_top:boost/thread/tss.hpp\n";
}
#endif

// Modules of one process may read their files at the same time; the parser keeps no shared state.
TEST(TranslatorFile, ConcurrentReads)
{
  CScratchDirectory oDir;
  std::vector<int> vecFailures(4, 0);
  std::vector<std::thread> vecThreads;
  for (int n = 0; n < 4; ++n)
  {
    const std::string strName = "m" + std::to_string(n);
    ASSERT_TRUE(WriteModule(oDir.GetPath(), strName, "L", {}, {{"7", strName.c_str()}, {"8", "x"}, {"9", "y"}}));
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
