#include "Band/Band.h"
#include "Band/Copy2D.h"
#include "Foundation/Logger.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <boost/make_shared.hpp>

#include <stdexcept>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Harnel::Progress::CLogger;
using Orl::Harnel::Progress::CLoggerSink;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;

template <class TPixel>
CBand<TPixel, SMemoryTag> MakeNumberedBand(unsigned nWidth, unsigned nHeight, unsigned nSeed = 0)
{
  CBand<TPixel, SMemoryTag> oBand(nWidth, nHeight);
  TPixel* pData = oBand.GetRep().GetDataLocation();
  for (unsigned i = 0; i < nWidth * nHeight; ++i)
    pData[i] = TPixel((i * 7 + nSeed) % 113 + 1);
  return oBand;
}

template <class TPixel>
TPixel At(const CBand<TPixel, SMemoryTag>& oBand, unsigned nX, unsigned nY)
{
  return oBand.GetRep().GetDataLocation()[std::size_t(nY) * oBand.GetWidth() + nX];
}

// Copies oSrcRect of the source to the destination begin at oDestAt and checks every destination
// pixel: the copied ones against the source, the others against the 0 they were cleared to.
template <class TPixel>
void ExpectCopy(unsigned nSrcW, unsigned nSrcH, const CRect& oSrcRect, unsigned nDestW, unsigned nDestH,
                unsigned nDestX, unsigned nDestY, const boost::shared_ptr<CLogger>& pLogger)
{
  const auto oSrc = MakeNumberedBand<TPixel>(nSrcW, nSrcH);
  CBand<TPixel, SMemoryTag> oDest(nDestW, nDestH);
  oDest.Clear(TPixel(0));
  Copy2D(oSrc.GetBandIterators(oSrcRect), oDest.GetBandIterators(CRect(nDestX, nDestY, nDestW, nDestH)), pLogger,
         SAllowParallelFor());
  for (unsigned y = 0; y < nDestH; ++y)
    for (unsigned x = 0; x < nDestW; ++x)
    {
      const bool bInside = x >= nDestX && y >= nDestY && x - nDestX < oSrcRect.GetWidth() &&
                           y - nDestY < oSrcRect.GetHeight();
      const TPixel tExpected =
        bInside ? At(oSrc, oSrcRect.GetStart().x + x - nDestX, oSrcRect.GetStart().y + y - nDestY) : TPixel(0);
      ASSERT_EQ(At(oDest, x, y), tExpected) << x << ", " << y;
    }
}

template <class TPixel>
class Copy2DTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(Copy2DTest, Orl::Test::TAllPixelTypes);

TYPED_TEST(Copy2DTest, SubRectanglesGoToTheGivenDestinationStart)
{
  const auto pLogger = boost::make_shared<CLogger>();
  // Within one grain, across several, narrower than a block hint, one pixel, one column, one row.
  ExpectCopy<TypeParam>(37, 23, CRect(5, 3, 20, 11), 40, 30, 9, 7, pLogger);
  ExpectCopy<TypeParam>(300, 700, CRect(17, 29, 251, 613), 280, 650, 3, 11, pLogger);
  ExpectCopy<TypeParam>(300, 700, CRect(17, 29, 251, 613), 280, 650, 3, 11, nullptr);
  ExpectCopy<TypeParam>(8, 8, CRect(7, 7, 1, 1), 3, 3, 1, 2, pLogger);
  ExpectCopy<TypeParam>(64, 900, CRect(5, 0, 1, 900), 3, 900, 2, 0, pLogger);
  ExpectCopy<TypeParam>(5000, 3, CRect(0, 1, 5000, 1), 5000, 2, 0, 1, pLogger);
  EXPECT_EQ(pLogger->GetDepth(), 0u);
}

TYPED_TEST(Copy2DTest, EmptyExtentsCopyNothingAndPopTheirLayer)
{
  const auto pLogger = boost::make_shared<CLogger>();
  for (const CRect& oRect : {CRect(4, 4, 0, 5), CRect(4, 4, 5, 0), CRect(0, 0, 0, 0)})
    ExpectCopy<TypeParam>(10, 10, oRect, 6, 6, 1, 1, pLogger);
  ExpectCopy<TypeParam>(0, 9, CRect(0, 0, 0, 9), 6, 6, 1, 1, pLogger);
  EXPECT_EQ(pLogger->GetDepth(), 0u);
}

// Begin and end the wrong way round on an axis: the copy runs forward from the begin iterator over
// the absolute extent.
TEST(Copy2D, ReversedAxesCopyForwardFromTheBegin)
{
  const auto oSrc = MakeNumberedBand<int>(20, 20);
  auto oSrcIts = oSrc.GetBandIterators(oSrc);
  boost::get<0>(oSrcIts).X = 10;
  boost::get<0>(oSrcIts).Y = 5;
  boost::get<1>(oSrcIts).X = 4; // extent x = -6
  boost::get<1>(oSrcIts).Y = 9; // extent y = 4
  CBand<int, SMemoryTag> oDest(6, 4);
  oDest.Clear(0);
  Copy2D(oSrcIts, oDest.GetBandIterators(oDest), boost::make_shared<CLogger>(), SAllowParallelFor());
  for (unsigned y = 0; y < 4; ++y)
    for (unsigned x = 0; x < 6; ++x)
      ASSERT_EQ(At(oDest, x, y), At(oSrc, 10 + x, 5 + y));
}

// Records what reaches a sink; with a zero interval and one thread, every increment does.
class CRecordingSink : public CLoggerSink
{
public:
  void OnProgress(double dFraction, const std::string&) override { m_vecFractions.push_back(dFraction); }
  void OnMessage(Orl::Harnel::Progress::_EVerbosityLevel, const std::string&) override {}
  void OnFinished() override { m_dAtFinish = m_vecFractions.empty() ? -1.0 : m_vecFractions.back(); }

  std::vector<double> m_vecFractions;
  double m_dAtFinish = -1.0;
};

TEST(Copy2D, IncrementsAddUpToTheArea)
{
  tbb::task_arena oOneThread(1);
  for (const CRect& oRect : {CRect(0, 0, 700, 500), CRect(3, 3, 5, 4)})
  {
    const auto pSink = boost::make_shared<CRecordingSink>();
    const auto pLogger = boost::make_shared<CLogger>(pSink, Orl::Harnel::Progress::_EVerbosityLevel(7),
                                                     std::chrono::milliseconds(0));
    const auto oSrc = MakeNumberedBand<float>(700, 500);
    CBand<float, SMemoryTag> oDest(700, 500);
    oOneThread.execute(
      [&] { Copy2D(oSrc.GetBandIterators(oRect), oDest.GetBandIterators(oDest), pLogger, SAllowParallelFor()); });
    EXPECT_DOUBLE_EQ(pSink->m_dAtFinish, 1.0);
    // A rectangle within the grain is one block: the push, then one increment of the full area.
    if (oRect.GetWidth() == 5)
    {
      EXPECT_EQ(pSink->m_vecFractions, (std::vector<double>{0.0, 1.0}));
    }
  }
}

TEST(Copy2D, OneThreadAndAllThreadsGiveTheSamePixels)
{
  const auto oSrc = MakeNumberedBand<double>(1111, 777, 5);
  CBand<double, SMemoryTag> oSerial(1000, 700);
  CBand<double, SMemoryTag> oParallel(1000, 700);
  oSerial.Clear(-1.0);
  oParallel.Clear(-1.0);
  const CRect oRect(13, 7, 987, 690);
  tbb::task_arena oOneThread(1);
  oOneThread.execute([&] {
    Copy2D(oSrc.GetBandIterators(oRect), oSerial.GetBandIterators(CRect(1, 2, 999, 698)), nullptr,
           SAllowParallelFor());
  });
  tbb::task_arena oDefault;
  oDefault.execute([&] {
    Copy2D(oSrc.GetBandIterators(oRect), oParallel.GetBandIterators(CRect(1, 2, 999, 698)),
           boost::make_shared<CLogger>(), SAllowParallelFor());
  });
  const double* pSerial = oSerial.GetRep().GetDataLocation();
  const double* pParallel = oParallel.GetRep().GetDataLocation();
  EXPECT_TRUE(std::equal(pSerial, pSerial + 1000 * 700, pParallel));
  EXPECT_EQ(At(oSerial, 1, 2), At(oSrc, 13, 7));
  EXPECT_EQ(At(oSerial, 987, 691), At(oSrc, 999, 696));
  EXPECT_EQ(At(oSerial, 988, 691), -1.0);
}

// A source iterator whose dereference fails at one position, as a tile load can.
class CFailingIterator : public Detail::CMemoryBandIterator<int, int>
{
public:
  CFailingIterator(const Detail::CMemoryBandIterator<int, int>& it, int nFailX, int nFailY)
    : Detail::CMemoryBandIterator<int, int>(it), m_nFailX(nFailX), m_nFailY(nFailY)
  {
  }
  const int& operator*() const
  {
    if (X == m_nFailX && Y == m_nFailY)
      throw std::runtime_error("tile lost");
    return Detail::CMemoryBandIterator<int, int>::operator*();
  }
  CFailingIterator& operator+=(const Orl::Pravik::GraphObject2d::CPoint<int>& oOffset)
  {
    Detail::CMemoryBandIterator<int, int>::operator+=(oOffset);
    return *this;
  }

private:
  int m_nFailX;
  int m_nFailY;
};

TEST(Copy2D, AnExceptionFromABlockReachesTheCallerAndLeavesTheLayer)
{
  const auto oSrc = MakeNumberedBand<int>(512, 2048);
  CBand<int, SMemoryTag> oDest(512, 2048);
  oDest.Clear(0);
  const auto oIts = oSrc.GetBandIterators(oSrc);
  const auto oFailing = boost::make_tuple(CFailingIterator(boost::get<0>(oIts), 100, 1500),
                                          CFailingIterator(boost::get<1>(oIts), 100, 1500));
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
