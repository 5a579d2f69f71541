// What one run of a task costs: the whole road through scheduler and loop, beside the same
// scheduler on other loops and beside a bare mechanism that keeps no books.
#include <event2/event.h>

#include <chrono>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "Veltro/LibeventFactoryCpp.h"
#include "bench/Harness.h"
#include "bench/PeerRoot.h"
#include "bench/SocketPair.h"
#include "bench/loops/Asio.h"
#include "bench/loops/Glib.h"
#include "bench/loops/Libev.h"
#include "bench/loops/Libevent.h"
#include "bench/loops/Libuv.h"
#include "bench/loops/Ours.h"

namespace bench {
namespace {
using Veltro::TaskPriority;

constexpr long kRuns = 50000;

// Where a scheduler may live: a root, and the loop that drives it.

struct OnMainLoop {
  FacadeLoop loop;
  IdleWatch<FacadeLoop> idle{loop};
  std::shared_ptr<Veltro::TaskSchedulerRoot> root = Veltro::schedulerRootVeltroNonShared("bench");
  void run() { loop.run(); }
  void stop() { loop.stop(); }
};

/// The facade on a worker thread, which stands on libevent.
struct OnWorkersLoop {
  OnWorkersLoop() { Veltro::leRegisterBase(base); }
  OnWorkersLoop(OnWorkersLoop const&) = delete;
  ~OnWorkersLoop() {
    root.reset();
    idle.reset();
    Veltro::leFree();
  }
  event_base* const base = event_base_new();
  FacadeLoop loop;
  std::unique_ptr<IdleWatch<FacadeLoop>> idle;
  std::shared_ptr<Veltro::TaskSchedulerRoot> root;
  void run() { Veltro::Platform::doEventLoop(); }
  void stop() { event_base_loopbreak(base); }
};

template <class Loop>
struct On {
  Loop loop;
  IdleWatch<Loop> idle{loop};
  std::shared_ptr<RootOn<Loop>> root = std::make_shared<RootOn<Loop>>(loop);
  void run() { loop.run(); }
  void stop() { loop.stop(); }
};

struct OnNoLoop {
  std::shared_ptr<LooplessRoot> root = std::make_shared<LooplessRoot>();
  void run() { root->run(); }
  void stop() { root->stop(); }
};

/// Queues itself again until the common count is used up.
template <class Place>
class Spinner final : public Veltro::Task {
 public:
  Spinner(Place& place, long& left)
      : Task(place.root, TaskPriority::normal, "spinner"), place_(place), left_(left) {}

 private:
  void taskExecute() override {
    if (--left_ == 0) return place_.stop();
    scheduleTask();
  }
  Place& place_;
  long& left_;
};

/// `runs` runs, shared among `tasks` that all queue themselves.
template <class Place>
double spin(Place& place, long tasks, long runs) {
  long left = 0;
  std::vector<std::shared_ptr<Spinner<Place>>> spinners;
  for (long i = 0; i < tasks; ++i) {
    spinners.push_back(std::make_shared<Spinner<Place>>(place, left));
    spinners.back()->scheduleTask();
  }
  left = tasks + 1000;  // warm: everybody has run once
  place.run();
  if (tasks == 1) spinners.front()->scheduleTask();
  left = runs;
  double const cost = nanosecondsEach(runs, [&] { place.run(); });
  check(left == 0, "runs were lost");
  return cost;
}

template <class Place>
double oneTask() {
  Place place;
  return spin(place, 1, kRuns);
}

double onWorker(double (*measure)()) {
  Veltro::useThreadLocalSingletons();
  double cost = 0;
  std::exception_ptr failure;
  std::thread([&] {
    try {
      cost = measure();
    } catch (...) {
      failure = std::current_exception();
    }
  }).join();
  if (failure) std::rethrow_exception(failure);
  return cost;
}

double workersTask() {
  OnWorkersLoop place;
  place.idle = std::make_unique<IdleWatch<FacadeLoop>>(place.loop);
  place.root = Veltro::schedulerRootVeltroNonShared("bench");
  return spin(place, 1, kRuns);
}

double threeClockReads() {
  return nanosecondsEach(kRuns, [] {
    for (long i = 0; i < kRuns; ++i) {
      for (int j = 0; j < 3; ++j) keep(std::chrono::steady_clock::now().time_since_epoch().count());
    }
  });
}

/// Something that asks to be called again at once, and no more.
template <class Loop>
struct BareSpinner : Loop::template Again<BareSpinner<Loop>> {
  explicit BareSpinner(Loop& l) : Loop::template Again<BareSpinner<Loop>>(l), loop(l) {}
  void called() {
    if (--left == 0) return loop.stop();
    this->again();
  }
  Loop& loop;
  long left = 0;
};

template <class Loop>
double callMeAgain() {
  Loop loop;
  IdleWatch<Loop> idle(loop);
  BareSpinner<Loop> spinner(loop);
  auto const run = [&](long calls) {
    spinner.left = calls;
    spinner.again();
    loop.run();
    check(spinner.left == 0, "calls were lost");
  };
  run(1000);
  return nanosecondsEach(kRuns, [&] { run(kRuns); });
}

double oneTaskBesideArmedTimers(long timers) {
  struct Idle final : Veltro::TimerTask {
    explicit Idle(OnMainLoop& place) : TimerTask(place.root, TaskPriority::low, "idle") {}
    void taskExecute() override { std::abort(); }
  };
  OnMainLoop place;
  std::vector<std::shared_ptr<Idle>> idle;
  for (long i = 0; i < timers; ++i) {
    idle.push_back(std::make_shared<Idle>(place));
    idle.back()->scheduleTaskDelay(10000.0 + static_cast<double>(i));
  }
  return spin(place, 1, kRuns);
}

double manyTasks(long tasks) {
  OnMainLoop place;
  return spin(place, tasks, std::max(kRuns, 2 * tasks));
}

Row taskRun() {
  return {"task run",
          "ns",
          {{"on our main loop", &oneTask<OnMainLoop>},
           {"three clock reads", &threeClockReads},
           {"on Asio", &oneTask<On<AsioLoop>>},
           {"on libuv", &oneTask<On<LibuvLoop>>},
           {"on libev", &oneTask<On<LibevLoop>>},
           {"on libevent's timer", &oneTask<On<LibeventLoop>>},
           {"on GLib", &oneTask<On<GlibLoop>>},
           {"bare asio::post", &callMeAgain<AsioLoop>},
           {"without a loop", &oneTask<OnNoLoop>}},
          {atMost(2.2, "on our main loop", "three clock reads"),
           atMost(0.6, "on our main loop", "on Asio"), atMost(0.5, "on our main loop", "on libuv"),
           atMost(byWidth(1.35, 1.1), "on our main loop", "bare asio::post")}};
}

Row taskRunAmongMany() {
  return {"task run among many",
          "ns",
          {{"one task", [] { return manyTasks(1); }},
           {"one, 100,000 armed timers", [] { return oneTaskBesideArmedTimers(100000); }},
           {"1,000 tasks", [] { return manyTasks(1000); }},
           {"100,000 tasks", [] { return manyTasks(100000); }}},
          {atMost(1.1, "one, 100,000 armed timers", "one task"),
           atMost(1.1, "1,000 tasks", "one task"), atMost(1.1, "100,000 tasks", "one task")}};
}

Row workersTaskRun() {
  return {"task run on a worker",
          "ns",
          {{"on our worker's loop", [] { return onWorker(&workersTask); }},
           {"on libevent's re-assigned timer", &oneTask<On<LibeventReassignedLoop>>}},
          {atMost(1.1, "on our worker's loop", "on libevent's re-assigned timer")}};
}

Row zeroDelay() {
  return {"zero delay",
          "ns",
          {{"our loop", &callMeAgain<KivLoop>},
           {"our facade", &callMeAgain<FacadeLoop>},
           {"libuv idle", &callMeAgain<LibuvLoop>},
           {"libevent active event, bounded", &callMeAgain<LibeventActiveLoop>},
           {"libevent timer", &callMeAgain<LibeventLoop>},
           {"libev idle", &callMeAgain<LibevLoop>},
           {"asio::post", &callMeAgain<AsioLoop>},
           {"GLib source", &callMeAgain<GlibLoop>}},
          {atMost(0.2, "our loop", "libuv idle"),
           atMost(1.0, "our loop", "libevent active event, bounded"),
           atMost(1.5, "our facade", "our loop")}};
}

Curve taskGrowth() {
  return {"task run",
          "tasks that all queue themselves",
          {1, 10, 100, 1000, 10000, 100000},
          {{"on our main loop", &manyTasks},
           {"on Asio",
            [](long tasks) {
              On<AsioLoop> place;
              return spin(place, tasks, std::max(kRuns, 2 * tasks));
            }},
           {"on libuv", [](long tasks) {
              On<LibuvLoop> place;
              return spin(place, tasks, std::max(kRuns, 2 * tasks));
            }}}};
}
}  // namespace

Suite taskRows() {
  return {{taskRun(), taskRunAmongMany(), workersTaskRun(), zeroDelay()}, {taskGrowth()}};
}

}  // namespace bench
