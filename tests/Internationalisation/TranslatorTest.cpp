#include "Internationalisation/Translator.h"
#include "Internationalisation/TranslatorRegistry.h"

#include "TestFiles.h"
#include "TranslatorModule.h"

#include <boost/algorithm/string/join.hpp>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Orl::Harnel::Internationalisation;

namespace {

// Points this program's translator and those of the two test modules at a directory of their own.
// It is gone by the time the translators try to write back at exit, which they then fail to do quietly.
class CTranslatorEnvironment : public ::testing::Environment
{
public:
  void SetUp() override
  {
    m_pDirectory.reset(new CScratchDirectory);
    CTranslator::Init(m_pDirectory->GetPath(), "TranslatorTest", "Default");
    InitModuleA(m_pDirectory->GetPath().c_str());
    InitModuleB(m_pDirectory->GetPath().c_str());
  }
  void TearDown() override { m_pDirectory.reset(); }

private:
  std::unique_ptr<CScratchDirectory> m_pDirectory;
};

const ::testing::Environment* const g_pEnvironment = ::testing::AddGlobalTestEnvironment(new CTranslatorEnvironment);

// The module names of the tree under oData, depth first: "a(b(c))".
std::string Tree(const CTranslatorData& oData)
{
  std::string strTree = oData.GetName();
  for (unsigned int n = 0; n < oData.GetNumBaseModules(); ++n)
    strTree += (n ? "," : "(") + Tree(oData.GetBaseModule(n)) + (n + 1 == oData.GetNumBaseModules() ? ")" : "");
  return strTree;
}

} // namespace

// Unknown texts come back and are learnt once, by whichever thread asks first.
TEST(Translator, ConcurrentCallersShareOneTable)
{
  constexpr int nKeys = 300;
  std::vector<std::vector<const std::string*>> vecResults(4);
  const std::size_t nBefore = CTranslator::GetTranslatorData().GetTranslatorMap().size();
  std::vector<std::thread> vecThreads;
  for (auto& vecResult : vecResults)
    vecThreads.emplace_back([&vecResult] {
      for (int i = 0; i < nKeys; ++i)
        vecResult.push_back(&CTranslator::Translate("concurrent " + std::to_string(i)));
    });
  for (std::thread& oThread : vecThreads)
    oThread.join();
  EXPECT_EQ(CTranslator::GetTranslatorData().GetTranslatorMap().size(), nBefore + nKeys);
  EXPECT_EQ(*vecResults[0][7], "concurrent 7");
  for (const auto& vecResult : vecResults)
    EXPECT_EQ(vecResult, vecResults.front()); // every thread got the very same entries

  const auto mapBefore = CTranslator::GetTranslatorData().GetTranslatorMap();
  EXPECT_THROW(CTranslator::Translate(static_cast<const char*>(nullptr)), std::logic_error);
  EXPECT_EQ(CTranslator::GetTranslatorData().GetTranslatorMap(), mapBefore);
}

TEST(Translator, EachModuleHasItsOwnTranslatorAndTable)
{
  const void *pTranslatorA = nullptr, *pTranslatorB = nullptr;
  std::size_t nEntriesA = 0, nEntriesB = 0;
  const char* pTextA = TranslateInModuleA("shared text", &pTranslatorA, &nEntriesA);
  TranslateInModuleB("only in B", &pTranslatorB, &nEntriesB);
  const char* pTextB = TranslateInModuleB("shared text", &pTranslatorB, &nEntriesB);
  const std::string& strOwn = CTranslator::Translate("shared text");
  EXPECT_STREQ(pTextA, "shared text");
  EXPECT_STREQ(pTextB, "shared text");
  EXPECT_TRUE(pTextA != pTextB && pTextA != strOwn.c_str());
  EXPECT_EQ(nEntriesA, 1u);
  EXPECT_EQ(nEntriesB, 2u);
  ASSERT_NE(pTranslatorA, nullptr);
  EXPECT_TRUE(pTranslatorA != pTranslatorB && pTranslatorA != g_oTranslator.get() && pTranslatorB != g_oTranslator.get());
  EXPECT_EQ(CTranslator::GetTranslatorData().GetTranslatorMap().count("only in B"), 0u);
}

// What the module's file is when Init looks for it, and where the texts learnt meanwhile go when the
// language changes. A file that fails to read keeps its bytes, and the texts go beside it; a FIFO is
// passed over without being opened and stays. A regression would block in open: the guard then opens
// the FIFO itself, which lets the reader go.
TEST(Translator, LearntTextsNeverReplaceAFileThatFailedToRead)
{
  const std::string strOpen = "TF(1)\nSettings(ModuleName(\"mod\")Language(\"de\")BaseModules())\nTranslations(\"k\"=\"v\"\n";
  const struct
  {
    const char* pWhat;
    const char* pBytes; // nullptr: no file, "fifo": a FIFO
    std::string strBytes;
    mode_t nMode;
    const char* pValueOfK; // read, parsed before the fault, or learnt
    const char* pFiles;    // the directory afterwards
  } aCases[] = {
    {"no file", nullptr, "", 0644, "k", "modde.trl"},
    {"valid", "", strOpen + ")", 0644, "v", "modde.trl"},
    {"wrong version", "", "TF(2)" + strOpen.substr(5) + ")", 0644, "k", "modde.trl modde.trl.learnt"},
    {"truncated", "", strOpen, 0644, "v", "modde.trl modde.trl.learnt"},
    {"bad escape", "", strOpen + "\"x\"=\"\\q\")", 0644, "v", "modde.trl modde.trl.learnt"},
    {"no permission", "", strOpen + ")", 0, "k", "modde.trl modde.trl.learnt"},
    {"FIFO", "fifo", "", 0644, "k", "modde.trl"},
  };
  for (const auto& oCase : aCases)
  {
    SCOPED_TRACE(oCase.pWhat);
    CScratchDirectory oDir;
    const std::string strFile = oDir.Sub("modde.trl");
    const bool bFifo = oCase.pBytes && *oCase.pBytes, bRegular = oCase.pBytes && !bFifo;
    if (bFifo)
      ASSERT_EQ(mkfifo(strFile.c_str(), 0644), 0);
    else if (bRegular)
      WriteBytes(strFile, oCase.strBytes);
    chmod(strFile.c_str(), oCase.nMode);
    if (oCase.nMode == 0 && access(strFile.c_str(), R_OK) == 0)
      continue; // run by root, who reads the file all the same
    std::future<void> oInit = std::async(std::launch::async, [&] { CTranslator::Init(oDir.GetPath(), "mod", "de"); });
    if (oInit.wait_for(std::chrono::seconds(20)) != std::future_status::ready)
    {
      ADD_FAILURE() << "blocked in Init";
      const int nWriter = open(strFile.c_str(), O_RDWR | O_NONBLOCK);
      oInit.wait();
      close(nWriter);
    }
    EXPECT_EQ(CTranslator::GetTranslatorData().IsModified(), !bRegular); // only a new file is worth writing yet
    EXPECT_EQ(CTranslator::Translate("k"), oCase.pValueOfK);
    CTranslator::Translate("learnt");
    CTranslator::SetLanguage("fr"); // writes what the old language learnt
    chmod(strFile.c_str(), 0644);
    std::vector<std::string> vecFiles = oDir.GetEntries();
    std::sort(vecFiles.begin(), vecFiles.end());
    EXPECT_EQ(boost::algorithm::join(vecFiles, " "), oCase.pFiles);
    const std::string strLearnt = oDir.Sub(vecFiles.back());
    CTranslatorData oLearnt;
    EXPECT_EQ(CTranslatorFile(strLearnt).Read(oLearnt), !bFifo);
    EXPECT_EQ(oLearnt.GetTranslatorMap().count("learnt"), oLearnt.GetTranslatorMap().count("k"));
    EXPECT_TRUE(strLearnt == strFile || ReadBytes(strFile) == oCase.strBytes);
  }
}

// Missing bases and files naming another module are dropped; the own file under another name keeps it.
TEST(Translator, UnreadableBaseModulesAreDropped)
{
  CScratchDirectory oDir;
  const std::string strFirst = oDir.Sub("first", true), strSecond = oDir.Sub("second", true);
  ASSERT_TRUE(WriteModule(strFirst, "mod", "de", {"gone", "common", "renamed"}, {{"own", "eigen"}}));
  ASSERT_TRUE(WriteModule(strSecond, "common", "de", {"deep"}, {{"c", "gemeinsam"}}));
  ASSERT_TRUE(WriteModule(strFirst, "deep", "de", {}, {{"d", "tief"}, {"own", "tief"}}));
  ASSERT_TRUE(WriteModule(strSecond, "renamed", "de", {}, {{"r", "r"}}, "another name"));
  CTranslator::Init(std::list<std::string>{strFirst, strSecond}, "mod", "de");
  EXPECT_EQ(Tree(CTranslator::GetTranslatorData()), "mod(common(deep))");
  EXPECT_FALSE(CTranslator::GetTranslatorData().IsModified()); // the drops alone do not make the file worth rewriting
  EXPECT_EQ(CTranslator::Translate("d"), "tief");
  EXPECT_EQ(CTranslator::Translate("own"), "tief"); // the deepest module's, unless the search is shallow
  CTranslator::SetSearchMode(false);
  EXPECT_EQ(CTranslator::Translate("own"), "eigen");
  CTranslator::SetSearchMode(true);

  ASSERT_TRUE(WriteModule(strFirst, "top", "de", {"deep"}, {{"k", "v"}}, "other"));
  CTranslator::Init(strFirst, "top", "de");
  const CTranslatorData oData = CTranslator::GetTranslatorData();
  EXPECT_EQ(Tree(oData), "other(deep)");
  EXPECT_TRUE(oData.IsModified()); // a later write goes under the other name
  EXPECT_TRUE(oData.GetBaseModule(0).GetTranslatorMap().empty()); // and its bases stay unresolved
}

// Invalid sets of files must end and keep what can be kept; legal but repeated bases are bounded.
TEST(Translator, CyclesAndRepeatsOfBaseModulesEnd)
{
  CScratchDirectory oDir;
  ASSERT_TRUE(WriteModule(oDir.GetPath(), "a", "de", {"b", "a"}, {{"ka", "a"}}));
  ASSERT_TRUE(WriteModule(oDir.GetPath(), "b", "de", {"a", "c"}, {{"kb", "b"}}));
  ASSERT_TRUE(WriteModule(oDir.GetPath(), "c", "de", {"c", "b"}, {{"kc", "c"}}));
  CTranslator::Init(oDir.GetPath(), "a", "de");
  EXPECT_EQ(Tree(CTranslator::GetTranslatorData()), "a(b(c))");
  EXPECT_FALSE(CTranslator::GetTranslatorData().IsModified());
  EXPECT_EQ(CTranslator::Translate("kc"), "c");

  // Each file names the next one twice: 2^40 reads without a limit.
  for (int n = 0; n < 40; ++n)
    ASSERT_TRUE(WriteModule(oDir.GetPath(), "m" + std::to_string(n), "de", {"m" + std::to_string(n + 1), "m" + std::to_string(n + 1)}, {}));
  ASSERT_TRUE(WriteModule(oDir.GetPath(), "m40", "de", {}, {{"bottom", "found"}}));
  CTranslator::Init(oDir.GetPath(), "m0", "de");
  const std::string strTree = Tree(CTranslator::GetTranslatorData());
  EXPECT_LE(static_cast<std::size_t>(std::count(strTree.begin(), strTree.end(), 'm')), CTranslator::ms_nMaxBaseModuleReads + 1u);
  EXPECT_EQ(CTranslator::Translate("bottom"), "found"); // the first chain down is complete
}

// The module name is the file name without its last extension; the file's directory is searched first.
TEST(Translator, InitFromAFileName)
{
  CScratchDirectory oDir;
  ASSERT_TRUE(WriteModule(oDir.GetPath(), "tool.bin", "de", {}, {{"k", "aus der Datei"}}));
  CTranslator::Init(oDir.Sub("tool.bin.exe"), "de");
  EXPECT_EQ(CTranslator::GetApplicationName() + " " + CTranslator::GetSearchPathList().front(), "tool.bin " + oDir.GetPath());
  EXPECT_EQ(CTranslator::Translate("k"), "aus der Datei");
}

// SetLanguage, of one module or of every module through the registry, first writes what the old
// language learnt; the same language again writes nothing. The new table starts empty and worth
// writing, and Init drops a modified table without writing it.
TEST(TranslatorRegistry, SetLanguageWritesEveryModulesOldLanguageFirst)
{
  CScratchDirectory oDir;
  InitModuleA(oDir.GetPath().c_str());
  InitModuleB(oDir.GetPath().c_str());
  CTranslator::Init(oDir.GetPath(), "TranslatorTest", "Default");
  EXPECT_EQ(CTranslator::GetBaseFilePath(), oDir.GetPath()); // without a file, the target of the write
  const void* pTranslator = nullptr;
  std::size_t nEntries = 0;
  TranslateInModuleA("learnt in A", &pTranslator, &nEntries);
  CTranslator::Translate("learnt here");
  CTranslator::SetLanguage("Default");
  EXPECT_FALSE(boost::filesystem::exists(oDir.Sub("TranslatorTestDefault.trl")));

  CTranslatorRegistry::SetLanguage("French");
  EXPECT_STREQ(LanguageOfModuleA(), "French");
  EXPECT_STREQ(LanguageOfModuleB(), "French");
  EXPECT_EQ(CTranslator::GetLanguage(), "French");
  EXPECT_EQ(CTranslatorRegistry::GetLanguage(), "French");
  EXPECT_TRUE(CTranslator::GetTranslatorData().GetTranslatorMap().empty());
  EXPECT_TRUE(CTranslator::GetTranslatorData().IsModified());
  for (const auto& oWrite : {std::make_pair("libOrlTestTranslatorModuleADefault.trl", "learnt in A"),
                             std::make_pair("TranslatorTestDefault.trl", "learnt here")})
  {
    CTranslatorData oWritten;
    ASSERT_TRUE(CTranslatorFile(oDir.Sub(oWrite.first)).Read(oWritten)) << oWrite.first;
    EXPECT_EQ(oWritten.GetTranslatorMap().count(oWrite.second), 1u) << oWrite.first;
  }
  std::string strFrench = " ";
  for (const CTranslatorRegistry::SModule& oModule : CTranslatorRegistry::GetModules())
    if (oModule.m_strLanguage == "French")
      strFrench += oModule.m_strName + " ";
  for (const char* pName : {" TranslatorTest ", " libOrlTestTranslatorModuleA ", " libOrlTestTranslatorModuleB "})
    EXPECT_NE(strFrench.find(pName), std::string::npos) << strFrench;

  CTranslator::Init(oDir.GetPath(), "TranslatorTest", "German");
  EXPECT_FALSE(boost::filesystem::exists(oDir.Sub("TranslatorTestFrench.trl")));
}
