#include <algorithm>
#include <atomic>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/LibeventLoop.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/LibeventFactoryCpp";
constexpr Platform::DebugHandler* kNoHandler = nullptr;

std::atomic<bool> fastForward{false};

// Whole seconds of the wall clock, 0 while unset. Written by every thread's timers; a lost race
// leaves it a little wrong, which is accepted.
std::atomic<std::int32_t> minTime{0};

// The main thread's armed timers. Never freed: static controls disarm after it would be.
std::unordered_set<event*>& timerSet() {
  static auto& set = *new std::unordered_set<event*>;
  return set;
}

bool pending(event const& timer, timeval& deadline) {
  return event_pending(&timer, EV_TIMEOUT, &deadline) != 0;
}

void lowerMinTime(event const& timer) {
  timeval deadline{};
  if (!pending(timer, deadline)) return;
  auto const seconds = static_cast<std::int32_t>(deadline.tv_sec);
  if (seconds <= 0) return;  // told by a clock whose 32 bits have run out
  std::int32_t const lowest = minTime.load(std::memory_order_relaxed);
  if (lowest == 0 || seconds < lowest) minTime.store(seconds, std::memory_order_relaxed);
}

timeval wallClock() {
  timeval now{};
  evutil_gettimeofday(&now, nullptr);
  return now;
}

// Arms `timer` again, earlier by minTime. By libevent's own operations, so that its heap stays in
// order beside timers that are not ours; one that is due already is left as it is.
void moveBack(event& timer, timeval const& deadline, timeval const& now) {
  if (!evutil_timercmp(&now, &deadline, <)) return;
  timeval delay;
  evutil_timersub(&deadline, &now, &delay);
  delay.tv_sec -= minTime.load(std::memory_order_relaxed);
  event_del(&timer);
  event_add(&timer, &delay);
}

}  // namespace

void fastForwardArmed(LibeventThread& thread, event& timer) {
  // minTime only falls, so a deadline that is not the earliest of its thread says nothing new.
  timeval& earliest = thread.earliestHeard;
  if (!evutil_timerisset(&earliest) || evutil_timercmp(&timer.ev_timeout, &earliest, <)) {
    earliest = timer.ev_timeout;
    lowerMinTime(timer);
  }
  if (thread.isMain) timerSet().insert(&timer);
}

void fastForwardGone(LibeventThread const& thread, event& timer) {
  if (thread.isMain) timerSet().erase(&timer);
}

void fastForwardAll(LibeventThread const& thread) {
  if (!leFastForward() || !thread.isMain) return;
  std::vector<std::pair<timeval, event*>> timers;
  for (event* const timer : timerSet()) {
    timeval deadline{};
    if (pending(*timer, deadline)) timers.emplace_back(deadline, timer);
  }
  std::sort(timers.begin(), timers.end(),
            [](auto const& a, auto const& b) { return evutil_timercmp(&a.first, &b.first, <); });
  timeval const now = wallClock();  // one for all: else two close deadlines could change places
  for (auto const& [deadline, timer] : timers) moveBack(*timer, deadline, now);
}

void fastForwardOne(event& timer) {
  lowerMinTime(timer);
  timeval deadline{};
  if (leFastForward() && pending(timer, deadline)) moveBack(timer, deadline, wallClock());
}

void setLeFastForward(bool on) {
  VELTRO_ASSERT(kNoHandler, LibeventThread::current().isMain,
                "FastForward invoked from non-main thread");
  fastForward.store(on, std::memory_order_relaxed);
}

bool leFastForward() { return fastForward.load(std::memory_order_relaxed); }

}  // namespace Veltro
