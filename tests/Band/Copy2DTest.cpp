#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "BandTestSupport.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <boost/make_shared.hpp>

#include <stdexcept>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Harnel::Progress::CLogger;
using Orl::Test::At;
using Orl::Test::CRect;
using Orl::Test::TMemBand;

template <class TPixel>
class Copy2DTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(Copy2DTest, Orl::Test::TAllPixelTypes);

// oSrcRect of a numbered band to (nDestX, nDestY) of a band cleared to 0, with all threads: every
// destination pixel is checked, and the logger's layer is gone afterwards.
TYPED_TEST(Copy2DTest, SubRectanglesGoToTheDestinationStart)
{
  struct SCase
  {
    unsigned nSrcW, nSrcH;
    CRect oSrcRect;
    unsigned nDestW, nDestH, nDestX, nDestY;
  } const aCases[] = {
    {37, 23, CRect(5, 3, 20, 11), 40, 30, 9, 7},           // within one grain
    {300, 700, CRect(17, 29, 251, 613), 280, 650, 3, 11},  // across several
    {8, 8, CRect(7, 7, 1, 1), 3, 3, 1, 2},                 // one pixel
    {64, 900, CRect(5, 0, 1, 900), 3, 900, 2, 0},          // one column
    {5000, 3, CRect(0, 1, 5000, 1), 5000, 2, 0, 1},        // one row, wider than a block hint
    {10, 10, CRect(4, 4, 0, 5), 6, 6, 1, 1},               // empty extents
    {10, 10, CRect(4, 4, 5, 0), 6, 6, 1, 1},
    {0, 9, CRect(0, 0, 0, 9), 6, 6, 1, 1},
  };
  for (const auto& pLogger : {boost::make_shared<CLogger>(), Orl::Test::TLoggerPtr()})
    for (const SCase& o : aCases)
    {
      const auto oSrc = Orl::Test::MakeNumberedBand<TypeParam>(o.nSrcW, o.nSrcH);
      TMemBand<TypeParam> oDest(o.nDestW, o.nDestH);
      oDest.Clear(TypeParam(0));
      Copy2D(oSrc.GetBandIterators(o.oSrcRect), oDest.GetBandIterators(CRect(o.nDestX, o.nDestY, o.nDestW, o.nDestH)),
             pLogger, SAllowParallelFor());
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

// Begin and end the wrong way round on an axis: the copy runs forward from the begin iterator over
// the absolute extent.
TEST(Copy2D, ReversedAxesCopyForwardFromTheBegin)
{
  const auto oSrc = Orl::Test::MakeNumberedBand<int>(20, 20);
  auto oSrcIts = oSrc.GetBandIterators(oSrc);
  boost::get<0>(oSrcIts).X = 10;
  boost::get<0>(oSrcIts).Y = 5;
  boost::get<1>(oSrcIts).X = 4; // extent x = -6
  boost::get<1>(oSrcIts).Y = 9; // extent y = 4
  TMemBand<int> oDest(6, 4);
  Copy2D(oSrcIts, oDest.GetBandIterators(oDest), boost::make_shared<CLogger>(), SAllowParallelFor());
  for (unsigned y = 0; y < 4; ++y)
    for (unsigned x = 0; x < 6; ++x)
      ASSERT_EQ(At(oDest, x, y), At(oSrc, 10 + x, 5 + y));
}

// With a zero interval and one thread every increment reaches the sink; they add up to the area, and
// a rectangle within the grain is one block: the push, then one increment of the full area.
TEST(Copy2D, IncrementsAddUpToTheArea)
{
  struct SRecordingSink : Orl::Harnel::Progress::CLoggerSink
  {
    void OnProgress(double dFraction, const std::string&) override { m_vecFractions.push_back(dFraction); }
    void OnMessage(Orl::Harnel::Progress::_EVerbosityLevel, const std::string&) override {}
    void OnFinished() override { m_dAtFinish = m_vecFractions.empty() ? -1.0 : m_vecFractions.back(); }
    std::vector<double> m_vecFractions;
    double m_dAtFinish = -1.0;
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
    EXPECT_DOUBLE_EQ(pSink->m_dAtFinish, 1.0);
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

} // namespace
