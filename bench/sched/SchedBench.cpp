// What a task costs: runs per second through the event loop, beside the bare mechanisms of two
// loops that keep no books, and beside this scheduler on one of them.
//
// Every benchmark counts the runs that it asked for and fails if one is missing.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/System.h"
#include "Veltro/LibeventFactoryCpp.h"
#include "Veltro/TaskSchedulerCpp.h"

namespace Veltro {
namespace {
using namespace std::chrono_literals;
constexpr int kRuns = 10000;  // in one turn of the loop

// Roots

/// Runs on demand, with no loop at all: what the scheduler itself costs.
class LooplessRoot : public TaskSchedulerRoot {
 public:
  LooplessRoot() : TaskSchedulerRoot("loopless", 0ns) {}
  virtual void run() {
    while (requested_) {
      requested_ = false;
      handleSchedulerRun();
    }
  }
  void requestSchedulerRun() override { requested_ = true; }
  bool timerStart(TimerTask&, double, bool) override { return true; }
  bool timerStart(TimerTask&, Nanoseconds, bool) override { return true; }
  void timerStop(TimerTask&) override {}
  double timerRemaining(TimerTask const&) const override { return 0; }
  TimePoint timerExpiry(TimerTask const&) const override { return TimePoint::max(); }
  void fileDescriptorTaskWatchReadableIs(FileDescriptorTask&, bool) override {}
  void fileDescriptorTaskWatchWritableIs(FileDescriptorTask&, bool) override {}
  int fileDescriptorTaskFd(FileDescriptorTask const&) const override { return -1; }
  void fileDescriptorTaskFdIs(FileDescriptorTask&, int) override {}
  void fileDescriptorTaskFdDel(FileDescriptorTask&) override {}
  void preFdCloseCleanup(FileDescriptorTask&) override {}

 private:
  bool requested_ = false;
};

/// A context that asks for ready descriptors and timers between handlers, which it does only once
/// it has had one of either.
struct AsioLoop {
  boost::asio::io_context context{1};
  boost::asio::steady_timer timer{context};
};

/// The same scheduler on Boost.Asio's "as soon as possible".
class AsioRoot final : public LooplessRoot {
 public:
  void requestSchedulerRun() override {
    boost::asio::post(loop_.context, [this] { handleSchedulerRun(); });
  }
  void run() override {
    loop_.context.restart();
    loop_.context.run();
  }

 private:
  AsioLoop loop_;
};

/// The same scheduler on a bare libevent timer.
class LibeventRoot final : public LooplessRoot {
 public:
  LibeventRoot() { event_assign(&event_, base_.get(), -1, 0, &fired, this); }
  ~LibeventRoot() override { event_del(&event_); }
  void requestSchedulerRun() override {
    timeval const zero{};
    event_add(&event_, &zero);
  }
  void run() override { event_base_loop(base_.get(), 0); }

 private:
  static void fired(evutil_socket_t, short, void* root) {
    static_cast<LibeventRoot*>(root)->handleSchedulerRun();
  }
  std::unique_ptr<event_base, decltype(&event_base_free)> base_{event_base_new(), event_base_free};
  event event_;
};

// Tasks

/// Queues itself again until the common count is used up.
class Spinner final : public Task {
 public:
  Spinner(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, int& left)
      : Task(std::move(scheduler), priority, "spinner"), left_(left) {}

 private:
  void taskExecute() override {
    if (--left_ > 0) scheduleTask();
  }
  int& left_;
};

/// Spins `count` tasks over the given priorities, kRuns in all, once an iteration.
void spin(benchmark::State& state, std::shared_ptr<TaskScheduler> const& scheduler, unsigned count,
          std::vector<TaskPriority> const& priorities, std::function<void()> const& loop) {
  int left = 0;
  std::vector<std::shared_ptr<Spinner>> tasks;
  for (unsigned i = 0; i < count; ++i) {
    tasks.push_back(std::make_shared<Spinner>(scheduler, priorities[i % priorities.size()], left));
  }
  std::int64_t runs = 0;
  for (auto _ : state) {
    left = kRuns;
    for (auto const& task : tasks) task->scheduleTask();
    loop();
    runs += kRuns - left;  // those still queued at the end run once more each
  }
  if (runs < kRuns * state.iterations()) state.SkipWithError("runs were lost");
  state.SetItemsProcessed(runs);
}

void mainLoop() { Platform::doEventLoop(); }

void BM_SteadyClockReadsThree(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < 3; ++i) benchmark::DoNotOptimize(std::chrono::steady_clock::now());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SteadyClockReadsThree);

void BM_TaskOnMainLoop(benchmark::State& state) {
  spin(state, schedulerRootVeltro(), static_cast<unsigned>(state.range(0)), {TaskPriority::normal},
       mainLoop);
}
BENCHMARK(BM_TaskOnMainLoop)->Arg(1)->Arg(1000);

void BM_TaskOnMainLoopFivePriorities(benchmark::State& state) {
  spin(state, schedulerRootVeltro(), 1000,
       {TaskPriority::absolute, TaskPriority::high, TaskPriority::normal, TaskPriority::low,
        TaskPriority::scavenge},
       mainLoop);
}
BENCHMARK(BM_TaskOnMainLoopFivePriorities);

void BM_TaskOnWorkersLoop(benchmark::State& state) {
  useThreadLocalSingletons();
  std::thread([&] {
    spin(state, schedulerRootVeltro(), 1, {TaskPriority::normal}, mainLoop);
    leFree();
  }).join();
}
BENCHMARK(BM_TaskOnWorkersLoop);

template <class Root>
void BM_TaskOn(benchmark::State& state) {
  auto const root = std::make_shared<Root>();
  spin(state, root, 1, {TaskPriority::normal}, [&] { root->run(); });
}
BENCHMARK_TEMPLATE(BM_TaskOn, LooplessRoot);
BENCHMARK_TEMPLATE(BM_TaskOn, AsioRoot);
BENCHMARK_TEMPLATE(BM_TaskOn, LibeventRoot);

void BM_TaskWith100kArmedTimers(benchmark::State& state) {
  struct Idle final : TimerTask {
    Idle() : TimerTask(schedulerRootVeltro(), TaskPriority::low, "idle") {}
    void taskExecute() override {}
  };
  std::vector<std::shared_ptr<Idle>> idle;
  for (int i = 0; i < 100000; ++i) {
    idle.push_back(std::make_shared<Idle>());
    idle.back()->scheduleTaskDelay(10000.0 + i);
  }
  struct Last final : Task {
    explicit Last(int& l) : Task(schedulerRootVeltro(), TaskPriority::normal, "last"), left(l) {}
    void taskExecute() override {
      if (--left > 0) {
        scheduleTask();
      } else {
        Kiv::System::doStop();  // the timers would keep the loop waiting
      }
    }
    int& left;
  };
  int left = 0;
  auto const task = std::make_shared<Last>(left);
  for (auto _ : state) {
    left = kRuns;
    task->scheduleTask();
    Platform::doEventLoop();
    if (left != 0) state.SkipWithError("runs were lost");
  }
  state.SetItemsProcessed(state.iterations() * kRuns);
}
BENCHMARK(BM_TaskWith100kArmedTimers);

// The bare mechanisms

void BM_BareAsioPost(benchmark::State& state) {
  struct Poster {
    boost::asio::io_context& context;
    int& left;
    void operator()() const {
      if (--left != 0) boost::asio::post(context, *this);
    }
  };
  AsioLoop loop;
  int left = 0;
  for (auto _ : state) {
    left = kRuns;
    boost::asio::post(loop.context, Poster{loop.context, left});
    loop.context.restart();
    loop.context.run();
    if (left != 0) state.SkipWithError("runs were lost");
  }
  state.SetItemsProcessed(state.iterations() * kRuns);
}
BENCHMARK(BM_BareAsioPost);

struct BareEvent {
  event ev;
  int left;
};

void bareLibevent(benchmark::State& state, void (*again)(BareEvent&)) {
  static void (*rearm)(BareEvent&);
  rearm = again;
  std::unique_ptr<event_base, decltype(&event_base_free)> const base(event_base_new(),
                                                                     event_base_free);
  BareEvent bare{};
  event_assign(
      &bare.ev, base.get(), -1, 0,
      [](evutil_socket_t, short, void* arg) {
        auto& self = *static_cast<BareEvent*>(arg);
        if (--self.left != 0) rearm(self);
      },
      &bare);
  for (auto _ : state) {
    bare.left = kRuns;
    rearm(bare);
    event_base_loop(base.get(), 0);
    if (bare.left != 0) state.SkipWithError("runs were lost");
  }
  state.SetItemsProcessed(state.iterations() * kRuns);
}
void BM_BareLibeventTimer(benchmark::State& state) {
  bareLibevent(state, [](BareEvent& bare) {
    timeval const zero{};
    event_add(&bare.ev, &zero);
  });
}
BENCHMARK(BM_BareLibeventTimer);
// Shown, but no yardstick: it comes back to timers and descriptors only when all is done.
void BM_BareLibeventActive(benchmark::State& state) {
  bareLibevent(state, [](BareEvent& bare) { event_active(&bare.ev, EV_TIMEOUT, 0); });
}
BENCHMARK(BM_BareLibeventActive);

// Timers

void BM_TimerTaskRearmed(benchmark::State& state) {
  struct Idle final : TimerTask {
    Idle() : TimerTask(schedulerRootVeltro(), TaskPriority::low, "idle") {}
    void taskExecute() override {}
  };
  std::vector<std::shared_ptr<Idle>> timers;
  for (std::int64_t i = 0; i < state.range(0); ++i) timers.push_back(std::make_shared<Idle>());
  std::size_t next = 0;
  double delay = 1000;
  for (auto _ : state) {
    timers[next]->scheduleTaskDelay(delay);
    next = next + 1 == timers.size() ? 0 : next + 1;
    delay = delay > 2000 ? 1000 : delay + 0.37;
  }
  for (auto const& timer : timers) {
    if (state.iterations() > state.range(0) && !timer->timerRunning()) {
      state.SkipWithError("a timer was lost");
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimerTaskRearmed)->Arg(1000);

void BM_BareAsioTimerRearmed(benchmark::State& state) {
  boost::asio::io_context context(1);
  std::vector<boost::asio::steady_timer> timers;
  for (std::int64_t i = 0; i < state.range(0); ++i) timers.emplace_back(context);
  std::size_t next = 0;
  std::chrono::milliseconds delay{1000000};
  for (auto _ : state) {
    timers[next].expires_after(delay);
    timers[next].async_wait([](boost::system::error_code const&) {});
    next = next + 1 == timers.size() ? 0 : next + 1;
    delay = delay.count() > 2000000 ? 1000000ms : delay + 370ms;
    if (next == 0) context.poll();  // the cancelled ones are called, as they would be
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareAsioTimerRearmed)->Arg(1000);

// Descriptors

struct SocketPair {
  SocketPair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0) std::abort();
  }
  ~SocketPair() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  SocketPair(SocketPair const&) = delete;
  SocketPair& operator=(SocketPair const&) = delete;
  int fd[2];
};

/// Reads a byte and writes it back, until the common count is used up.
class Player final : public FileDescriptorTask {
 public:
  Player(int fd, int& left)
      : FileDescriptorTask(schedulerRootVeltro(), TaskPriority::high, "player"),
        fd_(fd),
        left_(left) {
    taskWatchFdIs(fd);
    taskWatchReadableIs(true);
  }

 private:
  void taskExecuteReadable() override {
    char c;
    if (::read(fd_, &c, 1) != 1) return;
    if (left_-- == 0) {
      Kiv::System::doStop();  // the end of the game
      return;
    }
    if (::write(fd_, &c, 1) != 1) std::abort();
  }
  void taskExecuteWritable() override {}
  int const fd_;
  int& left_;
};

/// Items are round trips: two task runs and four calls for them.
void BM_DescriptorTaskRoundTrip(benchmark::State& state) {
  SocketPair const pair;
  int left = 0;
  auto const first = std::make_shared<Player>(pair.fd[0], left);
  auto const second = std::make_shared<Player>(pair.fd[1], left);
  for (auto _ : state) {
    left = 2 * kRuns;
    if (::write(pair.fd[0], "x", 1) != 1) std::abort();
    Platform::doEventLoop();
    if (left != -1) state.SkipWithError("the ball was lost");
  }
  state.SetItemsProcessed(state.iterations() * kRuns);
}
BENCHMARK(BM_DescriptorTaskRoundTrip);

void BM_BareLibeventRoundTrip(benchmark::State& state) {
  SocketPair const pair;
  std::unique_ptr<event_base, decltype(&event_base_free)> const base(event_base_new(),
                                                                     event_base_free);
  struct Game {
    event_base* base;
    int left;
  } game{base.get(), 0};
  auto const play = [](evutil_socket_t fd, short, void* arg) {
    Game& g = *static_cast<Game*>(arg);
    char c;
    if (::read(fd, &c, 1) != 1) return;
    if (g.left == 0) {
      event_base_loopbreak(g.base);
      return;
    }
    --g.left;
    if (::write(fd, &c, 1) != 1) std::abort();
  };
  event events[2];
  for (int i = 0; i < 2; ++i) {
    event_assign(&events[i], base.get(), pair.fd[i], EV_READ | EV_PERSIST, play, &game);
    event_add(&events[i], nullptr);
  }
  for (auto _ : state) {
    game.left = 2 * kRuns;
    if (::write(pair.fd[0], "x", 1) != 1) std::abort();
    event_base_loop(base.get(), 0);
    if (game.left != 0) state.SkipWithError("the ball was lost");
  }
  for (event& ev : events) event_del(&ev);
  state.SetItemsProcessed(state.iterations() * kRuns);
}
BENCHMARK(BM_BareLibeventRoundTrip);

// Parts of the road

void BM_TaskShouldYield(benchmark::State& state) {
  struct Asker final : Task {
    Asker(std::shared_ptr<TaskScheduler> s, benchmark::State& st)
        : Task(std::move(s), TaskPriority::normal, "asker"), state(st) {}
    void taskExecute() override {
      bool yield = false;
      for (auto _ : state) yield = taskShouldYield() || yield;
      benchmark::DoNotOptimize(yield);
    }
    benchmark::State& state;
  };
  auto const root = std::make_shared<LooplessRoot>();
  auto const task = std::make_shared<Asker>(root, state);
  task->scheduleTask();
  root->run();
  if (task->taskRunCount() != 1) state.SkipWithError("did not run");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TaskShouldYield);
}  // namespace
}  // namespace Veltro
