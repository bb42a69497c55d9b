#include "Internationalisation/TranslatorData.h"

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
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
    const char *pKey, *pShallow, *pDeep;
  } const vecCases[] = {
    {"both", "top", "b1"},        // own table against a direct base
    {"", "empty", "empty"},       // the empty key is a key like any other
    {"near-far", "b1", "b2b"},    // direct base against three levels down
    {"far-first", "b2", "b1a"},   // a later, nearer base against an earlier, deeper one
    {"tie", "b1", "b1"},          // equal distance: the first base wins
    {"deep-tie", "b1a", "b1a"},
    {"deep-only", "b1a", "b1a"},
  };
  for (const SCase& oCase : vecCases)
    for (const bool bDeep : {false, true})
    {
      CTranslatorData oData = MakeTree();
      const auto mapBefore = oData.GetTranslatorMap();
      EXPECT_EQ(oData.Translate(oCase.pKey, bDeep), bDeep ? oCase.pDeep : oCase.pShallow) << oCase.pKey;
      EXPECT_EQ(oData.GetTranslatorMap(), mapBefore);
      EXPECT_FALSE(oData.IsModified());
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
    // A learnt entry shadows a base module's only in the shallow search.
    oData.GetBaseModule(0).SetTranslation("unknown", "b1");
    EXPECT_EQ(oData.Translate("unknown", false), "unknown");
    EXPECT_EQ(oData.Translate("unknown", true), "b1");
  }
}

TEST(TranslatorData, ModifiedFlagAndValueRules)
{
  struct SCase
  {
    const char* pWhat;
    std::function<void(CTranslatorData&)> fnOperation;
    bool bModified;
    const char* pValueOfBoth;
  };
  const SCase vecCases[] = {
    {"SetName same", [](CTranslatorData& o) { o.SetName("Top"); }, false, "top"},
    {"SetName other", [](CTranslatorData& o) { o.SetName("Other"); }, true, "top"},
    {"Clear with entries", [](CTranslatorData& o) { o.ClearTranslatorMap(); }, true, nullptr},
    {"Clear empty", [](CTranslatorData& o) { o.Init("Top", "de"); o.ClearTranslatorMap(); }, false, nullptr},
    {"Add existing key", [](CTranslatorData& o) { o.AddTranslation("both", "other"); }, true, "top"},
    {"Set existing key", [](CTranslatorData& o) { o.SetTranslation("both", "other"); }, true, "other"},
    {"Set same value", [](CTranslatorData& o) { o.SetTranslation("both", "top"); }, true, "top"},
    {"AddBaseModule", [](CTranslatorData& o) { o.AddBaseModule(CTranslatorData()); }, true, "top"},
    {"Remove by name", [](CTranslatorData& o) { o.RemoveBaseModule("B2"); }, true, "top"},
    {"Remove missing name", [](CTranslatorData& o) { o.RemoveBaseModule("B9"); }, false, "top"},
    {"Remove nested name", [](CTranslatorData& o) { o.RemoveBaseModule("B1a"); }, false, "top"},
    {"Remove by index", [](CTranslatorData& o) { o.RemoveBaseModule(1u); }, true, "top"},
    {"Init after changes", [](CTranslatorData& o) { o.SetTranslation("a", "b"); o.Init("Top", "de"); }, false, nullptr},
  };
  for (const SCase& oCase : vecCases)
  {
    SCOPED_TRACE(oCase.pWhat);
    CTranslatorData oData = MakeTree();
    oCase.fnOperation(oData);
    EXPECT_EQ(oData.IsModified(), oCase.bModified);
    EXPECT_EQ(oData.GetTranslatorMap().count("both"), oCase.pValueOfBoth ? 1u : 0u);
    if (oCase.pValueOfBoth)
    {
      EXPECT_EQ(oData.GetTranslatorMap().at("both"), oCase.pValueOfBoth);
    }
  }
}

TEST(TranslatorData, BaseModulesAreCopiesFoundAndRemovedByName)
{
  CTranslatorData oData = MakeTree();
  CTranslatorData oSecond = MakeModule("B1", {{"k", "second B1"}});
  oData.AddBaseModule(oSecond);
  oSecond.SetTranslation("k", "changed");
  EXPECT_FALSE(oData.HasBaseModule("B2b", false));
  EXPECT_TRUE(oData.HasBaseModule("B2b", true));
  EXPECT_FALSE(oData.HasBaseModule("B9", true));
  EXPECT_FALSE(oData.CanTranslate("near-far"));

  oData.RemoveBaseModule("B2b"); // only direct base modules count
  ASSERT_EQ(oData.GetNumBaseModules(), 3u);
  oData.RemoveBaseModule("B1"); // the first of two
  oData.RemoveBaseModule(0u);
  ASSERT_EQ(oData.GetNumBaseModules(), 1u);
  EXPECT_EQ(oData.GetBaseModule(0).GetTranslatorMap().at("k"), "second B1");
}

// Init with its own strings, which it clears on the way.
TEST(TranslatorData, InitAcceptsItsOwnStrings)
{
  CTranslatorData oData = MakeTree();
  oData.Init(oData.GetLanguage(), oData.GetName());
  EXPECT_EQ(oData.GetName() + "/" + oData.GetLanguage(), "de/Top");
  oData = MakeTree();
  oData.Init(oData.GetBaseModule(1).GetName(), oData.GetLanguage());
  EXPECT_EQ(oData.GetName(), "B2");
  EXPECT_EQ(oData.GetNumBaseModules(), 0u);
  EXPECT_TRUE(oData.GetTranslatorMap().empty());
}
