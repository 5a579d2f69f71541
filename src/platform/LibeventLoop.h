#pragma once
#include <exception>

#include "Veltro/Debug.h"
#include "Veltro/LibeventFactoryCpp.h"
#include "diag/Catching.h"

namespace Veltro {

/// Set when the library is loaded.
extern Platform::DebugHandler* const libeventDebugHandler;

/// The module's handler, "VeltroLibevent". Never freed.
inline Platform::DebugHandler& libeventDebug() { return *libeventDebugHandler; }

/// Stands on the stack around a handler's call, however that ends, and hears whether the control
/// was destroyed in it: the control's destructor sets the flag that its member points to.
class HandlerCall final {
 public:
  explicit HandlerCall(bool*& goneFlag) : goneFlag_(goneFlag) { goneFlag_ = &gone_; }
  ~HandlerCall() {
    if (!gone_) goneFlag_ = nullptr;
  }
  HandlerCall(HandlerCall const&) = delete;
  HandlerCall& operator=(HandlerCall const&) = delete;
  bool controlGone() const { return gone_; }

 private:
  bool*& goneFlag_;  // a member of the control: not there any more once that has gone
  bool gone_ = false;
};

/// One thread's base. Trivially destructible: controls held by other thread-local objects use it
/// to the very end of their thread.
struct LibeventThread {
  event_base* base = nullptr;
  U64 serial = 0;      // of the base, unique in the process; 0 without one
  unsigned forks = 0;  // forks behind this process when the base was last known to be its own
  bool isMain = false;
  event exitEvent{};
  bool exitArmed = false;
  std::exception_ptr* thrown = nullptr;  // where doLeEventLoop waits for it; null outside of it
  // Of the latest zero delay: libevent's time and the deadline within it, in microseconds.
  std::int64_t zeroNow = 0;
  std::int64_t zeroDeadline = 0;
  // The earliest deadline, by libevent's clock, that fast forward has heard of; zero before any.
  timeval earliestHeard{};

  static LibeventThread& current();

  /// The base, made if there is none, and made this process's own after a fork.
  event_base* ensureBase();
  /// Whether an event assigned to the base of that number can still be touched; makes the base
  /// this process's own first.
  bool holds(U64 baseSerial);
  /// Takes a base that this process made or was given; the same again changes nothing of it.
  void adopt(event_base* other);

  /// Runs a callback that libevent made: no exception may pass through libevent's frames, which
  /// would leave the base running for ever. It is kept for doLeEventLoop to throw on; where the
  /// owner of an adopted base runs it himself, nobody would, and it passes all the same.
  template <typename Body>
  void guard(Body&& body) {
    catching(body, [this] {
      if (thrown == nullptr) throw;
      *thrown = std::current_exception();
      event_base_loopbreak(base);
    });
    _ownAfterFork();
  }

 private:
  void _ownAfterFork();
};

/// A delay as libevent takes it. Not a number and negative are 0; beyond what a 32-bit deadline
/// of the wall clock holds is cut to that.
timeval toDelay(double seconds);

/// Timers of the main thread, for fast forward: what is armed, and the earliest deadline so far.
void fastForwardArmed(LibeventThread& thread, event& timer);
void fastForwardGone(LibeventThread const& thread, event& timer);
/// Makes all of them due, if the mode is on and `thread` is the main one.
void fastForwardAll(LibeventThread const& thread);
/// Moves `timer` back by the earliest deadline if the mode is on.
void fastForwardOne(event& timer);

}  // namespace Veltro
