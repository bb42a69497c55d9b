#include "Utilities/BoundedBuffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using Orl::Harnel::Utilities::CBoundedBuffer;

namespace {

// A consumer thread blocked in RemoveElement; tells whether (and what) it got.
class CConsumer
{
public:
  explicit CConsumer(CBoundedBuffer<unsigned int>& oBuffer)
    : m_oThread([this, &oBuffer] {
        m_nValue = oBuffer.RemoveElement();
        m_bDone = true;
      })
  {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let it reach the wait
  }
  ~CConsumer() { m_oThread.join(); }

  // Waits up to nMilliseconds for the consumer to return.
  bool Returned(int nMilliseconds) const
  {
    for (int i = 0; i < nMilliseconds && !m_bDone; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return m_bDone;
  }
  unsigned int GetValue() const { return m_nValue; }

private:
  std::atomic<bool> m_bDone{false};
  std::atomic<unsigned int> m_nValue{0};
  std::thread m_oThread;
};

} // namespace

TEST(BoundedBufferTest, WakesTheConsumerForABatchAndDropsValuesWhenFull)
{
  CBoundedBuffer<unsigned int> oBuffer(9);
  {
    CConsumer oConsumer(oBuffer);
    for (unsigned int n = 1; n <= 6; ++n)
      oBuffer.AddElementIfPossible(n, false);
    EXPECT_FALSE(oConsumer.Returned(50)) << "woken below the batch limit";
    oBuffer.AddElementIfPossible(7, false);
    EXPECT_TRUE(oConsumer.Returned(5000));
    EXPECT_EQ(1u, oConsumer.GetValue());
  }
  // 6 values left: three more fill the ring, the tenth value is lost.
  for (unsigned int n = 8; n <= 11; ++n)
    oBuffer.AddElementIfPossible(n, false);
  EXPECT_FALSE(oBuffer.HasFreeSpace());
  std::vector<unsigned int> vecTaken;
  for (int i = 0; i < 9; ++i)
    vecTaken.push_back(oBuffer.RemoveElement());
  EXPECT_EQ((std::vector<unsigned int>{2, 3, 4, 5, 6, 7, 8, 9, 10}), vecTaken);
}

TEST(BoundedBufferTest, ForcedValueWakesTheConsumerAtOnceButIsLostOnAFullRing)
{
  CBoundedBuffer<unsigned int> oBuffer(2);
  {
    CConsumer oConsumer(oBuffer);
    oBuffer.AddElementIfPossible(0x7fffffff, true);
    EXPECT_TRUE(oConsumer.Returned(5000));
    EXPECT_EQ(0x7fffffffu, oConsumer.GetValue());
  }
  oBuffer.AddElementIfPossible(1, false);
  oBuffer.AddElementIfPossible(2, false);
  oBuffer.AddElementIfPossible(3, true);
  EXPECT_EQ(1u, oBuffer.RemoveElement());
  EXPECT_EQ(2u, oBuffer.RemoveElement());
  EXPECT_TRUE(oBuffer.HasFreeSpace());
}

TEST(BoundedBufferTest, IndicesWrapAroundTheRing)
{
  CBoundedBuffer<unsigned int> oBuffer(3);
  for (unsigned int n = 0; n < 10; ++n)
  {
    oBuffer.AddElementIfPossible(n, false);
    oBuffer.AddElementIfPossible(n + 100, false);
    EXPECT_EQ(n, oBuffer.RemoveElement());
    EXPECT_EQ(n + 100, oBuffer.RemoveElement());
  }
}

TEST(BoundedBufferTest, ProducersAndConsumersHandOverEveryValueOnce)
{
  CBoundedBuffer<unsigned int> oBuffer(8);
  constexpr unsigned int nPerProducer = 2000;
  std::vector<std::thread> vecThreads;
  for (unsigned int p = 0; p < 2; ++p)
    vecThreads.emplace_back([&oBuffer, p] {
      for (unsigned int n = 0; n < nPerProducer; ++n)
        oBuffer.AddElement(p * nPerProducer + n + 1, true);
    });
  std::atomic<unsigned long long> nSum{0};
  for (int c = 0; c < 2; ++c)
    vecThreads.emplace_back([&] {
      for (unsigned int n = 0; n < nPerProducer; ++n)
        nSum += oBuffer.RemoveElement();
    });
  for (std::thread& oThread : vecThreads)
    oThread.join();
  const unsigned long long nCount = 2 * nPerProducer;
  EXPECT_EQ(nCount * (nCount + 1) / 2, nSum.load());
}
