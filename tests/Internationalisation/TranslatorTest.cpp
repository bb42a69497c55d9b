#include "Internationalisation/Translator.h"
#include "Internationalisation/TranslatorModule.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Orl::Harnel::Internationalisation;

namespace {

std::size_t TableSize()
{
  return CTranslator::GetTranslatorData().GetTranslatorMap().size();
}

} // namespace

TEST(Translator, UnknownTextComesBackAndIsLearntOnce)
{
  const std::size_t nBefore = TableSize();
  const std::string& strFirst = CTranslator::Translate("x");
  const std::string& strSecond = CTranslator::Translate(std::string("x"));
  EXPECT_EQ(strFirst, "x");
  EXPECT_EQ(&strFirst, &strSecond);
  EXPECT_EQ(TableSize(), nBefore + 1);
}

TEST(Translator, NullPointerFailsAndLeavesTheTable)
{
  CTranslator::Translate("before");
  const auto mapBefore = CTranslator::GetTranslatorData().GetTranslatorMap();
  try
  {
    CTranslator::Translate(static_cast<const char*>(nullptr));
    FAIL() << "no exception";
  }
  catch (const std::logic_error& oError)
  {
    EXPECT_STREQ(oError.what(), "basic_string::_M_construct null not valid");
  }
  EXPECT_EQ(CTranslator::GetTranslatorData().GetTranslatorMap(), mapBefore);
}

TEST(Translator, ConcurrentCallersShareOneTable)
{
  constexpr int nKeys = 300;
  std::vector<std::vector<const std::string*>> vecResults(4);
  const std::size_t nBefore = TableSize();
  {
    std::vector<std::thread> vecThreads;
    for (auto& vecResult : vecResults)
      vecThreads.emplace_back([&vecResult] {
        for (int i = 0; i < nKeys; ++i)
          vecResult.push_back(&CTranslator::Translate("concurrent " + std::to_string(i)));
      });
    for (std::thread& oThread : vecThreads)
      oThread.join();
  }
  EXPECT_EQ(TableSize(), nBefore + nKeys);
  for (const auto& vecResult : vecResults)
    EXPECT_EQ(vecResult, vecResults.front()); // every thread got the very same entries
}

TEST(Translator, EachModuleHasItsOwnTranslatorAndTable)
{
  const void* pTranslatorA = nullptr;
  const void* pTranslatorB = nullptr;
  std::size_t nEntriesA = 0, nEntriesB = 0;
  const char* pTextA = TranslateInModuleA("shared text", &pTranslatorA, &nEntriesA);
  TranslateInModuleB("only in B", &pTranslatorB, &nEntriesB);
  const char* pTextB = TranslateInModuleB("shared text", &pTranslatorB, &nEntriesB);
  const std::string& strOwn = CTranslator::Translate("shared text");

  EXPECT_STREQ(pTextA, "shared text");
  EXPECT_STREQ(pTextB, "shared text");
  EXPECT_NE(pTextA, pTextB);
  EXPECT_NE(pTextA, strOwn.c_str());
  EXPECT_EQ(nEntriesA, 1u);
  EXPECT_EQ(nEntriesB, 2u);
  ASSERT_NE(pTranslatorA, nullptr);
  EXPECT_NE(pTranslatorA, pTranslatorB);
  EXPECT_NE(pTranslatorA, g_oTranslator.get());
  EXPECT_NE(pTranslatorB, g_oTranslator.get());
  EXPECT_EQ(CTranslator::GetTranslatorData().GetTranslatorMap().count("only in B"), 0u);
}
