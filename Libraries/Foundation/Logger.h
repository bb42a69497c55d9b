#pragma once

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Orl { namespace Harnel { namespace Progress {

// The library passes these as fixed numbers; keep the values.
enum ELayerClass : int
{
  eLayerOperation = 0, // a whole operation: a filter, a statistic
  eLayerParallel = 2   // bookkeeping layer of parallel work inside an operation
};

enum ELayerSecrecy : int
{
  eLayerPublic = 0
};

// Lower is more important. A message passes when its level <= the logger's threshold, so raising
// the threshold shows more. eVerbositySilent is meant as a threshold only: it drops every message.
enum _EVerbosityLevel : int
{
  eVerbositySilent = 0,
  eVerbosityError = 1,
  eVerbosityWarning = 2,
  eVerbosityNotice = 3,
  eVerbosityInfo = 4,   // an operation starts
  eVerbosityVerbose = 5,
  eVerbosityDetail = 6, // a step of an operation is done
  eVerbosityDebug = 7
};

// What an application implements to receive progress and messages. A logger calls its sink under
// its own lock, so the calls of one logger never overlap and need no locking in the sink; a sink
// shared by several loggers has to lock for itself. A sink must not call back into its logger.
// Exceptions thrown by a sink reach the caller of the logger operation that triggered the call.
class CLoggerSink
{
public:
  virtual ~CLoggerSink() = default;

  // dFraction: the whole stack folded into one fraction in [0, 1]. strText: the text of the
  // innermost layer that is not eLayerParallel (the top layer's if all are).
  virtual void OnProgress(double dFraction, const std::string& strText) = 0;
  virtual void OnMessage(_EVerbosityLevel eLevel, const std::string& strText) = 0;
  // The outermost layer has popped: all work on the stack is done.
  virtual void OnFinished() {}
};

// A stack of progress layers, handed to long operations as boost::shared_ptr<CLogger>.
//
// Folding: a layer's progress is min(1, max(0, own work / own total)), where own work is what was
// incremented on it, plus, for the layer just above, that layer's share times its progress. A layer
// with a total <= 0 reports 0 until it pops. When a layer pops, its full share is added to the work
// of the layer beneath. The overall fraction is the bottom layer's progress.
//
// Threads:
// - IncrementProgress never waits: it adds to the top layer's counter with a compare-and-swap loop
//   and loses no increment. At most once per notification interval it tries the lock to tell the
//   sink; if another thread holds the lock it just returns.
// - Push, Pop, PopTo, Message and the queries take one mutex, so they may come from any thread and
//   the stack stays well formed: each Push adds one layer, each Pop removes the current top.
//   Operations that share a logger from different threads interleave their layers on that one
//   stack; their numbers may then be credited to each other's layers, but nothing breaks. Layer
//   storage is only released with the logger, so an increment racing a Pop from another thread
//   lands on a live (possibly reused) layer.
//
// Sink notification: the outermost Push and the outermost Pop (OnFinished) always reach the sink;
// everything else reaches it at most once per interval.
//
// Layers left on the stack by an exception stay there, and a later Push goes on top of them. A
// caller that catches such an exception can note GetDepth() before the operation and PopTo() that
// depth afterwards.
class CLogger
{
public:
  explicit CLogger(boost::shared_ptr<CLoggerSink> pSink = boost::shared_ptr<CLoggerSink>(),
                   _EVerbosityLevel eThreshold = eVerbosityInfo,
                   std::chrono::milliseconds oInterval = std::chrono::milliseconds(100));
  CLogger(const CLogger&) = delete;
  CLogger& operator=(const CLogger&) = delete;

  // dShare: this layer's share of the layer beneath, in the units of the layer beneath.
  // dTotal: this layer's own total, in the units of its increments. The third number, the flag, the
  // secrecy and the second text are kept with the layer but do not change what is reported.
  void Push(const std::string& strText, double dShare, double dTotal, double dThird, bool bFlag,
            ELayerClass eClass, ELayerSecrecy eSecrecy, const std::string& strText2);
  // Pops the top layer and counts its share as done on the layer beneath.
  void Pop();
  void IncrementProgress() { IncrementProgress(1.0); }
  void IncrementProgress(double dWork);
  // The second text is ignored.
  void Message(_EVerbosityLevel eLevel, const std::string& strText, const std::string& strText2);

  std::size_t GetDepth() const;
  // Pops (as by Pop) until at most nDepth layers are left.
  void PopTo(std::size_t nDepth);
  // The overall fraction in [0, 1]; 0 for an empty stack.
  double GetProgress() const;

  void SetVerbosity(_EVerbosityLevel eThreshold) { m_nThreshold.store(eThreshold, std::memory_order_relaxed); }
  _EVerbosityLevel GetVerbosity() const { return static_cast<_EVerbosityLevel>(m_nThreshold.load(std::memory_order_relaxed)); }

private:
  struct SLayer
  {
    std::string m_strText;
    double m_dShare = 0.0;
    double m_dTotal = 0.0;
    double m_dThird = 0.0;
    bool m_bFlag = false;
    ELayerClass m_eClass = eLayerOperation;
    ELayerSecrecy m_eSecrecy = eLayerPublic;
    std::string m_strText2;
    std::atomic<double> m_dDone{0.0}; // the only field touched without the lock
  };

  static std::int64_t _Now();
  static void _Add(std::atomic<double>& dTarget, double dWork);
  void _PopLocked();
  double _FractionLocked() const;
  void _NotifyLocked(bool bForce);

  const boost::shared_ptr<CLoggerSink> m_pSink;
  const std::int64_t m_nInterval; // nanoseconds between notifications
  std::atomic<int> m_nThreshold;
  std::atomic<std::int64_t> m_nNextNotify{0};
  std::atomic<SLayer*> m_pTop{nullptr};

  mutable std::mutex m_oMutex;
  // Slots [0, m_nDepth) are the stack; slots above are kept for reuse and never freed before the
  // logger, which is what makes a stale m_pTop harmless.
  std::vector<std::unique_ptr<SLayer>> m_vecLayers;
  std::size_t m_nDepth = 0;
};

}}} // namespace Orl::Harnel::Progress
