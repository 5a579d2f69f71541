#include <algorithm>
#include <ctime>
#include <limits>

#include "Veltro/Exception.h"
#include "platform/LibeventLoop.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/LibeventFactoryCpp";
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// libevent counts from a coarse clock, which lags by up to a tick, and inside a callback from the
// moment at which the pass began: a timer would come early by as much. Coarse is read first, so
// that a tick between the reads makes the delay longer and not shorter.
void startFromNow(event_base* base, timeval& delay) {
  timespec coarse, exact;
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &coarse);
  ::clock_gettime(CLOCK_MONOTONIC, &exact);
  event_base_update_cache_time(base);
  long const lagNs =
      static_cast<long>(exact.tv_sec - coarse.tv_sec) * 1000000000 + exact.tv_nsec - coarse.tv_nsec;
  timeval const lag{0, lagNs / 1000 + 1};  // far below a second, and rounded up
  evutil_timeradd(&delay, &lag, &delay);
}

std::int64_t microseconds(timeval const& time) {
  return std::int64_t{time.tv_sec} * 1000000 + time.tv_usec;
}

// The delay is less than a second back: no division of 64 bits, dear on 32.
int addBack(event& timer, std::int64_t delayUs) {
  timeval delay{};
  if (delayUs < 0) {
    delay.tv_sec = -1;
    delay.tv_usec = static_cast<decltype(delay.tv_usec)>(delayUs + 1000000);
  }
  return event_add(&timer, &delay);
}

// Zero delays come in the order of arming. libevent's time moves by the tick or the pass and equal
// deadlines come in any order, so each gets a deadline of its own, a microsecond behind the one
// before: in the recent past, where all are due at once. What libevent takes for now is known only
// from the deadline that it makes of a delay.
int addNow(LibeventThread& thread, event& timer) {
  constexpr std::int64_t kRoomUs = 20000;
  auto const behindLast = [&] {
    return std::min(std::max(thread.zeroDeadline + 1 - thread.zeroNow, -kRoomUs), std::int64_t{0});
  };
  std::int64_t delayUs = behindLast();
  int result = addBack(timer, delayUs);
  std::int64_t const now = microseconds(timer.ev_timeout) - delayUs;
  if (result == 0 && now != thread.zeroNow) {  // it has moved on: the room is free again
    thread.zeroNow = now;
    delayUs = behindLast();
    result = addBack(timer, delayUs);
  }
  thread.zeroDeadline = now + delayUs;
  return result;
}

}  // namespace

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler) : handler_(handler) {
  // At once: to ask about an event that never was is a warning of libevent's.
  _assign(LibeventThread::current());
}

LibeventTimerControl::~LibeventTimerControl() {
  LibeventTimerControl::delTimeout();
  if (gone_ != nullptr) *gone_ = true;
}

void LibeventTimerControl::setTimeout(double seconds) {
  if (seconds > std::numeric_limits<double>::max()) return LibeventTimerControl::delTimeout();
  LibeventThread& thread = LibeventThread::current();
  if (!thread.holds(baseSerial_)) _assign(thread);
  // Replaces an earlier deadline, and takes back a call that the pass under way has still to make.
  if (_add(thread, seconds) != 0) {
    MemoryResourceException::throwException("libevent takes no timer");
  }
  fastForwardArmed(thread, timerEvent_);
}

int LibeventTimerControl::_add(LibeventThread& thread, double seconds) {
  beyond_ = 0;
  if (!(seconds > 0)) return addNow(thread, timerEvent_);
  timeval delay = toDelay(seconds);
  double const rest = seconds - static_cast<double>(delay.tv_sec);
  bool const whole = rest - static_cast<double>(delay.tv_usec) / 1000000 < 1e-6;
  beyond_ = whole ? 0 : rest;
  startFromNow(thread.base, delay);
  return event_add(&timerEvent_, &delay);
}

void LibeventTimerControl::_assign(LibeventThread& thread) {
  event_assign(&timerEvent_, thread.ensureBase(), -1, 0, &handleTimeout, this);
  baseSerial_ = thread.serial;
}

void LibeventTimerControl::delTimeout() {
  LibeventThread& thread = LibeventThread::current();
  fastForwardGone(thread, timerEvent_);
  if (thread.holds(baseSerial_)) event_del(&timerEvent_);
}

bool LibeventTimerControl::armed() const {
  return LibeventThread::current().holds(baseSerial_) &&
         event_pending(&timerEvent_, EV_TIMEOUT, nullptr) != 0;
}

double LibeventTimerControl::remainingTimeout() const {
  timeval deadline{};
  if (!LibeventThread::current().holds(baseSerial_) ||
      event_pending(&timerEvent_, EV_TIMEOUT, &deadline) == 0) {
    return kInfinity;
  }
  timeval now{};
  evutil_gettimeofday(&now, nullptr);
  if (evutil_timercmp(&deadline, &now, <)) return 0;
  timeval left;
  evutil_timersub(&deadline, &now, &left);
  return static_cast<double>(left.tv_sec) + static_cast<double>(left.tv_usec) / 1000000 + beyond_;
}

void LibeventTimerControl::handleTimeout(evutil_socket_t, short, void* control) {
  LibeventThread& thread = LibeventThread::current();
  thread.guard([&] { static_cast<LibeventTimerControl*>(control)->handler(thread); });
}

void LibeventTimerControl::handler(LibeventThread const& thread) {
  bool const forwarded = thread.isMain && leFastForward();
  if (beyond_ > 0 && !forwarded) return setTimeout(beyond_);  // not due yet by far
  fastForwardGone(thread, timerEvent_);
  HandlerCall const call(gone_);
  catching([this] { handler_->timeout(); },
           [&] {
             // A handler that destroyed its control may be gone itself: nobody to ask.
             if (call.controlGone() || !handler_->handleTimeoutException()) throw;
           });
  // After every call that did not throw on, also one without an exception.
  VELTRO_TRACE(libeventDebug(), 9,
               "LibeventTimerControl::handler: Timeout notification exception was handled");
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
  return std::make_shared<LibeventTimerControl>(handler);
}

}  // namespace Veltro
