#include "Loop.h"

#include <cmath>
#include <utility>

#include "Kiv/SteadyClock.h"
#include "Kiv/TimeStampCounter.h"

namespace Kiv {
namespace {

U64 nanoseconds() {
  return static_cast<U64>(SteadyClock::now().time_since_epoch() / std::chrono::nanoseconds(1));
}

}  // namespace

/// Marks the run, and undoes on every exit what holds for one run only.
class Loop::Run final {
 public:
  explicit Run(Loop& loop) : loop_(loop) {
    loop.running_ = true;
    loop.end_ = loop.now() + loop.executionTime_;
    loop.passesLeft_ = 1;  // the first pass looks: much may have happened since the last run
  }
  Run(Run const&) = delete;
  ~Run() {
    loop_.running_ = false;
    loop_.stop_ = false;
    loop_.executionTime_ = kInfinity;
  }

 private:
  Loop& loop_;
};

Loop& Loop::instance() {
  static Loop* const loop = new Loop;
  return *loop;
}

/// Nothing is due: waits for a descriptor, the next deadline or the end of the run. False when
/// there is nothing to wait for.
bool Loop::_waitForWork() {
  double const deadline = std::fmin(timers_.earliest(), end_);
  if (deadline == kInfinity) {
    if (!poller_.keepsRunning()) return false;
    poller_.look(kInfinity);
  } else if (virtual_) {
    _jumpUnlessReady(deadline);
  } else {
    poller_.look(deadline - clock_.read());
    clock_.read();
  }
  _looked();
  if (observer_ != nullptr) {
    waitedUntil_ = nanoseconds();
    calledAt_ = clock_.latest();
  }
  return true;
}

void Loop::_jumpUnlessReady(double deadline) {
  bool const ready = poller_.watching() && poller_.look(0);
  if (!ready && clock_.read() < deadline) clock_.jump(deadline);
}

/// For passes that have work: one compare for each reason to look. The rate not known, a counter
/// that has not moved and one that has gone back all count as much time gone by.
inline bool Loop::_lookIsDue() {
  U32 const elapsed = static_cast<U32>(TimeStampCounter::now()) - lookedAt_;
  return elapsed - 1 >= ticksToLook_ - 1 || --passesLeft_ == 0;
}

/// The next look comes before the pass that would end too late, taken to be as long as these were.
void Loop::_look() {
  U32 const elapsed = static_cast<U32>(TimeStampCounter::now()) - lookedAt_;
  U32 const pass = elapsed / (kPassesPerLook - passesLeft_ + 1);
  if (poller_.keepsRunning() || _backgroundLookIsDue()) poller_.look(0);
  clock_.read();
  _looked();
  ticksToLook_ = pass < ticksPerLook_ ? ticksPerLook_ - pass : 1;
}

/// A call to the kernel every few microseconds is the price of serving others, not of being seen.
bool Loop::_backgroundLookIsDue() {
  if (!poller_.watching() || clock_.latest() < backgroundLook_) return false;
  backgroundLook_ = clock_.latest() + 1e-3;
  return true;
}

void Loop::_looked() {
  if (ticksPerLook_ == 1) {
    U64 const ticks = TimeStampCounter::ticks(kLookInterval);
    if (ticks > 1) ticksPerLook_ = static_cast<U32>(ticks);
  }
  passesLeft_ = kPassesPerLook;
  ticksToLook_ = ticksPerLook_;
  lookedAt_ = static_cast<U32>(TimeStampCounter::now());
}

inline void Loop::_call(Clock::Notifiee& timer) {
  /// The end of onTime(), also by exception, but before anybody is asked about that: who answers
  /// for an exception may arm anew.
  struct Disarm {
    Reaction const& reaction;
    Clock::Notifiee& timer;
    ~Disarm() {
      bool const done = reaction.of(timer) && timer.place_ == Clock::Notifiee::Place::none;
      if (done) timer.timeMin_ = kInfinity;
    }
  };
  bool const released = std::exchange(timer.released_, false);
  reaction_.run(timer, released, [&] {
    Disarm const disarm{reaction_, timer};
    timer.onTime();
  });
}

inline void Loop::_callBatch() {
  for (; !stop_ && !timers_.batchEmpty(); ++calls_) _call(timers_.takeFirst());
}

void Loop::_serve() {
  calls_ += poller_.readyCount();
  poller_.serve(reaction_, stop_);
}

/// After the batch, so that what the kernel says is still true when descriptors are served: one
/// that a task has just read is not found ready once more for nothing.
void Loop::_lookAndServe() {
  if (_nothingDue()) {
    passesLeft_ = 1;  // the next pass asks, and waits
  } else {
    _look();
    _serve();
  }
}

/// False when the run is over.
inline bool Loop::_pass() {
  if (cut_ || _nothingDue()) return _passWithoutWork();
  cut_ = true;
  bool const goesOn = clock_.latest() < end_;
  timers_.take(clock_.latest());
  _callBatch();
  cut_ = stop_;
  if (_lookIsDue() && !stop_) _lookAndServe();
  return goesOn;
}

/// Waits for it; or goes on where the latest pass was cut, without a new batch.
bool Loop::_passWithoutWork() {
  bool const resumed = cut_;
  if (!resumed && !_waitForWork()) return false;
  cut_ = true;
  bool const goesOn = clock_.latest() < end_;
  if (!resumed) timers_.take(clock_.latest());
  _callBatch();
  cut_ = stop_;
  if (resumed && !stop_) _look();
  _serve();
  return goesOn;
}

/// A pass, timed. One that an exception leaves is not told of.
bool Loop::_observedPass() {
  double const deadline = timers_.earliest();
  U64 const start = waitedUntil_ = nanoseconds();
  calledAt_ = clock_.read();
  calls_ = 0;
  bool const goesOn = _pass();
  double const lag = calledAt_ - deadline;
  if (observer_ != nullptr && goesOn) {
    observer_->onPass({waitedUntil_ - start, nanoseconds() - waitedUntil_,
                       lag > 0 ? static_cast<U64>(lag * 1e9) : 0, calls_});
  }
  return goesOn;
}

int Loop::run() {
  if (running_) return -1;
  Run const run(*this);
  while (!stop_ && (observer_ == nullptr ? _pass() : _observedPass())) {
  }
  return 0;
}

}  // namespace Kiv
