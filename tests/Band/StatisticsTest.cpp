#include "Band/Band.h"
#include "Band/ForEach2D.h"
#include "BandTestSupport.h"
#include "Foundation/Logger.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
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
using Orl::Test::CRect;
using Orl::Test::TLoggerPtr;
using Orl::Test::TMemBand;

template <class TPixel>
Detail::CGrayValueStatisticsCalculator<TPixel, double>& Calculator(const TMemBand<TPixel>& oBand)
{
  return *oBand.GetRep().GetStatistics().m_pCalculator;
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
    unsigned long anValid[4] = {}, anInvalid[4] = {};
    TPixel atMin[2], atMax[2];
    double adMean[2], adVariance[2];
    oCalc.CalcCounts(anValid[0], anInvalid[0], false, TLoggerPtr());
    oCalc.CalcMinMax(atMin[0], atMax[0], anValid[1], anInvalid[1], false, TLoggerPtr());
    oCalc.CalcMeanVar(adMean[0], adVariance[0], anValid[2], anInvalid[2], false, TLoggerPtr());
    oCalc.CalcMinMaxMeanVar(atMin[1], atMax[1], anValid[3], adMean[1], adVariance[1], anInvalid[3], false, nullptr);
    for (int i = 0; i < 4; ++i)
      EXPECT_TRUE(anValid[i] == oRef.m_nValid && anInvalid[i] == oRef.m_nTotal - oRef.m_nValid) << i;
    // Integer sums are exact: only the final divisions round.
    const double dTolerance = std::is_floating_point<TPixel>::value ? 1e-9 : 1e-14;
    for (int i = 0; i < 2; ++i)
    {
      EXPECT_TRUE(atMin[i] == oRef.m_tMin && atMax[i] == oRef.m_tMax) << i;
      EXPECT_NEAR(adMean[i], double(oRef.m_dMean), dTolerance * std::sqrt(double(oRef.m_dVariance)));
      EXPECT_NEAR(adVariance[i], double(oRef.m_dVariance), dTolerance * double(oRef.m_dVariance));
    }
  }
}

// Narrow integer ranges and floating grids of step 0.25 get one bin per value: the histogram equals
// the count of each value, no-data left out; the mode is the most frequent value and the median lies
// within a bin width of the middle pixel.
TYPED_TEST(StatisticsTest, HistogramCountsEachValue)
{
  using TPixel = TypeParam;
  const double dUnit = std::is_floating_point<TPixel>::value ? 0.25 : 1.0;
  const double dBase = std::is_signed<TPixel>::value ? -50.0 : double(std::numeric_limits<TPixel>::max() - 200);
  TMemBand<TPixel> oBand(61, 97);
  std::vector<double> vecValid;
  std::map<double, unsigned long> mapCounts;
  for (unsigned i = 0; i < 61 * 97; ++i)
  {
    const unsigned nStep = i % 5 == 0 ? i % 17 : i * 7 % 201; // covers 0..200, more of the low values
    oBand.GetRep().GetDataLocation()[i] = TPixel(dBase + nStep * dUnit);
    if (nStep != 13) // the no-data value
      vecValid.push_back(dBase + nStep * dUnit), ++mapCounts[vecValid.back()];
  }
  oBand.SetNoDataValue(TPixel(dBase + 13 * dUnit));
  std::vector<unsigned long> vecHistogram;
  double dLow, dStep, dWidth;
  unsigned long nMaxCount;
  oBand.SetHistogramBins(201);
  oBand.GetHistogram(vecHistogram, dLow, dStep, dWidth, nMaxCount);
  ASSERT_EQ(vecHistogram.size(), 201u);
  EXPECT_TRUE(dLow == dBase && dStep == dUnit);
  for (const auto& oEntry : mapCounts)
    EXPECT_EQ(vecHistogram[std::size_t((oEntry.first - dBase) / dUnit)], oEntry.second) << oEntry.first;
  const auto itMode = std::max_element(mapCounts.begin(), mapCounts.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
  EXPECT_EQ(oBand.GetMode(), itMode->first);
  EXPECT_EQ(nMaxCount, itMode->second);
  std::nth_element(vecValid.begin(), vecValid.begin() + vecValid.size() / 2, vecValid.end());
  EXPECT_NEAR(oBand.GetMedian(), vecValid[vecValid.size() / 2], dWidth);
}

// The row loop bins without a division; it must give the plain per-pixel rule's counts (the
// functor's operator()) for values at, just below and just above every bin edge, at the ends of the
// range, outside it, and NaN and infinities for floating pixels; with and without no-data.
TYPED_TEST(StatisticsTest, HistogramRowLoopFollowsTheBinRuleAtEveryEdge)
{
  using TPixel = TypeParam;
  using TLimits = std::numeric_limits<TPixel>;
  constexpr bool bFloat = std::is_floating_point<TPixel>::value;
  // An odd range and bin count, so that the edges fall between representable values.
  TPixel tLow = bFloat ? TPixel(-3.7) : std::is_signed<TPixel>::value ? TPixel(-1000) : TPixel(17);
  TPixel tHigh = bFloat ? TPixel(1234.56) : TPixel(tLow + (sizeof(TPixel) == 1 ? 200 : 3001));
  unsigned nBins = 997;
  Detail::FixHistogramRange(tLow, tHigh, nBins);
  const Orl::Harnel::Math::CHistoFunctor<double, TPixel> oPattern(tLow, tHigh, nBins);
  std::vector<TPixel> vecValues;
  const auto fnAround = [&](double dValue) {
    if (!(dValue > double(TLimits::lowest()) && dValue < double(TLimits::max())))
      return;
    TPixel tValue = TPixel(dValue);
    if (bFloat)
      for (int i = 0; i < 3; ++i)
        tValue = std::nextafter(tValue, TLimits::lowest());
    else
      tValue = TPixel(dValue > double(TLimits::lowest()) + 3 ? dValue - 3 : dValue);
    for (int i = 0; i < 7; ++i, tValue = bFloat ? std::nextafter(tValue, TLimits::max()) : TPixel(tValue + 1))
    {
      vecValues.push_back(tValue);
      if (!bFloat && tValue == TLimits::max())
        break;
    }
  };
  for (unsigned i = 0; i <= nBins; ++i) // the edge below bin i, and one more above the last bin
    fnAround(double(tLow) + (double(i) - 0.5) * oPattern.m_dBinStep);
  for (const double d : {double(tLow), double(tHigh), double(tLow) - 10 * oPattern.m_dBinStep,
                         double(tHigh) + 10 * oPattern.m_dBinStep})
    fnAround(d);
  if constexpr (std::is_floating_point<TPixel>::value)
    for (const TPixel t : {TLimits::quiet_NaN(), TLimits::infinity(), -TLimits::infinity(), TLimits::max()})
      vecValues.push_back(t);
  // Rows of 203 pixels (not a multiple of the vector width), the values in a scrambled order.
  const unsigned nWidth = 203, nHeight = unsigned((vecValues.size() * 3 + nWidth - 1) / nWidth);
  TMemBand<TPixel> oBand(nWidth, nHeight);
  for (std::size_t i = 0; i < std::size_t(nWidth) * nHeight; ++i)
    oBand.GetRep().GetDataLocation()[i] = vecValues[i * 7919 % vecValues.size()];
  for (const bool bNoData : {false, true})
  {
    SCOPED_TRACE(bNoData ? "with no-data" : "without no-data");
    if (bNoData)
      oBand.SetNoDataValue(vecValues[vecValues.size() / 2]);
    Orl::Harnel::Math::CHistoFunctor<double, TPixel> oRule(oPattern, Orl::Harnel::Math::SEmptyState());
    for (std::size_t i = 0; i < std::size_t(nWidth) * nHeight; ++i)
    {
      const TPixel tValue = oBand.GetRep().GetDataLocation()[i];
      if (!bNoData || !(tValue == oBand.GetNoDataValue()))
        oRule(tValue);
    }
    std::vector<unsigned long> vecHistogram;
    double dMedian, dMode, dWidth, dStep;
    unsigned long nMaxCount, nValid, nInvalid;
    unsigned int nUsed = nBins;
    Calculator(oBand).CalcHisto(vecHistogram, dMedian, dMode, nUsed, nMaxCount, dWidth, dStep, nValid, nInvalid, tLow,
                                tHigh, false, TLoggerPtr());
    ASSERT_EQ(nUsed, nBins);
    EXPECT_EQ(nValid, oRule.m_nCount);
    EXPECT_TRUE(std::equal(vecHistogram.begin(), vecHistogram.end(), oRule.m_vecBins.begin(), oRule.m_vecBins.end()));
  }
}

// Bands of no pixels and bands of only no-data pixels: the decided answers.
TYPED_TEST(StatisticsTest, EmptyAndAllNoDataBands)
{
  using TPixel = TypeParam;
  struct SCase
  {
    unsigned nWidth, nHeight;
    bool bNoData;
    TPixel tExpectedMin, tExpectedMax; // CalcMinMax
    unsigned long nExpectedInvalid;
  } const aCases[] = {
    // The empty state comes back unchanged without no-data.
    {0, 5, false, std::numeric_limits<TPixel>::max(), std::numeric_limits<TPixel>::lowest(), 0},
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
    EXPECT_TRUE(tMin == o.tExpectedMin && tMax == o.tExpectedMax && nValid == 0 && nInvalid == o.nExpectedInvalid);
    double dMean = 1, dVariance = 0;
    oCalc.CalcMinMaxMeanVar(tMin, tMax, nValid, dMean, dVariance, nInvalid, false, TLoggerPtr());
    EXPECT_TRUE(tMin == TPixel(0) && tMax == TPixel(0) && dMean == 0.0 && dVariance == 1.0);
    std::vector<unsigned long> vecHistogram(3, 1);
    double dMedian = 1, dMode = 1, dBinWidth = 0, dBinStep = 0;
    unsigned int nBins = 1024;
    oCalc.CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dBinWidth, dBinStep, nValid, nInvalid,
                    o.tExpectedMin, o.tExpectedMax, false, TLoggerPtr());
    EXPECT_TRUE(vecHistogram.empty() && nBins == 0 && nMaxCount == 0 && dBinWidth == 1.0 && dMedian == 0.0);
    EXPECT_EQ(nInvalid, o.nExpectedInvalid);
  }
}

// Never more bins than values; degenerate ranges widen; floating bins are capped; a minimum above the
// real one sends the smaller pixels to the last bin.
template <class TPixel>
void CheckHistoCase(std::vector<TPixel> vecPixels, TPixel tMin, TPixel tMax, unsigned int nBinsWanted,
                    unsigned int nBinsUsed, double dBinStep, double dBinWidth, std::size_t nBinOfFirstPixel)
{
  TMemBand<TPixel> oBand(unsigned(vecPixels.size()), 1);
  std::copy(vecPixels.begin(), vecPixels.end(), oBand.GetRep().GetDataLocation());
  std::vector<unsigned long> vecHistogram;
  double dMedian, dMode, dWidth, dStep;
  unsigned long nMaxCount, nValid, nInvalid;
  unsigned int nBins = nBinsWanted;
  Calculator(oBand).CalcHisto(vecHistogram, dMedian, dMode, nBins, nMaxCount, dWidth, dStep, nValid, nInvalid, tMin,
                              tMax, false, TLoggerPtr());
  EXPECT_EQ(nBins, nBinsUsed);
  ASSERT_EQ(vecHistogram.size(), nBinsUsed);
  EXPECT_DOUBLE_EQ(dStep, dBinStep);
  EXPECT_DOUBLE_EQ(dWidth, dBinWidth);
  EXPECT_GE(vecHistogram[nBinOfFirstPixel], 1u);
}

TEST(CalcHistoTest, RangeAndBinRules)
{
  CheckHistoCase<unsigned char>({10, 11, 12}, 10, 12, 1024, 3, 1.0, 2.0 / 3, 0);
  CheckHistoCase<unsigned char>({255, 255, 255}, 255, 255, 1024, 2, 1.0, 0.5, 1); // range 254..255
  CheckHistoCase<unsigned char>({9, 9, 9}, 9, 9, 1024, 2, 1.0, 0.5, 0);           // range 9..10
  CheckHistoCase<int>({2147483647, 0, 1}, 2147483647, 2147483647, 1024, 2, 1.0, 0.5, 1);
  CheckHistoCase<unsigned int>({0, 1, 2}, 0, 4294967295u, 1024, 1024, 4294967295.0 / 1023, 4294967295.0 / 1024, 0);
  CheckHistoCase<float>({-3.5f, -1, 0}, -3.5f, -3.5f, 5000, 4096, 3.5 / 4095, 3.5 / 4096, 0); // range -3.5..0
  CheckHistoCase<double>({0, 0, 0}, 0, 0, 10, 10, 1.0 / 9, 0.1, 0);                          // range 0..1
  CheckHistoCase<double>({5, 5, 5}, 5, 5, 2, 2, 5.0, 2.5, 1);                                 // range 0..5
  CheckHistoCase<short>({-7, 0, 1}, 0, 9, 10, 10, 1.0, 0.9, 9);
}

// The serial form reports one step per row into the caller's layer; the parallel forms push a layer
// that stands for the rows and pop it; all give the start state plus the pixels. No-data NaN leaves
// nothing out; an exception in a task reaches the calling thread with the parallel layer still pushed.
TEST(ForEach2DTest, StartStateProgressEmptyRectanglesAndExceptions)
{
  TMemBand<float> oBand(64, 2048);
  oBand.Clear(1.0f);
  const auto& oConst = oBand;
  const CRect oRect(0, 0, 3, 2);
  const auto pLogger = boost::make_shared<CLogger>();
  for (const bool bSerial : {false, true})
  {
    pLogger->Push("test", 1.0, 2.0, 0.0, false, Orl::Harnel::Progress::eLayerOperation,
                  Orl::Harnel::Progress::eLayerPublic, "");
    const auto oIts = oConst.GetBandIterators(oRect);
    const auto oCount = bSerial ? ForEach2D(oIts, CCountFunctor<float>(10), pLogger)
                                : ForEach2D(oIts, CCountFunctor<float>(10), pLogger, SAllowParallelReduce());
    EXPECT_EQ(oCount.m_nCount, 16u);
    EXPECT_EQ(pLogger->GetDepth(), 1u);
    EXPECT_DOUBLE_EQ(pLogger->GetProgress(), 1.0); // two rows of two
    pLogger->Pop();
  }
  const auto fnCountIf = [&](float fNoData, const CRect& oIn) {
    return ForEach2DIf(oConst.GetBandIterators(oIn), Detail::SValidDataPredicate<float>{fNoData},
                       CCountFunctor<float>(4), pLogger, SAllowParallelReduce()).m_nCount;
  };
  EXPECT_EQ(fnCountIf(1.0f, oRect), 4u); // all pixels no-data: the start state
  EXPECT_EQ(fnCountIf(std::numeric_limits<float>::quiet_NaN(), oRect), 10u);
  for (const CRect& oEmpty : {CRect(1, 0, 0, 2), CRect(0, 1, 3, 0)})
    EXPECT_EQ(fnCountIf(0.0f, oEmpty), 4u);
  EXPECT_EQ(pLogger->GetDepth(), 0u);

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
  oBand.GetRep().GetDataLocation()[64 * 1500 + 5] = -1.0f;
  EXPECT_THROW(ForEach2D(oConst.GetBandIterators(oBand), SThrowOnNegative(), pLogger, SAllowParallelReduce()),
               std::runtime_error);
  EXPECT_EQ(pLogger->GetDepth(), 1u);
}

// Pixels of sizes that have no tiles (here 3 bytes) walk on the same kind of grid: every pixel once,
// over several cells.
TEST(ForEach2DTest, PixelsWithoutATileSizeWalkInParallel)
{
  struct SRgb
  {
    unsigned char m_anValue[3];
  };
  struct SSumRed
  {
    SSumRed() = default;
    SSumRed(const SSumRed&, Orl::Harnel::Math::SEmptyState) {}
    void operator()(const SRgb& o) { m_nSum += o.m_anValue[0], ++m_nCount; }
    void Join(const SSumRed& o) { m_nSum += o.m_nSum, m_nCount += o.m_nCount; }
    std::uint64_t m_nSum = 0, m_nCount = 0;
  };
  const unsigned nWidth = 70, nHeight = 2 * Detail::SWalkGrid<SRgb>::ms_nCellY + 3;
  std::vector<SRgb> vecPixels(std::size_t(nWidth) * nHeight);
  std::uint64_t nExpected = 0;
  for (std::size_t i = 0; i < vecPixels.size(); ++i)
    nExpected += vecPixels[i].m_anValue[0] = (unsigned char)(i * 31 % 251);
  using TIterator = Detail::CMemoryBandIterator<SRgb, int>;
  const auto oIts = boost::make_tuple(TIterator(vecPixels.data(), nWidth, nHeight, 0, 0, 64, 64),
                                      TIterator(vecPixels.data(), nWidth, nHeight, int(nWidth), int(nHeight), 64, 64));
  const SSumRed oSum = ForEach2D(oIts, SSumRed(), nullptr, SAllowParallelReduce());
  EXPECT_TRUE(oSum.m_nSum == nExpected && oSum.m_nCount == vecPixels.size());
}

// Wraps a band's calculator and notes the calls that reach it: "name", or "name~" when approximate.
template <class T>
class CCountingCalculator : public Detail::CGrayValueStatisticsCalculator<T, double>
{
  using TBase = Detail::CGrayValueStatisticsCalculator<T, double>;
  using L = typename TBase::TLoggerPtr;
  using UL = unsigned long;
  using D = double;

public:
  explicit CCountingCalculator(boost::shared_ptr<TBase> pInner) : m_p(std::move(pInner)) {}

  void CalcCounts(UL& v, UL& i, bool b, L p) override { N("counts", b), m_p->CalcCounts(v, i, b, p); }
  void CalcMinMax(T& t, T& u, UL& v, UL& i, bool b, L p) override { N("minmax", b), m_p->CalcMinMax(t, u, v, i, b, p); }
  void CalcMeanVar(D& m, D& s, UL& v, UL& i, bool b, L p) override { N("meanvar", b), m_p->CalcMeanVar(m, s, v, i, b, p); }
  void CalcMinMaxMeanVar(T& t, T& u, UL& v, D& m, D& s, UL& i, bool b, L p) override
  {
    N("minmaxmeanvar", b), m_p->CalcMinMaxMeanVar(t, u, v, m, s, i, b, p);
  }
  void CalcHisto(std::vector<UL>& h, D& d, D& e, unsigned int& n, UL& x, D& w, D& s, UL& v, UL& i, const T& t,
                 const T& u, bool b, L p) override
  {
    N("histo", b), m_p->CalcHisto(h, d, e, n, x, w, s, v, i, t, u, b, p);
  }

  // The calls since the last Take, in order.
  std::string Take() { return std::exchange(m_strCalls, std::string()); }

private:
  void N(const char* p, bool b) { m_strCalls += (m_strCalls.empty() ? "" : " ") + std::string(p) + (b ? "~" : ""); }
  boost::shared_ptr<TBase> m_p;
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

// Every getter answers through the cache: computed once, then read, until any grant of mutable
// access (even to an empty rectangle), SetNoDataValue (even to the same value) or Clear; const access
// keeps the cache. All getters together walk the band twice: extremes, moments and counts in one
// pass, the histogram in the other.
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
  oConst.GetCounts(nValid, nInvalid); // brought along by the extremes, with the moments
  EXPECT_EQ(oCounter.Take(), "minmaxmeanvar");
  EXPECT_TRUE(tMin == oRef.m_tMin && tMax == oRef.m_tMax);
  EXPECT_TRUE(nValid == oRef.m_nValid && nInvalid == oRef.m_nTotal - oRef.m_nValid);
  oConst.GetMeanVariance(dMean, dVariance);
  oConst.GetMeanVariance(dMean, dVariance);
  const double dMedian = oConst.GetMedian();
  EXPECT_EQ(oConst.GetMode(), oConst.GetMode());
  EXPECT_EQ(oConst.GetPercentile(50.0), dMedian);
  oConst.GetHistogram(vecHistogram, dLow, dStep, dWidth, nMaxCount);
  EXPECT_EQ(oCounter.Take(), "histo");
  EXPECT_EQ(dLow, double(oRef.m_tMin));
  EXPECT_EQ(nMaxCount, *std::max_element(vecHistogram.begin(), vecHistogram.end()));
  oConst.GetBandIterators(oBand);
  oConst.GetRep().GetDataLocation();
  (void)oConst.GetNoDataValueOrHint();
  oConst.GetMinMax(tMin, tMax);
  EXPECT_EQ(oCounter.Take(), "");

  const std::function<void()> afnAccess[] = {
    [&] { oBand.GetBandIterators(oBand); },
    [&] { oBand.GetBandIterators(CRect(0, 0, 0, 0)); },
    [&] { oBand.GetRep().GetDataLocation(); },
    [&] { oBand.SetNoDataValue(oBand.GetNoDataValue()); },
    [&] { oBand.Clear(TPixel(5)); },
  };
  for (const auto& fnAccess : afnAccess)
  {
    fnAccess();
    oConst.GetMeanVariance(dMean, dVariance);
    oConst.GetCounts(nValid, nInvalid);
    EXPECT_EQ(oCounter.Take(), "minmaxmeanvar") << "access " << &fnAccess - afnAccess;
  }
  EXPECT_TRUE(dMean == 5.0 && dVariance == 0.0);
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
  EXPECT_EQ(oCounter.Take(), "minmaxmeanvar~ histo~");
  EXPECT_EQ(tMax, 9);
  EXPECT_EQ(nValid, nSampled);
  oConst.GetCounts(nValid, nInvalid);
  oConst.GetMinMax(tMin, tMax);
  EXPECT_EQ(oCounter.Take(), "counts minmaxmeanvar");
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
  EXPECT_EQ(oSmallCounter.Take(), "minmaxmeanvar");
}

} // namespace
