#include "Utilities/BoundedBuffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using Orl::Harnel::Utilities::CBoundedBuffer;

namespace {

// A consumer blocked in RemoveElement; Returned(n) tells whether it came back within n milliseconds.
struct SConsumer
{
  explicit SConsumer(CBoundedBuffer<unsigned int>& oBuffer)
    : m_oThread([this, &oBuffer] { m_nValue = oBuffer.RemoveElement(), m_bDone = true; })
  {
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // let it reach the wait
  }
  ~SConsumer() { m_oThread.join(); }

  bool Returned(int nMilliseconds) const
  {
    for (int i = 0; i < nMilliseconds && !m_bDone; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return m_bDone;
  }

  std::atomic<bool> m_bDone{false};
  std::atomic<unsigned int> m_nValue{0};
  std::thread m_oThread;
};

} // namespace

TEST(BoundedBufferTest, WakesTheConsumerForABatchOrAForcedValueAndDropsValuesWhenFull)
{
  CBoundedBuffer<unsigned int> oBuffer(9);
  {
    SConsumer oConsumer(oBuffer);
    for (unsigned int n = 1; n <= 6; ++n)
      oBuffer.AddElementIfPossible(n, false);
    EXPECT_FALSE(oConsumer.Returned(50)) << "woken below the batch limit";
    oBuffer.AddElementIfPossible(7, false);
    EXPECT_TRUE(oConsumer.Returned(5000));
    EXPECT_EQ(1u, oConsumer.m_nValue);
  }
  // Six values left: three more fill the ring across its end, the next is lost.
  for (unsigned int n = 8; n <= 11; ++n)
    oBuffer.AddElementIfPossible(n, n == 11);
  EXPECT_FALSE(oBuffer.HasFreeSpace());
  for (unsigned int n = 2; n <= 10; ++n)
    EXPECT_EQ(n, oBuffer.RemoveElement());
  // A forced value wakes the consumer at once.
  SConsumer oConsumer(oBuffer);
  oBuffer.AddElementIfPossible(0x7fffffff, true);
  EXPECT_TRUE(oConsumer.Returned(5000));
  EXPECT_EQ(0x7fffffffu, oConsumer.m_nValue);
}

TEST(BoundedBufferTest, ProducersAndConsumersHandOverEveryValueOnce)
{
  CBoundedBuffer<unsigned int> oBuffer(8);
  constexpr unsigned int nPerThread = 2000;
  std::atomic<unsigned long long> nSum{0};
  std::vector<std::thread> vecThreads;
  for (unsigned int p = 0; p < 2; ++p)
  {
    vecThreads.emplace_back([&oBuffer, p] {
      for (unsigned int n = 1; n <= nPerThread; ++n)
        oBuffer.AddElement(p * nPerThread + n, true);
    });
    vecThreads.emplace_back([&] {
      for (unsigned int n = 0; n < nPerThread; ++n)
        nSum += oBuffer.RemoveElement();
    });
  }
  for (std::thread& oThread : vecThreads)
    oThread.join();
  EXPECT_EQ(2ull * nPerThread * (2 * nPerThread + 1) / 2, nSum.load());
}
