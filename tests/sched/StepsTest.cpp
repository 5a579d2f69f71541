// Step by step: what the history keeps of it, what the category "TaskScheduler" says, and where the
// task stands after it.
#include <cmath>
#include <cstdlib>
#include <limits>
#include <regex>

#include "SchedSupport.h"
#include "Veltro/Debug.h"
#include "tests/support/StandardError.h"

namespace Veltro {
namespace {
constexpr double kForever = std::numeric_limits<double>::infinity();

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
    events();
    std::vector<std::string> const lines = standardError(action);
    std::string text = events();
    for (std::string const& line : lines) {
      text += std::regex_replace(line, std::regex("\\(0x[0-9a-f]+\\)"), "") + "; ";
    }
    return text;
  }
  std::string step(DoTask& task, std::function<void()> const& action) {
    std::string const text = step(action);
    EXPECT_EQ(task.taskScheduled(), task.taskBusy());
    return task.getStats().taskStatusString() + ": " + text;
  }
  std::string step(DoTimer& timer, std::function<void()> const& action) {
    std::string const text = step(action);
    double const left = timer.timerRemaining();
    bool const queued = timer.taskStatus().taskOnRunQueue();
    EXPECT_EQ(left < kForever, timer.timerRunning());
    EXPECT_EQ(queued || timer.timerRunning(), timer.taskScheduled());
    EXPECT_EQ(timer.taskScheduled(), timer.taskBusy());
    EXPECT_EQ(queued            ? std::chrono::steady_clock::now()
              : left < kForever ? root->timerExpiry(timer)
                                : DoTimer::TimePoint::max(),
              timer.currentExpirationTime());
    std::ostringstream state;
    state << timer.getStats().taskStatusString() << ' ' << left << ": " << text;
    return state.str();
  }
};

TEST_F(StepsTest, ofATaskAndItsScheduler) {
  std::shared_ptr<DoTask> t;
  EXPECT_EQ("create     t; 4 TestKit Register t; ", step([&] { t = make("t"); }));
  EXPECT_EQ(
      " N: schedule   t; schedulerRunnable TestKit; busy       t; 8 Scheduled t; 8 TestKit "
      "Scheduler has runnable tasks, request run; ",
      step(*t, [&] { t->scheduleTask(); }));
  EXPECT_EQ(" N: ", step(*t, [&] { t->scheduleTask(); }));
  EXPECT_EQ(" n: unschedule t; idle       t; 8 Unscheduled t; ",
            step(*t, [&] { t->unscheduleTask(); }));
  EXPECT_EQ(" n: ", step(*t, [&] { t->unscheduleTask(); }));
  EXPECT_EQ(" n: schedulerIdle TestKit; 8 TestKit Scheduler idle; ", step(*t, [&] { turn(); }));
  t->scheduleTask();
  EXPECT_EQ(
      " n: run start  t; run end    t; idle       t; 8 Running t; 7 Ran t used 0ns; 8 TestKit "
      "Scheduler completed task, request run; ",
      step(*t, [&] { turn(); }));
  EXPECT_EQ(" n: 5 Set quantum t to 5ms; ", step(*t, [&] { t->taskQuantumIs(5ms); }));
  EXPECT_EQ(" n: frcYieldOn t; 1 Set quantum t to 0ns; ",
            step(*t, [&] { t->taskForceYieldInTestIs(true); }));
  EXPECT_EQ(" n: frcYieldOfft; 5 Set quantum t to 20ms; ",
            step(*t, [&] { t->taskForceYieldInTestIs(false); }));
  t->scheduleTask();
  EXPECT_EQ("Sn: suspendOn  t; unschedule t; idle       t; 1 Suspend t; 8 Unscheduled t; ",
            step(*t, [&] { t->taskSuspendedForTestIs(true); }));
  EXPECT_EQ("Sn: ", step(*t, [&] { t->taskSuspendedForTestIs(true); }));
  EXPECT_EQ("Sn: scheduleSust; ", step(*t, [&] { t->scheduleTask(); }));
  EXPECT_EQ(" N: suspendOff t; schedule   t; busy       t; 1 Unsuspend t; 8 Scheduled t; ",
            step(*t, [&] { t->taskSuspendedForTestIs(false); }));
  EXPECT_EQ(" N: schedulerSuspended TestKit; ", step(*t, [&] { root->suspendedIs(true); }));
  EXPECT_EQ(" N: ", step(*t, [&] { root->suspendedIs(true); }));
  EXPECT_EQ(" N: schedulerRunIgnoredWhileSuspended TestKit; 8 TestKit Suspended; ",
            step(*t, [&] { turn(); }));
  EXPECT_EQ(" N: schedulerUnsuspended TestKit; ", step(*t, [&] { root->suspendedIs(false); }));
  t->work = taking(45ms);
  EXPECT_EQ(
      " n: run start  t; run end    t; idle       t; 8 Running t; 5 Ran t used 45ms 225% "
      "violation; 8 TestKit Scheduler completed task, request run; ",
      step(*t, [&] { turn(); }));
  t->work = {};
  t->scheduleTask();
  EXPECT_EQ(" n: run start  t; run end    t; idle       t; 8 Running t; 7 Ran t used 0ns; ",
            step(*t, [&] { t->taskRunFromTest(); }));
  EXPECT_EQ(3u, t->taskRunCount());
  EXPECT_EQ("delete     t; 4 TestKit Unregister t; ", step([&] { t.reset(); }));
  EXPECT_EQ("8 TestKit history cleared; ", step([&] { root->clearHistory(); }));
  EXPECT_EQ("1 TestKit disable thread sanity checking; 1 TestKit enable thread sanity checking; ",
            step([&] {
              for (bool const off : {true, true, false}) root->threadSanityDisabledIs(off);
            }));
}

TEST_F(StepsTest, ofATimerTask) {
  auto const t = make<DoTimer>("t");
  EXPECT_EQ("tn inf: 9 Timer stopped t, was not running; ", step(*t, [&] { t->stopTimerTask(); }));
  EXPECT_EQ("Tn 2: timerStart t; busy       t; 8 Timer started t delay 2000ms; ",
            step(*t, [&] { t->scheduleTaskDelay(2s); }));
  EXPECT_EQ("Tn 0.25: timerStart t; 8 Timer started t delay 0.25; ",
            step(*t, [&] { t->scheduleTaskDelay(0.25); }));
  EXPECT_EQ("Tn 5: timerStart t; 8 Timer started t delay 5; ",
            step(*t, [&] { t->scheduleTaskDelay(5.0); }));
  EXPECT_EQ("Tn 5: 8 Timer already running t expire in 5000ms; ",
            step(*t, [&] { t->scheduleTaskLowestDelay(6.0); }));
  EXPECT_EQ("Tn 5: 8 Timer already running t expire in 5000ms; ",
            step(*t, [&] { t->scheduleTaskLowestDelay(5s); }));
  EXPECT_EQ("Tn 3: timerStart t; 8 Timer started t delay 3; ",
            step(*t, [&] { t->scheduleTaskLowestDelay(3.0); }));
  EXPECT_EQ(
      "Tn 4: timerStart t; 9 Timer jitterUp t delay 4000ms + 0ns = 4000ms; 8 Timer started t delay "
      "4000ms; ",
      step(*t, [&] { t->scheduleTaskJitterUp(4s, 0); }));
  EXPECT_EQ(
      "Tn 0.5: timerStart t; 9 Timer jitterDown t delay 0.5 - 0 = 0.5; 8 Timer started t delay "
      "0.5; ",
      step(*t, [&] { t->scheduleTaskJitterDown(0.5, 0); }));
  EXPECT_EQ("tn inf: timerStop  t; idle       t; 9 Timer stopped t, was running; ",
            step(*t, [&] { t->scheduleTaskDelay(kForever); }));
  t->scheduleTaskDelay(1s);
  EXPECT_EQ("tn inf: timerStop  t; idle       t; 9 Timer stopped t, was running; ",
            step(*t, [&] { t->scheduleTaskDelay(std::chrono::nanoseconds::max()); }));
  t->scheduleTaskDelay(1s);
  EXPECT_EQ(
      "tN inf: schedule   t; schedulerRunnable TestKit; 8 Scheduled t; 8 TestKit Scheduler has "
      "runnable tasks, request run; ",
      step(*t, [&] { t->scheduleTaskDelay(0ns); }));
  EXPECT_EQ("tN inf: 8 Already on runQueue t; ", step(*t, [&] { t->scheduleTaskLowestDelay(1s); }));
  EXPECT_EQ("Tn 2: unschedule t; timerStart t; 8 Unscheduled t; 8 Timer started t delay 2000ms; ",
            step(*t, [&] { t->scheduleTaskDelay(2s); }));
  EXPECT_EQ("tN inf: schedule   t; 8 Scheduled t; ",
            step(*t, [&] { t->scheduleTaskDelay(std::nan("")); }));
  EXPECT_EQ(
      "tn inf: unschedule t; idle       t; 9 Timer stopped t, was not running; 8 Unscheduled t; ",
      step(*t, [&] { t->scheduleTaskJitterUp(kForever, 200); }));
  t->scheduleTaskDelay(1s);
  EXPECT_EQ("tN inf: schedule   t; 8 Scheduled t; ", step(*t, [&] { t->scheduleTask(); }));
  EXPECT_EQ(
      "tn inf: run start  t; run end    t; idle       t; 8 Running t; 7 Ran t used 0ns; 8 TestKit "
      "Scheduler completed task, request run; ",
      step(*t, [&] { turn(); }));
  t->scheduleTaskDelay(1s);
  EXPECT_EQ(
      "tn inf: schedulerIdle TestKit; schedule   t; schedulerRunnable TestKit; run start  t; run "
      "end    t; idle       t; schedulerIdle TestKit; 8 TestKit Scheduler idle; 8 Scheduled t; 8 "
      "TestKit Scheduler has runnable tasks, request run; 8 Running t; 7 Ran t used 0ns; 8 TestKit "
      "Scheduler completed task, request run; 8 TestKit Scheduler idle; ",
      step(*t, [&] { root->runFor(1s); }));
  t->scheduleTaskDelay(1s);
  EXPECT_EQ("tn inf: run start  t; run end    t; idle       t; 8 Running t; 7 Ran t used 0ns; ",
            step(*t, [&] { t->taskRunFromTest(); }));
  t->scheduleTaskDelay(1s);
  EXPECT_EQ("Sn 1: suspendOn  t; 1 Suspend t; ",
            step(*t, [&] { t->taskSuspendedForTestIs(true); }));
  EXPECT_EQ("Sn inf: scheduleSust; idle       t; ", step(*t, [&] { root->runFor(1s); }));
  std::string during;
  t->work = [&](DoTimer& self) {
    self.scheduleTask();
    during = self.getStats().taskStatusString();
  };
  t->taskSuspendedForTestIs(false);
  turn();
  EXPECT_EQ("*N", during);
}

TEST_F(StepsTest, ofADescriptorTask) {
  auto task = make<Pipe>("p");
  task->taskWatchReadableIs(true);
  task->taskWatchWritableIs(true);
  EXPECT_EQ(
      "schedule   p:read; schedulerRunnable TestKit; busy       p:read; busy       p; 8 Scheduled "
      "p:read; 8 TestKit Scheduler has runnable tasks, request run; ",
      step([&] { task->handleReadable(); }));
  EXPECT_EQ("", step([&] { task->handleReadable(); }));
  EXPECT_EQ("schedule   p:write; busy       p:write; 8 Scheduled p:write; ",
            step([&] { task->handleWritable(); }));
  EXPECT_EQ("unschedule p:read; idle       p:read; 8 Unscheduled p:read; ",
            step([&] { task->taskWatchReadableIs(false); }));
  EXPECT_TRUE(task->taskScheduled() && task->taskScheduledWritable() && task->taskBusy());
  EXPECT_FALSE(task->taskScheduledReadable());
  EXPECT_EQ("", step([&] { task->taskWatchReadableIs(true); }));
  EXPECT_EQ("unschedule p:write; idle       p:write; idle       p; 8 Unscheduled p:write; ",
            step([&] { task->taskWatchWritableIs(false); }));
  EXPECT_EQ(
      "delete     p:write; delete     p:read; 4 TestKit Unregister p:write; 4 TestKit Unregister "
      "p:read; ",
      step([&] { task.reset(); }));
}

TEST_F(StepsTest, ofAGroup) {
  auto const group = TaskGroup::TaskGroupIs("g", TaskPriority::high, false, root);
  std::shared_ptr<DoTask> a, b;
  EXPECT_EQ("create     a; 4 g Register a; ",
            step([&] { a = std::make_shared<DoTask>(group, TaskPriority::normal, "a"); }));
  b = std::make_shared<DoTask>(group, TaskPriority::absolute, "b");
  for (unsigned round = 1; round < 3; ++round) {  // also when the group has been idle
    a->scheduleTask();
    b->scheduleTask();
    Platform::clearVeltroDebug("TaskScheduler/1-9");
    EXPECT_EQ(
        "run start  TaskGroup;g; run start  b; run end    b; idle       b; schedule   TaskGroup;g; "
        "run start  a; run end    a; idle       a; schedulerIdle g; run end    TaskGroup;g; ",
        step([&] { turn(); }));
    TaskStat const parent = [&] {
      std::vector<TaskStat> stats;
      root->getTaskStats(&stats, true);
      return stats.at(0);
    }();
    EXPECT_EQ(2u, parent.taskWorkCountHighWaterMark());
    EXPECT_EQ(2u * round, parent.taskWorkCountTotal());
    EXPECT_EQ(0u, parent.taskLastWorkPending());
    EXPECT_EQ(
        "run start  TaskGroup;g; run end    TaskGroup;g; idle       TaskGroup;g; schedulerIdle "
        "TestKit; ",
        step([&] { root->runUntilIdle(); }));  // once more, for the books
    EXPECT_EQ(2 * round, group->parentTaskRunCount());
  }
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
