#include "Utilities/RoundRobinCache.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <string>

using Orl::Harnel::Utilities::CRoundRobinCache;

namespace {

// Adds each character of strAdded with value 0 and returns the keys present afterwards.
std::string Add(CRoundRobinCache<char, int>& oCache, const std::string& strAdded)
{
  for (char c : strAdded)
    oCache.AddItem(c, 0);
  std::string strKeys;
  for (char c = 'a'; c <= 'z'; ++c)
    if (oCache.FindItem(c))
      strKeys += c;
  return strKeys;
}

} // namespace

TEST(RoundRobinCacheTest, ForgetsInOrderOfInsertionWhateverWasLookedUpOrResized)
{
  CRoundRobinCache<char, int> oCache(2);
  EXPECT_EQ("bc", Add(oCache, "abc"));
  EXPECT_TRUE(oCache.FindItem('b'));
  EXPECT_EQ("cd", Add(oCache, "d"));
  oCache.SetCapacity(1);
  EXPECT_EQ("d", Add(oCache, ""));
  oCache.SetCapacity(3);
  EXPECT_EQ("de", Add(oCache, "e"));
  oCache.SetCapacity(0);
  EXPECT_EQ("f", Add(oCache, "f")) << "capacity 0 keeps the newest until the next addition";
  EXPECT_EQ("g", Add(oCache, "g"));
}

// A key added twice keeps its first value and leaves with its older place; a forgotten value loses
// only the cache's reference.
TEST(RoundRobinCacheTest, RepeatedKeysAndForgottenValues)
{
  CRoundRobinCache<char, boost::shared_ptr<int> > oCache(3);
  const boost::shared_ptr<int> pFirst = boost::make_shared<int>(1);
  oCache.AddItem('a', pFirst);
  oCache.AddItem('a', boost::make_shared<int>(2));
  EXPECT_EQ(1, **oCache.FindItem('a'));
  oCache.AddItem('b', nullptr);
  oCache.AddItem('c', nullptr);
  EXPECT_FALSE(oCache.FindItem('a'));
  EXPECT_EQ(1, pFirst.use_count());
}
