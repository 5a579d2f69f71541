// Schedulers, and groups of tasks, which are schedulers too.
#include "SchedSupport.h"

namespace Veltro {
namespace {
using testing::ElementsAre;

struct SchedulerTest : SchedTest {
  std::shared_ptr<TaskGroup> group = TaskGroup::TaskGroupIs("g", TaskPriority::high, false, root);
  std::shared_ptr<DoTask> makeIn(std::shared_ptr<TaskScheduler> const& scheduler,
                                 DoTask::Work work = {},
                                 TaskPriority priority = TaskPriority::normal) {
    return std::make_shared<DoTask>(scheduler, priority, "t", std::move(work));
  }
};

TEST_F(SchedulerTest, anExceptionStopsNothing) {
  for (std::shared_ptr<TaskScheduler> const& scheduler :
       {std::shared_ptr<TaskScheduler>(root), std::shared_ptr<TaskScheduler>(group)}) {
    auto const thrower = makeIn(
        scheduler, [](DoTask&) { throw 1; }, TaskPriority::high);
    auto const again = makeIn(scheduler, [](DoTask& self) {
      self.scheduleTask();
      throw 2;
    });
    auto const other = makeIn(scheduler, {}, TaskPriority::low);
    DoTask stray(scheduler, TaskPriority::absolute, "nobody owns it");
    stray.scheduleTask();
    for (auto const& task : {thrower, again, other}) task->scheduleTask();
    EXPECT_THROW(root->runUntilIdle(), std::bad_weak_ptr);
    EXPECT_FALSE(stray.taskBusy());
    EXPECT_THROW(root->runUntilIdle(), int);
    EXPECT_FALSE(thrower->taskBusy() || thrower->taskCurrentlyRunning());
    EXPECT_EQ(0u, thrower->getStats().taskTotalRunTime().count());
    EXPECT_THROW(root->runUntilIdle(), int);
    EXPECT_TRUE(again->taskBusy());
    again->work = thrower->work = {};
    thrower->scheduleTask();
    root->runUntilIdle();
    EXPECT_EQ(1u, other->taskRunCount());
    EXPECT_EQ(2u, again->taskRunCount());
    EXPECT_EQ(2u, thrower->taskRunCount());
  }
}

TEST_F(SchedulerTest, tasksMayDestroyWhatTheyLike) {
  auto first = make("first"), second = make("second");
  first->work = [&](DoTask&) {
    second.reset();
    first.reset();
  };
  first->scheduleTask();
  second->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(0u, root->runnableTaskCount());

  auto inGroup = makeIn(group);
  inGroup->work = [&](DoTask&) {
    group.reset();
    inGroup.reset();  // the last owner of the group, inside the group's turn
  };
  inGroup->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(0u, root->taskGroupCount());
  EXPECT_EQ(0u, root->totalRegisteredTaskCount());

  auto fromTest = make("ran from a test");
  std::weak_ptr<TestKit> watch = root;
  fromTest->work = [&](DoTask&) { fromTest.reset(); };
  root.reset();
  fromTest->taskRunFromTest();
  EXPECT_TRUE(watch.expired());

  // A scheduler owns its reset task, which therefore does not keep the scheduler alive.
  root = std::make_shared<TestKit>();
  watch = root;
  auto last = make("last");
  TaskScheduler* const plain = root.get();
  last->onReset = [&] { last.reset(); };
  root->resetStats();
  root.reset();
  plain->handleSchedulerRun();
  EXPECT_TRUE(watch.expired());
}

TEST_F(SchedulerTest, nestedRunsKeepTheOuterTask) {
  auto inner = make("inner", TaskPriority::normal, taking(7ms));
  auto outer = make("outer");
  unsigned depth = 0;
  outer->work = [&](DoTask& self) {
    if (++depth == 2) return;
    outside.nowNs += 1000000;
    self.scheduleTask();  // so that the inner loop runs it again, inside itself
    inner->scheduleTask();
    outer.reset();
    root->suspendedIs(true);
    root->suspendedIs(false);  // asks for a run, which nobody else does inside one
    root->runUntilIdle();
    EXPECT_TRUE(self.taskCurrentlyRunning());
    outside.nowNs += 12500000;
    EXPECT_TRUE(self.taskShouldYield()) << "time counts from the outer start";
    EXPECT_EQ(2u, self.taskRunCount());
  };
  std::weak_ptr<DoTask> const watch = outer;
  outer->scheduleTask();
  turn();
  EXPECT_TRUE(watch.expired());
  std::vector<TaskStat> dead;
  root->getDeadTaskStats(&dead, false);
  ASSERT_EQ(1u, dead.size());
  EXPECT_EQ(20500us, dead[0].taskRunTimeHighWaterMark());
  EXPECT_EQ(20500us, dead[0].taskTotalRunTime());  // the inner run took no time of its own
  EXPECT_EQ(2u, depth);
}

TEST_F(SchedulerTest, resettingInSlicesReachesEveryTask) {
  group.reset();
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
  EXPECT_FALSE(root->resetStatsInProgress());
  root->resetStats();
  EXPECT_TRUE(root->resetStatsInProgress());
  add();             // reached as well
  tasks[1].reset();  // and one that goes is passed by
  tasks[2]->onReset = [&] {
    ++reset;
    tasks[3].reset();
    throw 1;  // does not end the walk
  };
  EXPECT_THROW(root->runUntilIdle(), int);
  EXPECT_TRUE(root->resetStatsInProgress());
  root->resetStats();  // starts nothing anew
  root->runUntilIdle();
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(3u, reset);
  EXPECT_EQ(0u, root->deadTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(0u, root->runTaskCount(TaskPriority::normal));
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, true);
  std::string names;
  for (TaskStat const& stat : stats) names += stat.name() + ' ';
  EXPECT_EQ("t t TestKit;ResetStats t ", names);

  std::weak_ptr<TestKit> const watch = root;
  tasks.clear();
  root->resetStats();  // a walk under way keeps nothing alive
  root.reset();
  EXPECT_TRUE(watch.expired());
}

TEST_F(SchedulerTest, clearStatsReachesAllAtOnceAndItsGroups) {
  auto const killer = make("t", TaskPriority::normal, taking(1ms)), late = make("t");
  auto victim = make("t"), inGroup = makeIn(group);
  killer->onReset = [&] { victim.reset(); };
  for (auto const& task : {killer, victim, late, inGroup}) task->scheduleTask();
  outside.nowNs += 1000000000;
  root->runUntilIdle();
  EXPECT_EQ(1u, inGroup->taskRunCount());
  root->clearStats();
  EXPECT_EQ(0ns, root->maxSchedulerLatency());
  EXPECT_EQ(0u, root->runTaskCount(TaskPriority::normal));
  EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::normal));  // died by the clearing
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
  auto const other = make("other", TaskPriority::high);
  group->taskGroupForceYieldInTestIs(true);
  busy->scheduleTask();
  other->scheduleTask();
  turn();
  EXPECT_EQ(1u, busy->taskRunCount());
  EXPECT_TRUE(group->parentTaskScheduled());
  turn();
  EXPECT_EQ(1u, other->taskRunCount());
  group->taskGroupForceYieldInTestIs(false);
  group->taskGroupQuantumIs(30ms);
  unsigned const runs = busy->taskRunCount();
  turn();
  EXPECT_GE(busy->taskRunCount(), runs + 4);  // the clock is looked at twice a millisecond
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, true);
  EXPECT_EQ(1u, stats[0].taskLastWorkPending());
  EXPECT_EQ(busy->taskRunCount(), stats[0].taskWorkCountTotal());
  busy->work = {};
  for (bool const force : {true, false, true}) {
    busy->taskForceYieldInTestIs(force);  // passed on to the group
    EXPECT_EQ(force, group->taskGroupForceYieldInTest());
  }
  busy.reset();
  EXPECT_FALSE(group->taskGroupForceYieldInTest());
}

TEST_F(SchedulerTest, suspensionInsideAGroupsTurnEndsIt) {
  auto const first = makeIn(group, [&](DoTask&) { root->suspendedIs(true); });
  auto const second = makeIn(group);
  first->scheduleTask();
  second->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(0u, second->taskRunCount());
  root->suspendedIs(false);
  root->runUntilIdle();
  EXPECT_EQ(1u, second->taskRunCount());
  EXPECT_FALSE(group->schedulerHasRunnableTasks());
}

TEST_F(SchedulerTest, groupsBelongToTheirParent) {
  auto const task = makeIn(group, {}, TaskPriority::low);
  EXPECT_EQ(1u, root->taskGroupCount());
  EXPECT_EQ(2u, root->totalRegisteredTaskCount());
  auto const idle = [&](TaskPriority priority) {
    return root->queueStatsRoot().priorityStats().at(priority).idleCount();
  };
  EXPECT_EQ(1u, idle(TaskPriority::low));
  EXPECT_EQ(1u, idle(TaskPriority::high));
  root->defaultTaskQuantumIs(7ms);
  auto inner = TaskGroup::TaskGroupIs("h", TaskPriority::low, false, root);
  EXPECT_EQ(7ms, inner->defaultTaskQuantum());
  std::weak_ptr<TestKit> const watch = root;
  root.reset();
  group.reset();
  EXPECT_FALSE(watch.expired());
}
}  // namespace
}  // namespace Veltro
