#include "Band/Band.h"
#include "Band/ForEach2D.h"
#include "Foundation/Logger.h"
#include "StatisticsSupport.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Orl::Ostrel::Band;
using Orl::Harnel::Math::CCountFunctor;
using Orl::Harnel::Progress::CLogger;
using CRect = Orl::Pravik::GraphObject2d::CRect<unsigned int>;
using TLoggerPtr = boost::shared_ptr<CLogger>;

template <class TPixel>
using TMemBand = CBand<TPixel, SMemoryTag>;

template <class TPixel>
Detail::CGrayValueStatisticsCalculator<TPixel, double>& Calculator(const TMemBand<TPixel>& oBand)
{
  return *oBand.GetRep().GetStatistics().m_pCalculator;
}

template <class TPixel>
void ExpectNearRelative(double dActual, long double dExpected, double dRelative)
{
  EXPECT_NEAR(dActual, double(dExpected), dRelative * std::abs(double(dExpected)) + 1e-12);
}

template <class TPixel>
class StatisticsTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(StatisticsTest, Orl::Test::TAllPixelTypes);

// The four moment operations against plain references, with and without no-data, over full-range
// random pixels (sums that would overflow anything narrower than the chosen accumulators).
TYPED_TEST(StatisticsTest, CalculatorsMatchReference)
{
  using TPixel = TypeParam;
  for (const bool bNoData : {false, true})
  {
    SCOPED_TRACE(bNoData ? "with no-data" : "without no-data");
    const auto oBand = Orl::Test::MakeRandomBand<TPixel>(257, 123, 11, bNoData);
    const Orl::Test::SReference<TPixel> oRef(oBand);
    auto& oCalc = Calculator(oBand);
    unsigned long nValid = 1, nInvalid = 1, nValid2 = 1, nInvalid2 = 1;
    oCalc.CalcCounts(nValid, nInvalid, false, TLoggerPtr());
    EXPECT_EQ(nValid, oRef.m_nValid);
    EXPECT_EQ(nInvalid, oRef.m_nTotal - oRef.m_nValid);

    TPixel tMin, tMax, tMin2, tMax2;
    oCalc.CalcMinMax(tMin, tMax, nValid, nInvalid, false, TLoggerPtr());
    EXPECT_EQ(tMin, oRef.m_tMin);
    EXPECT_EQ(tMax, oRef.m_tMax);
    EXPECT_EQ(nValid, oRef.m_nValid);

    double dMean, dVariance, dMean2, dVariance2;
    oCalc.CalcMeanVar(dMean, dVariance, nValid, nInvalid, false, TLoggerPtr());
    oCalc.CalcMinMaxMeanVar(tMin2, tMax2, nValid2, dMean2, dVariance2, nInvalid2, false, TLoggerPtr());
    EXPECT_EQ(nValid, oRef.m_nValid);
    EXPECT_EQ(nInvalid2, oRef.m_nTotal - oRef.m_nValid);
    EXPECT_EQ(tMin2, oRef.m_tMin);
    EXPECT_EQ(tMax2, oRef.m_tMax);
    for (const auto& oMoments : {std::make_pair(dMean, dVariance), std::make_pair(dMean2, dVariance2)})
    {
      // Integer sums are exact: only the final divisions round.
      const double dTolerance = std::is_floating_point<TPixel>::value ? 1e-9 : 1e-14;
      EXPECT_NEAR(oMoments.first, double(oRef.m_dMean), dTolerance * std::sqrt(double(oRef.m_dVariance)));
      ExpectNearRelative<TPixel>(oMoments.second, oRef.m_dVariance, dTolerance);
    }
  }
}

// Integer bands over a narrow range and floating bands on a grid of steps 0.25 get one bin per value,
// so the histogram must equal the count of each value; the mode is the most frequent value and the
// median lies within a bin width of the middle pixel.
TYPED_TEST(StatisticsTest, HistogramCountsEachValue)
{
  using TPixel = TypeParam;
  const double dUnit = std::is_floating_point<TPixel>::value ? 0.25 : 1.0;
  const TPixel tBase = std::is_signed<TPixel>::value ? TPixel(-50) : TPixel(std::numeric_limits<TPixel>::max() - 200);
  TMemBand<TPixel> oBand(61, 97);
  TPixel* pData = oBand.GetRep().GetDataLocation();
  std::vector<double> vecValid;
  std::map<double, unsigned long> mapCounts;
  for (unsigned i = 0; i < 61 * 97; ++i)
  {
    const unsigned nStep = i % 5 == 0 ? i % 17 : i * 7 % 201; // covers 0..200, more of the low values
    pData[i] = TPixel(double(tBase) + nStep * dUnit);
    if (nStep == 13)
      continue; // the no-data value
    vecValid.push_back(double(pData[i]));
    ++mapCounts[double(pData[i])];
  }
  oBand.SetNoDataValue(TPixel(double(tBase) + 13 * dUnit));
  TPixel tMin = 0, tMax = 0;
  unsigned long nValid, nInvalid, nMaxCount;
  Calculator(oBand).CalcMinMax(tMin, tMax, nValid, nInvalid, false, TLoggerPtr());
  std::vector<unsigned long> vecHistogram;
  double dMedian, dMode, dBinWidth, dBinStep;
  unsigned int nBins = 201;
  Calculator(oBand).CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dBinWidth, dBinStep, nValid, nInvalid, tMin,
                              tMax, false, TLoggerPtr());
  ASSERT_EQ(nBins, 201u);
  ASSERT_EQ(vecHistogram.size(), 201u);
  EXPECT_EQ(dBinStep, dUnit);
  EXPECT_EQ(nValid, vecValid.size());
  for (const auto& oEntry : mapCounts)
    EXPECT_EQ(vecHistogram[std::size_t((oEntry.first - double(tMin)) / dUnit)], oEntry.second) << oEntry.first;
  const auto itMode = std::max_element(mapCounts.begin(), mapCounts.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
  EXPECT_EQ(dMode, itMode->first);
  EXPECT_EQ(nMaxCount, itMode->second);
  std::nth_element(vecValid.begin(), vecValid.begin() + vecValid.size() / 2, vecValid.end());
  EXPECT_NEAR(dMedian, vecValid[vecValid.size() / 2], dBinWidth);
}

// Bands of no pixels and bands of only no-data pixels: the decided answers.
TYPED_TEST(StatisticsTest, EmptyAndAllNoDataBands)
{
  using TPixel = TypeParam;
  const TPixel tLargest = std::numeric_limits<TPixel>::max(), tLowest = std::numeric_limits<TPixel>::lowest();
  struct SCase
  {
    unsigned nWidth, nHeight;
    bool bNoData;
    TPixel tExpectedMin, tExpectedMax; // CalcMinMax
    unsigned long nExpectedInvalid;
  } const aCases[] = {
    {0, 5, false, tLargest, tLowest, 0}, // the empty state comes back unchanged
    {5, 0, true, 0, 0, 0},
    {9, 4, true, 0, 0, 36}, // all pixels equal the no-data value
  };
  for (const SCase& o : aCases)
  {
    SCOPED_TRACE(testing::Message() << o.nWidth << " x " << o.nHeight);
    TMemBand<TPixel> oBand(o.nWidth, o.nHeight);
    oBand.Clear(TPixel(7));
    if (o.bNoData)
      oBand.SetNoDataValue(TPixel(7));
    auto& oCalc = Calculator(oBand);
    TPixel tMin = 1, tMax = 1;
    unsigned long nValid = 1, nInvalid = 1, nMaxCount = 1;
    oCalc.CalcMinMax(tMin, tMax, nValid, nInvalid, false, TLoggerPtr());
    EXPECT_EQ(tMin, o.tExpectedMin);
    EXPECT_EQ(tMax, o.tExpectedMax);
    EXPECT_EQ(nValid, 0u);
    EXPECT_EQ(nInvalid, o.nExpectedInvalid);
    double dMean = 1, dVariance = 0;
    oCalc.CalcMinMaxMeanVar(tMin, tMax, nValid, dMean, dVariance, nInvalid, false, TLoggerPtr());
    EXPECT_EQ(tMin, TPixel(0));
    EXPECT_EQ(tMax, TPixel(0));
    EXPECT_EQ(dMean, 0.0);
    EXPECT_EQ(dVariance, 1.0);
    std::vector<unsigned long> vecHistogram(3, 1);
    double dMedian = 1, dMode = 1, dBinWidth = 0, dBinStep = 0;
    unsigned int nBins = 1024;
    oCalc.CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dBinWidth, dBinStep, nValid, nInvalid,
                    o.tExpectedMin, o.tExpectedMax, false, TLoggerPtr());
    EXPECT_TRUE(vecHistogram.empty());
    EXPECT_EQ(nBins, 0u);
    EXPECT_EQ(nMaxCount, 0u);
    EXPECT_EQ(dBinWidth, 1.0);
    EXPECT_EQ(dMedian, 0.0);
    EXPECT_EQ(nInvalid, o.nExpectedInvalid);
  }
}

template <class TPixel>
struct SHistoCase
{
  std::vector<TPixel> m_vecPixels;
  TPixel m_tMin, m_tMax;
  unsigned int m_nBinsWanted, m_nBinsUsed;
  double m_dBinStep, m_dBinWidth;
  std::size_t m_nBinOfFirstPixel;
};

template <class TPixel>
void CheckHistoCase(const SHistoCase<TPixel>& o)
{
  TMemBand<TPixel> oBand(unsigned(o.m_vecPixels.size()), 1);
  std::copy(o.m_vecPixels.begin(), o.m_vecPixels.end(), oBand.GetRep().GetDataLocation());
  std::vector<unsigned long> vecHistogram;
  double dMedian, dMode, dBinWidth, dBinStep;
  unsigned long nMaxCount, nValid, nInvalid;
  unsigned int nBins = o.m_nBinsWanted;
  Calculator(oBand).CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dBinWidth, dBinStep, nValid, nInvalid,
                              o.m_tMin, o.m_tMax, false, TLoggerPtr());
  EXPECT_EQ(nBins, o.m_nBinsUsed);
  ASSERT_EQ(vecHistogram.size(), o.m_nBinsUsed);
  EXPECT_DOUBLE_EQ(dBinStep, o.m_dBinStep);
  EXPECT_DOUBLE_EQ(dBinWidth, o.m_dBinWidth);
  EXPECT_GE(vecHistogram[o.m_nBinOfFirstPixel], 1u);
}

TEST(CalcHistoTest, RangeAndBinRules)
{
  // Never more bins than values; degenerate ranges widen; floating bins are capped.
  CheckHistoCase<unsigned char>({{10, 11, 12}, 10, 12, 1024, 3, 1.0, 2.0 / 3, 0});
  CheckHistoCase<unsigned char>({{255, 255, 255}, 255, 255, 1024, 2, 1.0, 0.5, 1}); // range 254..255
  CheckHistoCase<unsigned char>({{9, 9, 9}, 9, 9, 1024, 2, 1.0, 0.5, 0});           // range 9..10
  CheckHistoCase<int>({{2147483647, 0, 1}, 2147483647, 2147483647, 1024, 2, 1.0, 0.5, 1});
  CheckHistoCase<unsigned int>({{0, 1, 2}, 0, 4294967295u, 1024, 1024, 4294967295.0 / 1023, 4294967295.0 / 1024, 0});
  CheckHistoCase<float>({{-3.5f, -1, 0}, -3.5f, -3.5f, 5000, 4096, 3.5 / 4095, 3.5 / 4096, 0}); // range -3.5..0
  CheckHistoCase<double>({{0, 0, 0}, 0, 0, 10, 10, 1.0 / 9, 0.1, 0});                      // range 0..1
  CheckHistoCase<double>({{5, 5, 5}, 5, 5, 2, 2, 5.0, 2.5, 1});                             // range 0..5
  // A minimum above the real one sends the smaller pixels to the last bin.
  CheckHistoCase<short>({{-7, 0, 1}, 0, 9, 10, 10, 1.0, 0.9, 9});
}

// The serial form reports one step per row into the caller's layer; the parallel forms push a layer
// that stands for the rows and pop it; all give the start state plus the pixels.
TEST(ForEach2DTest, StartStateProgressAndEmptyRectangles)
{
  TMemBand<float> oBand(3, 2);
  oBand.Clear(1.0f);
  const auto& oConst = oBand;
  const auto pLogger = boost::make_shared<CLogger>();
  for (const bool bSerial : {false, true})
  {
    pLogger->Push("test", 1.0, 2.0, 0.0, false, Orl::Harnel::Progress::eLayerOperation,
                  Orl::Harnel::Progress::eLayerPublic, "");
    const auto oIts = oConst.GetBandIterators(oBand);
    const auto oCount = bSerial ? ForEach2D(oIts, CCountFunctor<float>(10), pLogger)
                                : ForEach2D(oIts, CCountFunctor<float>(10), pLogger, SAllowParallelReduce());
    EXPECT_EQ(oCount.m_nCount, 16u);
    EXPECT_EQ(pLogger->GetDepth(), 1u);
    EXPECT_DOUBLE_EQ(pLogger->GetProgress(), 1.0); // two rows of two
    pLogger->Pop();
  }
  // All pixels no-data: the start state comes back.
  const auto oNone = ForEach2DIf(oConst.GetBandIterators(oBand), Detail::SValidDataPredicate<float>{1.0f},
                                 CCountFunctor<float>(4), pLogger, SAllowParallelReduce());
  EXPECT_EQ(oNone.m_nCount, 4u);
  // NaN as the no-data value leaves nothing out.
  const auto oAll = ForEach2DIf(oConst.GetBandIterators(oBand),
                                Detail::SValidDataPredicate<float>{std::numeric_limits<float>::quiet_NaN()},
                                CCountFunctor<float>(), pLogger, SAllowParallelReduce());
  EXPECT_EQ(oAll.m_nCount, 6u);
  for (const CRect& oEmpty : {CRect(1, 0, 0, 2), CRect(0, 1, 3, 0)})
  {
    const auto oCount =
      ForEach2D(oConst.GetBandIterators(oEmpty), CCountFunctor<float>(7), pLogger, SAllowParallelReduce());
    EXPECT_EQ(oCount.m_nCount, 7u);
    EXPECT_EQ(pLogger->GetDepth(), 0u);
  }
}

// An exception in a task leaves the call in the calling thread; the parallel layer stays pushed.
TEST(ForEach2DTest, ExceptionsReachTheCaller)
{
  struct SThrowOnNegative
  {
    SThrowOnNegative() = default;
    SThrowOnNegative(const SThrowOnNegative&, Orl::Harnel::Math::SEmptyState) {}
    void operator()(float t)
    {
      if (t < 0)
        throw std::runtime_error("negative pixel");
    }
    void Join(const SThrowOnNegative&) {}
  };
  TMemBand<float> oBand(64, 2048);
  oBand.Clear(1.0f);
  oBand.GetRep().GetDataLocation()[64 * 1500 + 5] = -1.0f;
  const auto pLogger = boost::make_shared<CLogger>();
  const auto& oConst = oBand;
  EXPECT_THROW(ForEach2D(oConst.GetBandIterators(oBand), SThrowOnNegative(), pLogger, SAllowParallelReduce()),
               std::runtime_error);
  EXPECT_EQ(pLogger->GetDepth(), 1u);
}

// Wraps a band's calculator and notes the calls that reach it.
template <class TPixel>
class CCountingCalculator : public Detail::CGrayValueStatisticsCalculator<TPixel, double>
{
  using TBase = Detail::CGrayValueStatisticsCalculator<TPixel, double>;
  using L = typename TBase::TLoggerPtr;
  using UL = unsigned long;

public:
  explicit CCountingCalculator(boost::shared_ptr<TBase> pInner) : m_pInner(std::move(pInner)) {}

  void CalcCounts(UL& v, UL& i, bool b, L p) override { _Note("counts", b), m_pInner->CalcCounts(v, i, b, p); }
  void CalcMinMax(TPixel& t0, TPixel& t1, UL& v, UL& i, bool b, L p) override
  {
    _Note("minmax", b), m_pInner->CalcMinMax(t0, t1, v, i, b, p);
  }
  void CalcMeanVar(double& m, double& s, UL& v, UL& i, bool b, L p) override
  {
    _Note("meanvar", b), m_pInner->CalcMeanVar(m, s, v, i, b, p);
  }
  void CalcMinMaxMeanVar(TPixel& t0, TPixel& t1, UL& v, double& m, double& s, UL& i, bool b, L p) override
  {
    _Note("minmaxmeanvar", b), m_pInner->CalcMinMaxMeanVar(t0, t1, v, m, s, i, b, p);
  }
  void CalcHisto(std::vector<UL>& h, double& d0, double& d1, unsigned int& n, UL& x, double& w, double& s, UL& v, UL& i,
                 const TPixel& t0, const TPixel& t1, bool b, L p) override
  {
    _Note("histo", b), m_pInner->CalcHisto(h, d0, d1, n, x, w, s, v, i, t0, t1, b, p);
  }

  // The calls since the last Take, in order, as "name", or "name~" when approximate.
  std::string Take() { return std::exchange(m_strCalls, std::string()); }

private:
  void _Note(const char* pName, bool bApproximate)
  {
    m_strCalls += (m_strCalls.empty() ? "" : " ") + std::string(pName) + (bApproximate ? "~" : "");
  }
  boost::shared_ptr<TBase> m_pInner;
  std::string m_strCalls;
};

template <class TPixel>
CCountingCalculator<TPixel>& InstallCounter(TMemBand<TPixel>& oBand)
{
  auto& pCalculator = oBand.GetRep().GetStatistics().m_pCalculator;
  auto pCounter = boost::make_shared<CCountingCalculator<TPixel>>(pCalculator);
  pCalculator = pCounter;
  return *pCounter;
}

// Every getter of every pixel type answers through the cache: computed once, then read, until
// mutable access, SetNoDataValue or Clear; const access keeps the cache.
TYPED_TEST(StatisticsTest, GettersComputeOnceUntilMutableAccess)
{
  using TPixel = TypeParam;
  auto oBand = Orl::Test::MakeRandomBand<TPixel>(40, 30, 3, true);
  const Orl::Test::SReference<TPixel> oRef(oBand);
  auto& oCounter = InstallCounter(oBand);
  const auto& oConst = oBand;

  TPixel tMin, tMax;
  double dMean, dVariance, dLow, dStep, dWidth;
  unsigned long nValid, nInvalid, nMaxCount;
  std::vector<unsigned long> vecHistogram;
  oConst.GetMinMax(tMin, tMax);
  oConst.GetMinMax(tMin, tMax);
  EXPECT_EQ(oCounter.Take(), "minmax");
  EXPECT_EQ(tMin, oRef.m_tMin);
  EXPECT_EQ(tMax, oRef.m_tMax);
  oConst.GetCounts(nValid, nInvalid); // brought along by the extremes
  EXPECT_EQ(nValid, oRef.m_nValid);
  EXPECT_EQ(nInvalid, oRef.m_nTotal - oRef.m_nValid);
  oConst.GetMeanVariance(dMean, dVariance);
  oConst.GetMeanVariance(dMean, dVariance);
  const double dMedian = oConst.GetMedian();
  EXPECT_EQ(oConst.GetMode(), oConst.GetMode());
  EXPECT_EQ(oConst.GetPercentile(50.0), dMedian);
  oConst.GetHistogram(vecHistogram, dLow, dStep, dWidth, nMaxCount);
  EXPECT_EQ(oCounter.Take(), "minmaxmeanvar histo");
  EXPECT_EQ(dLow, double(oRef.m_tMin));
  EXPECT_EQ(nMaxCount, *std::max_element(vecHistogram.begin(), vecHistogram.end()));
  oConst.GetBandIterators(oBand);
  oConst.GetRep().GetDataLocation();
  oConst.GetMinMax(tMin, tMax);
  EXPECT_EQ(oCounter.Take(), "");

  for (int nAccess = 0; nAccess < 4; ++nAccess)
  {
    switch (nAccess)
    {
    case 0: oBand.GetBandIterators(oBand); break;
    case 1: oBand.GetRep().GetDataLocation(); break;
    case 2: oBand.SetNoDataValue(oBand.GetNoDataValue()); break;
    case 3: oBand.Clear(TPixel(5)); break;
    }
    oConst.GetMeanVariance(dMean, dVariance);
    oConst.GetCounts(nValid, nInvalid);
    EXPECT_EQ(oCounter.Take(), "minmaxmeanvar") << "access " << nAccess;
  }
  EXPECT_EQ(dMean, 5.0);
  EXPECT_EQ(dVariance, 0.0);
  oBand.SetHistogramBins(16); // drops the histogram only
  oConst.GetMedian();
  oConst.GetMinMax(tMin, tMax);
  EXPECT_EQ(oCounter.Take(), "histo");
}

// Approximate answers come from the sample and are flagged apart: they never answer an exact
// question, an exact answer serves an approximate one, and a histogram built on approximate
// extremes goes when exact extremes arrive. On a band whose sample is the whole band, approximate
// questions are exact ones.
TEST(CachedStatisticsTest, ApproximateResultsAreKeptApart)
{
  TMemBand<unsigned char> oBig(1024, 4200); // more pixels than the whole-band sample limit
  std::fill_n(oBig.GetRep().GetDataLocation(), 1024 * 4200, (unsigned char)(9));
  oBig.GetRep().GetDataLocation()[1024 * 4199] = 200; // outside every sample strip
  auto& oCounter = InstallCounter(oBig);
  const auto& oConst = oBig;
  unsigned char tMin, tMax;
  unsigned long nValid, nInvalid;
  const auto vecRects = oBig.GetRep().GetApproxRects();
  ASSERT_GT(vecRects.size(), 1u);
  std::uint64_t nSampled = 0;
  for (const CRect& oRect : vecRects)
    nSampled += std::uint64_t(oRect.GetWidth()) * oRect.GetHeight();

  EXPECT_EQ(oConst.GetMedian(true), 9.25); // all pixels in the first bin of [9, 10], spread over its width 0.5
  oConst.GetMinMax(tMin, tMax, true);
  oConst.GetCounts(nValid, nInvalid, true);
  EXPECT_EQ(oCounter.Take(), "minmax~ histo~");
  EXPECT_EQ(tMax, 9);
  EXPECT_EQ(nValid, nSampled);
  oConst.GetCounts(nValid, nInvalid);
  oConst.GetMinMax(tMin, tMax);
  EXPECT_EQ(oCounter.Take(), "counts minmax");
  EXPECT_EQ(tMax, 200);
  EXPECT_EQ(nValid, 1024u * 4200);
  oConst.GetMinMax(tMin, tMax, true);
  EXPECT_EQ(tMax, 200);
  oConst.GetMedian(true); // its histogram was built on the approximate extremes
  EXPECT_EQ(oCounter.Take(), "histo~");

  // A message for each sampled rectangle.
  struct SMessages : Orl::Harnel::Progress::CLoggerSink
  {
    std::vector<std::string> m_vecTexts;
    void OnProgress(double, const std::string&) override {}
    void OnMessage(Orl::Harnel::Progress::_EVerbosityLevel, const std::string& str) override { m_vecTexts.push_back(str); }
  };
  const auto pSink = boost::make_shared<SMessages>();
  oBig.GetBandIterators(oBig);
  double dMean, dVariance;
  oConst.GetMeanVariance(dMean, dVariance, true,
                         boost::make_shared<CLogger>(pSink, Orl::Harnel::Progress::eVerbosityDetail));
  EXPECT_EQ(pSink->m_vecTexts.size(), vecRects.size());
  EXPECT_EQ(pSink->m_vecTexts.front(), "Done Calculating Min/Max/Mean/Var");

  TMemBand<float> oSmall(100, 100);
  oSmall.Clear(1.0f);
  auto& oSmallCounter = InstallCounter(oSmall);
  float fMin, fMax;
  oSmall.GetMinMax(fMin, fMax, true);
  oSmall.GetMinMax(fMin, fMax);
  EXPECT_EQ(oSmallCounter.Take(), "minmax");
}

} // namespace
