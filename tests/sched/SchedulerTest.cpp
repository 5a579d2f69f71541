// Schedulers, and groups of tasks, which are schedulers too.
#include "SchedSupport.h"

namespace Veltro {
namespace {

struct SchedulerTest : SchedTest {
  std::shared_ptr<TaskGroup> group = TaskGroup::TaskGroupIs("g", TaskPriority::high, false, root);
  std::shared_ptr<DoTask> makeIn(std::shared_ptr<TaskScheduler> const& scheduler,
                                 DoTask::Work work = {},
                                 TaskPriority priority = TaskPriority::normal) {
    return std::make_shared<DoTask>(scheduler, priority, "t", std::move(work));
  }
};

TEST_F(SchedulerTest, anExceptionStopsNothing) {
  auto const task = makeIn(group, [this](DoTask& self) {
    outside.nowNs += 1000;
    if (self.taskRunCount() == 1) self.scheduleTask();
    throw 1;
  });
  auto const other = makeIn(group, {}, TaskPriority::low);
  DoTask stray(group, TaskPriority::absolute, "nobody owns it");
  for (DoTask* const each : {&*other, &*task, &stray}) each->scheduleTask();
  EXPECT_THROW(root->runUntilIdle(), std::bad_weak_ptr);
  EXPECT_FALSE(stray.taskBusy());
  for (bool const again : {true, false}) {
    EXPECT_THROW(root->runUntilIdle(), int);
    EXPECT_EQ(again, task->taskBusy());
    EXPECT_FALSE(task->taskCurrentlyRunning());
  }
  root->runUntilIdle();
  EXPECT_EQ(1u, other->taskRunCount());
  EXPECT_EQ(0ns, task->getStats().taskTotalRunTime());
}

TEST_F(SchedulerTest, nestedRunsKeepTheOuterTask) {
  auto inner = make("inner", TaskPriority::normal, taking(7ms));
  auto outer = make("outer");
  outer->work = [&](DoTask& self) {
    if (self.taskRunCount() == 2) return;
    outside.nowNs += 1000000;
    self.scheduleTask();  // so that the inner loop runs it again, inside itself
    inner->scheduleTask();
    outer.reset();
    root->suspendedIs(true);
    root->suspendedIs(false);  // asks for a run, which nobody else does inside one
    root->runUntilIdle();
    EXPECT_TRUE(self.taskCurrentlyRunning());
    outside.nowNs += 12400000;
    EXPECT_TRUE(self.taskShouldYield()) << "time counts from the outer start";
  };
  std::weak_ptr<DoTask> const watch = outer;
  outer->scheduleTask();
  turn();
  EXPECT_TRUE(watch.expired());
  std::vector<TaskStat> dead;
  root->getDeadTaskStats(&dead, false);
  ASSERT_EQ(1u, dead.size());  // the inner run took no time of its own
  EXPECT_EQ("outer n 2 0.020 0.000 0.000 0 0 20 1 - - - - -", figures(dead[0]));
}

TEST_F(SchedulerTest, resettingInSlicesReachesEveryTask) {
  std::vector<std::shared_ptr<DoTask>> tasks;
  unsigned reset = 0;
  auto const add = [&] {
    tasks.push_back(make("t"));
    tasks.back()->onReset = [&] {
      ++reset;
      outside.nowNs += 25000000;  // more than a quantum: one task a slice, once the counter allows
    };
    tasks.back()->scheduleTask();
  };
  for (int i = 0; i < 4; ++i) add();
  root->runUntilIdle();
  root->resetStats();
  add();             // reached as well
  tasks[1].reset();  // and one that goes is passed by
  tasks[2]->onReset = [&] {
    ++reset;
    tasks[3].reset();
    root->resetStats();  // starts nothing anew
    throw 1;             // does not end the walk
  };
  EXPECT_THROW(root->runUntilIdle(), int);
  root->runUntilIdle();
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(3u, reset);
  EXPECT_EQ(0u, root->deadTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(0u, root->runTaskCount(TaskPriority::normal));
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, true);
  EXPECT_EQ("TestKit;ResetStats", stats.at(3).name());

  // A scheduler owns its reset task, which therefore does not keep the scheduler alive.
  std::weak_ptr<TestKit> const watch = root;
  TaskScheduler* const plain = root.get();
  group.reset();
  tasks[0]->onReset = [&] { tasks.clear(); };
  root->resetStats();
  root.reset();
  plain->handleSchedulerRun();
  EXPECT_TRUE(watch.expired());
}

TEST_F(SchedulerTest, clearStatsReachesAllAtOnceAndItsGroups) {
  auto const killer = make("t", TaskPriority::normal, taking(1ms)), late = make("t");
  auto victim = make("t"), inGroup = makeIn(group);
  make("dead before");
  killer->onReset = [&] { victim.reset(); };
  for (auto const& task : {killer, victim, late, inGroup}) task->scheduleTask();
  outside.nowNs += 1000000000;
  root->runUntilIdle();
  root->clearStats();
  EXPECT_EQ(0ns, root->maxSchedulerLatency());
  EXPECT_EQ(0u, root->runTaskCount(TaskPriority::normal));
  EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::normal));  // died by the clearing
  std::vector<TaskStat> dead;
  EXPECT_EQ(0u, root->getDeadTaskStats(&dead, false)) << "died before";
  EXPECT_EQ(0u, killer->taskRunCount() + late->taskRunCount() + inGroup->taskRunCount());
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
  root->runUntilIdle(20000);  // the history is full and goes round
  outside.calls = {};
  outside.clockReads = 0;
  EXPECT_EQ(1000u, root->runUntilIdle(1000));
  EXPECT_EQ(0u, outside.calls[Outside::allocation]);
  EXPECT_EQ(3000u, outside.clockReads);  // start and end of the run, and the schedule
}

TEST_F(SchedulerTest, aGroupYieldsAfterItsQuantum) {
  auto busy = makeIn(group, [&](DoTask& self) {
    outside.nowNs += 8000000;
    self.scheduleTask();
  });
  EXPECT_EQ(1u, root->taskGroupCount());
  EXPECT_EQ(2u, root->totalRegisteredTaskCount());
  EXPECT_EQ(1u, root->queueStatsRoot().priorityStats().at(TaskPriority::normal).idleCount());
  makeIn(group)->taskForceYieldInTestIs(true);  // until it dies
  EXPECT_FALSE(group->taskGroupForceYieldInTest());
  for (bool const force : {true, false, true}) {
    busy->taskForceYieldInTestIs(force);  // passed on to the group
    EXPECT_EQ(force, group->taskGroupForceYieldInTest());
  }
  busy->scheduleTask();
  turn();
  EXPECT_EQ(1u, busy->taskRunCount());
  EXPECT_TRUE(group->parentTaskScheduled());
  group->taskGroupForceYieldInTestIs(false);
  group->taskGroupQuantumIs(30ms);
  turn();
  EXPECT_GE(busy->taskRunCount(), 5u);  // the clock is looked at twice a millisecond
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, true);
  EXPECT_EQ(1u, stats[0].taskLastWorkPending());
  EXPECT_EQ(busy->taskRunCount(), stats[0].taskWorkCountTotal());

  // Suspension inside its turn ends that.
  busy->work = [&](DoTask& self) {
    self.scheduleTask();
    root->suspendedIs(true);
  };
  unsigned const runs = busy->taskRunCount();
  for (unsigned n = 1; n < 3; ++n) {
    root->runUntilIdle();
    EXPECT_EQ(runs + n, busy->taskRunCount());
    root->suspendedIs(false);
  }

  // Nothing left: a last turn, for the books.
  busy->work = {};
  root->runUntilIdle();
  stats.clear();
  root->getTaskStats(&stats, true);
  EXPECT_EQ(0u, stats[0].taskLastWorkPending());
  EXPECT_EQ(busy->taskRunCount(), stats[0].taskWorkCountTotal());
  EXPECT_EQ(6u, group->parentTaskRunCount());
  busy->scheduleTask();
  EXPECT_EQ(1u, root->runUntilIdle(1));
}
}  // namespace
}  // namespace Veltro
