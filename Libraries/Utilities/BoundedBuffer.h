#pragma once

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>

#include <vector>

namespace Orl { namespace Harnel { namespace Utilities {

// A fixed ring through which producers hand values to a consumer thread. Producers never wait: a value
// that finds the ring full is dropped. The consumer is woken for a batch (the ring more than three
// quarters full) or for a value added with force, such as a stop order. Safe for any number of producers
// and consumers. Destruction wakes nobody: the owner stops its consumer first.
template <class T>
class CBoundedBuffer
{
public:
  // A failure to create a lock passes as boost::thread_resource_error.
  explicit CBoundedBuffer(unsigned int nCapacity)
    : m_nCapacity(nCapacity), m_nReadIndex(0), m_nWriteIndex(0), m_nCount(0), m_vBuffer(nCapacity, T())
  {
  }

  CBoundedBuffer(const CBoundedBuffer&) = delete;
  CBoundedBuffer& operator=(const CBoundedBuffer&) = delete;

  bool HasFreeSpace() const
  {
    boost::unique_lock<boost::mutex> oLock(m_oMutex);
    return m_nCount < m_nCapacity;
  }

  // Drops the value silently when the ring is full, force or not.
  void AddElementIfPossible(T tValue, bool bForce)
  {
    boost::unique_lock<boost::mutex> oLock(m_oMutex);
    if (m_nCount == m_nCapacity)
      return;
    _Put(tValue);
    if (bForce || m_nCount > (m_nCapacity / 4) * 3)
      m_oNotEmpty.notify_one();
  }

  // Like AddElementIfPossible, but waits for space instead of dropping the value.
  void AddElement(T tValue, bool bForce)
  {
    boost::unique_lock<boost::mutex> oLock(m_oMutex);
    while (m_nCount == m_nCapacity)
      m_oNotFull.wait(oLock);
    _Put(tValue);
    if (bForce || m_nCount > (m_nCapacity / 4) * 3)
      m_oNotEmpty.notify_one();
  }

  // The consumer's side: waits until a producer wakes it with the ring not empty, then takes the oldest
  // value. Values below the batch limit wait in the ring until one comes with force or the ring fills;
  // a spurious wake-up may also hand them out early, which is harmless.
  T RemoveElement()
  {
    boost::unique_lock<boost::mutex> oLock(m_oMutex);
    while (m_nCount == 0)
      m_oNotEmpty.wait(oLock);
    const T tValue = m_vBuffer[m_nReadIndex];
    m_nReadIndex = (m_nReadIndex + 1) % m_nCapacity;
    --m_nCount;
    m_oNotFull.notify_one();
    return tValue;
  }

private:
  void _Put(const T& tValue)
  {
    m_vBuffer[m_nWriteIndex] = tValue;
    m_nWriteIndex = (m_nWriteIndex + 1) % m_nCapacity;
    ++m_nCount;
  }

  const unsigned int m_nCapacity;
  unsigned int m_nReadIndex;
  unsigned int m_nWriteIndex;
  unsigned int m_nCount;
  std::vector<T> m_vBuffer;
  boost::condition_variable_any m_oNotFull;
  boost::condition_variable_any m_oNotEmpty;
  mutable boost::mutex m_oMutex;
};

}}} // namespace Orl::Harnel::Utilities
