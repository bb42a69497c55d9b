#include "Foundation/Logger.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace Orl { namespace Harnel { namespace Progress {

CLogger::CLogger(boost::shared_ptr<CLoggerSink> pSink, _EVerbosityLevel eThreshold,
                 std::chrono::milliseconds oInterval)
  : m_pSink(std::move(pSink)),
    m_nInterval(std::chrono::duration_cast<std::chrono::nanoseconds>(oInterval).count()),
    m_nThreshold(eThreshold)
{
}

void CLogger::Push(const std::string& strText, double dShare, double dTotal, double dThird, bool bFlag,
                   ELayerClass eClass, ELayerSecrecy eSecrecy, const std::string& strText2)
{
  std::lock_guard<std::mutex> oLock(m_oMutex);
  // Everything that may throw happens before the slot becomes part of the stack.
  if (m_nDepth == m_vecLayers.size())
    m_vecLayers.push_back(std::make_unique<SLayer>());
  SLayer& oLayer = *m_vecLayers[m_nDepth];
  oLayer.m_strText = strText;
  oLayer.m_strText2 = strText2;
  oLayer.m_dShare = dShare;
  oLayer.m_dTotal = dTotal;
  oLayer.m_dThird = dThird;
  oLayer.m_bFlag = bFlag;
  oLayer.m_eClass = eClass;
  oLayer.m_eSecrecy = eSecrecy;
  oLayer.m_dDone.store(0.0, std::memory_order_relaxed);
  ++m_nDepth;
  m_pTop.store(&oLayer, std::memory_order_release);
  _NotifyLocked(m_nDepth == 1);
}

void CLogger::Pop()
{
  std::lock_guard<std::mutex> oLock(m_oMutex);
  assert(m_nDepth > 0 && "Pop without a matching Push");
  if (m_nDepth > 0)
    _PopLocked();
}

void CLogger::PopTo(std::size_t nDepth)
{
  std::lock_guard<std::mutex> oLock(m_oMutex);
  while (m_nDepth > nDepth)
    _PopLocked();
}

void CLogger::IncrementProgress(double dWork)
{
  SLayer* pTop = m_pTop.load(std::memory_order_acquire);
  assert(pTop && "IncrementProgress without a layer");
  if (!pTop)
    return;
  _Add(pTop->m_dDone, dWork);

  // Workers must never wait here: skip the report when it is not due or someone holds the lock.
  if (!m_pSink || _Now() < m_nNextNotify.load(std::memory_order_relaxed))
    return;
  std::unique_lock<std::mutex> oLock(m_oMutex, std::try_to_lock);
  if (oLock.owns_lock())
    _NotifyLocked(false);
}

void CLogger::Message(_EVerbosityLevel eLevel, const std::string& strText, const std::string& /*strText2*/)
{
  if (!m_pSink || eLevel > GetVerbosity())
    return;
  std::lock_guard<std::mutex> oLock(m_oMutex);
  m_pSink->OnMessage(eLevel, strText);
}

std::size_t CLogger::GetDepth() const
{
  std::lock_guard<std::mutex> oLock(m_oMutex);
  return m_nDepth;
}

double CLogger::GetProgress() const
{
  std::lock_guard<std::mutex> oLock(m_oMutex);
  return _FractionLocked();
}

std::int64_t CLogger::_Now()
{
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
    std::chrono::steady_clock::now().time_since_epoch()).count();
}

void CLogger::_Add(std::atomic<double>& dTarget, double dWork)
{
  double dOld = dTarget.load(std::memory_order_relaxed);
  while (!dTarget.compare_exchange_weak(dOld, dOld + dWork, std::memory_order_relaxed))
  {
  }
}

void CLogger::_PopLocked()
{
  const double dShare = m_vecLayers[--m_nDepth]->m_dShare;
  SLayer* pBeneath = m_nDepth > 0 ? m_vecLayers[m_nDepth - 1].get() : nullptr;
  if (pBeneath)
    _Add(pBeneath->m_dDone, dShare);
  m_pTop.store(pBeneath, std::memory_order_release);
  if (pBeneath)
    _NotifyLocked(false);
  else if (m_pSink)
    m_pSink->OnFinished();
}

double CLogger::_FractionLocked() const
{
  double dFraction = 0.0;
  for (std::size_t n = m_nDepth; n-- > 0;)
  {
    const SLayer& oLayer = *m_vecLayers[n];
    double dWork = oLayer.m_dDone.load(std::memory_order_relaxed);
    if (n + 1 < m_nDepth)
      dWork += m_vecLayers[n + 1]->m_dShare * dFraction;
    // Written so that a zero or NaN total, or NaN work, gives 0 rather than NaN.
    dFraction = oLayer.m_dTotal > 0.0 && dWork > 0.0 ? std::min(dWork / oLayer.m_dTotal, 1.0) : 0.0;
  }
  return dFraction;
}

void CLogger::_NotifyLocked(bool bForce)
{
  const std::int64_t nNow = _Now();
  if (!m_pSink || m_nDepth == 0 || (!bForce && nNow < m_nNextNotify.load(std::memory_order_relaxed)))
    return;
  m_nNextNotify.store(nNow + m_nInterval, std::memory_order_relaxed);

  // Parallel layers are bookkeeping; show what the operation around them does.
  std::size_t nText = m_nDepth;
  while (nText > 0 && m_vecLayers[nText - 1]->m_eClass == eLayerParallel)
    --nText;
  const SLayer& oShown = *m_vecLayers[nText > 0 ? nText - 1 : m_nDepth - 1];
  m_pSink->OnProgress(_FractionLocked(), oShown.m_strText);
}

}}} // namespace Orl::Harnel::Progress
