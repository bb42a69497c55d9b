#include "FillHoleReference.h"
#include "Filter/LinearFillHoleFilterImpl.h"
#include "Foundation/Logger.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <tbb/task_arena.h>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Test::FillHole;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;

// A memory band whose iterators have no row runs: the sweeps reach its rows pixel by pixel.
template <class TBase>
struct SOtherIterator : TBase
{
  explicit SOtherIterator(const TBase& it) : TBase(it) {}
};

template <class TIt>
auto Wrapped(const boost::tuples::tuple<TIt, TIt>& oIts)
{
  return boost::make_tuple(SOtherIterator<TIt>(boost::get<0>(oIts)), SOtherIterator<TIt>(boost::get<1>(oIts)));
}

template <class TPixel>
struct COtherIteratorBand : CBand<TPixel, SMemoryTag>
{
  using TBase = CBand<TPixel, SMemoryTag>;
  using TBase::TBase;
  auto GetBandIterators(const typename TBase::TRect& oRect) { return Wrapped(TBase::GetBandIterators(oRect)); }
  auto GetBandIterators(const typename TBase::TRect& oRect) const { return Wrapped(TBase::GetBandIterators(oRect)); }
};
static_assert(!Detail::SRowRuns<SOtherIterator<Detail::CMemoryBandIterator<float, int>>>::value,
              "the row access without runs is under test");

template <class TPair>
class LinearFillHoleReferenceTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(LinearFillHoleReferenceTest, TInstances);

TYPED_TEST(LinearFillHoleReferenceTest, EqualsTheReferenceBitForBitOnEveryBandKind)
{
  using TPixel = typename TypeParam::first_type;
  using TMask = typename TypeParam::second_type;
  // One thread sweeps alone; two and four (also on fewer cores) sweep the taller bands in stripes.
  ForEachRandomCase<TPixel, TMask>([](const SCase<TPixel, TMask>& oCase, const SParams& oParams,
                                      const std::string& strCase) {
    const auto oExpected = Reference(oCase, oParams);
    for (const int nThreads : {1, 2, 4})
      tbb::task_arena(nThreads).execute([&] {
        const std::string strWhat = strCase + ", " + std::to_string(nThreads) + " threads";
        ExpectSame(oExpected, RunFilter<SMemoryTag>(oCase, oParams), strWhat);
        ExpectSame(oExpected, RunFilter<SIPPTag>(oCase, oParams), strWhat + " (IPP)");
        const auto fnOther =
          RunFilter<SMemoryTag, TPixel, TMask, COtherIteratorBand<TPixel>, COtherIteratorBand<TMask>>;
        ExpectSame(oExpected, fnOther(oCase, oParams), strWhat + " (row access without runs)");
        ExpectSame(oExpected, RunFilter<STileTag>(oCase, oParams), strWhat + " (tiles)");
      });
  });

  // About twenty tiles per band under a budget of four: rows cross tile borders, the hole list runs over
  // several of its tiles and back, and all of it spills and comes back.
  const unsigned nWidth = 4 * Detail::STileSize<TPixel>::ms_nX + 9, nHeight = 2 * Detail::STileSize<TPixel>::ms_nY + 3;
  const Orl::Test::CTileBudget oBudget(2u << 20);
  const auto nReadBefore = Orl::Test::TileCache().GetCounters().m_nRecordsRead;
  std::mt19937 oRng(sizeof(TPixel) * 31 + sizeof(TMask));
  const SParams oParams{2, 40.0f, sizeof(TMask) != 1, false, 0.0, 0.0};
  const auto oCase = MakeCase<TPixel, TMask>(oRng, nWidth, nHeight, eScattered, oParams);
  ExpectSame(RunFilter<SMemoryTag>(oCase, oParams), RunFilter<STileTag>(oCase, oParams), "spilling");
  EXPECT_GT(Orl::Test::TileCache().GetCounters().m_nRecordsRead, nReadBefore);
}

// Bands eight times the budget, three tiles across, with a hole list of several chunks: each sweep
// brings every tile in about once, not once per row of pixels. The reads counted are those of the
// whole run: the hole count, both sweeps, the hole list and the destination read back, a few bands'
// worth; a sweep that lost its tiles from row to row would read hundreds.
TEST(LinearFillHoleFilter, SpilledBandsComeInOncePerSweep)
{
  using TTile = Detail::STileSize<float>;
  const unsigned nWidth = 3 * TTile::ms_nX, nHeight = 8 * TTile::ms_nY;
  const std::uint64_t nBandBytes = std::uint64_t(nWidth) * nHeight * sizeof(float);
  std::mt19937 oRng(3);
  const SParams oParams{1, 10.0f, false, false, 0.0, 0.0};
  const auto oCase = MakeCase<float, unsigned char>(oRng, nWidth, nHeight, eDense, oParams);
  const auto oExpected = RunFilter<SMemoryTag>(oCase, oParams);
  const Orl::Test::CTileBudget oBudget(nBandBytes / 8);
  const auto nReadBefore = Orl::Test::TileCache().GetCounters().m_nBytesRead;
  ExpectSame(oExpected, RunFilter<STileTag>(oCase, oParams), "spilled");
  EXPECT_LE(Orl::Test::TileCache().GetCounters().m_nBytesRead - nReadBefore, 8 * nBandBytes);
}

// A band of the given width (default: one row), with a mask that selects nothing.
template <class TPixel>
SCase<TPixel, unsigned char> Row(std::vector<TPixel> vecSrc, TPixel tNoData, unsigned int nWidth = 0)
{
  SCase<TPixel, unsigned char> oCase;
  oCase.m_nWidth = nWidth ? nWidth : unsigned(vecSrc.size());
  oCase.m_nHeight = unsigned(vecSrc.size()) / oCase.m_nWidth;
  oCase.m_vecMask.assign(vecSrc.size(), 1);
  oCase.m_vecSrc = std::move(vecSrc);
  oCase.m_oSrcNoData = tNoData;
  return oCase;
}

template <class TPixel>
SResult<TPixel> Fill(const SCase<TPixel, unsigned char>& oCase, unsigned nMin, float fMaxDistance, bool bMask = false)
{
  return RunFilter<SMemoryTag>(oCase, SParams{nMin, fMaxDistance, bMask, false, 0, 0});
}

TEST(LinearFillHoleFilter, ReachAndMinimumDirections)
{
  const auto oThree = Row<unsigned short>({10, 0, 0, 0, 20}, 0);
  EXPECT_EQ(Fill(oThree, 1, 3.0f).m_vecPixels, (std::vector<unsigned short>{10, 12, 15, 17, 20}));
  EXPECT_EQ(Fill(oThree, 1, 2.0f).m_vecPixels, (std::vector<unsigned short>{10, 10, 15, 20, 20}));
  const auto oCase = Row<int>({4, -9, 9}, -9);
  EXPECT_EQ(Fill(oCase, 2, 1.0f).m_vecPixels, (std::vector<int>{4, 6, 9}));
  const auto oTooFew = Fill(oCase, 3, 1.0f);
  EXPECT_EQ(oTooFew.m_vecPixels, (std::vector<int>{4, INT32_MIN, 9}));
  EXPECT_EQ(oTooFew.m_oNoData, INT32_MIN); // the hint, as the destination had none
  EXPECT_EQ(Fill(oCase, 1, 0.0f).m_vecPixels[1], INT32_MIN);
}

// Bands of different sizes work on the common rectangle; the rest of the destination is untouched.
TEST(LinearFillHoleFilter, CommonRectangleAndLogger)
{
  CBand<float, SMemoryTag> oSrc(4, 3), oMask(5, 3), oDest(6, 5);
  oSrc.Clear(2.0f);
  oSrc.GetRep().GetDataLocation()[5] = NAN;
  oMask.Clear(1.0f);
  oDest.Clear(9.0f);
  CFilter oFilter(1, 1, 10.0f, false);
  const auto pLogger = boost::make_shared<Orl::Harnel::Progress::CLogger>();
  oFilter.SetLogger(pLogger);
  oFilter.Apply(oDest, oSrc, oMask);
  EXPECT_EQ(pLogger->GetDepth(), 0u);
  for (unsigned int n = 0; n < 30; ++n)
    EXPECT_EQ(oDest.GetRep().GetDataLocation()[n], n % 6 < 4 && n < 18 ? 2.0f : 9.0f) << n;
  EXPECT_FALSE(oDest.HasNoDataValue());
}

template <class TTag>
class LinearFillHoleTagTest : public ::testing::Test
{
};
using TTags = ::testing::Types<SMemoryTag, STileTag>;
TYPED_TEST_SUITE(LinearFillHoleTagTest, TTags);

// Each mistake is refused with CBasicException before the destination is touched.
TYPED_TEST(LinearFillHoleTagTest, BadArgumentsAreRefusedBeforeAPixelIsWritten)
{
  using TBand = CBand<float, TypeParam>;
  struct SRow
  {
    const char* m_pName;
    unsigned m_nSrcW, m_nSrcH, m_nDestW, m_nDestH, m_nMaskW, m_nMaskH;
    int m_nBoundBelowHoles; // the bound is the number of holes minus this
  };
  const SRow aRows[] = {
    {"one hole more than the bound", 40, 30, 40, 30, 40, 30, 1},
    {"holes but a bound of 0", 40, 30, 40, 30, 40, 30, 30},
    {"source taller than the destination", 40, 31, 40, 30, 40, 31, 0},
    {"source wider than the mask", 41, 30, 41, 30, 40, 30, 0},
    {"one hole more than the bound, holes in several stripes", 40, 600, 40, 600, 40, 600, 1},
  };
  for (const SRow& o : aRows)
  {
    TBand oSrc(o.m_nSrcW, o.m_nSrcH), oDest(o.m_nDestW, o.m_nDestH), oMask(o.m_nMaskW, o.m_nMaskH);
    oSrc.Clear(1.0f);
    // Thirty holes on a diagonal, H / 30 rows apart: on the tallest band, in more than one stripe.
    for (unsigned x = 0; x < 30; ++x)
    {
      auto itHole = boost::get<0>(oSrc.GetBandIterators(CRect(x, x * (o.m_nSrcH / 30), 1, 1)));
      *itHole = NAN;
    }
    oDest.Clear(7.0f);
    const unsigned nBound = unsigned(30 - o.m_nBoundBelowHoles);
    tbb::task_arena(4).execute([&] {
      EXPECT_THROW(CFilter(nBound, 1, 5.0f, false).Apply(oDest, oSrc, oMask), Orl::Harnel::CBasicException)
        << o.m_pName;
    });
    const auto vecDest = Orl::Test::ReadPixels(oDest);
    EXPECT_EQ(std::count(vecDest.begin(), vecDest.end(), 7.0f), std::ptrdiff_t(vecDest.size())) << o.m_pName;
  }
}

// The list gives back what it took, in reverse, across rows and chunks, and makes chunks only as
// holes come. On tiles it holds one chunk (2.25 MiB) in memory: under a budget of 1 MiB, four chunks
// stay within it and the write-behind allowance plus two chunks.
TYPED_TEST(LinearFillHoleTagTest, HoleListGivesBackInReverseAndGrowsWithTheHoles)
{
  using TList = Orl::Ostrel::Filter::Detail::CHoleList<TypeParam>;
  constexpr std::uint32_t nChunk = TList::ms_nWidth * TList::ms_nChunkRows;
  constexpr std::uint64_t nBudget = 1u << 20, nChunkBytes = nChunk * 9ull;
  const Orl::Test::CTileBudget oBudget(nBudget);
  for (const std::uint32_t nEntries : {0u, 1u, 1024u, 1025u, nChunk + 3, 4 * nChunk})
  {
    TList oList(std::numeric_limits<std::uint32_t>::max()); // a bound far beyond memory
    Orl::Ostrel::Filter::Detail::CHoleAppender<TypeParam> oAppender(oList);
    for (std::uint32_t n = 0; n < nEntries; ++n)
      oAppender.Append({float(n), -float(n), n % 9});
    EXPECT_EQ(oList.GetChunkCount(), (nEntries + nChunk - 1) / nChunk) << nEntries;
    if (std::is_same<TypeParam, STileTag>::value)
    {
      EXPECT_LE(Orl::Test::TileCache().GetCounters().m_nPeakResidentBytes, nBudget * 9 / 8 + 2 * nChunkBytes);
    }
    oList.EndForward(nEntries);
    Orl::Ostrel::Filter::Detail::CHoleTaker<TypeParam> oTaker(oList);
    for (std::uint32_t n = nEntries; n-- != 0;)
    {
      const auto oSums = oTaker.TakeBack();
      ASSERT_TRUE(oSums.m_fWeights == float(n) && oSums.m_fValues == -float(n) && oSums.m_nCount == n % 9) << n;
    }
  }
}

} // namespace
