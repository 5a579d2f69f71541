#include <numeric>

#include "SchedSupport.h"

namespace Veltro {
namespace {
using testing::ElementsAre;
using testing::HasSubstr;
using TaskTest = SchedTest;

TEST_F(TaskTest, aRunTellsTheHistoryWhatHappened) {
  auto const task = make("t", TaskPriority::normal, taking(3ms));
  EXPECT_THAT(root->takeEvents(), ElementsAre("create     t"));
  task->scheduleTask();
  task->scheduleTask();  // queued already
  EXPECT_EQ(1u, root->requests);
  EXPECT_TRUE(task->taskBusy());
  clock.now += 2ms;
  root->turn();
  EXPECT_EQ(1u, root->requests);  // asks again, whether or not work is left
  EXPECT_THAT(root->takeEvents(),
              ElementsAre("schedule   t", "schedulerRunnable root", "busy       t", "run start  t",
                          "run end    t", "idle       t"));
  root->turn();
  EXPECT_EQ(0u, root->requests);
  EXPECT_THAT(root->takeEvents(), ElementsAre("schedulerIdle root"));
  task->scheduleTask();
  task->unscheduleTask();
  task->unscheduleTask();
  EXPECT_THAT(root->takeEvents(), ElementsAre("schedule   t", "schedulerRunnable root",
                                              "busy       t", "unschedule t", "idle       t"));
  TaskStat const stat = task->getStats();
  EXPECT_EQ(1u, stat.taskRunCount());
  EXPECT_EQ(3ms, stat.taskTotalRunTime());
  EXPECT_EQ(3ms, stat.taskRunTimeHighWaterMark());
  EXPECT_EQ(0ms, stat.taskLastSchedulingLatency());
  EXPECT_EQ(2ms, stat.taskSchedulingLatencyHighWaterMark());
  EXPECT_EQ(2ms, root->maxSchedulerLatency());
}

TEST_F(TaskTest, suspensionDropsSchedulesAndResumingRunsOnce) {
  auto const task = make("t");
  task->scheduleTask();
  root->takeEvents();
  task->taskSuspendedForTestIs(true);
  task->taskSuspendedForTestIs(true);
  task->scheduleTask();
  EXPECT_FALSE(task->taskScheduled());
  task->taskSuspendedForTestIs(false);
  EXPECT_TRUE(task->taskScheduled());
  EXPECT_THAT(root->takeEvents(),
              ElementsAre("suspendOn  t", "unschedule t", "idle       t", "scheduleSust",
                          "suspendOff t", "schedule   t", "busy       t"));
}

TEST_F(TaskTest, aTimerThatFiresWhileSuspendedIsBusyNoMore) {
  auto const timer = make<DoTimer>("t");
  timer->scheduleTaskDelay(1s);
  timer->taskSuspendedForTestIs(true);
  EXPECT_TRUE(timer->taskBusy());  // its timer still runs
  root->fire(*timer);
  EXPECT_FALSE(timer->taskBusy());
}

TEST_F(TaskTest, quantumViolationsAreCountedByTheirSize) {
  struct {
    std::chrono::nanoseconds time;
    unsigned twice, five;
  } const cases[] = {{39'999'999ns, 0, 0}, {40ms, 1, 0}, {99'999'999ns, 1, 0}, {100ms, 0, 1}};
  for (auto const& c : cases) {
    SCOPED_TRACE(c.time.count());
    auto const task = make("t", TaskPriority::normal, taking(c.time));
    task->scheduleTask();
    root->turn();
    EXPECT_EQ(c.twice, task->getStats().taskQuantumViolation200());
    EXPECT_EQ(c.five, task->getStats().taskQuantumViolation500());
  }
}

TEST_F(TaskTest, workFigures) {
  struct Row {
    char const* name;
    std::vector<U64> counts;
    float average;
    U32 mark;
  };
  Row const rows[] = {
      {"none", {}, 0, 4294967295},
      {"the first is the average", {7}, 7, 7},
      {"a tenth of the newest", {7, 17}, 8, 17},
      {"zero is a sample", {0}, 0, 0},
      {"smaller counts leave the mark", {9, 1}, 8.2F, 9},
      {"the mark is capped", {4294967295}, 4294967296.0F, 4294967294},
      {"a count past 32 bits keeps its low ones", {9, (1ull << 32) + 3}, 429496737.6F, 3},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    auto const task = make("t");
    for (U64 n : row.counts) task->taskWorkCountInc(n);
    EXPECT_EQ(std::accumulate(row.counts.begin(), row.counts.end(), U64{0}),
              task->taskWorkCountTotal());
    EXPECT_FLOAT_EQ(row.average, task->taskWorkCountDecayAvg());
    EXPECT_EQ(row.mark, task->taskWorkCountHighWaterMark());
  }
  auto const task = make("t");
  for (U32 n : {0u, 5u, 2u}) task->taskWorkPendingIs(n);
  EXPECT_EQ(2u, task->taskWorkPending());
  EXPECT_EQ(5u, task->taskWorkPendingHighWaterMark());
  task->taskWorkPendingIs(4294967295);
  EXPECT_EQ(4294967294u, task->taskWorkPendingHighWaterMark());
}

TEST_F(TaskTest, shouldYieldLooksAtTheClockOnlyNowAndThen) {
  auto const task = make("t");
  std::vector<bool> answers;
  task->workIs([&](DoTask& self) {
    answers.push_back(self.taskShouldYield());  // may look, and remembers when
    clock.now += 30ms;
    // Half a millisecond of processor time has to pass before the next look.
    while (!self.taskShouldYield()) answers.push_back(false);
    answers.push_back(true);
    answers.push_back(self.taskShouldYield());  // no checkpoint after a yes: looks again
  });
  for (int run = 0; run < 3; ++run) {
    answers.clear();
    clock.reads = 0;
    task->scheduleTask();
    root->turn();
    EXPECT_FALSE(answers.front());
    EXPECT_TRUE(answers.back());
    EXPECT_GE(answers.size(), 3u);
  }
  // By the last run the counter's rate is known: most answers came without the clock.
  EXPECT_GT(answers.size(), 100u);
  EXPECT_LT(clock.reads, 10u);

  EXPECT_EQ("taskCurrentlyRunning: 0 taskRunCount: 3",
            assertionOf([&] { task->taskShouldYield(); }));
  EXPECT_TRUE(make("never ran")->taskShouldYield());
}

TEST_F(TaskTest, forcedYieldIsAQuantumOfZero) {
  auto const task = make("t", TaskPriority::normal, [this](DoTask& self) {
    EXPECT_TRUE(self.taskShouldYield());
    EXPECT_TRUE(self.taskShouldYield());
    clock.now += 1h;
  });
  task->taskQuantumIs(5ms);
  root->takeEvents();
  task->taskForceYieldInTestIs(true);
  EXPECT_EQ(0ns, task->taskQuantum());
  task->taskQuantumIs(0ns);  // no change, no complaint
  task->scheduleTask();
  root->turn();
  EXPECT_EQ(0u, task->getStats().taskQuantumViolation500());
  task->taskForceYieldInTestIs(false);
  EXPECT_EQ(20ms, task->taskQuantum());
  EXPECT_THAT(root->takeEvents(),
              ElementsAre("frcYieldOn t", "schedule   t", "schedulerRunnable root", "busy       t",
                          "run start  t", "run end    t", "idle       t", "frcYieldOfft"));
  task->taskForceYieldInTestIs(true);  // and is destroyed so
}

TEST_F(TaskTest, runFromTestRunsNow) {
  auto const task = make("t", TaskPriority::normal, taking(1ms));
  task->scheduleTask();
  root->takeEvents();
  task->taskRunFromTest();
  EXPECT_THAT(root->takeEvents(), ElementsAre("run start  t", "run end    t", "idle       t"));
  EXPECT_EQ(0u, root->runnableTaskCount());
  EXPECT_EQ(1u, root->runTaskCount(TaskPriority::normal));

  auto lonely = std::make_shared<DoTask>(std::make_shared<ManualRoot>(), TaskPriority::low, "t");
  lonely->workIs([&](DoTask&) { lonely.reset(); });  // lets go of itself and of its scheduler
  lonely->taskRunFromTest();
  EXPECT_EQ(nullptr, lonely);
}

TEST_F(TaskTest, resetClearsTheFiguresAndNothingElse) {
  auto const task = make("t", TaskPriority::normal, taking(100ms));
  task->taskQuantumIs(10ms);
  task->taskStatsNameIs("stats");
  task->scheduleTask();
  clock.now += 1ms;
  root->turn();
  task->taskWorkCountInc(3);
  task->taskWorkPendingIs(4);
  unsigned told = 0;
  task->onReset = [&] { ++told; };
  task->resetStats();
  TaskStat const stat = task->getStats();
  EXPECT_EQ("stats", stat.name());
  EXPECT_EQ(0u, stat.taskRunCount());
  EXPECT_EQ(0ns, stat.taskTotalRunTime());
  EXPECT_EQ(0ns, stat.taskRunTimeHighWaterMark());
  EXPECT_EQ(0ns, stat.taskLastSchedulingLatency());
  EXPECT_EQ(0ns, stat.taskSchedulingLatencyHighWaterMark());
  EXPECT_EQ(0u, stat.taskQuantumViolation500());
  EXPECT_EQ(0u, stat.taskWorkCountTotal());
  EXPECT_EQ(TaskStat::kNoSample, stat.taskWorkCountHighWaterMark());
  EXPECT_EQ(0u, stat.taskLastWorkPending());
  EXPECT_EQ(TaskStat::kNoSample, stat.taskWorkPendingHighWaterMark());
  EXPECT_EQ(10ms, task->taskQuantum());
  EXPECT_EQ(1u, told);
}

// A task whose storage outlives it, as an object in a pool does.
TEST_F(TaskTest, oneThatDestroysItselfInItsRunIsNoticed) {
  alignas(DoTask) static unsigned char storage[sizeof(DoTask)];
  auto* const raw = new (storage) DoTask(root, TaskPriority::normal, "suicide");
  std::shared_ptr<DoTask> const task(raw, [](DoTask*) {});
  std::string const key = TaskKey(raw).toStrep();
  auto const other = make("other");
  raw->workIs([](DoTask& self) { self.~DoTask(); });
  raw->scheduleTask();
  other->scheduleTask();
  EXPECT_EQ("Task: suicide" + key + " taskMagicNumber: 0 taskMagicNumberConstructed: 1119771390",
            assertionOf([&] { root->turn(); }));
  EXPECT_TRUE(root->turn());
  EXPECT_EQ(1u, other->taskRunCount());
}

TEST_F(TaskTest, whatItRefuses) {
  auto const task = make("t");
  std::string const display = "t" + TaskKey(task.get()).toStrep();
  std::shared_ptr<TaskScheduler> const none;
  struct {
    char const* name;
    std::function<void()> action;
    std::string text;
  } const cases[] = {
      {"no scheduler", [&] { DoTask(none, TaskPriority::low, "x"); }, "Need a TaskScheduler"},
      {"nor for a timer", [&] { DoTimer(none, TaskPriority::low, "x"); }, "Need a TaskScheduler"},
      {"nor for a group", [&] { TaskGroup::TaskGroupIs("g", TaskPriority::low, false, none); },
       "Need a TaskScheduler"},
      {"quantum of zero", [&] { task->taskQuantumIs(0ns); }, "Quantum: 0ns"},
      {"quantum over a second", [&] { task->taskQuantumIs(1s + 1ns); }, "Quantum: 1000ms"},
      {"default quantum over a second", [&] { root->defaultTaskQuantumIs(2s); }, "Quantum: 2000ms"},
      {"negative default quantum", [&] { root->defaultTaskQuantumIs(-1ns); }, "Quantum: -1ns"},
      {"registered twice", [&] { root->taskRegister(task.get()); },
       "Task: " + display + " already registered"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.text, assertionOf(c.action));
  }
  for (unsigned number : {5u, 6u}) {
    EXPECT_THAT(
        assertionOf([&] { make("x", TaskPriority(number)); }),
        HasSubstr(number == 5 ? " priority: oneBeyondLast" : " priority: invalidPriority=6"));
  }
  root->taskUnregister(task.get());
  EXPECT_EQ("Task: " + display + " not registered",
            assertionOf([&] { root->taskUnregister(task.get()); }));
  task->scheduleTask();  // and dies queued, unregistered: its queue must not keep it
  root->refuseTasks = true;
  EXPECT_THROW(make("x"), RuntimeException);
  EXPECT_EQ(0u, root->registeredTaskCount());
}

TEST_F(TaskTest, deathFoldsFiguresByName) {
  for (int i = 0; i < 3; ++i) {
    auto const task =
        make("worker", i == 2 ? TaskPriority::low : TaskPriority::normal, taking(2ms));
    task->scheduleTask();
    root->turn();
    root->takeEvents();
  }
  EXPECT_THAT(root->takeEvents(), ElementsAre("delete     worker"));
  std::vector<TaskStat> dead;
  EXPECT_EQ(0u, root->getDeadTaskStats(&dead, false));
  ASSERT_EQ(1u, dead.size());
  EXPECT_EQ(3u, dead[0].taskDeadCount());
  EXPECT_EQ(6ms, dead[0].taskTotalRunTime());
  EXPECT_EQ(2u, root->deadTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::low));
  EXPECT_EQ(0u, root->tasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(3u, root->created);
  EXPECT_EQ(3u, root->destroyed);
}
}  // namespace
}  // namespace Veltro
