#include "Utilities/RoundRobinCache.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <string>

using Orl::Harnel::Utilities::CRoundRobinCache;

namespace {

// The keys present, in key order, as one string.
std::string Keys(const CRoundRobinCache<char, int>& oCache)
{
  std::string strKeys;
  for (char c = 'a'; c <= 'z'; ++c)
    if (oCache.FindItem(c))
      strKeys += c;
  return strKeys;
}

} // namespace

TEST(RoundRobinCacheTest, EvictsInOrderOfInsertionWhateverWasLookedUp)
{
  CRoundRobinCache<char, int> oCache(2);
  oCache.AddItem('a', 1);
  oCache.AddItem('b', 2);
  oCache.AddItem('c', 3);
  EXPECT_EQ("bc", Keys(oCache));
  ASSERT_TRUE(oCache.FindItem('b'));
  EXPECT_EQ(2, *oCache.FindItem('b'));
  oCache.AddItem('d', 4);
  EXPECT_EQ("cd", Keys(oCache));
}

TEST(RoundRobinCacheTest, LowerCapacityActsAtOnceAndHigherBringsNothingBack)
{
  CRoundRobinCache<char, int> oCache(4);
  for (char c : std::string("abcd"))
    oCache.AddItem(c, 0);
  oCache.SetCapacity(1);
  EXPECT_EQ("d", Keys(oCache));
  oCache.SetCapacity(4);
  EXPECT_EQ("d", Keys(oCache));
  oCache.AddItem('e', 0);
  EXPECT_EQ("de", Keys(oCache));
}

TEST(RoundRobinCacheTest, CapacityZeroKeepsTheNewestUntilTheNextAddition)
{
  CRoundRobinCache<char, int> oCache(0);
  oCache.AddItem('a', 0);
  EXPECT_EQ("a", Keys(oCache));
  oCache.AddItem('b', 0);
  EXPECT_EQ("b", Keys(oCache));
}

TEST(RoundRobinCacheTest, KeyAddedTwiceKeepsItsFirstValueAndLeavesWithItsOlderPlace)
{
  CRoundRobinCache<char, int> oCache(3);
  oCache.AddItem('a', 1);
  oCache.AddItem('a', 2);
  EXPECT_EQ(1, *oCache.FindItem('a'));
  oCache.AddItem('b', 0);
  oCache.AddItem('c', 0);  // the older place of 'a' comes up
  EXPECT_EQ("bc", Keys(oCache));
}

TEST(RoundRobinCacheTest, EvictionDropsOnlyTheCachesReference)
{
  CRoundRobinCache<int, boost::shared_ptr<int> > oCache(1);
  const boost::shared_ptr<int> pHeld = boost::make_shared<int>(7);
  oCache.AddItem(1, pHeld);
  EXPECT_EQ(2, pHeld.use_count());
  oCache.AddItem(2, boost::make_shared<int>(8));
  EXPECT_EQ(1, pHeld.use_count());
  EXPECT_EQ(nullptr, oCache.FindItem(1));
}
