// What the event loop costs, beside libevent on the same work in the same run. Every pair of rows
// is one workload, written once over a small adaptor per loop; each checks that its work was done.
// Take the ratio of a pair, not the nanoseconds.
#include <event2/event.h>
#include <event2/event_struct.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "Kiv/ActivityManager.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/System.h"
#include "benchmark/benchmark.h"

namespace {

using Action = std::function<void()>;

/// libkiv.
struct Ours {
  struct Timer final : Kiv::Clock::Notifiee {
    explicit Timer(Ours&, Action action = {})
        : Notifiee(Kiv::ActivityManager::instance().config().clock()), act(std::move(action)) {}
    ~Timer() override = default;
    void onTime() override { act(); }
    void again() { timeMinIsNow(); }
    void zeroDelay() { timeMinIs(Kiv::System::currentTime()); }
    void delay(double seconds) { timeMinIs(Kiv::System::currentTime() + seconds); }
    void delayByCachedTime(double seconds) { timeMinIs(clock().latestTime() + seconds); }
    Action act;
  };
  struct Watch final : Kiv::FileDescriptor::Notifiee {
    Watch(Ours&, int fd, Action action)
        : Notifiee(Kiv::allocate<Kiv::FileDescriptor>("bench")), act(std::move(action)) {
      notifier().descriptorIs(fd);
      notifier().notifyOnReadableIs(true);
    }
    ~Watch() override { notifier().descriptorIs(-1); }
    void onReadableCount() override { act(); }
    Action act;
  };
  void run() { Kiv::System::doRun(); }
  void stop() { Kiv::System::doStop(); }
};

/// libevent, told to look at descriptors after 100 callbacks at the latest: without a bound an
/// event that activates itself keeps everything else from its turn.
struct Libevent {
  Libevent() {
    event_config* const config = event_config_new();
    event_config_set_max_dispatch_interval(config, nullptr, 100, 0);
    event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
    base = event_base_new_with_config(config);
    event_config_free(config);
  }
  Libevent(Libevent const&) = delete;
  ~Libevent() { event_base_free(base); }

  struct Timer {
    explicit Timer(Libevent& loop, Action action = {}) : act(std::move(action)) {
      auto const call = [](int, short, void* self) { static_cast<Timer*>(self)->act(); };
      event_assign(&event_, loop.base, -1, 0, call, this);
    }
    Timer(Timer const&) = delete;
    ~Timer() { event_del(&event_); }
    void again() { event_active(&event_, EV_TIMEOUT, 1); }
    void zeroDelay() { delay(0); }
    void delay(double seconds) {
      timeval time{};
      time.tv_sec = static_cast<time_t>(seconds);
      time.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(time.tv_sec)) * 1e6);
      event_add(&event_, &time);
    }
    Action act;
    event event_;
  };
  struct Watch {
    Watch(Libevent& loop, int fd, Action action) : act(std::move(action)) {
      auto const call = [](int, short, void* self) { static_cast<Watch*>(self)->act(); };
      event_assign(&event_, loop.base, fd, EV_READ | EV_PERSIST, call, this);
      event_add(&event_, nullptr);
    }
    Watch(Watch const&) = delete;
    ~Watch() { event_del(&event_); }
    Action act;
    event event_;
  };
  void run() { event_base_loop(base, 0); }
  void stop() { event_base_loopbreak(base); }
  event_base* base;
};

struct Pair {
  Pair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) std::abort();
  }
  Pair(Pair const&) = delete;
  ~Pair() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  int ends[2];
};

double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

/// One that asks to be called again at once, with a descriptor to be kept an eye on and `armed`
/// timers elsewhere.
template <typename Loop, void (Loop::Timer::*again)()>
void BM_CallMeAgain(benchmark::State& state) {
  constexpr int kCalls = 10000;
  Loop loop;
  Pair idle;
  typename Loop::Watch watch(loop, idle.ends[0], [] {});
  std::vector<std::unique_ptr<typename Loop::Timer>> armed;
  for (int i = 0; i < state.range(0); ++i) {
    armed.push_back(std::make_unique<typename Loop::Timer>(loop));
    armed.back()->delay(1000 + i);
  }
  std::int64_t calls = 0;
  typename Loop::Timer timer(loop);
  timer.act = [&] {
    if (++calls % kCalls == 0) {
      loop.stop();
    } else {
      (timer.*again)();
    }
  };
  for (auto _ : state) {
    (timer.*again)();
    loop.run();
  }
  if (calls != kCalls * static_cast<std::int64_t>(state.iterations())) {
    state.SkipWithError("calls were lost");
  }
  state.SetItemsProcessed(calls);
}
#define CALL_ME_AGAIN(Loop, how) \
  BENCHMARK_TEMPLATE(BM_CallMeAgain, Loop, &Loop::Timer::how)->Arg(0)->Arg(100000)
CALL_ME_AGAIN(Ours, again);
CALL_ME_AGAIN(Libevent, again);
CALL_ME_AGAIN(Ours, zeroDelay);
CALL_ME_AGAIN(Libevent, zeroDelay);

/// Arming anew one of many timers: anywhere in the next 1000 s, or always later than before, as
/// timeouts are that activity pushes out.
template <typename Loop, void (Loop::Timer::*arm)(double), bool later>
void BM_Rearm(benchmark::State& state) {
  Loop loop;
  auto const count = static_cast<std::size_t>(state.range(0));
  std::mt19937 random(1);
  std::vector<std::unique_ptr<typename Loop::Timer>> timers;
  for (std::size_t i = 0; i < count; ++i) {
    timers.push_back(std::make_unique<typename Loop::Timer>(loop));
    timers.back()->delay(10 + static_cast<double>(random() % 1000000) * 1e-3);
  }
  struct Step {
    typename Loop::Timer* timer;
    double delay;
  };
  std::vector<Step> steps(1 << 16);
  for (auto& step : steps) {
    step = {timers[random() % count].get(), 10 + static_cast<double>(random() % 1000000) * 1e-3};
    if (later) step.delay = 2000;
  }
  std::size_t next = 0;
  for (auto _ : state) {
    Step const& step = steps[next++ % steps.size()];
    (step.timer->*arm)(step.delay);
  }
  state.SetItemsProcessed(state.iterations());
}
#define REARM(Loop, how, later) \
  BENCHMARK_TEMPLATE(BM_Rearm, Loop, &Loop::Timer::how, later)->Arg(1000)->Arg(100000)->Arg(1000000)
REARM(Ours, delay, false);
REARM(Libevent, delay, false);
REARM(Ours, delayByCachedTime, false);
REARM(Ours, delay, true);
REARM(Libevent, delay, true);

/// Timers that are all due when the loop gets to run; `spread` 0 gives them one and the same
/// delay, as restarts and virtual time do.
template <typename Loop, void (Loop::Timer::*arm)(double)>
void BM_FireDue(benchmark::State& state) {
  Loop loop;
  auto const count = static_cast<std::size_t>(state.range(0));
  double const spread = static_cast<double>(state.range(1)) * 1e-3;
  std::mt19937 random(1);
  std::size_t fired = 0;
  std::vector<std::unique_ptr<typename Loop::Timer>> timers;
  for (std::size_t i = 0; i < count; ++i) {
    timers.push_back(std::make_unique<typename Loop::Timer>(loop, [&] { ++fired; }));
  }
  for (auto _ : state) {
    auto const start = std::chrono::steady_clock::now();
    for (auto& timer : timers) {
      (*timer.*arm)(0.05 + spread * static_cast<double>(random() % 1000000) * 1e-6);
    }
    while (seconds(std::chrono::steady_clock::now() - start) < 0.1 + spread) {
    }
    auto const due = std::chrono::steady_clock::now();
    loop.run();
    state.SetIterationTime(seconds(std::chrono::steady_clock::now() - due));
  }
  if (fired != count * static_cast<std::size_t>(state.iterations())) {
    state.SkipWithError("timers were lost");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(fired));
}
#define FIRE_DUE(Loop, how)                               \
  BENCHMARK_TEMPLATE(BM_FireDue, Loop, &Loop::Timer::how) \
      ->Args({100000, 20})                                \
      ->Args({100000, 0})                                 \
      ->UseManualTime()                                   \
      ->Unit(benchmark::kMillisecond)                     \
      ->Iterations(5)
FIRE_DUE(Ours, delay);
FIRE_DUE(Ours, delayByCachedTime);
FIRE_DUE(Libevent, delay);

/// One byte there and one back between two descriptors of the same loop.
template <typename Loop>
void BM_RoundTrip(benchmark::State& state) {
  constexpr int kTrips = 100;
  Loop loop;
  ::rlimit limit{4096, 4096};
  ::setrlimit(RLIMIT_NOFILE, &limit);
  std::vector<std::unique_ptr<Pair>> pairs;
  std::vector<std::unique_ptr<typename Loop::Watch>> idle;
  for (int i = 0; i < state.range(0); ++i) {
    pairs.push_back(std::make_unique<Pair>());
    idle.push_back(std::make_unique<typename Loop::Watch>(loop, pairs.back()->ends[0], [] {}));
  }
  Pair pair;
  char byte = 'x';
  std::int64_t trips = 0;
  typename Loop::Watch there(loop, pair.ends[0], [&] {
    bool const ok = ::read(pair.ends[0], &byte, 1) == 1 && ::write(pair.ends[0], &byte, 1) == 1;
    if (!ok) std::abort();
  });
  typename Loop::Watch back(loop, pair.ends[1], [&] {
    if (::read(pair.ends[1], &byte, 1) != 1) std::abort();
    if (++trips % kTrips == 0) return loop.stop();
    if (::write(pair.ends[1], &byte, 1) != 1) std::abort();
  });
  for (auto _ : state) {
    if (::write(pair.ends[1], &byte, 1) != 1) std::abort();
    loop.run();
  }
  if (trips != kTrips * static_cast<std::int64_t>(state.iterations())) {
    state.SkipWithError("trips were lost");
  }
  state.SetItemsProcessed(trips);
}
BENCHMARK_TEMPLATE(BM_RoundTrip, Ours)->Arg(0)->Arg(1000);
BENCHMARK_TEMPLATE(BM_RoundTrip, Libevent)->Arg(0)->Arg(1000);

/// How long a descriptor that is ready waits for its reaction while zero-delay work of `task`
/// nanoseconds a call goes on for ever.
template <typename Loop>
void BM_ServiceUnderWork(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  std::chrono::nanoseconds const task(state.range(0));
  Loop loop;
  Pair pair;
  std::mt19937 random(1);
  std::vector<double> waits;
  Clock::time_point written{};
  char byte = 'x';
  unsigned countdown = 50;
  typename Loop::Timer work(loop);
  work.act = [&] {
    if (countdown != 0 && --countdown == 0) {
      if (::write(pair.ends[1], &byte, 1) != 1) std::abort();
      written = Clock::now();
    }
    if (task.count() != 0) {
      for (auto const end = Clock::now() + task; Clock::now() < end;) {
      }
    }
    work.again();
  };
  typename Loop::Watch watch(loop, pair.ends[0], [&] {
    waits.push_back(seconds(Clock::now() - written) * 1e9);
    if (::read(pair.ends[0], &byte, 1) != 1) std::abort();
    countdown = 1 + static_cast<unsigned>(random() % 500);
    loop.stop();
  });
  work.again();
  for (auto _ : state) loop.run();
  std::sort(waits.begin(), waits.end());
  state.counters["p50_ns"] = waits[waits.size() / 2];
  state.counters["p99_ns"] = waits[waits.size() * 99 / 100];
}
BENCHMARK_TEMPLATE(BM_ServiceUnderWork, Ours)->Arg(0)->Arg(1000);
BENCHMARK_TEMPLATE(BM_ServiceUnderWork, Libevent)->Arg(0)->Arg(1000);

}  // namespace
