// Does one operation a number of times, for instructions to be counted: what a second run, of
// twice as many, has more. Only what does not depend on the time is of use here.
//   hot_road OPERATION TIMES
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Veltro/Debug.h"
#include "Veltro/TaskSchedulerCpp.h"
#include "bench/PeerRoot.h"
#include "bench/Rearming.h"
#include "bench/loops/Ours.h"

namespace bench {
namespace {
constexpr char const* kSourceFile = "bench/HotRoad";

template <class Place>
class Spinner final : public Veltro::Task {
 public:
  Spinner(std::shared_ptr<Veltro::TaskScheduler> scheduler, Place& place, long left)
      : Task(std::move(scheduler), Veltro::TaskPriority::normal, "spinner"),
        place_(place),
        left_(left) {}

 private:
  void taskExecute() override {
    if (--left_ == 0) return place_.stop();
    scheduleTask();
  }
  Place& place_;
  long left_;
};

/// The scheduler alone.
void taskRunWithoutLoop(long times) {
  auto const root = std::make_shared<LooplessRoot>();
  auto const task = std::make_shared<Spinner<LooplessRoot>>(root, *root, times);
  task->scheduleTask();
  root->run();
}

/// The whole road. Slowed down by the counting every pass finds that it is time to look at
/// descriptors, which costs it more than it does at full speed.
void taskRun(long times) {
  FacadeLoop loop;
  auto const task = std::make_shared<Spinner<FacadeLoop>>(
      Veltro::schedulerRootVeltroNonShared("bench"), loop, times);
  task->scheduleTask();
  loop.run();
}

template <long count>
void rearm(long times) {
  KivLoopCachedClock loop;
  Rearming<KivLoopCachedClock> work(loop, count);
  work.draw(20000);  // however many are used
  work.step(times);
}

/// Arms timers and lets them fire, in one batch and in order.
void armAndFire(long times) {
  struct Due : KivLoopCachedClock::Timer<Due> {
    Due(KivLoopCachedClock& l, long& n) : Timer(l), loop(l), left(n) {}
    void called() {
      if (--left == 0) loop.stop();
    }
    KivLoopCachedClock& loop;
    long& left;
  };
  KivLoopCachedClock loop;
  std::mt19937 random(1);
  long left = times;
  std::deque<Due> timers;
  for (long i = 0; i < 20000; ++i) timers.emplace_back(loop, left);
  loop.timersCatchUp();
  for (long i = 0; i < times; ++i) {
    timers[static_cast<std::size_t>(i)].rearm(0.3 + randomSeconds(random, 0.05));
  }
  ::usleep(360000);
  loop.run();
}

void historyInsert(long times) {
  Veltro::TaskSchedulerHistory history;
  auto const name = history.cache().lookup("task");
  for (long i = 0; i < times; ++i) {
    history.insert(Veltro::TaskSchedulerHistory::TimePoint(std::chrono::nanoseconds(i)),
                   Veltro::TaskSchedulerEventType::runStart, name);
  }
}

/// Ten statements a turn: the turn itself is not what counts.
void traceOff(long times) {
  static Veltro::Platform::DebugHandler* const handler =
      Veltro::Platform::getDebugHandler("BenchOff");
  for (long i = 0; i < times; i += 10) {
    VELTRO_TRACE(*handler, 1, "value " << i);
    VELTRO_TRACE(*handler, 2, "value " << i);
    VELTRO_TRACE(*handler, 3, "value " << i);
    VELTRO_TRACE(*handler, 4, "value " << i);
    VELTRO_TRACE(*handler, 5, "value " << i);
    VELTRO_TRACE(*handler, 6, "value " << i);
    VELTRO_TRACE(*handler, 7, "value " << i);
    VELTRO_TRACE(*handler, 8, "value " << i);
    VELTRO_TRACE(*handler, 9, "value " << i);
    VELTRO_TRACE(*handler, 10, "value " << i);
  }
}

struct Operation {
  char const* name;
  void (*perform)(long times);
};
constexpr Operation kOperations[] = {
    {"task-run-without-loop", &taskRunWithoutLoop},
    {"task-run", &taskRun},
    {"re-arm-1000", &rearm<1000>},
    {"re-arm-100000", &rearm<100000>},
    {"arm-and-fire", &armAndFire},
    {"history-insert", &historyInsert},
    {"trace-off", &traceOff},
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  for (auto const& operation : bench::kOperations) {
    if (argc != 3 || std::strcmp(argv[1], operation.name) != 0) continue;
    operation.perform(std::atol(argv[2]));
    return 0;
  }
  return 2;
}
