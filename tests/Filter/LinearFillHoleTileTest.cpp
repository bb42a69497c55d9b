// The fill-hole filter on tile bands gives the memory bands' result bit for bit: on the random cases of
// the reference test, and on bands of many tiles that spill, with a hole list that spills too.
#include "FillHoleReference.h"
#include "Filter/LinearFillHoleFilter.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Test::FillHole;

// RunFilter's steps for tile bands, the pixels written and read through the tile iterators.
template <class TPixel, class TMask>
SResult<TPixel> RunOnTiles(const SCase<TPixel, TMask>& oCase, const SParams& oParams, unsigned int nMaxHolePixels)
{
  CBand<TPixel, STileTag> oSrc(oCase.m_nWidth, oCase.m_nHeight), oDest(oCase.m_nWidth, oCase.m_nHeight);
  CBand<TMask, STileTag> oMask(oCase.m_nWidth, oCase.m_nHeight);
  Orl::Test::WritePixels(oSrc, oCase.m_vecSrc);
  Orl::Test::WritePixels(oMask, oCase.m_vecMask);
  oDest.Clear(TPixel(7));
  if (oCase.m_bSrcNoData)
    oSrc.SetNoDataValue(oCase.m_tSrcNoData);
  if (oCase.m_bMaskNoData)
    oMask.SetNoDataValue(oCase.m_tMaskNoData);
  if (oCase.m_bDestNoData)
    oDest.SetNoDataValue(oCase.m_tDestNoData);
  const CFilter oFilter =
    oParams.m_bUseRange ? CFilter(oParams.m_dLow, oParams.m_dHigh, nMaxHolePixels, oParams.m_nMinDirections,
                                  oParams.m_fMaxDistance, oParams.m_bUseMask)
                        : CFilter(nMaxHolePixels, oParams.m_nMinDirections, oParams.m_fMaxDistance, oParams.m_bUseMask);
  oFilter.Apply(oDest, oSrc, oMask);
  return SResult<TPixel>{Orl::Test::ReadPixels(oDest), oDest.HasNoDataValue(),
                         oDest.HasNoDataValue() ? oDest.GetNoDataValue() : TPixel()};
}

template <class TPixel, class TMask>
struct SPair
{
  using TImage = TPixel;
  using TMaskPixel = TMask;
};

template <class TPair>
class LinearFillHoleTileTest : public ::testing::Test
{
};
using TInstances =
  ::testing::Types<SPair<unsigned char, unsigned char>, SPair<unsigned short, unsigned char>,
                   SPair<unsigned short, unsigned short>, SPair<short, unsigned char>, SPair<short, unsigned short>,
                   SPair<unsigned int, unsigned char>, SPair<unsigned int, unsigned int>, SPair<int, unsigned char>,
                   SPair<int, unsigned int>, SPair<float, unsigned char>, SPair<float, float>,
                   SPair<double, unsigned char>, SPair<double, double>>;
TYPED_TEST_SUITE(LinearFillHoleTileTest, TInstances);

TYPED_TEST(LinearFillHoleTileTest, EqualsMemory)
{
  using TPixel = typename TypeParam::TImage;
  using TMask = typename TypeParam::TMaskPixel;
  ForEachRandomCase<TPixel, TMask>([](const SCase<TPixel, TMask>& oCase, const SParams& oParams,
                                      unsigned int nMaxHoles, const std::string& strWhat) {
    ExpectSame(RunFilter<SMemoryTag>(oCase, oParams, nMaxHoles), RunOnTiles(oCase, oParams, nMaxHoles), strWhat);
  });

  // About twenty tiles per band under a budget of four: rows cross tile borders, the hole list runs
  // over several of its tiles and back, and all of it spills and comes back.
  const unsigned nWidth = 4 * Detail::STileSize<TPixel>::ms_nX + 9, nHeight = 2 * Detail::STileSize<TPixel>::ms_nY + 3;
  const Orl::Test::CTileBudget oBudget(2u << 20);
  const auto nReadBefore = Orl::Test::TileCache().GetCounters().m_nRecordsRead;
  std::mt19937 oRng(sizeof(TPixel) * 31 + sizeof(TMask));
  const SParams oParams{2, 40.0f, sizeof(TMask) != 1, false, 0.0, 0.0};
  const auto oCase = MakeCase<TPixel, TMask>(oRng, nWidth, nHeight, eScattered, oParams);
  const unsigned nMaxHoles = nWidth * nHeight / 6; // scattered: a tenth of the pixels
  ExpectSame(RunFilter<SMemoryTag>(oCase, oParams, nMaxHoles), RunOnTiles(oCase, oParams, nMaxHoles), "spilling");
  EXPECT_GT(Orl::Test::TileCache().GetCounters().m_nRecordsRead, nReadBefore);
}

} // namespace
