// Step by step: what the history keeps of it, what the category "TaskScheduler" says, and where the
// task stands after it.
#include <cmath>
#include <cstdlib>
#include <limits>

#include "SchedSupport.h"
#include "Veltro/Debug.h"
#include "tests/support/StandardError.h"

namespace Veltro {
namespace {

struct StepsTest : SchedTest {
  StepsTest() {
    Platform::setTraceFormat("%l %m");
    Platform::setupVeltroDebug("TaskScheduler/1-9");
  }
  ~StepsTest() override {
    Platform::clearVeltroDebug("TaskScheduler/1-9");
    Platform::clearTraceFormat();
  }
  /// Events, then traces with the addresses of tasks taken out.
  std::string step(std::function<void()> const& action) {
    TaskSchedulerHistory& history = *root->schedulerHistory();
    history.clear();
    std::vector<std::string> const lines = standardError(action);
    std::string text;
    for (auto age = history.eventCount(); age > 0;) text += history.event(--age).display() + "; ";
    for (std::string const& line : lines) text += line + "; ";
    return std::regex_replace(text, std::regex("\\(0x[0-9a-f]+\\)|; $"), "");
  }
  /// The same, behind the status that the task has then.
  std::string of(TaskImpl& task, std::function<void()> const& action) {
    std::string const text = step(action);
    EXPECT_EQ(task.taskScheduled(), task.taskBusy());
    return task.getStats().taskStatusString() + ": " + text;
  }
};

TEST_F(StepsTest, ofATaskAndItsScheduler) {
  std::shared_ptr<DoTask> t;
  auto const run = [&] { turn(); };
  // What is so already is not done again.
  auto const schedule = [&] { t->scheduleTask(), t->scheduleTask(); };
  auto const unschedule = [&] { t->unscheduleTask(), t->unscheduleTask(); };
  auto const suspend = [&] { t->taskSuspendedForTestIs(true), t->taskSuspendedForTestIs(true); };
  auto const suspendAll = [&] { root->suspendedIs(true), root->suspendedIs(true); };
  EXPECT_EQ("create     t; 4 TestKit Register t", step([&] { t = make("t"); }));
  EXPECT_EQ(
      " N: schedule   t; schedulerRunnable TestKit; busy       t; 8 Scheduled t; 8 TestKit "
      "Scheduler has runnable tasks, request run",
      of(*t, schedule));
  EXPECT_EQ(" n: unschedule t; idle       t; 8 Unscheduled t", of(*t, unschedule));
  EXPECT_EQ(" n: schedulerIdle TestKit; 8 TestKit Scheduler idle", of(*t, run));
  schedule();
  EXPECT_EQ(
      " n: run start  t; run end    t; idle       t; 8 Running t; 7 Ran t used 0ns; 8 TestKit "
      "Scheduler completed task, request run",
      of(*t, run));
  EXPECT_EQ(" n: 5 Set quantum t to 5ms", of(*t, [&] { t->taskQuantumIs(5ms); }));
  EXPECT_EQ(" n: frcYieldOn t; 1 Set quantum t to 0ns",
            of(*t, [&] { t->taskForceYieldInTestIs(true); }));
  EXPECT_EQ(" n: frcYieldOfft; 5 Set quantum t to 20ms",
            of(*t, [&] { t->taskForceYieldInTestIs(false); }));
  schedule();
  EXPECT_EQ("Sn: suspendOn  t; unschedule t; idle       t; 1 Suspend t; 8 Unscheduled t",
            of(*t, suspend));
  EXPECT_EQ("Sn: scheduleSust", of(*t, [&] { t->scheduleTask(); }));
  EXPECT_EQ(" N: suspendOff t; schedule   t; busy       t; 1 Unsuspend t; 8 Scheduled t",
            of(*t, [&] { t->taskSuspendedForTestIs(false); }));
  EXPECT_EQ(" N: schedulerSuspended TestKit", of(*t, suspendAll));
  EXPECT_EQ(" N: schedulerRunIgnoredWhileSuspended TestKit; 8 TestKit Suspended", of(*t, run));
  EXPECT_EQ(" N: schedulerUnsuspended TestKit", of(*t, [&] { root->suspendedIs(false); }));
  t->work = taking(45ms);
  EXPECT_EQ(
      " n: run start  t; run end    t; idle       t; 8 Running t; 5 Ran t used 45ms 225% violation",
      of(*t, [&] { t->taskRunFromTest(); }));
  EXPECT_EQ("delete     t; 4 TestKit Unregister t", step([&] { t.reset(); }));
  EXPECT_EQ("8 TestKit history cleared", step([&] { root->clearHistory(); }));
  EXPECT_EQ("1 TestKit disable thread sanity checking; 1 TestKit enable thread sanity checking",
            step([&] {
              for (bool const off : {true, true, false}) root->threadSanityDisabledIs(off);
            }));
}

TEST_F(StepsTest, ofATimerTask) {
  constexpr double kForever = std::numeric_limits<double>::infinity();
  auto const t = make<DoTimer>("t"), other = make<DoTimer>("other");
  other->scheduleTask();
  auto const delay = [&](auto d) { return of(*t, [&] { t->scheduleTaskDelay(d); }); };
  auto const lowest = [&](auto d) { return of(*t, [&] { t->scheduleTaskLowestDelay(d); }); };
  EXPECT_EQ("tn: 9 Timer stopped t, was not running", of(*t, [&] { t->stopTimerTask(); }));
  EXPECT_EQ(DoTimer::TimePoint::max(), t->currentExpirationTime());
  EXPECT_EQ("Tn: timerStart t; busy       t; 8 Timer started t delay 5", delay(5.0));
  EXPECT_EQ("Tn: 8 Timer already running t expire in 5000ms", lowest(6.0));
  EXPECT_EQ("Tn: 8 Timer already running t expire in 5000ms", lowest(5s));
  EXPECT_EQ("Tn: timerStart t; 8 Timer started t delay 3", lowest(3.0));
  EXPECT_EQ(root->timerExpiry(*t), t->currentExpirationTime());
  EXPECT_EQ(
      "Tn: timerStart t; 9 Timer jitterUp t delay 4000ms + 0ns = 4000ms; 8 Timer started t delay "
      "4000ms",
      of(*t, [&] { t->scheduleTaskJitterUp(4s, 0); }));
  EXPECT_EQ(
      "Tn: timerStart t; 9 Timer jitterDown t delay 0.5 - 0 = 0.5; 8 Timer started t delay 0.5",
      of(*t, [&] { t->scheduleTaskJitterDown(0.5, 0); }));
  EXPECT_EQ("tn: timerStop  t; idle       t; 9 Timer stopped t, was running", delay(kForever));
  EXPECT_EQ(kForever, t->timerRemaining());
  t->scheduleTaskDelay(1s);
  t->scheduleTaskDelay(std::chrono::nanoseconds::max());
  EXPECT_FALSE(t->timerRunning());
  t->scheduleTaskDelay(1s);
  EXPECT_EQ("tN: schedule   t; 8 Scheduled t", delay(0ns));
  EXPECT_EQ(std::chrono::steady_clock::now(), t->currentExpirationTime());
  EXPECT_EQ("tN: 8 Already on runQueue t", lowest(1s));
  EXPECT_EQ("Tn: unschedule t; timerStart t; 8 Unscheduled t; 8 Timer started t delay 2000ms",
            delay(2s));
  EXPECT_EQ("tN: schedule   t; 8 Scheduled t", delay(std::nan("")));
  EXPECT_EQ("tn: unschedule t; idle       t; 9 Timer stopped t, was not running; 8 Unscheduled t",
            of(*t, [&] { t->scheduleTaskJitterUp(kForever, 200); }));
  t->scheduleTaskDelay(1s);
  t->taskRunFromTest();
  EXPECT_FALSE(t->timerRunning());
  t->scheduleTaskDelay(1s);
  EXPECT_EQ("Sn: suspendOn  t; 1 Suspend t", of(*t, [&] { t->taskSuspendedForTestIs(true); }));
  root->runUntilIdle();
  EXPECT_EQ("Sn: scheduleSust; idle       t", of(*t, [&] { root->runFor(1s); }));
  t->work = [this](DoTimer& self) {
    EXPECT_EQ("*N: schedule   t; 8 Scheduled t", of(self, [&] { self.scheduleTask(); }));
  };
  t->taskSuspendedForTestIs(false);
  turn();
}

TEST_F(StepsTest, ofADescriptorTaskAndOfAControl) {
  auto const task = make<Pipe>("p");
  make("other")->scheduleTask();
  task->taskWatchReadableIs(true);
  task->taskWatchWritableIs(true);
  auto const readable = [&] { task->handleReadable(), task->handleReadable(); };
  EXPECT_EQ("schedule   p:read; busy       p:read; busy       p; 8 Scheduled p:read",
            step(readable));
  EXPECT_EQ("schedule   p:write; busy       p:write; 8 Scheduled p:write",
            step([&] { task->handleWritable(); }));
  EXPECT_EQ("unschedule p:read; idle       p:read; 8 Unscheduled p:read",
            step([&] { task->taskWatchReadableIs(false), task->taskWatchReadableIs(true); }));
  EXPECT_TRUE(task->taskScheduled() && task->taskScheduledWritable() && task->taskBusy());
  EXPECT_EQ("unschedule p:write; idle       p:write; idle       p; 8 Unscheduled p:write",
            step([&] { task->taskWatchWritableIs(false); }));

  Callback back([] { throw 1; });
  back.answer = true;
  auto const control = Platform::getCallbackControl(&back, root, TaskPriority::low, "c");
  control->requestCallback();
  EXPECT_THAT(step([&] { turn(); }),
              testing::HasSubstr("; 9 c Callback notification exception was handled; "));
}

TEST(SchedulerSettingTest, theFirstAsksForAssertionsOnce) {
  std::unique_ptr<Platform::DebugHandler> const handler(Platform::getDebugHandler("TaskScheduler"));
  bool const first = !handler->levelEnabled(0);  // else another test made the first
  ::setenv("TRACE", "X", 1);
  for (int i = 0; i < 2; ++i) std::make_shared<TestKit>();
  EXPECT_STREQ(first ? "X,TaskScheduler/0" : "X", ::getenv("TRACE"));
}
}  // namespace
}  // namespace Veltro
