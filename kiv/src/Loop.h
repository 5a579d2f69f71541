#pragma once
#include <chrono>
#include <limits>

#include "Kiv/ActivityManager.h"
#include "LoopClock.h"
#include "Poller.h"
#include "Reaction.h"
#include "TimerQueue.h"

namespace Kiv {

/// The dispatcher: runs passes, in the order that Kiv/System.h gives.
///
/// While work is due a pass takes the time and asks the kernel only when the latest look is
/// kLookInterval ago by the time-stamp counter, or kPassesPerLook passes, whichever comes first:
/// a zero delay then costs no system call and no clock read. The counter is a hint; one that
/// stands still, jumps or is not known yet makes looks more frequent, or leaves them to the
/// number of passes.
class Loop final {
 public:
  /// Made on first use, never destroyed.
  static Loop& instance();

  int run();
  void stop() { stop_ = true; }

  double now() { return clock_.read(); }
  double latest() const { return clock_.latest(); }
  TimerQueue& timers() { return timers_; }
  Poller& poller() { return poller_; }
  Reaction& reaction() { return reaction_; }

  void executionTimeIs(double seconds) { executionTime_ = seconds > 0 ? seconds : 0; }
  double executionTime() const { return executionTime_; }
  void virtualTimeIs(bool on) { virtual_ = on; }
  bool virtualTime() const { return virtual_; }
  void passObserverIs(PassObserver* observer) { observer_ = observer; }
  PassObserver* passObserver() const { return observer_; }

 private:
  static constexpr double kInfinity = std::numeric_limits<double>::infinity();
  static constexpr std::chrono::microseconds kLookInterval{3};
  static constexpr U32 kPassesPerLook = 256;
  class Run;

  bool _pass();
  bool _passWithoutWork();
  bool _observedPass();
  bool _nothingDue() const { return timers_.batchEmpty() && !timers_.due(clock_.latest()); }
  bool _waitForWork();
  void _jumpUnlessReady(double deadline);
  bool _lookIsDue();
  void _look();
  bool _backgroundLookIsDue();
  void _looked();
  void _lookAndServe();
  void _callBatch();
  void _serve();
  void _call(Clock::Notifiee& timer);

  LoopClock clock_;
  TimerQueue timers_;
  Poller poller_;
  Reaction reaction_;

  double executionTime_ = kInfinity;
  double end_ = kInfinity;
  bool virtual_ = false;
  bool running_ = false;
  bool stop_ = false;
  bool cut_ = false;  // the latest pass was left before the descriptors' turn

  // What an observed pass notes on its way.
  PassObserver* observer_ = nullptr;
  U64 waitedUntil_ = 0;  // nanoseconds
  double calledAt_ = 0;
  U32 calls_ = 0;

  double backgroundLook_ = 0;  // not before that time

  // The low half of the counter is enough for microseconds and half the price on 32 bits.
  U32 lookedAt_ = 0;
  U32 ticksPerLook_ = 1;  // 1 while the counter's rate is not known: look in every pass
  U32 ticksToLook_ = 1;   // since the latest look
  U32 passesLeft_ = 0;
};

}  // namespace Kiv
