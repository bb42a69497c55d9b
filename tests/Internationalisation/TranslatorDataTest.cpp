#include "Internationalisation/TranslatorData.h"

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <utility>

using Orl::Harnel::Internationalisation::CTranslatorData;

namespace {

using TEntries = std::initializer_list<std::pair<const char*, const char*>>;

CTranslatorData MakeModule(const char* pName, TEntries entries, std::initializer_list<CTranslatorData> bases = {})
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

// Top
// +- B1          (distance 1)
// |  +- B1a      (distance 2)
// +- B2          (distance 1)
//    +- B2a      (distance 2)
//       +- B2b   (distance 3)
CTranslatorData MakeTree()
{
  const CTranslatorData oB1a = MakeModule("B1a", {{"deep-only", "b1a"}, {"far-first", "b1a"}, {"deep-tie", "b1a"}});
  const CTranslatorData oB1 = MakeModule("B1", {{"both", "b1"}, {"near-far", "b1"}, {"tie", "b1"}}, {oB1a});
  const CTranslatorData oB2b = MakeModule("B2b", {{"near-far", "b2b"}});
  const CTranslatorData oB2a = MakeModule("B2a", {{"deep-tie", "b2a"}}, {oB2b});
  const CTranslatorData oB2 = MakeModule("B2", {{"tie", "b2"}, {"far-first", "b2"}}, {oB2a});
  return MakeModule("Top", {{"both", "top"}, {"", "empty"}}, {oB1, oB2});
}

} // namespace

TEST(TranslatorData, ShallowTakesNearestAndDeepTakesDeepest)
{
  struct SCase
  {
    const char* pKey;
    const char* pShallow;
    const char* pDeep;
  };
  const SCase vecCases[] = {
    {"both", "top", "b1"},        // own table against a direct base
    {"", "empty", "empty"},       // the empty key is a key like any other
    {"near-far", "b1", "b2b"},    // direct base against three levels down
    {"far-first", "b2", "b1a"},   // a later, nearer base against an earlier, deeper one
    {"tie", "b1", "b1"},          // equal distance: the first base wins
    {"deep-tie", "b1a", "b1a"},
    {"deep-only", "b1a", "b1a"},
  };
  for (const SCase& oCase : vecCases)
  {
    SCOPED_TRACE(oCase.pKey);
    for (const bool bDeep : {false, true})
    {
      CTranslatorData oData = MakeTree();
      const auto mapBefore = oData.GetTranslatorMap();
      EXPECT_EQ(oData.Translate(oCase.pKey, bDeep), bDeep ? oCase.pDeep : oCase.pShallow);
      EXPECT_EQ(oData.GetTranslatorMap(), mapBefore);
      EXPECT_FALSE(oData.IsModified());
    }
  }
}

TEST(TranslatorData, UnknownKeyIsLearntOnlyByTheModuleAsked)
{
  for (const bool bDeep : {false, true})
  {
    CTranslatorData oData = MakeTree();
    const std::string& strFirst = oData.Translate("unknown", bDeep);
    EXPECT_EQ(strFirst, "unknown");
    EXPECT_EQ(&strFirst, &oData.GetTranslatorMap().at("unknown"));
    EXPECT_TRUE(oData.IsModified());
    EXPECT_FALSE(oData.GetBaseModule(0).CanTranslate("unknown"));
    EXPECT_FALSE(oData.GetBaseModule(0).IsModified());

    oData.SetModifiedFlag(false);
    EXPECT_EQ(&oData.Translate("unknown", bDeep), &strFirst);
    EXPECT_EQ(oData.GetTranslatorMap().size(), 3u);
    EXPECT_FALSE(oData.IsModified());
  }
}

TEST(TranslatorData, LearntEntryShadowsBaseOnlyInShallowSearch)
{
  CTranslatorData oData = MakeTree();
  oData.Translate("late", true);
  oData.GetBaseModule(0).SetTranslation("late", "b1");
  EXPECT_EQ(oData.Translate("late", false), "late");
  EXPECT_EQ(oData.Translate("late", true), "b1");
}

TEST(TranslatorData, ModifiedFlagRules)
{
  struct SCase
  {
    const char* pWhat;
    std::function<void(CTranslatorData&)> fnOperation;
    bool bModified;
  };
  const SCase vecCases[] = {
    {"SetName same", [](CTranslatorData& o) { o.SetName("Top"); }, false},
    {"SetName other", [](CTranslatorData& o) { o.SetName("Other"); }, true},
    {"Clear with entries", [](CTranslatorData& o) { o.ClearTranslatorMap(); }, true},
    {"Clear empty", [](CTranslatorData& o) { o.Init("Top", "de"); o.ClearTranslatorMap(); }, false},
    {"Add existing key", [](CTranslatorData& o) { o.AddTranslation("both", "top"); }, true},
    {"Set existing key", [](CTranslatorData& o) { o.SetTranslation("both", "top"); }, true},
    {"AddBaseModule", [](CTranslatorData& o) { o.AddBaseModule(CTranslatorData()); }, true},
    {"Remove by name", [](CTranslatorData& o) { o.RemoveBaseModule("B2"); }, true},
    {"Remove missing name", [](CTranslatorData& o) { o.RemoveBaseModule("B9"); }, false},
    {"Remove nested name", [](CTranslatorData& o) { o.RemoveBaseModule("B1a"); }, false},
    {"Remove by index", [](CTranslatorData& o) { o.RemoveBaseModule(1u); }, true},
    {"Init after changes", [](CTranslatorData& o) { o.SetTranslation("a", "b"); o.Init("Top", "de"); }, false},
  };
  for (const SCase& oCase : vecCases)
  {
    SCOPED_TRACE(oCase.pWhat);
    CTranslatorData oData = MakeTree();
    oCase.fnOperation(oData);
    EXPECT_EQ(oData.IsModified(), oCase.bModified);
  }
}

TEST(TranslatorData, AddKeepsAndSetReplacesAValue)
{
  CTranslatorData oData = MakeTree();
  oData.AddTranslation("both", "other");
  EXPECT_EQ(oData.GetTranslatorMap().at("both"), "top");
  oData.SetTranslation("both", "other");
  EXPECT_EQ(oData.GetTranslatorMap().at("both"), "other");
}

TEST(TranslatorData, BaseModulesAreIndependentCopies)
{
  CTranslatorData oBase = MakeModule("Base", {{"k", "v"}});
  oBase.SetModifiedFlag(true);
  CTranslatorData oData;
  oData.AddBaseModule(oBase);
  oBase.SetTranslation("k", "changed");
  EXPECT_TRUE(oData.GetBaseModule(0).IsModified());
  EXPECT_EQ(oData.GetBaseModule(0).GetTranslatorMap().at("k"), "v");
}

TEST(TranslatorData, RemoveAndFindBaseModules)
{
  CTranslatorData oData = MakeTree();
  oData.AddBaseModule(MakeModule("B1", {{"k", "second B1"}}));
  EXPECT_FALSE(oData.HasBaseModule("B2b", false));
  EXPECT_TRUE(oData.HasBaseModule("B2b", true));
  EXPECT_FALSE(oData.HasBaseModule("B9", true));
  EXPECT_FALSE(oData.CanTranslate("near-far"));

  oData.RemoveBaseModule("B2b"); // only direct base modules count
  ASSERT_EQ(oData.GetNumBaseModules(), 3u);
  oData.RemoveBaseModule("B1"); // the first of two
  ASSERT_EQ(oData.GetNumBaseModules(), 2u);
  EXPECT_EQ(oData.GetBaseModule(0).GetName(), "B2");
  EXPECT_TRUE(oData.GetBaseModule(1).CanTranslate("k"));
  oData.RemoveBaseModule(0u);
  ASSERT_EQ(oData.GetNumBaseModules(), 1u);
  EXPECT_TRUE(oData.GetBaseModule(0).CanTranslate("k"));
}

TEST(TranslatorData, InitAcceptsItsOwnStrings)
{
  CTranslatorData oData = MakeTree();
  oData.Init(oData.GetLanguage(), oData.GetName());
  EXPECT_EQ(oData.GetName(), "de");
  EXPECT_EQ(oData.GetLanguage(), "Top");

  oData = MakeTree();
  oData.Init(oData.GetBaseModule(1).GetName(), oData.GetLanguage());
  EXPECT_EQ(oData.GetName(), "B2");
  EXPECT_EQ(oData.GetNumBaseModules(), 0u);
  EXPECT_TRUE(oData.GetTranslatorMap().empty());
}
