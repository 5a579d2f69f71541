// A task does a slice of its work a run. When its quantum is used up it queues itself again and
// returns, so that timers, descriptors and other tasks get their turn between two slices.
//
// Prints:
//   the sum is 500000500000
//   it took more than one run: yes
#include <chrono>
#include <cstdio>
#include <memory>

#include "Veltro/TaskSchedulerCpp.h"

namespace {

class Summer final : public Veltro::Task {
 public:
  explicit Summer(std::shared_ptr<Veltro::TaskScheduler> scheduler)
      : Task(std::move(scheduler), Veltro::TaskPriority::normal, "summer") {
    taskQuantumIs(std::chrono::microseconds(100));  // far too short for the work below
  }
  unsigned long long sum() const { return sum_; }

 private:
  void taskExecute() override {
    unsigned const before = next_;
    while (next_ <= 1000000) {
      sum_ += next_++;
      if (taskShouldYield()) {  // cheap: made for inner loops
        scheduleTask();
        break;
      }
    }
    taskWorkCountInc(next_ - before);  // for the statistics, once a run
  }

  unsigned next_ = 1;
  unsigned long long sum_ = 0;
};

}  // namespace

int main() {
  // Tasks are owned through shared pointers; their scheduler points to them and never owns them.
  auto const summer = std::make_shared<Summer>(Veltro::schedulerRootVeltro());
  summer->scheduleTask();
  int const status = Veltro::Platform::doEventLoop();
  std::printf("the sum is %llu\n", summer->sum());
  std::printf("it took more than one run: %s\n", summer->taskRunCount() > 1 ? "yes" : "no");
  return status;
}
