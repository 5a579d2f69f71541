// Tests of tasks without waiting: the test kit is a scheduler whose time jumps to the next timer,
// and which the test turns by hand.
//
// Prints:
//   3 tries after 1 more step, at 3 s
//   17 tries within a day
#include <chrono>
#include <cstdio>
#include <memory>

#include "Veltro/TestKit.h"

namespace {
using namespace std::chrono_literals;

// The code under test: tries, and waits twice as long each time. It takes its scheduler from
// outside, and so runs under the test kit as it does under schedulerRootVeltro().
class Retry final : public Veltro::TimerTask {
 public:
  explicit Retry(std::shared_ptr<Veltro::TaskScheduler> scheduler)
      : TimerTask(std::move(scheduler), Veltro::TaskPriority::normal, "retry") {
    scheduleTask();
  }

 private:
  void taskExecute() override {
    scheduleTaskDelay(delay_);
    delay_ *= 2;
  }

  std::chrono::nanoseconds delay_ = 1s;
};

}  // namespace

int main() {
  auto const kit = std::make_shared<Veltro::TestKit>();
  auto const retry = std::make_shared<Retry>(kit);

  kit->runFor(2s);  // tries at 0 s and 1 s
  unsigned const steps = kit->step();
  std::printf("%u tries after %u more step, at %g s\n", retry->taskRunCount(), steps,
              std::chrono::duration<double>(kit->elapsed()).count());
  kit->runFor(24h);
  std::printf("%u tries within a day\n", retry->taskRunCount());
}
