#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Band/ForEach2D.h"
#include "BandTestSupport.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Harnel::Progress::CLogger;
using Orl::Test::At;
using Orl::Test::CRect;
using Orl::Test::TMemBand;

template <class TPixel>
class BandTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(BandTest, Orl::Test::TAllPixelTypes);

// Clear fills every pixel and keeps the no-data value; copies share pixels, no-data value and
// statistics; the hint stands in until a no-data value is set. (Empty bands: BandGuardTest.SizesAtTheLimits.)
TYPED_TEST(BandTest, ClearSharedCopiesAndNoData)
{
  TMemBand<TypeParam> oBand(13, 5);
  const TMemBand<TypeParam> oCopy = oBand;
  EXPECT_EQ(oCopy.GetNoDataValueOrHint(), SNoDataValueHint<TypeParam>::ms_tNoDataValue);
  oBand.SetNoDataValue(TypeParam(0));
  oBand.Clear(TypeParam(42));
  EXPECT_EQ(&oBand.GetRep(), &oCopy.GetRep());
  ASSERT_TRUE(oCopy.HasNoDataValue());
  EXPECT_EQ(oCopy.GetNoDataValueOrHint(), TypeParam(0));
  const TypeParam* pData = oCopy.GetRep().GetDataLocation();
  EXPECT_EQ(std::count(pData, pData + 13 * 5, TypeParam(42)), 13 * 5);
}

TEST(BandTest, AllocationTraceWritesOneLineOnAllocationAndRelease)
{
  const std::string strName = typeid(float).name();
  Detail::CBandRepBase::ms_bTraceAllocations = true;
  ::testing::internal::CaptureStderr();
  {
    TMemBand<float> oBand(1024, 3);
    TMemBand<float> oEmpty(0, 3); // no block, no line
  }
  Detail::CBandRepBase::ms_bTraceAllocations = false;
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "For pixel-type: " + strName + " currently 1 bands with a total of : 12288 allocated\n"
            "For pixel-type: " + strName + " currently 0 bands with a total of : 0 allocated\n");
}

// Block hints are whole rows, at least one; the sample for approximate statistics is the whole of a
// small band and even, disjoint, full-width strips of about a sixteenth of a large one.
TEST(BandRepTest, BlockHintsAndApproxRects)
{
  const unsigned aaHints[][4] = {{0, 0, 1, 32768}, {1, 1, 1, 32768}, {8192, 8192, 8192, 4}, {100000, 3, 100000, 1}};
  for (const auto& a : aaHints)
    EXPECT_EQ(Detail::CBandRepBase(a[0], a[1]).GetBlockHint(), std::make_pair(a[2], a[3])) << a[0];

  EXPECT_EQ(Detail::CBandRepBase(2048, 2048).GetApproxRects(), std::vector<CRect>{CRect(0, 0, 2048, 2048)});
  EXPECT_EQ(Detail::CBandRepBase(100000, 100).GetApproxRects(), std::vector<CRect>{CRect(0, 0, 100000, 100)});
  const auto vecRects = Detail::CBandRepBase(3000, 9000).GetApproxRects();
  ASSERT_EQ(vecRects.size(), 32u);
  std::uint64_t nPixels = 0;
  for (std::size_t i = 0; i < vecRects.size(); ++i)
  {
    EXPECT_TRUE(vecRects[i].GetWidth() == 3000u && vecRects[i].GetHeight() > 0u) << i;
    EXPECT_TRUE(i == 0 || vecRects[i - 1].GetEnd().y <= vecRects[i].GetStart().y) << i;
    nPixels += std::uint64_t(vecRects[i].GetWidth()) * vecRects[i].GetHeight();
  }
  EXPECT_LE(vecRects.back().GetEnd().y, 9000u);
  EXPECT_NEAR(double(nPixels) / (3000.0 * 9000.0), 1.0 / 16, 0.01);
}


// oSrcRect of a numbered band to (nDestX, nDestY) of a band cleared to 0, with all threads: every
// destination pixel is checked, and the logger's layer is gone afterwards. With bReversedX the source
// pair's end lies left of its begin: the copy runs forward from the begin over the absolute extent.
TYPED_TEST(BandTest, Copy2DSubRectanglesGoToTheDestinationStart)
{
  struct SCase
  {
    unsigned nSrcW, nSrcH;
    CRect oSrcRect;
    unsigned nDestW, nDestH, nDestX, nDestY;
    bool bReversedX = false;
  } const aCases[] = {
    {37, 23, CRect(5, 3, 20, 11), 40, 30, 9, 7},           // within one grain
    {300, 700, CRect(17, 29, 251, 613), 280, 650, 3, 11},  // across several
    {8, 8, CRect(7, 7, 1, 1), 3, 3, 1, 2},                 // one pixel
    {64, 900, CRect(5, 0, 1, 900), 3, 900, 2, 0},          // one column
    {5000, 3, CRect(0, 1, 5000, 1), 5000, 2, 0, 1},        // one row, wider than a block hint
    {10, 10, CRect(4, 4, 0, 5), 6, 6, 1, 1},               // empty extents
    {10, 10, CRect(4, 4, 5, 0), 6, 6, 1, 1},
    {0, 9, CRect(0, 0, 0, 9), 6, 6, 1, 1},
    {20, 20, CRect(10, 5, 6, 4), 6, 4, 0, 0, true},         // reversed x
  };
  for (const auto& pLogger : {boost::make_shared<CLogger>(), Orl::Test::TLoggerPtr()})
    for (const SCase& o : aCases)
    {
      const auto oSrc = Orl::Test::MakeNumberedBand<TypeParam>(o.nSrcW, o.nSrcH);
      TMemBand<TypeParam> oDest(o.nDestW, o.nDestH);
      oDest.Clear(TypeParam(0));
      auto oSrcIts = oSrc.GetBandIterators(o.oSrcRect);
      if (o.bReversedX)
        boost::get<1>(oSrcIts).X -= 2 * int(o.oSrcRect.GetWidth());
      Copy2D(oSrcIts, oDest.GetBandIterators(CRect(o.nDestX, o.nDestY, o.nDestW, o.nDestH)), pLogger, SAllowParallelFor());
      for (unsigned y = 0; y < o.nDestH; ++y)
        for (unsigned x = 0; x < o.nDestW; ++x)
        {
          const bool bInside = x >= o.nDestX && y >= o.nDestY && x - o.nDestX < o.oSrcRect.GetWidth() &&
                               y - o.nDestY < o.oSrcRect.GetHeight();
          ASSERT_EQ(At(oDest, x, y), bInside ? At(oSrc, o.oSrcRect.GetStart().x + x - o.nDestX,
                                                  o.oSrcRect.GetStart().y + y - o.nDestY)
                                             : TypeParam(0))
            << o.oSrcRect << " at " << x << ", " << y;
        }
      EXPECT_TRUE(!pLogger || pLogger->GetDepth() == 0u);
    }
}

// With a zero interval and one thread every increment reaches the sink; they add up to the area, and
// a rectangle within the grain is one block: the push, then one increment of the full area.
TEST(Copy2D, IncrementsAddUpToTheArea)
{
  struct SRecordingSink : Orl::Harnel::Progress::CLoggerSink
  {
    void OnProgress(double dFraction, const std::string&) override { m_vecFractions.push_back(dFraction); }
    void OnMessage(Orl::Harnel::Progress::_EVerbosityLevel, const std::string&) override {}
    std::vector<double> m_vecFractions;
  };
  const auto oSrc = Orl::Test::MakeNumberedBand<float>(700, 500);
  TMemBand<float> oDest(700, 500);
  for (const CRect& oRect : {CRect(0, 0, 700, 500), CRect(3, 3, 5, 4)})
  {
    const auto pSink = boost::make_shared<SRecordingSink>();
    const auto pLogger =
      boost::make_shared<CLogger>(pSink, Orl::Harnel::Progress::_EVerbosityLevel(7), std::chrono::milliseconds(0));
    tbb::task_arena(1).execute(
      [&] { Copy2D(oSrc.GetBandIterators(oRect), oDest.GetBandIterators(oDest), pLogger, SAllowParallelFor()); });
    EXPECT_DOUBLE_EQ(pSink->m_vecFractions.back(), 1.0);
    if (oRect.GetWidth() == 5)
    {
      EXPECT_EQ(pSink->m_vecFractions, (std::vector<double>{0.0, 1.0}));
    }
    else
    {
      EXPECT_TRUE(Orl::Test::ReadPixels(oDest) == Orl::Test::ReadPixels(oSrc)); // the serial path's pixels
    }
  }
}

// A source iterator whose dereference fails at one position, as a tile load can.
struct SFailingIterator : Detail::CMemoryBandIterator<int, int>
{
  using TBase = Detail::CMemoryBandIterator<int, int>;
  explicit SFailingIterator(const TBase& it) : TBase(it) {}
  const int& operator*() const
  {
    if (X == 100 && Y == 1500)
      throw std::runtime_error("tile lost");
    return TBase::operator*();
  }
  SFailingIterator& operator+=(const Orl::Pravik::GraphObject2d::CPoint<int>& oOffset)
  {
    TBase::operator+=(oOffset);
    return *this;
  }
};

// The exception leaves the call in the calling thread; Copy2D's layer stays pushed above the caller's.
TEST(Copy2D, AnExceptionFromABlockReachesTheCaller)
{
  const auto oSrc = Orl::Test::MakeNumberedBand<int>(512, 2048);
  TMemBand<int> oDest(512, 2048);
  oDest.Clear(0);
  const auto oIts = oSrc.GetBandIterators(oSrc);
  const auto oFailing = boost::make_tuple(SFailingIterator(boost::get<0>(oIts)), SFailingIterator(boost::get<1>(oIts)));
  const auto pLogger = boost::make_shared<CLogger>();
  pLogger->Push("caller", 1.0, 1.0, 0.0, false, Orl::Harnel::Progress::ELayerClass(0),
                Orl::Harnel::Progress::ELayerSecrecy(0), std::string());
  EXPECT_THROW(Copy2D(oFailing, oDest.GetBandIterators(oDest), pLogger, SAllowParallelFor()), std::runtime_error);
  EXPECT_EQ(pLogger->GetDepth(), 2u);
  // The failing row was begun and stopped at the failing pixel.
  EXPECT_EQ(At(oDest, 99, 1500), At(oSrc, 99, 1500));
  EXPECT_EQ(At(oDest, 100, 1500), 0);
}

// --- Caller mistakes, on memory and tile bands --------------------------------------------------------

template <class TTag>
class BandGuardTest : public ::testing::Test
{
};
using TTags = ::testing::Types<SMemoryTag, STileTag>;
TYPED_TEST_SUITE(BandGuardTest, TTags);

using Orl::Harnel::CBasicException;

// Sides the iterators cannot address are refused at construction; bands without pixels clear to
// nothing. The pixel count is 64-bit (Clear relies on it).
TYPED_TEST(BandGuardTest, SizesAtTheLimits)
{
  using TBand = CBand<unsigned char, TypeParam>;
  for (const auto& oSize : {std::make_pair(1u << 31, 1u), {1u, UINT_MAX}, {0x7fffffffu, 0u}})
    EXPECT_THROW(TBand(oSize.first, oSize.second), CBasicException) << oSize.first << " x " << oSize.second;
  for (const auto& oSize : {std::make_pair(0x7ffffffeu, 0u), {0u, 5u}, {5u, 0u}})
  {
    TBand oBand(oSize.first, oSize.second);
    oBand.Clear(1);
    const auto oIts = oBand.GetBandIterators(oBand);
    EXPECT_TRUE(boost::get<0>(oIts).X == boost::get<1>(oIts).X || boost::get<0>(oIts).Y == boost::get<1>(oIts).Y);
    EXPECT_TRUE(oBand.GetRep().GetPixelCount() == 0 && oBand.GetRep().m_pStatistics) << oSize.first << " x " << oSize.second;
  }
  EXPECT_EQ((CBand<float, STileTag>(70000, 70000).GetRep().GetPixelCount()), 4900000000u);
}

// Rectangles are clipped to a band of 3 x 2 int tiles: an empty one lies on the band's border, and
// UINT_MAX as a start or a size reaches the band's end instead of wrapping. A walk (rows outside,
// columns inside, each row from a copy of its start) visits exactly the clipped rectangle. Moves out of
// the band and back: the random tile iterator walks, against memory iterators.
TYPED_TEST(BandGuardTest, RectanglesClipWithoutWrapping)
{
  struct SRow { const char* m_pName; CRect m_oRect; unsigned m_nX0, m_nY0, m_nX1, m_nY1; /* clipped */ } const aRows[] = {
    {"whole band", CRect(0, 0, 1100, 300), 0, 0, 1100, 300},
    {"inside, across tile borders", CRect(500, 250, 30, 20), 500, 250, 530, 270},
    {"over the far corner", CRect(1090, 290, 20, 20), 1090, 290, 1100, 300},
    {"last pixel", CRect(1099, 299, 1, 1), 1099, 299, 1100, 300},
    {"right of the band", CRect(1200, 0, 3, 3), 1100, 0, 1100, 3},
    {"below the band", CRect(0, 400, 3, 3), 0, 300, 3, 300},
    {"no width", CRect(2, 2, 0, 5), 2, 2, 2, 7},
    {"wider than the band", CRect(0, 0, 5000, 1), 0, 0, 1100, 1},
    {"sizes of UINT_MAX", CRect(5, 7, UINT_MAX, UINT_MAX), 5, 7, 1100, 300},
    {"start near UINT_MAX", CRect(UINT_MAX - 5, 3, 3, 3), 1100, 3, 1100, 6},
    {"both near UINT_MAX", CRect(UINT_MAX - 1, UINT_MAX - 1, 5, 5), 1100, 300, 1100, 300},
    {"start beyond, sizes of UINT_MAX", CRect(2000, 700, UINT_MAX, UINT_MAX), 1100, 300, 1100, 300},
  };
  const auto oNumbered = Orl::Test::MakeNumberedBand<int>(1100, 300);
  CBand<int, TypeParam> oBand(1100, 300);
  Orl::Test::WritePixels(oBand, Orl::Test::ReadPixels(oNumbered));
  for (const SRow& o : aRows)
  {
    std::vector<int> vecExpected, vecSeen;
    for (unsigned y = o.m_nY0; y < o.m_nY1; ++y)
      for (unsigned x = o.m_nX0; x < o.m_nX1; ++x)
        vecExpected.push_back(At(oNumbered, x, y));
    const auto oIts = std::as_const(oBand).GetBandIterators(o.m_oRect);
    auto itRow = boost::get<0>(oIts);
    const auto itEnd = boost::get<1>(oIts);
    EXPECT_TRUE(unsigned(itRow.X) == o.m_nX0 && unsigned(itRow.Y) == o.m_nY0) << o.m_pName;
    EXPECT_TRUE(unsigned(itEnd.X) == o.m_nX1 && unsigned(itEnd.Y) == o.m_nY1) << o.m_pName;
    for (; itRow.Y != itEnd.Y; ++itRow.Y)
      for (auto it = itRow; it.X != itEnd.X; ++it.X)
        vecSeen.push_back(*it);
    EXPECT_EQ(vecSeen, vecExpected) << o.m_pName;
  }
}

// Before a pixel is written, Copy2D refuses a destination without room for the source's extent, and
// Copy2D and both forms of ForEach2D refuse a source pair that walks outside its band: a pair walks
// |end - begin| pixels forward from begin, also on a reversed axis.
TYPED_TEST(BandGuardTest, PairsWithoutRoomOrReachingOutsideAreRefused)
{
  struct SRow { const char* m_pName; int m_nBeginX, m_nBeginY, m_nEndX, m_nEndY; /* in a 20 x 20 source */
                unsigned m_nDestW, m_nDestH; CRect m_oDestRect; bool m_bOutside; } const aRows[] = {
    {"narrower", 0, 0, 10, 4, 9, 4, CRect(0, 0, 9, 4), false},
    {"shorter", 0, 0, 10, 4, 10, 3, CRect(0, 0, 10, 3), false},
    {"too little room after the offset", 2, 2, 12, 6, 12, 6, CRect(3, 3, 12, 6), false},
    {"empty destination", 0, 0, 1, 1, 0, 0, CRect(0, 0, 1, 1), false},
    {"reversed x past the right edge", 15, 0, 8, 4, 20, 20, CRect(0, 0, 20, 20), true},
    {"reversed y past the bottom", 0, 18, 3, 15, 20, 20, CRect(0, 0, 20, 20), true},
    {"begin left of the band", -1, 0, 3, 2, 20, 20, CRect(0, 0, 20, 20), true},
  };
  CBand<short, TypeParam> oSrc(20, 20);
  oSrc.Clear(1);
  for (const SRow& o : aRows)
  {
    CBand<short, TypeParam> oDest(o.m_nDestW, o.m_nDestH);
    oDest.Clear(0);
    auto oIts = std::as_const(oSrc).GetBandIterators(oSrc);
    boost::get<0>(oIts) += Orl::Pravik::GraphObject2d::CPoint<int>(o.m_nBeginX, o.m_nBeginY);
    boost::get<1>(oIts) += Orl::Pravik::GraphObject2d::CPoint<int>(o.m_nEndX - 20, o.m_nEndY - 20);
    EXPECT_THROW(Copy2D(oIts, oDest.GetBandIterators(o.m_oDestRect), Orl::Test::TLoggerPtr(), SAllowParallelFor()),
                 CBasicException) << o.m_pName;
    if (o.m_bOutside)
    {
      EXPECT_THROW(ForEach2D(oIts, Orl::Harnel::Math::CCountFunctor<short>(), nullptr), CBasicException) << o.m_pName;
      EXPECT_THROW(ForEach2D(oIts, Orl::Harnel::Math::CCountFunctor<short>(), nullptr, SAllowParallelReduce()),
                   CBasicException) << o.m_pName;
    }
    const auto vecPixels = Orl::Test::ReadPixels(oDest);
    EXPECT_EQ(std::count(vecPixels.begin(), vecPixels.end(), short(0)), std::ptrdiff_t(vecPixels.size())) << o.m_pName;
  }
}

// Statistics parameters outside their range are refused, by the band and by the histogram functor;
// what was set before stays.
TYPED_TEST(BandGuardTest, StatisticsParametersOutOfRangeAreRefused)
{
  CBand<float, TypeParam> oBand(30, 20);
  oBand.Clear(2.0f);
  EXPECT_THROW(oBand.SetHistogramBins(0), CBasicException);
  EXPECT_EQ(oBand.GetHistogramBins(), 1024u);
  const Orl::Harnel::Math::CHistoFunctor<double, float> oHisto(0.0f, 10.0f, 4);
  for (const double dPercent : {-1.0, 100.5, double(NAN)})
  {
    EXPECT_THROW(oBand.GetPercentile(dPercent), CBasicException) << dPercent;
    EXPECT_THROW(oHisto.GetPercentile(dPercent), CBasicException) << dPercent;
  }
  for (const double dPercent : {-0.0, 0.0, 100.0})
    EXPECT_NO_THROW(oBand.GetPercentile(dPercent)) << dPercent;
}

// Clear of a memory band of more than 2^32 pixels sets them all. 4.3 GB: runs only when
// ORL_LARGE_TESTS is set.
TEST(LargeBand, ClearSetsPixelsBeyond2To32)
{
  if (!std::getenv("ORL_LARGE_TESTS"))
    GTEST_SKIP() << "set ORL_LARGE_TESTS to run";
  TMemBand<unsigned char> oBand(65536, 65537);
  oBand.Clear(1);
  const unsigned char* pData = std::as_const(oBand).GetRep().GetDataLocation();
  EXPECT_EQ(pData[(std::uint64_t(1) << 32) + 5], 1);
  EXPECT_EQ(pData[oBand.GetRep().GetPixelCount() - 1], 1);
}

} // namespace
