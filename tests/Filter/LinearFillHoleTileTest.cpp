// The fill-hole filter on tile bands gives the memory bands' result bit for bit: on the random cases of
// the reference test, and on bands of many tiles that spill, with a hole list that spills too.
#include "FillHoleReference.h"

#include <gtest/gtest.h>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Test::FillHole;

template <class TPair>
class LinearFillHoleTileTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(LinearFillHoleTileTest, TInstances);

TYPED_TEST(LinearFillHoleTileTest, EqualsMemory)
{
  using TPixel = typename TypeParam::first_type;
  using TMask = typename TypeParam::second_type;
  const auto fnCompare = [](const SCase<TPixel, TMask>& oCase, const SParams& oParams, unsigned int nMaxHoles,
                            const std::string& strWhat) {
    ExpectSame(RunFilter<SMemoryTag>(oCase, oParams, nMaxHoles), RunFilter<STileTag>(oCase, oParams, nMaxHoles), strWhat);
  };
  ForEachRandomCase<TPixel, TMask>(fnCompare);

  // About twenty tiles per band under a budget of four: rows cross tile borders, the hole list runs
  // over several of its tiles and back, and all of it spills and comes back.
  const unsigned nWidth = 4 * Detail::STileSize<TPixel>::ms_nX + 9, nHeight = 2 * Detail::STileSize<TPixel>::ms_nY + 3;
  const Orl::Test::CTileBudget oBudget(2u << 20);
  const auto nReadBefore = Orl::Test::TileCache().GetCounters().m_nRecordsRead;
  std::mt19937 oRng(sizeof(TPixel) * 31 + sizeof(TMask));
  const SParams oParams{2, 40.0f, sizeof(TMask) != 1, false, 0.0, 0.0};
  fnCompare(MakeCase<TPixel, TMask>(oRng, nWidth, nHeight, eScattered, oParams), oParams, nWidth * nHeight / 6, "spilling");
  EXPECT_GT(Orl::Test::TileCache().GetCounters().m_nRecordsRead, nReadBefore);
}

} // namespace
