// Descriptors: a byte there and back, and how long a ready one waits while tasks go on for ever.
#include <sys/epoll.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "Veltro/TaskSchedulerCpp.h"
#include "bench/Child.h"
#include "bench/Harness.h"
#include "bench/SocketPair.h"
#include "bench/loops/Asio.h"
#include "bench/loops/Glib.h"
#include "bench/loops/Libev.h"
#include "bench/loops/Libevent.h"
#include "bench/loops/Libuv.h"
#include "bench/loops/Ours.h"

namespace bench {
namespace {
constexpr long kTrips = 5000;

/// Descriptors that are watched and never ready: copies of one that never is.
template <class Loop>
struct IdleWatches {
  IdleWatches(Loop& loop, long count) {
    for (long i = 0; i < count; ++i) {
      numbers.push_back(::dup(pair.end[0]));
      check(numbers.back() >= 0, "too few descriptors allowed");
      watches.emplace_back(loop, numbers.back());
    }
  }
  IdleWatches(IdleWatches const&) = delete;
  ~IdleWatches() {
    watches.clear();
    for (int fd : numbers) ::close(fd);
  }
  SocketPair pair;
  std::vector<int> numbers;
  std::deque<typename IdleWatch<Loop>::Silent> watches;
};

struct Game {
  SocketPair pair;
  long left = 0;  // hits
};

/// One end of the game: hits the ball back until the count is used up.
template <class Loop>
struct Player : Loop::template Watch<Player<Loop>> {
  Player(Loop& l, Game& g, int w)
      : Loop::template Watch<Player<Loop>>(l, g.pair.end[w]), loop(l), game(g), which(w) {}
  void ready() {
    game.pair.take(which);
    if (--game.left == 0) return loop.stop();
    game.pair.put(which);
  }
  Loop& loop;
  Game& game;
  int const which;
};

template <class Run>
double play(Game& game, Run&& run) {
  auto const trips = [&](long count) {
    game.left = 2 * count;
    game.pair.put(0);
    run();
    check(game.left == 0, "the ball was lost");
  };
  trips(100);
  return nanosecondsEach(kTrips, [&] { trips(kTrips); });
}

template <class Loop>
double roundTrip(long idle) {
  Loop loop;
  IdleWatches<Loop> idleWatches(loop, idle);
  Game game;
  Player<Loop> first(loop, game, 0);
  Player<Loop> second(loop, game, 1);
  return play(game, [&] { loop.run(); });
}

/// The six system calls of a round trip, and nothing else.
struct BareCalls {
  template <class Body>
  struct Watch {
    Watch(BareCalls& calls, int fd) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.ptr = this;
      check(epoll_ctl(calls.epoll, EPOLL_CTL_ADD, fd, &event) == 0, "not watched");
    }
    Watch(Watch const&) = delete;
  };
  BareCalls() = default;
  BareCalls(BareCalls const&) = delete;
  ~BareCalls() { ::close(epoll); }
  void stop() { stopped = true; }
  void run() {
    for (stopped = false; !stopped;) {
      epoll_event events[64];
      int const count = epoll_wait(epoll, events, 64, -1);
      for (int i = 0; i < count; ++i) static_cast<Player<BareCalls>*>(events[i].data.ptr)->ready();
    }
  }
  int const epoll = epoll_create1(EPOLL_CLOEXEC);
  bool stopped = false;
};

class TaskPlayer final : public Veltro::FileDescriptorTask {
 public:
  TaskPlayer(std::shared_ptr<Veltro::TaskScheduler> scheduler, FacadeLoop& loop, Game& game,
             int which)
      : FileDescriptorTask(std::move(scheduler), Veltro::TaskPriority::normal, "player"),
        loop_(loop),
        game_(game),
        which_(which) {
    taskWatchFdIs(game.pair.end[which]);
    taskWatchReadableIs(true);
  }

 private:
  void taskExecuteReadable() override {
    game_.pair.take(which_);  // stops the program where a run comes for nothing
    if (--game_.left == 0) return loop_.stop();
    game_.pair.put(which_);
  }
  void taskExecuteWritable() override {}
  FacadeLoop& loop_;
  Game& game_;
  int const which_;
};

double taskRoundTrip() {
  FacadeLoop loop;
  auto const root = Veltro::schedulerRootVeltroNonShared("bench");
  Game game;
  auto const first = std::make_shared<TaskPlayer>(root, loop, game, 0);
  auto const second = std::make_shared<TaskPlayer>(root, loop, game, 1);
  return play(game, [&] { loop.run(); });
}

/// Two runs of a task that queues itself: what the yardstick adds to the bare round trip.
double twoTaskRuns() {
  constexpr long kRuns = 50000;
  struct Spinner final : Veltro::Task {
    Spinner(std::shared_ptr<Veltro::TaskScheduler> s, FacadeLoop& l)
        : Task(std::move(s), Veltro::TaskPriority::normal, "spinner"), loop(l) {}
    void taskExecute() override {
      if (--left == 0) return loop.stop();
      scheduleTask();
    }
    FacadeLoop& loop;
    long left = kRuns;
  };
  FacadeLoop loop;
  IdleWatch<FacadeLoop> idle(loop);
  auto const task = std::make_shared<Spinner>(Veltro::schedulerRootVeltroNonShared("bench"), loop);
  task->scheduleTask();
  double const cost = nanosecondsEach(kRuns / 2, [&] { loop.run(); });
  check(task->left == 0, "runs were lost");
  return cost;
}

template <class Loop>
Variant tripping(char const* name, long idle) {
  return {name, [idle] { return roundTrip<Loop>(idle); }};
}

Row roundTrips(char const* name, long idle) {
  return {name,
          "ns",
          {tripping<KivLoop>("our loop", idle), tripping<FacadeLoop>("our facade", idle),
           tripping<LibeventLoop>("libevent", idle), tripping<LibevLoop>("libev", idle),
           tripping<LibuvLoop>("libuv", idle), tripping<AsioLoop>("Asio", idle),
           tripping<BareCalls>("bare calls", idle)},
          {atMostBest(1.05, "our loop", {"libevent", "libev", "libuv", "Asio"}),
           atMost(1.12, "our loop", "bare calls")}};
}

template <class Trip>
Variant counting(char const* name, Trip const& trip) {
  return {name, [trip] { return static_cast<double>(systemCallsMeasured(trip)) / kTrips; }};
}

Row systemCalls() {
  return {"round trip, system calls",
          "calls",
          {counting("our loop", [] { return roundTrip<KivLoop>(0); }),
           counting("our facade", [] { return roundTrip<FacadeLoop>(0); }),
           counting("descriptor tasks", &taskRoundTrip),
           counting("libevent", [] { return roundTrip<LibeventLoop>(0); }),
           counting("Asio", [] { return roundTrip<AsioLoop>(0); }),
           counting("bare calls", [] { return roundTrip<BareCalls>(0); })},
          {atMost(6, "our loop"), atMost(6, "our facade"), atMost(6, "descriptor tasks")},
          true};
}

Row taskRoundTrips() {
  Goal goal{"descriptor tasks",
            1.0,
            "x (round trip + two task runs)",
            {{{1, "round trip in our loop"}, {1, "two task runs"}}, Reference::Of::sum}};
  return {"descriptor task round trip",
          "ns",
          {{"descriptor tasks", &taskRoundTrip},
           {"round trip in our loop", [] { return roundTrip<KivLoop>(0); }},
           {"two task runs", &twoTaskRuns}},
          {goal}};
}

// Readiness while work goes on for ever

constexpr long kWorkers = 1000;
constexpr auto kWork = std::chrono::microseconds(1);
constexpr std::size_t kWaits = 200;

void work() {
  using Clock = std::chrono::steady_clock;
  for (auto const end = Clock::now() + kWork; Clock::now() < end;) {
  }
}

/// A byte is written by one of the tasks now and then, and its handler says how long it took. In
/// processor time: what others do on this machine does not count.
struct Stopwatch {
  SocketPair pair;
  std::mt19937 random{1};
  std::vector<double> waits;
  double written = 0;
  double const readingCost = nanosecondsEach(1000, [] {
    for (int i = 0; i < 1000; ++i) processorTime();
  });
  unsigned countdown = 2000;  // runs up to the next byte; everybody has run by the first

  void maybeWrite() {
    if (countdown == 0 || --countdown != 0) return;
    pair.put(1);
    written = processorTime();
  }
  /// True when there are enough.
  bool arrived() {
    waits.push_back(processorTime() - written - readingCost);
    pair.take(0);
    countdown = 1 + static_cast<unsigned>(random() % 500);
    return waits.size() == kWaits;
  }
  double p99Microseconds() {
    check(waits.size() == kWaits, "bytes were lost");
    std::sort(waits.begin(), waits.end());
    return waits[kWaits * 99 / 100] * 1e-3;
  }
};

template <class Loop>
struct Listener : Loop::template Watch<Listener<Loop>> {
  Listener(Loop& l, Stopwatch& w)
      : Loop::template Watch<Listener<Loop>>(l, w.pair.end[0]), loop(l), stopwatch(w) {}
  void ready() {
    if (stopwatch.arrived()) loop.stop();
  }
  Loop& loop;
  Stopwatch& stopwatch;
};

template <class Loop>
struct BareWorker : Loop::template Again<BareWorker<Loop>> {
  BareWorker(Loop& loop, Stopwatch& w)
      : Loop::template Again<BareWorker<Loop>>(loop), stopwatch(w) {}
  void called() {
    stopwatch.maybeWrite();
    work();
    this->again();
  }
  Stopwatch& stopwatch;
};

template <class Loop>
double readinessBesideCallbacks() {
  Stopwatch stopwatch;
  Loop loop;
  Listener<Loop> listener(loop, stopwatch);
  std::deque<BareWorker<Loop>> workers;
  for (long i = 0; i < kWorkers; ++i) workers.emplace_back(loop, stopwatch).again();
  loop.run();
  return stopwatch.p99Microseconds();
}

double readinessBesideTasks() {
  struct Worker final : Veltro::Task {
    Worker(std::shared_ptr<Veltro::TaskScheduler> s, Stopwatch& w)
        : Task(std::move(s), Veltro::TaskPriority::normal, "worker"), stopwatch(w) {}
    void taskExecute() override {
      stopwatch.maybeWrite();
      work();
      scheduleTask();
    }
    Stopwatch& stopwatch;
  };
  Stopwatch stopwatch;
  FacadeLoop loop;
  Listener<FacadeLoop> listener(loop, stopwatch);
  auto const root = Veltro::schedulerRootVeltroNonShared("bench");
  std::vector<std::shared_ptr<Worker>> workers;
  for (long i = 0; i < kWorkers; ++i) {
    workers.push_back(std::make_shared<Worker>(root, stopwatch));
    workers.back()->scheduleTask();
  }
  loop.run();
  return stopwatch.p99Microseconds();
}

Row readiness() {
  return {"readiness under 1,000 tasks, p99",
          "us",
          {{"our tasks", &readinessBesideTasks},
           {"our loop, callbacks", &readinessBesideCallbacks<KivLoop>},
           {"Asio, callbacks", &readinessBesideCallbacks<AsioLoop>},
           {"libuv, callbacks", &readinessBesideCallbacks<LibuvLoop>},
           {"libev, callbacks", &readinessBesideCallbacks<LibevLoop>},
           {"libevent, callbacks", &readinessBesideCallbacks<LibeventLoop>}},
          {atMost(4.0 + 1.0, "our tasks")}};
}

}  // namespace

Suite descriptorRows() {
  return {{roundTrips("round trip", 0), roundTrips("round trip, 1,000 idle descriptors", 1000),
           systemCalls(), taskRoundTrips(), readiness()},
          {{"round trip",
            "idle descriptors",
            {1, 10, 100, 1000, 10000, 19900},
            {{"our loop", &roundTrip<KivLoop>},
             {"libevent", &roundTrip<LibeventLoop>},
             {"libev", &roundTrip<LibevLoop>},
             {"libuv", &roundTrip<LibuvLoop>},
             {"Asio", &roundTrip<AsioLoop>},
             {"bare calls", &roundTrip<BareCalls>}}}}};
}

}  // namespace bench
