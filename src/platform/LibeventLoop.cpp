#include "platform/LibeventLoop.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
#include <utility>

#include "Veltro/Exception.h"

namespace Veltro {

Platform::DebugHandler* const libeventDebugHandler = Platform::getDebugHandler("VeltroLibevent");

namespace {

constexpr char const* kSourceFile = "Veltro/LibeventFactoryCpp";
constexpr Platform::DebugHandler* kNoHandler = nullptr;

std::atomic<unsigned> forks{0};
std::atomic<U64> serials{0};

// In the child nothing but memory may be touched yet.
void countForks() {
  static std::once_flag once;
  std::call_once(once, [] {
    ::pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });
  });
}

// What to cut a delay of `seconds` to: deadlines are told in wall-clock seconds, of which 32 bits
// are about to run out. No clock need be read for less than a day.
double longestDelay(double seconds) {
  constexpr double kDay = 86400;
  if (seconds < kDay) return kDay;
  timeval now{};  // stays so where 32 bits have run out
  evutil_gettimeofday(&now, nullptr);
  return std::max(
      kDay, std::numeric_limits<std::int32_t>::max() - static_cast<double>(now.tv_sec) - kDay);
}

void handleBaseLoopExit(evutil_socket_t, short, void* argument) {
  auto& thread = *static_cast<LibeventThread*>(argument);
  // Without memory for an exit at the end of the pass: at once, rather than never.
  if (event_base_loopexit(thread.base, nullptr) != 0) event_base_loopbreak(thread.base);
  event_del(&thread.exitEvent);
  thread.exitArmed = false;
}

void disarmExit(LibeventThread& thread) {
  if (thread.exitArmed) event_del(&thread.exitEvent);
  thread.exitArmed = false;
}

void armExit(LibeventThread& thread, double seconds) {
  timeval const delay = toDelay(seconds);
  event_assign(&thread.exitEvent, thread.ensureBase(), -1, 0, &handleBaseLoopExit, &thread);
  if (event_add(&thread.exitEvent, &delay) != 0) {
    MemoryResourceException::throwException("libevent takes no end of the run");
  }
  thread.exitArmed = true;
}

}  // namespace

LibeventThread& LibeventThread::current() {
  thread_local LibeventThread thread;
  return thread;
}

event_base* LibeventThread::ensureBase() {
  if (base == nullptr) {
    event_set_fatal_callback(&le_fatal_cb);
    event_set_log_callback(&le_debug_cb);
    event_base* const made = event_base_new();
    if (made == nullptr) MemoryResourceException::throwException("libevent gives no event base");
    adopt(made);
  }
  _ownAfterFork();
  return base;
}

void LibeventThread::adopt(event_base* other) {
  isMain = isMainThread();
  if (base == other) return;
  countForks();
  base = other;
  serial = serials.fetch_add(1, std::memory_order_relaxed) + 1;
  forks = Veltro::forks.load(std::memory_order_relaxed);
}

bool LibeventThread::holds(U64 baseSerial) {
  if (base == nullptr || serial != baseSerial) return false;
  _ownAfterFork();
  return true;
}

// A child shares the kernel's event set with its parent: to change it would make the parent deaf.
void LibeventThread::_ownAfterFork() {
  unsigned const now = Veltro::forks.load(std::memory_order_relaxed);
  if (base == nullptr || forks == now) return;
  forks = now;
  event_reinit(base);
}

timeval toDelay(double seconds) {
  timeval delay{};
  if (!(seconds > 0)) return delay;
  double const longest = longestDelay(seconds);
  double const whole = std::trunc(std::min(seconds, longest));
  delay.tv_sec = static_cast<decltype(delay.tv_sec)>(whole);
  delay.tv_usec =
      seconds < longest ? static_cast<decltype(delay.tv_usec)>((seconds - whole) * 1000000) : 0;
  return delay;
}

void leInit() { LibeventThread::current().ensureBase(); }

void leRegisterBase(event_base* base) {
  LibeventThread& thread = LibeventThread::current();
  VELTRO_ASSERT(
      kNoHandler, thread.base == nullptr || thread.base == base,
      "Tried to register a base:" << static_cast<void*>(base) << " but a thread_local "
                                  << " base already exists: " << static_cast<void*>(thread.base));
  VELTRO_ASSERT(kNoHandler, base != nullptr, "Tried to register a null base");
  thread.adopt(base);
}

void leFree() {
  LibeventThread& thread = LibeventThread::current();
  if (thread.base == nullptr) return;
  thread.ensureBase();  // a child frees its own, never what it shares with its parent
  thread.exitArmed = false;
  thread.serial = 0;
  event_base_free(std::exchange(thread.base, nullptr));
}

bool leInitialized() { return LibeventThread::current().base != nullptr; }

int doLeEventLoop() {
  LibeventThread& thread = LibeventThread::current();
  event_base* const base = thread.ensureBase();
  if (thread.thrown != nullptr) return event_base_dispatch(base);  // nested: refused, and noted
  fastForwardAll(thread);

  std::exception_ptr thrown;
  struct Run {
    LibeventThread& thread;
    ~Run() { thread.thrown = nullptr; }
  };
  int result;
  {
    Run const run{thread};
    thread.thrown = &thrown;
    result = event_base_dispatch(base);
  }
  if (thrown != nullptr) std::rethrow_exception(thrown);
  return result;
}

int doLeEventLoop(double seconds) {
  LibeventThread& thread = LibeventThread::current();
  // A nested call must leave the outer one's exit alone; infinite is no limit.
  if (thread.thrown != nullptr || seconds > std::numeric_limits<double>::max()) {
    return doLeEventLoop();
  }
  struct Exit {
    LibeventThread& thread;
    ~Exit() {
      if (thread.base != nullptr) disarmExit(thread);
    }
  };
  Exit const exit{thread};  // disarmed on every way out
  armExit(thread, seconds);
  fastForwardOne(thread.exitEvent);
  return doLeEventLoop();
}

void le_debug_cb(int severity, char const* msg) {
  static constexpr unsigned kLevels[] = {9, 5, 1, 0};  // debug, msg, warn, err
  constexpr int kKnown = sizeof kLevels / sizeof kLevels[0];
  char const* const text = msg != nullptr ? msg : "";
  VELTRO_ASSERT(kNoHandler, severity >= 0 && severity < kKnown,
                "invalid libevent severity:" << severity << " msg:" << text);
  VELTRO_TRACE(libeventDebug(), kLevels[severity], "libevent: " << text);
}

void le_fatal_cb(int err) {
  Platform::DebugStream text;
  text << "libevent fatal error:" << err;
  debugAndThrowAssertException(kNoHandler, 0, text, kSourceFile, __func__, __LINE__);
}

}  // namespace Veltro
