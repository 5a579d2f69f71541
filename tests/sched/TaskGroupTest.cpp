#include "SchedSupport.h"

namespace Veltro {
namespace {
using testing::ElementsAre;

struct TaskGroupTest : SchedTest {
  std::shared_ptr<TaskGroup> group = TaskGroup::TaskGroupIs("g", TaskPriority::high, false, root);
  std::shared_ptr<DoTask> makeIn(std::string const& name, DoTask::Work work = {},
                                 TaskPriority priority = TaskPriority::normal) {
    return std::make_shared<DoTask>(group, priority, name, std::move(work));
  }
  TaskStat parentStat() {
    std::vector<TaskStat> stats;
    root->getTaskStats(&stats, true);
    return stats.at(0);
  }
};

TEST_F(TaskGroupTest, oneTurnRunsAllThatFitsIntoTheQuantum) {
  auto const a = makeIn("a");
  auto const b = makeIn("b", {}, TaskPriority::absolute);
  auto const c = makeIn("c");
  for (int round = 1; round < 3; ++round) {  // also when the group has been idle
    for (auto const& task : {a, b, c}) task->scheduleTask();
    root->takeEvents();
    root->turn();
    EXPECT_THAT(root->takeEvents(),
                ElementsAre("run start  TaskGroup;g", "run start  b", "run end    b",
                            "idle       b", "schedule   TaskGroup;g", "run start  a",
                            "run end    a", "idle       a", "run start  c", "run end    c",
                            "idle       c", "schedulerIdle g", "run end    TaskGroup;g"));
    EXPECT_EQ(3u, parentStat().taskWorkCountHighWaterMark());
    EXPECT_EQ(0u, parentStat().taskLastWorkPending());
    root->turn();  // once more, for the books
    EXPECT_EQ(2u * static_cast<unsigned>(round), group->parentTaskRunCount());
    EXPECT_EQ(3u * static_cast<unsigned>(round), parentStat().taskWorkCountTotal());
    root->turn();
    EXPECT_EQ(0u, root->requests);
    EXPECT_EQ(static_cast<unsigned>(round), b->taskRunCount());
  }
}

TEST_F(TaskGroupTest, theGroupYieldsAfterItsQuantum) {
  auto const busy = makeIn("busy", [&](DoTask& self) {
    clock.now += 8ms;
    self.scheduleTask();
  });
  auto const other = make("other", TaskPriority::high);
  group->taskGroupForceYieldInTestIs(true);
  busy->scheduleTask();
  other->scheduleTask();
  root->turn();
  EXPECT_EQ(1u, busy->taskRunCount());
  EXPECT_EQ(1u, parentStat().taskLastWorkPending());
  EXPECT_TRUE(group->parentTaskScheduled());
  root->turn();
  EXPECT_EQ(1u, other->taskRunCount());
  group->taskGroupForceYieldInTestIs(false);
  group->taskGroupQuantumIs(30ms);
  unsigned const runs = busy->taskRunCount();
  root->turn();
  EXPECT_GE(busy->taskRunCount(), runs + 4);  // the clock is looked at twice a millisecond
  busy->workIs({});
  busy->taskForceYieldInTestIs(true);  // passed on to the group
  EXPECT_TRUE(group->taskGroupForceYieldInTest());
  busy->taskForceYieldInTestIs(false);
  EXPECT_FALSE(group->taskGroupForceYieldInTest());
}

TEST_F(TaskGroupTest, suspensionInsideATurnEndsIt) {
  auto const first = makeIn("first", [&](DoTask&) { root->suspendedIs(true); });
  auto const second = makeIn("second");
  first->scheduleTask();
  second->scheduleTask();
  root->turn();
  EXPECT_EQ(0u, second->taskRunCount());
  root->turn();  // ignored
  root->suspendedIs(false);
  while (root->turn()) continue;
  EXPECT_EQ(1u, second->taskRunCount());
  EXPECT_FALSE(group->schedulerHasRunnableTasks());
}

TEST_F(TaskGroupTest, anExceptionInTheGroupStopsNothing) {
  auto const first = makeIn("first", [](DoTask&) { throw 1; });
  auto const second = makeIn("second");
  first->scheduleTask();
  second->scheduleTask();
  EXPECT_THROW(root->turn(), int);
  while (root->turn()) continue;
  EXPECT_EQ(1u, second->taskRunCount());
  first->workIs({});
  first->scheduleTask();
  while (root->turn()) continue;
  EXPECT_EQ(2u, first->taskRunCount());
}

TEST_F(TaskGroupTest, enforcementAndItsException) {
  auto const strict = TaskGroup::TaskGroupIs("s", TaskPriority::high, true, root);
  EXPECT_EQ("taskPriority( normal ) != taskGroupPriority( high )",
            assertionOf([&] { DoTask(strict, TaskPriority::normal, "x"); }));
  DoTask(strict, TaskPriority::high, "x");
  strict->resetStats();  // by a task of normal priority
  EXPECT_TRUE(root->resetStatsInProgress());
  while (root->turn()) continue;
  EXPECT_FALSE(root->resetStatsInProgress());
}

TEST_F(TaskGroupTest, clearingTheRootClearsItsGroups) {
  auto const task = makeIn("t");
  task->scheduleTask();
  while (root->turn()) continue;
  EXPECT_EQ(1u, task->taskRunCount());
  root->clearStats();
  EXPECT_EQ(0u, task->taskRunCount());
}

TEST_F(TaskGroupTest, groupsComeAndGo) {
  EXPECT_EQ(1u, root->taskGroupCount());
  EXPECT_EQ("insert failed for g", assertionOf([&] { root->registerScheduler(group.get()); }));
  auto task = makeIn("t");
  EXPECT_EQ(2u, root->totalRegisteredTaskCount());
  EXPECT_EQ(1u, root->queueStatsRoot().priorityStats().at(TaskPriority::normal).idleCount());
  EXPECT_EQ(1u, root->queueStatsRoot().priorityStats().at(TaskPriority::high).idleCount());
  task->workIs([&](DoTask&) {
    group.reset();
    task.reset();  // the last owner of the group, inside the group's turn
  });
  task->scheduleTask();
  while (root->turn()) continue;
  EXPECT_EQ(0u, root->taskGroupCount());
  EXPECT_EQ(0u, root->totalRegisteredTaskCount());

  root->defaultTaskQuantumIs(7ms);
  group = TaskGroup::TaskGroupIs("h", TaskPriority::low, false, root);
  EXPECT_EQ(7ms, group->defaultTaskQuantum());
  auto const raw = group.get();
  root->unregisterScheduler(raw);
  EXPECT_EQ("delete failed for h", assertionOf([&] { root->unregisterScheduler(raw); }));
  root->registerScheduler(raw);
  std::weak_ptr<ManualRoot> const watch = root;
  root.reset();
  EXPECT_FALSE(watch.expired());  // a group keeps its parent
  group.reset();
  EXPECT_TRUE(watch.expired());
}
}  // namespace
}  // namespace Veltro
