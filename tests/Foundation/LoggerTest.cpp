#include "Foundation/ConsoleProgressSink.h"
#include "Foundation/Logger.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <functional>
#include <sstream>

using namespace Orl::Harnel::Progress;

namespace {

const std::chrono::milliseconds g_oEveryTime(0);

// Records what reaches it, and fails if two calls overlap.
class CRecordingSink : public CLoggerSink
{
public:
  void OnProgress(double dFraction, const std::string&) override
  {
    EXPECT_FALSE(m_bInside.exchange(true)) << "overlapping sink calls";
    m_vecFractions.push_back(dFraction);
    m_bInside = false;
  }
  void OnMessage(_EVerbosityLevel, const std::string&) override {}
  void OnFinished() override { ++m_nFinished; }

  std::vector<double> m_vecFractions;
  int m_nFinished = 0;
  std::atomic<bool> m_bInside{false};
};

void PushLayer(CLogger& oLogger, double dShare, double dTotal, ELayerClass eClass = eLayerOperation,
               const std::string& strText = "layer")
{
  oLogger.Push(strText, dShare, dTotal, 0.0, false, eClass, eLayerPublic, "");
}

} // namespace

TEST(LoggerTest, FoldsLayersIntoOneFraction)
{
  const std::pair<std::function<void(CLogger&)>, double> aCases[] = {
    {[](CLogger& o) { PushLayer(o, 1, 4); o.IncrementProgress(); }, 0.25},
    {[](CLogger& o) { PushLayer(o, 1, 4); o.IncrementProgress(); PushLayer(o, 2, 10); o.IncrementProgress(5); }, 0.5},
    {[](CLogger& o) { PushLayer(o, 1, 4); o.IncrementProgress(); PushLayer(o, 2, 10); o.Pop(); }, 0.75}, // whole share
    {[](CLogger& o) { PushLayer(o, 1, 2); PushLayer(o, 1, 4); PushLayer(o, 4, 40, eLayerParallel); o.IncrementProgress(20); }, 0.25},
    {[](CLogger& o) { PushLayer(o, 2, 3); for (int n = 0; n < 5; ++n) o.IncrementProgress(); }, 1.0}, // clamps
    {[](CLogger& o) { PushLayer(o, 1, 4); PushLayer(o, 1, 2); o.IncrementProgress(10); }, 0.25},     // child clamps
    {[](CLogger& o) { PushLayer(o, 1, 4); o.IncrementProgress(-3); }, 0.0},
    {[](CLogger& o) { PushLayer(o, 1, 0); o.IncrementProgress(3); }, 0.0}, // zero totals
    {[](CLogger& o) { PushLayer(o, 1, 0); PushLayer(o, 1, 4); o.IncrementProgress(); }, 0.0},
    {[](CLogger& o) { PushLayer(o, 1, 4); o.IncrementProgress(); PushLayer(o, 0, 0, eLayerParallel); o.Pop(); }, 0.25},
  };
  for (const auto& oCase : aCases)
  {
    auto pSink = boost::make_shared<CRecordingSink>();
    CLogger oLogger(pSink, eVerbosityInfo, g_oEveryTime);
    oCase.first(oLogger);
    EXPECT_EQ(oLogger.GetProgress(), oCase.second) << "case " << &oCase - aCases;
    EXPECT_EQ(pSink->m_vecFractions.back(), oCase.second) << "case " << &oCase - aCases;
  }
}

TEST(LoggerTest, ConcurrentIncrementsLoseNothing)
{
  auto pSink = boost::make_shared<CRecordingSink>();
  CLogger oLogger(pSink, eVerbosityInfo, g_oEveryTime); // every increment contends for the sink
  const int nCount = 100000;
  PushLayer(oLogger, 1, 4);
  PushLayer(oLogger, 4, 1.5 * nCount, eLayerParallel);
  tbb::parallel_for(tbb::blocked_range<int>(0, nCount, 16), [&](const tbb::blocked_range<int>& oRange) {
    for (int n = oRange.begin(); n != oRange.end(); ++n)
      oLogger.IncrementProgress(0.75);
  });
  EXPECT_EQ(oLogger.GetProgress(), 0.5); // exact: every partial sum of 0.75s is representable
  for (std::size_t n = 1; n < pSink->m_vecFractions.size(); ++n)
    ASSERT_LE(pSink->m_vecFractions[n - 1], pSink->m_vecFractions[n]) << n;
  EXPECT_LE(pSink->m_vecFractions.back(), 0.5);

}

TEST(LoggerTest, SurvivesLayersLeftByAnException)
{
  auto pSink = boost::make_shared<CRecordingSink>();
  CLogger oLogger(pSink, eVerbosityInfo, g_oEveryTime);
  PushLayer(oLogger, 1, 2); // the application's own layer: two files
  PushLayer(oLogger, 1, 10); // a failed file's layers, left by its exception
  PushLayer(oLogger, 10, 100, eLayerParallel);
  PushLayer(oLogger, 1, 4);
  EXPECT_EQ(oLogger.GetDepth(), 4u);
  oLogger.PopTo(1);
  EXPECT_EQ(oLogger.GetDepth(), 1u);
  EXPECT_EQ(oLogger.GetProgress(), 0.5); // the failed file is done with
  EXPECT_EQ(pSink->m_nFinished, 0);
  oLogger.PopTo(0);
  EXPECT_EQ(pSink->m_nFinished, 1);
}

// Progress shows the operation's text, not that of a parallel layer inside it. Reports come at a
// limited rate, but the start and the end are always drawn.
TEST(ConsoleProgressSinkTest, DrawsBarAndMessages)
{
  std::ostringstream oEager, oLazy;
  for (std::ostringstream* pOut : {&oEager, &oLazy})
  {
    CLogger oLogger(boost::make_shared<CConsoleProgressSink>(*pOut, 12), eVerbosityInfo,
                    pOut == &oEager ? g_oEveryTime : std::chrono::hours(1));
    oLogger.Message(eVerbosityInfo, "Apply Linear Fill Hole Filter", "");
    PushLayer(oLogger, 2.0, 7.0, eLayerOperation, "Fill");
    PushLayer(oLogger, 7.0, 7.0, eLayerParallel, "Perform ForEach2D in several tasks");
    for (int n = 0; n < 4; ++n)
      oLogger.IncrementProgress();
    oLogger.Message(eVerbosityDetail, "above the threshold", "");
    oLogger.SetVerbosity(eVerbosityDetail);
    oLogger.Message(eVerbosityDetail, "note", "");
    oLogger.IncrementProgress(0.01); // same line: not drawn again
    oLogger.PopTo(0);
  }
  EXPECT_EQ(oEager.str(), "Apply Linear Fill Hole Filter\n"
                          "\r[            ]   0% Fill\r[#           ]  14% Fill\r[###         ]  28% Fill"
                          "\r[#####       ]  42% Fill\r[######      ]  57% Fill"
                          "\rnote                    \n[######      ]  57% Fill\r[############] 100% Fill\n");
  EXPECT_EQ(oLazy.str(), "Apply Linear Fill Hole Filter\n\r[            ]   0% Fill"
                         "\rnote                    \n[            ]   0% Fill\r[############] 100% Fill\n");
}
