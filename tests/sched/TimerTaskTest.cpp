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

TEST_F(TimerTaskTest, jitterIsUniformInHundredths) {
  auto const task = make<DoTimer>("t");
  std::map<nanoseconds, unsigned> seen;
  for (int i = 0; i < 10100; ++i) ++seen[task->jitterOffset(10000ns, 50)];
  EXPECT_EQ(101u, seen.size());
  EXPECT_EQ(0ns, seen.begin()->first);
  EXPECT_EQ(5000ns, seen.rbegin()->first);
  for (auto const& [offset, times] : seen) {
    EXPECT_EQ(0, offset.count() % 50);
    EXPECT_GT(times, 40u);
    EXPECT_LT(times, 180u);
  }
  auto const now = std::chrono::steady_clock::now();
  // Delays at which rounding, or 64 bits, would not do.
  for (int i = 0; i < 2000; ++i) {
    for (double delay : {0.029, 0.041, 0.058, 55.617889912237992, 1e300}) {
      double const offset = task->jitterOffset(delay, 100);
      ASSERT_TRUE(offset >= 0 && offset <= delay);
    }
    for (nanoseconds delay : {nanoseconds(24h * 12), nanoseconds::max() - 1ns, nanoseconds(1)}) {
      nanoseconds const offset = task->jitterOffset(delay, 100);
      ASSERT_TRUE(offset >= 0ns && offset <= delay);
    }
    task->scheduleTaskJitterUp(nanoseconds::max() - 1ns, 100);  // not "never", whatever is drawn
    ASSERT_TRUE(task->timerRunning());
    task->scheduleTaskJitterDown(1s, 100);
    ASSERT_LE(task->currentExpirationTime(), now + 1s);
    ASSERT_GE(task->currentExpirationTime(), now);
    task->scheduleTaskJitterUp(1.0, 30);
    ASSERT_GE(task->timerRemaining(), 1);
    ASSERT_LE(task->timerRemaining(), 1.301);
  }
}

TEST_F(TimerTaskTest, anExpiryMayDestroyTheTask) {
  auto task = make<DoTimer>("t");
  task->scheduleTaskDelay(1s);
  task->taskSuspendedForTestIs(true);  // so the expiry makes it idle
  task->onBusy = [&] { task.reset(); };
  root->runFor(1s);
  EXPECT_EQ(nullptr, task);
}
}  // namespace
}  // namespace Veltro
