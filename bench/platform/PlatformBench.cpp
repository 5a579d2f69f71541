// What the facade adds to the loop behind it: one workload a group, written once over a small
// adaptor for each way; each row checks that its work was done. Compare the rows of a group.
#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Kiv/ActivityManager.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/System.h"
#include "Veltro/LibeventFactoryCpp.h"
#include "Veltro/Platform.h"
#include "benchmark/benchmark.h"

namespace {

using Action = std::function<void()>;
using Veltro::Platform;

struct Handler : Platform::TimeoutHandler, Platform::FdEventHandler {
  explicit Handler(Action a) : action(std::move(a)) {}
  void timeout() override { action(); }
  void readFdEvent(int) override { action(); }
  void writeFdEvent(int) override {}
  Action action;
};

/// The calling thread's loop through the facade.
struct Facade {
  struct Timer : Handler {
    explicit Timer(Action a) : Handler(std::move(a)), control(Platform::getTimerControl(this)) {}
    void zeroDelay() { control->setTimeout(0); }
    void delay(double seconds) { control->setTimeout(seconds); }
    std::shared_ptr<Platform::TimerControl> control;
  };
  struct Watch : Handler {
    Watch(int fd, Action a) : Handler(std::move(a)), control(Platform::getFdControl(this)) {
      control->setReads(true);
      control->setFd(fd);
    }
    void stop() { control->delFd(); }
    std::shared_ptr<Platform::FdControl> control;
  };
  static void run() { Platform::doEventLoop(); }
};

struct BareKiv {
  struct Timer final : Kiv::Clock::Notifiee {
    explicit Timer(Action a)
        : Notifiee(Kiv::ActivityManager::instance().config().clock()), action(std::move(a)) {}
    ~Timer() override = default;
    void onTime() override { action(); }
    void zeroDelay() { timeMinIsNow(); }
    void delay(double seconds) { timeMinIs(Kiv::System::currentTime() + seconds); }
    Action action;
  };
  struct Watch final : Kiv::FileDescriptor::Notifiee {
    Watch(int fd, Action a)
        : Notifiee(Kiv::allocate<Kiv::FileDescriptor>("bench")), action(std::move(a)) {
      notifier().notifyOnReadableIs(true);
      notifier().descriptorIs(fd);
    }
    ~Watch() override = default;
    void onReadableCount() override { action(); }
    void stop() { notifier().descriptorIs(-1); }
    Action action;
  };
  static void run() { Kiv::System::doRun(); }
};

struct BareLibevent {
  static event_base* base() {
    static event_base* const made = event_base_new();
    return made;
  }
  static void call(evutil_socket_t, short, void* action) { (*static_cast<Action*>(action))(); }
  struct Timer {
    explicit Timer(Action a) : action(std::move(a)) { evtimer_assign(&ev, base(), &call, &action); }
    ~Timer() { event_del(&ev); }
    void zeroDelay() { delay(0); }
    void delay(double seconds) {
      auto const whole = static_cast<int>(seconds);
      timeval const t{whole, static_cast<int>((seconds - whole) * 1000000)};
      event_add(&ev, &t);
    }
    Action action;
    event ev;
  };
  struct Watch {
    Watch(int fd, Action a) : action(std::move(a)) {
      event_assign(&ev, base(), fd, EV_READ | EV_PERSIST, &call, &action);
      event_add(&ev, nullptr);
    }
    ~Watch() { stop(); }
    void stop() { event_del(&ev); }
    Action action;
    event ev;
  };
  static void run() { event_base_dispatch(base()); }
};

/// One timer that arms itself anew with no delay: what a busy agent's pass costs.
template <typename Loop>
void zeroDelay(benchmark::State& state) {
  constexpr int kPasses = 10000;
  int left = 0;
  std::unique_ptr<typename Loop::Timer> timer;
  auto* const made = new typename Loop::Timer([&] {
    if (--left > 0) timer->zeroDelay();
  });
  timer.reset(made);
  for (auto _ : state) {
    left = kPasses;
    timer->zeroDelay();
    Loop::run();
    if (left != 0) state.SkipWithError("passes were lost");
  }
  state.SetItemsProcessed(state.iterations() * kPasses);
}

/// Moving a timer that does not fire: a request's time limit.
template <typename Loop>
void rearm(benchmark::State& state) {
  typename Loop::Timer timer([&] { state.SkipWithError("fired"); });
  double seconds = 1000;
  for (auto _ : state) timer.delay(seconds += 0.25);
  timer.delay(1e6);
}

/// A byte to and fro over a socket pair, both ends watched.
template <typename Loop>
void roundTrip(benchmark::State& state) {
  constexpr int kTrips = 1000;
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) {
    return state.SkipWithError("no socket pair");
  }
  auto const pass = [](int fd) {
    char byte;
    return ::read(fd, &byte, 1) == 1 && ::write(fd, &byte, 1) == 1;
  };
  int trips = 0;
  for (auto _ : state) {
    trips = 0;
    std::unique_ptr<typename Loop::Watch> here, there;
    there.reset(new typename Loop::Watch(ends[1], [&] { pass(ends[1]); }));
    here.reset(new typename Loop::Watch(ends[0], [&] {
      if (++trips < kTrips) {
        pass(ends[0]);
        return;
      }
      char byte;
      if (::read(ends[0], &byte, 1) != 1) trips = -1;
      here->stop();
      there->stop();
    }));
    if (::write(ends[0], "x", 1) != 1) trips = -1;
    Loop::run();
    if (trips != kTrips) state.SkipWithError("round trips were lost");
  }
  state.SetItemsProcessed(state.iterations() * kTrips);
  ::close(ends[0]);
  ::close(ends[1]);
}

/// On a thread whose facade stands on libevent.
template <void (*Benchmark)(benchmark::State&)>
void onWorker(benchmark::State& state) {
  Veltro::useThreadLocalSingletons();
  std::thread([&] {
    Benchmark(state);
    Veltro::leFree();
  }).join();
}

template <void (*OnFacade)(benchmark::State&), void (*OnKiv)(benchmark::State&),
          void (*OnLibevent)(benchmark::State&)>
void group(std::string const& name) {
  auto const add = [&](char const* way, void (*function)(benchmark::State&)) {
    benchmark::RegisterBenchmark((name + "/" + way).c_str(), function)->UseRealTime();
  };
  add("facade", OnFacade);
  add("bare libkiv", OnKiv);
  add("facade on libevent", &onWorker<OnFacade>);
  add("bare libevent", OnLibevent);
}

int registered = [] {
  group<&zeroDelay<Facade>, &zeroDelay<BareKiv>, &zeroDelay<BareLibevent>>("zero delay");
  group<&rearm<Facade>, &rearm<BareKiv>, &rearm<BareLibevent>>("re-arm");
  group<&roundTrip<Facade>, &roundTrip<BareKiv>, &roundTrip<BareLibevent>>("round trip");
  return 0;
}();

}  // namespace
