#include <map>

#include "SchedSupport.h"

namespace Veltro {
namespace {
using std::chrono::nanoseconds;
using TimerTaskTest = SchedTest;

TEST_F(TimerTaskTest, shortDelaysAreRaisedToTheRootsMinimum) {
  root = std::make_shared<TestKit>(1, 10ms);
  auto const timer = make<DoTimer>("t");
  for (auto const& [delay, expected] : {std::pair{1ns, 0.010}, {-5s, 0.010}, {11ms, 0.011}}) {
    timer->scheduleTaskDelay(delay);
    EXPECT_EQ(expected, timer->timerRemaining());
    timer->scheduleTaskDelay(std::chrono::duration<double>(delay).count());
    EXPECT_NEAR(expected, timer->timerRemaining(), 2e-9);
  }
}

TEST_F(TimerTaskTest, jitterIsUniformInHundredthsAndNeverMoreThanTheDelay) {
  auto const task = make<DoTimer>("t");
  std::map<nanoseconds, unsigned> seen;
  for (int i = 0; i < 10100; ++i) ++seen[task->jitterOffset(10000ns, 50)];
  EXPECT_EQ(101u, seen.size());
  EXPECT_EQ(5000ns, seen.rbegin()->first);
  for (auto const& [offset, times] : seen) {
    EXPECT_EQ(0, offset.count() % 50);
    EXPECT_TRUE(times > 40 && times < 180) << times;
  }
  // Delays at which rounding, or 64 bits, would not do.
  auto const check = [&](auto delay) {
    auto const offset = task->jitterOffset(delay, 100);
    ASSERT_TRUE(offset >= decltype(delay)() && offset <= delay);
  };
  for (int i = 0; i < 2000; ++i) {
    for (double delay : {0.029, 0.041, 0.058, 55.617889912237992, 1e300}) check(delay);
    for (nanoseconds delay : {nanoseconds(24h * 12), nanoseconds::max() - 1ns, 1ns}) check(delay);
    task->scheduleTaskJitterUp(nanoseconds::max() - 1ns, 100);  // not "never", whatever is drawn
    ASSERT_TRUE(task->timerRunning());
    task->scheduleTaskJitterDown(1s, 100);
    ASSERT_TRUE(task->timerRemaining() <= 1 || task->taskStatus().taskOnRunQueue());
    task->scheduleTaskJitterUp(1.0, 30);
    ASSERT_TRUE(task->timerRemaining() >= 1 && task->timerRemaining() <= 1.301);
  }
}
}  // namespace
}  // namespace Veltro
