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
  timeval delay = toDelay(seconds);
  if (seconds > 0) startFromNow(thread.base, delay);
  // Replaces an earlier deadline, and takes back a call that the pass under way has still to make.
  if (event_add(&timerEvent_, &delay) != 0) {
    MemoryResourceException::throwException("libevent takes no timer");
  }
  fastForwardArmed(thread, timerEvent_);
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
  timeval now;
  evutil_gettimeofday(&now, nullptr);
  if (evutil_timercmp(&deadline, &now, <)) return 0;
  timeval left;
  evutil_timersub(&deadline, &now, &left);
  return static_cast<double>(left.tv_sec) + static_cast<double>(left.tv_usec) / 1000000;
}

void LibeventTimerControl::handleTimeout(evutil_socket_t, short, void* control) {
  LibeventThread& thread = LibeventThread::current();
  thread.guard([&] { static_cast<LibeventTimerControl*>(control)->handler(thread); });
}

void LibeventTimerControl::handler(LibeventThread const& thread) {
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
