// Tasks and timer tasks of two groups and their root under any sequence of operations, outside and
// inside runs, in virtual time: no run without a reason, none early, none in another's run, none
// after an end, and in the end every run that was promised.
#include <array>
#include <chrono>
#include <memory>
#include <sstream>

#include "Veltro/TaskGroup.h"
#include "Veltro/TestKit.h"
#include "fuzz/support/Fuzz.h"

namespace Veltro::fuzz {
namespace {

using namespace std::chrono_literals;
using Nanoseconds = std::chrono::nanoseconds;
constexpr Nanoseconds kDelays[] = {0ns, 1ns, 1ms, 1ms, 10s, 3600s, Nanoseconds::max()};
constexpr Nanoseconds kLongest = 7200s;  // with all of the jitter

// The soonest that the jitter allows, give or take a nanosecond of rounding.
Nanoseconds sooner(Nanoseconds delay, unsigned percent) {
  if (delay == Nanoseconds::max()) return delay;
  return std::max(0ns, delay - delay * percent / 100 - (percent > 0 ? 1ns : 0ns));
}

class World;

/// What a task owes: a run now, or one when its timer is over.
struct Owed {
  bool queued = false;
  Nanoseconds due = Nanoseconds::max();
};

struct Worker final : TimerTask {
  Worker(World& theWorld, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
         std::string name)
      : TimerTask(std::move(scheduler), priority, std::move(name)), world(theWorld) {}
  void taskExecute() override;
  World& world;
  Owed owed;
};

class World {
 public:
  explicit World(Input& input) : input_(input) {
    kit_->jitterSeedIs(1);
    groups_ = {kit_, group("loose", false), group("strict", true)};
  }

  void run() {
    while (!input_.empty()) {
      switch (input_.below(4)) {
        case 0:
          kit_->step(input_.below(8));
          break;
        case 1:
          kit_->runFor(kDelays[input_.below(5)]);
          break;
        default:
          operate();
      }
    }
    draining_ = true;
    kit_->suspendedIs(false);
    for (auto const& worker : workers_) {
      if (worker && worker->taskSuspendedForTest()) resume(*worker);
    }
    kit_->runFor(kLongest);
    for (auto const& worker : workers_) {
      if (!worker) continue;
      FUZZ_CHECK(!worker->owed.queued, "never ran");
      FUZZ_CHECK(worker->owed.due > kit_->elapsed(), "owed since " << worker->owed.due.count());
      FUZZ_CHECK(!worker->taskCurrentlyRunning(), "still running");
    }
    std::ostringstream report;
    kit_->printStats(report, true, false, ~0u, ~0u, 3);
  }

  void executed(Worker& worker) {
    FUZZ_CHECK(running_ == nullptr, "a run inside a run");
    FUZZ_CHECK(!kit_->suspended(), "a run while suspended");
    bool const isDue = worker.owed.due <= kit_->elapsed();
    if (!worker.owed.queued && !isDue) kit_->printHistory(std::cerr, 20);
    FUZZ_CHECK(worker.owed.queued || isDue, worker.taskName() << ": no reason to run, or early");
    worker.owed.queued = false;
    if (!worker.timerRunning()) worker.owed.due = Nanoseconds::max();
    running_ = &worker;
    for (unsigned n = draining_ ? 0 : input_.below(4); n > 0; --n) operate();
    if (input_.below(2) == 0) worker.taskWorkCountInc(input_.byte());
    running_ = nullptr;
  }

 private:
  std::shared_ptr<TaskScheduler> group(char const* name, bool enforce) {
    return TaskGroup::TaskGroupIs(name, TaskPriority::normal, enforce, kit_);
  }

  void operate() {
    if (input_.below(16) == 0) {
      kit_->suspendedIs(!kit_->suspended());
      return;
    }
    unsigned const number = input_.below(kMany);
    auto& worker = workers_[number];
    if (!worker) {
      auto const scheduler = groups_[input_.below(3)];
      TaskPriority const priority(scheduler == groups_[2] ? 2u : input_.below(5));
      worker = std::make_shared<Worker>(*this, scheduler, priority, std::to_string(number));
    } else {
      operate(worker);
    }
  }

  void operate(std::shared_ptr<Worker>& worker) {
    Nanoseconds const delay = kDelays[input_.below(std::size(kDelays))];
    auto const percent = static_cast<std::uint8_t>(input_.below(101));
    switch (input_.below(10)) {
      case 0:
        if (worker.get() != running_) worker.reset();
        break;
      case 1:
        worker->stopTimerTask();
        worker->owed = {};
        break;
      case 2:
        worker->unscheduleTask();
        worker->owed.queued = false;
        if (!worker->timerRunning()) worker->owed.due = Nanoseconds::max();
        break;
      case 3:
        if (worker->taskSuspendedForTest()) {
          resume(*worker);
        } else {
          suspend(*worker);
        }
        break;
      case 4:
        worker->scheduleTaskLowestDelay(std::min<Nanoseconds>(delay, 3600s));
        owe(*worker, std::min<Nanoseconds>(delay, 3600s), true);
        break;
      case 5:
        worker->scheduleTaskJitterUp(delay, percent);
        owe(*worker, delay, false);
        break;
      case 6:
        worker->scheduleTaskJitterDown(delay, percent);
        worker->owed = {false, after(sooner(delay, percent))};
        break;
      case 7:
        worker->scheduleTask();
        owe(*worker, 0ns, false);
        break;
      default:
        worker->scheduleTaskDelay(delay);
        owe(*worker, delay, false);
    }
  }

  Nanoseconds after(Nanoseconds delay) const {
    return delay == Nanoseconds::max() ? delay : kit_->elapsed() + delay;
  }
  // The earliest moment of the run; that it comes at all is seen in the end.
  void owe(Worker& worker, Nanoseconds delay, bool keepsEarlier) const {
    Nanoseconds const due = after(delay);
    if (keepsEarlier && (worker.owed.queued || worker.owed.due <= due)) return;
    // Suspended, a task is not queued; what it missed is made up for when it is resumed.
    worker.owed =
        delay == 0ns ? Owed{!worker.taskSuspendedForTest(), Nanoseconds::max()} : Owed{false, due};
  }
  void suspend(Worker& worker) {
    worker.taskSuspendedForTestIs(true);
    worker.owed.queued = false;
  }
  void resume(Worker& worker) {
    worker.owed.queued = !worker.timerRunning();
    worker.taskSuspendedForTestIs(false);
  }

  static constexpr unsigned kMany = 6;
  Input& input_;
  std::shared_ptr<TestKit> const kit_ = std::make_shared<TestKit>();
  std::array<std::shared_ptr<TaskScheduler>, 3> groups_;
  std::array<std::shared_ptr<Worker>, kMany> workers_;
  Worker* running_ = nullptr;
  bool draining_ = false;
};

void Worker::taskExecute() { world.executed(*this); }

}  // namespace

int run(Input& input) {
  if (input.size() > 2000) return -1;
  World(input).run();
  return 0;
}

}  // namespace Veltro::fuzz
