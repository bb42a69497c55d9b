// The fill-hole filter on tile bands gives the memory bands' result bit for bit: on the random cases of
// the reference test, and on bands of many tiles that spill, with hole lists that spill too.
#include "Band/Detail/RowRuns.h"
#include "FillHoleReference.h"
#include "Filter/LinearFillHoleFilter.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Test::FillHole;

template <class TPixel>
void Write(CBand<TPixel, STileTag>& oBand, const std::vector<TPixel>& vecPixels)
{
  const TPixel* pFrom = vecPixels.data();
  Detail::WalkRectRuns(
    boost::get<0>(oBand.GetBandIterators(oBand)), int(oBand.GetWidth()), int(oBand.GetHeight()),
    [&](TPixel* pRun, int n) {
      std::memcpy(pRun, pFrom, n * sizeof(TPixel));
      pFrom += n;
    },
    [] {});
}

template <class TPixel>
std::vector<TPixel> Read(const CBand<TPixel, STileTag>& oBand)
{
  std::vector<TPixel> vecPixels;
  Detail::WalkRectRuns(
    boost::get<0>(oBand.GetBandIterators(oBand)), int(oBand.GetWidth()), int(oBand.GetHeight()),
    [&](const TPixel* p, int n) { vecPixels.insert(vecPixels.end(), p, p + n); }, [] {});
  return vecPixels;
}

// RunFilter for tile bands: the same steps, with pixels written and read through the tile iterators.
template <class TPixel, class TMask>
SResult<TPixel> RunOnTiles(const SCase<TPixel, TMask>& oCase, const SParams& oParams, unsigned int nMaxHolePixels)
{
  CBand<TPixel, STileTag> oSrc(oCase.m_nWidth, oCase.m_nHeight), oDest(oCase.m_nWidth, oCase.m_nHeight);
  CBand<TMask, STileTag> oMask(oCase.m_nWidth, oCase.m_nHeight);
  Write(oSrc, oCase.m_vecSrc);
  Write(oMask, oCase.m_vecMask);
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
  return SResult<TPixel>{Read(oDest), oDest.HasNoDataValue(), oDest.HasNoDataValue() ? oDest.GetNoDataValue() : TPixel()};
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

TYPED_TEST(LinearFillHoleTileTest, RandomCasesEqualMemory)
{
  using TPixel = typename TypeParam::TImage;
  using TMask = typename TypeParam::TMaskPixel;
  ForEachRandomCase<TPixel, TMask>([](const SCase<TPixel, TMask>& oCase, const SParams& oParams,
                                      unsigned int nMaxHoles, const std::string& strWhat) {
    ExpectSame(RunFilter<SMemoryTag>(oCase, oParams, nMaxHoles), RunOnTiles(oCase, oParams, nMaxHoles), strWhat);
  });
}

// Bands of about twenty tiles, three of them and the hole list's three under a budget of a few tiles:
// rows cross tile borders, the hole list runs over several of its tiles and back, and everything
// spills and comes back.
TYPED_TEST(LinearFillHoleTileTest, ManyTilesUnderSpillingEqualMemory)
{
  using TPixel = typename TypeParam::TImage;
  using TMask = typename TypeParam::TMaskPixel;
  const unsigned nWidth = 4 * Detail::STileSize<TPixel>::ms_nX + 9;
  const unsigned nHeight = 2 * Detail::STileSize<TPixel>::ms_nY + 3;
  Orl::Test::CTileBudget oBudget(2u << 20);
  const auto oBefore = Orl::Test::TileCounters();
  std::mt19937 oRng(sizeof(TPixel) * 31 + sizeof(TMask));
  const SParams oParams{2, 40.0f, sizeof(TMask) != 1, false, 0.0, 0.0};
  const auto oCase = MakeCase<TPixel, TMask>(oRng, nWidth, nHeight, eScattered, oParams);
  const unsigned nMaxHoles = nWidth * nHeight / 6; // scattered: a tenth of the pixels
  ExpectSame(RunFilter<SMemoryTag>(oCase, oParams, nMaxHoles), RunOnTiles(oCase, oParams, nMaxHoles), "large");
  const auto oAfter = Orl::Test::TileCounters();
  EXPECT_GT(oAfter.m_nRecordsRead, oBefore.m_nRecordsRead);
}

} // namespace
