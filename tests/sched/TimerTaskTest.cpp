#include <limits>
#include <set>

#include "SchedSupport.h"

namespace Veltro {
namespace {
using testing::ElementsAre;
constexpr double kForever = std::numeric_limits<double>::infinity();

struct TimerTaskTest : SchedTest {
  std::shared_ptr<DoTimer> task = make<DoTimer>("t");
  TimerTaskTest() { root->takeEvents(); }
};

TEST_F(TimerTaskTest, delaysStartRestartAndStop) {
  auto const start = [&] { task->scheduleTaskDelay(2s); };
  auto const queue = [&] { task->scheduleTask(); };
  struct {
    char const* name;
    std::function<void()> before, action;
    double left;  // on the timer
    bool queued;
    std::vector<std::string> events;
  } const cases[] = {
      {"a delay arms", {}, start, 2, false, {"timerStart t", "busy       t"}},
      {"seconds too",
       {},
       [&] { task->scheduleTaskDelay(0.25); },
       0.25,
       false,
       {"timerStart t", "busy       t"}},
      {"again starts over",
       start,
       [&] { task->scheduleTaskDelay(5s); },
       5,
       false,
       {"timerStart t"}},
      {"zero queues at once",
       start,
       [&] { task->scheduleTaskDelay(0ns); },
       kForever,
       true,
       {"schedule   t", "schedulerRunnable root"}},
      {"so does not-a-number",
       start,
       [&] { task->scheduleTaskDelay(std::nan("")); },
       kForever,
       true,
       {"schedule   t", "schedulerRunnable root"}},
      {"a delay puts off what is due", queue, start, 2, false, {"unschedule t", "timerStart t"}},
      {"never stops",
       start,
       [&] { task->scheduleTaskDelay(kForever); },
       kForever,
       false,
       {"timerStop  t", "idle       t"}},
      {"never in nanoseconds",
       start,
       [&] { task->scheduleTaskDelay(std::chrono::nanoseconds::max()); },
       kForever,
       false,
       {"timerStop  t", "idle       t"}},
      {"never cancels what is due",
       queue,
       [&] { task->scheduleTaskJitterUp(kForever, 200); },
       kForever,
       false,
       {"unschedule t", "idle       t"}},
      {"the lowest delay keeps an earlier expiry",
       start,
       [&] { task->scheduleTaskLowestDelay(5.0); },
       2,
       false,
       {}},
      {"and an equal one", start, [&] { task->scheduleTaskLowestDelay(2s); }, 2, false, {}},
      {"and shortens a later one",
       start,
       [&] { task->scheduleTaskLowestDelay(1.0); },
       1,
       false,
       {"timerStart t"}},
      {"and keeps what is due",
       queue,
       [&] { task->scheduleTaskLowestDelay(1s); },
       kForever,
       true,
       {}},
      {"a schedule stops the timer without a word",
       start,
       queue,
       kForever,
       true,
       {"schedule   t", "schedulerRunnable root"}},
      {"expiry queues",
       start,
       [&] { root->fire(*task); },
       kForever,
       true,
       {"schedule   t", "schedulerRunnable root"}},
      {"stopping what does not run", {}, [&] { task->stopTimerTask(); }, kForever, false, {}},
      {"a run from a test stops the timer",
       start,
       [&] { task->taskRunFromTest(); },
       kForever,
       false,
       {"run start  t", "run end    t", "idle       t"}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    task->stopTimerTask();
    root->turn();
    if (c.before) c.before();
    root->takeEvents();
    c.action();
    EXPECT_EQ(c.left, task->timerRemaining());
    EXPECT_EQ(c.left < kForever, task->timerRunning());
    EXPECT_EQ(c.queued, root->runnableTaskCount() == 1);
    EXPECT_EQ(c.queued || c.left < kForever, task->taskScheduled());
    EXPECT_EQ(task->taskScheduled(), task->taskBusy());
    EXPECT_EQ(c.queued            ? clock.now
              : c.left < kForever ? root->timerExpiry(*task)
                                  : DoTimer::TimePoint::max(),
              task->currentExpirationTime());
    // The scheduler's own events depend on what the row before left behind.
    std::vector<std::string> events = root->takeEvents();
    std::vector<std::string> expected = c.events;
    for (auto* list : {&events, &expected}) {
      list->erase(std::remove(list->begin(), list->end(), "schedulerRunnable root"), list->end());
    }
    EXPECT_EQ(expected, events);
  }
}

TEST_F(TimerTaskTest, shortDelaysAreRaisedToTheRootsMinimum) {
  auto const slow = std::make_shared<ManualRoot>("slow", 10ms);
  DoTimer timer(slow, TaskPriority::normal, "t");
  for (auto const& [delay, expected] : {std::pair{1ns, 10ms}, {-5s, 10ms}, {11ms, 11ms}}) {
    timer.scheduleTaskDelay(delay);
    EXPECT_EQ(clock.now + expected, timer.currentExpirationTime());
    timer.scheduleTaskDelay(std::chrono::duration<double>(delay).count());
    EXPECT_EQ(clock.now + expected, timer.currentExpirationTime());
  }
}

TEST_F(TimerTaskTest, jitterIsUniformInHundredths) {
  std::map<std::chrono::nanoseconds, unsigned> seen;
  for (int i = 0; i < 10100; ++i) ++seen[task->jitterOffset(10000ns, 50)];
  EXPECT_EQ(101u, seen.size());
  EXPECT_EQ(0ns, seen.begin()->first);
  EXPECT_EQ(5000ns, seen.rbegin()->first);
  for (auto const& [offset, times] : seen) {
    EXPECT_EQ(0, offset.count() % 50);
    EXPECT_GT(times, 40u);
    EXPECT_LT(times, 180u);
  }
  // Delays at which rounding, or 64 bits, would not do.
  using std::chrono::nanoseconds;
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
    ASSERT_LE(task->currentExpirationTime(), clock.now + 1s);
    ASSERT_GE(task->currentExpirationTime(), clock.now);
    task->scheduleTaskJitterUp(1.0, 30);
    ASSERT_GE(task->currentExpirationTime(), clock.now + 1s);
    ASSERT_LE(task->currentExpirationTime(), clock.now + 1301ms);
  }
}

TEST_F(TimerTaskTest, whatItRefuses) {
  struct {
    std::function<void()> action;
    std::string text;
  } const cases[] = {
      {[&] { task->scheduleTaskJitterUp(1s, 101); }, "maxJitterPercentage: e > 100"},
      {[&] { task->scheduleTaskLowestDelay(kForever); }, "delayIntoFuture: inf"},
      {[&] { task->scheduleTaskLowestDelay(std::chrono::nanoseconds::max()); },
       "delayIntoFuture: 153722867min"},
      {[&] {
         for (;;) task->jitterOffset(-1s, 100);
       },
       ""},  // some draw gives an offset above the delay
      {[&] {
         root->timers[task.get()] = clock.now;  // a timer that the task knows nothing of
         task->scheduleTaskLowestDelay(1s);
       },
       "Task: t" + TaskKey(task.get()).toStrep()},
  };
  for (auto const& c : cases) {
    std::string const text = assertionOf(c.action);
    if (c.text.empty()) {
      EXPECT_THAT(text, testing::MatchesRegex("offset\\( .* \\) > delayIntoFuture\\( -.* \\)"));
    } else {
      EXPECT_EQ(c.text, text);
    }
  }
  root->timers.clear();
}

TEST_F(TimerTaskTest, statusShowsTheTimer) {
  EXPECT_EQ("tn", task->getStats().taskStatusString());
  task->scheduleTaskDelay(1s);
  EXPECT_EQ("Tn", task->getStats().taskStatusString());
  task->scheduleTask();
  EXPECT_EQ("tN", task->getStats().taskStatusString());
  std::string during;
  task->workIs([&](DoTimer& self) {
    self.scheduleTask();
    during = self.getStats().taskStatusString();
  });
  root->turn();
  EXPECT_EQ("*N", during);
}

TEST_F(TimerTaskTest, anExpiryMayDestroyTheTask) {
  task->scheduleTaskDelay(1s);
  task->taskSuspendedForTestIs(true);  // so the expiry makes it idle
  task->onBusy = [&] { task.reset(); };
  root->fire(*task);
  EXPECT_EQ(nullptr, task);
}
}  // namespace
}  // namespace Veltro
