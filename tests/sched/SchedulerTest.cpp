#include "SchedSupport.h"

namespace Veltro {
namespace {
using testing::ElementsAre;
using SchedulerTest = SchedTest;

TEST_F(SchedulerTest, suspendedItIgnoresRunsAndResumingRestartsIt) {
  auto const task = make("t");
  task->scheduleTask();
  root->suspendedIs(true);
  root->suspendedIs(true);
  root->takeEvents();
  root->turn();
  EXPECT_EQ(0u, root->requests);
  EXPECT_TRUE(task->taskScheduled());
  root->suspendedIs(false);
  EXPECT_EQ(1u, root->requests);
  EXPECT_THAT(root->takeEvents(),
              ElementsAre("schedulerRunIgnoredWhileSuspended root", "schedulerUnsuspended root"));
  root->turn();
  EXPECT_EQ(1u, task->taskRunCount());
}

TEST_F(SchedulerTest, anExceptionStopsNothing) {
  auto const thrower = make("thrower", TaskPriority::high, [](DoTask&) { throw 1; });
  auto const again = make("again", TaskPriority::high, [](DoTask& self) {
    self.scheduleTask();
    throw 2;
  });
  auto const other = make("other");
  for (auto const& task : {thrower, again, other}) task->scheduleTask();
  EXPECT_THROW(root->turn(), int);
  EXPECT_FALSE(thrower->taskBusy());
  EXPECT_FALSE(thrower->taskCurrentlyRunning());
  EXPECT_EQ(0u, thrower->getStats().taskTotalRunTime().count());
  EXPECT_THROW(root->turn(), int);
  EXPECT_TRUE(again->taskBusy());
  again->workIs({});
  while (root->turn()) continue;
  EXPECT_EQ(1u, other->taskRunCount());
  EXPECT_EQ(2u, again->taskRunCount());
  thrower->workIs({});
  thrower->scheduleTask();
  EXPECT_TRUE(root->turn());
  EXPECT_EQ(2u, thrower->taskRunCount());
}

TEST_F(SchedulerTest, aTaskWithoutOwnerIsRefusedAndTheOthersGoOn) {
  DoTask stray(root, TaskPriority::high, "stray");
  auto const other = make("other");
  stray.scheduleTask();
  other->scheduleTask();
  EXPECT_THROW(root->turn(), std::bad_weak_ptr);
  EXPECT_FALSE(stray.taskBusy());
  EXPECT_TRUE(root->turn());
  EXPECT_EQ(1u, other->taskRunCount());
}

TEST_F(SchedulerTest, tasksMayDestroyWhatTheyLike) {
  auto first = make("first");
  auto second = make("second");
  first->workIs([&](DoTask&) {
    second.reset();
    first.reset();
  });
  first->scheduleTask();
  second->scheduleTask();
  root->turn();
  EXPECT_EQ(0u, root->registeredTaskCount());
  EXPECT_EQ(0u, root->runnableTaskCount());

  // The last owner of a whole scheduler.
  auto last = make("last");
  ManualRoot* const plain = root.get();
  last->workIs([&](DoTask&) {
    root.reset();
    last.reset();
  });
  last->scheduleTask();
  plain->turn();
  EXPECT_EQ(nullptr, root);
}

TEST_F(SchedulerTest, nestedRunsKeepTheOuterTask) {
  auto inner = make("inner", TaskPriority::normal, taking(7ms));
  auto outer = make("outer");
  unsigned depth = 0;
  outer->workIs([&](DoTask& self) {
    if (++depth == 2) return;
    clock.now += 1ms;
    self.scheduleTask();  // so that the inner loop runs it again, inside itself
    inner->scheduleTask();
    outer.reset();
    root->suspendedIs(true);
    root->suspendedIs(false);  // asks for a run, which nobody else does inside one
    while (root->turn()) continue;
    EXPECT_TRUE(self.taskCurrentlyRunning());
    EXPECT_FALSE(self.taskShouldYield());
    clock.now += 13ms;
    EXPECT_EQ(2u, self.taskRunCount());
  });
  std::weak_ptr<DoTask> const watch = outer;
  outer->scheduleTask();
  root->turn();
  EXPECT_TRUE(watch.expired());
  std::vector<TaskStat> dead;
  root->getDeadTaskStats(&dead, false);
  ASSERT_EQ(1u, dead.size());
  EXPECT_EQ(21ms, dead[0].taskRunTimeHighWaterMark());
  EXPECT_EQ(21ms, dead[0].taskTotalRunTime());  // the inner run took no time of its own
  EXPECT_EQ(2u, depth);
}

TEST_F(SchedulerTest, resettingInSlicesReachesEveryTask) {
  std::vector<std::shared_ptr<DoTask>> tasks;
  unsigned reset = 0;
  auto const add = [&] {
    tasks.push_back(make("t"));
    tasks.back()->onReset = [&] {
      ++reset;
      clock.now += 25ms;  // more than a quantum: one task a slice, once the counter allows
    };
    tasks.back()->scheduleTask();
  };
  for (int i = 0; i < 4; ++i) add();
  while (root->turn()) continue;
  EXPECT_FALSE(root->resetStatsInProgress());
  root->resetStats();
  EXPECT_TRUE(root->resetStatsInProgress());
  root->resetStats();  // starts nothing new
  add();               // reached as well
  tasks[1].reset();    // and one that goes is passed by
  tasks[2]->onReset = [&] {
    ++reset;
    tasks[3].reset();
    throw 1;  // does not end the walk
  };
  EXPECT_THROW(while (root->turn()) continue, int);
  EXPECT_TRUE(root->resetStatsInProgress());
  while (root->turn()) continue;
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(3u, reset);
  EXPECT_EQ(0u, root->deadTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(0u, root->runTaskCount(TaskPriority::normal));
  EXPECT_EQ(4u, root->registeredTaskCount());  // the three, and the one that resets
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, true);
  std::vector<std::string> names;
  for (TaskStat const& stat : stats) names.push_back(stat.name());
  EXPECT_THAT(names, ElementsAre("t", "t", "root;ResetStats", "t"));

  std::weak_ptr<ManualRoot> const watch = root;
  tasks.clear();
  root->resetStats();  // a walk under way keeps nothing alive
  root.reset();
  EXPECT_TRUE(watch.expired());
}

// The scheduler owns its reset task, which therefore does not keep the scheduler alive.
TEST_F(SchedulerTest, theLastOwnerMayGoWhileFiguresAreReset) {
  auto last = make("last");
  ManualRoot* const plain = root.get();
  std::weak_ptr<ManualRoot> const watch = root;
  last->onReset = [&] { last.reset(); };
  root->resetStats();
  root.reset();
  plain->turn();
  EXPECT_TRUE(watch.expired());
}

TEST_F(SchedulerTest, clearStatsReachesAllAtOnce) {
  std::vector<std::shared_ptr<DoTask>> tasks;
  for (int i = 0; i < 3; ++i) {
    tasks.push_back(make("t"));
    tasks.back()->scheduleTask();
    root->turn();
  }
  tasks[0]->onReset = [&] { tasks[1].reset(); };
  tasks[2]->scheduleTask();
  clock.now += 1s;
  root->turn();
  root->clearStats();
  EXPECT_EQ(0ns, root->maxSchedulerLatency());
  EXPECT_EQ(0u, root->runTaskCount(TaskPriority::normal));
  EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::normal));  // died by the clearing
  std::vector<TaskStat> stats;
  EXPECT_EQ(2u, root->getTaskStats(&stats, false));
}

// What a run may cost.
TEST_F(SchedulerTest, theHotRoadAllocatesNothingAndReadsTheClockThrice) {
  auto const plain = make("plain", TaskPriority::normal, [](DoTask& self) {
    self.taskWorkCountInc(1);
    self.scheduleTask();
  });
  auto const timer = make<DoTimer>("timer", TaskPriority::high, [](DoTimer& self) {
    self.scheduleTask();
    self.scheduleTaskDelay(0.0);  // queued already: nothing to do
  });
  plain->scheduleTask();
  timer->scheduleTask();
  for (int i = 0; i < 20000; ++i) root->turn();  // the history is full and goes round
  unsigned long const before = allocations();
  clock.reads = 0;
  for (int i = 0; i < 1000; ++i) root->turn();
  EXPECT_EQ(before, allocations());
  EXPECT_EQ(3000u, clock.reads);  // start and end of the run, and the schedule
}
}  // namespace
}  // namespace Veltro
