#include <numeric>

#include "SchedSupport.h"

namespace Veltro {
namespace {
using testing::ElementsAre;
using TaskTest = SchedTest;

TEST_F(TaskTest, figuresOfRunsAreKeptFoldedByNameAtDeathAndCleared) {
  auto const run = [&](std::shared_ptr<DoTask> const& task) {
    task->scheduleTask();
    outside.nowNs += 2000000;
    turn();
  };
  auto task = make("stats", TaskPriority::normal, taking(100ms));
  task->taskQuantumIs(10ms);
  run(task);
  EXPECT_EQ(2ms, root->maxSchedulerLatency());
  turn();
  task->scheduleTask();
  task->unscheduleTask();
  task->taskWorkCountInc(3);
  task->taskWorkPendingIs(4);
  EXPECT_EQ(
      "stats n dead 0 runs 1 time 100 most 100 late 0 most 2 over 0+1 work 3 average 3 mark 3 "
      "pending 4 mark 4",
      figures(task->getStats()));
  task.reset();
  for (TaskPriority const priority : {TaskPriority::low, TaskPriority::normal}) {
    auto const renamed = make("another", priority, taking(1ms));
    renamed->taskStatsNameIs("stats");
    run(renamed);
  }
  std::vector<TaskStat> dead;
  make("idle");
  EXPECT_EQ(1u, root->getDeadTaskStats(&dead, false));
  ASSERT_EQ(1u, dead.size());
  EXPECT_EQ(
      "stats n dead 3 runs 3 time 102 most 100 late 2 most 2 over 0+1 work 3 average 0 mark 3 "
      "pending 0 mark 4",
      figures(dead[0]));
  EXPECT_EQ(3u, root->deadTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::low));

  task = make("cleared", TaskPriority::normal, taking(40ms));
  unsigned told = 0;
  task->onReset = [&] { ++told; };
  task->taskQuantumIs(5ms);
  run(task);
  task->taskWorkCountInc(3);
  task->taskWorkPendingIs(4);
  task->resetStats();
  EXPECT_EQ(
      "cleared n dead 0 runs 0 time 0 most 0 late 0 most 0 over 0+0 work 0 average 0 mark none "
      "pending 0 mark none",
      figures(task->getStats()));
  EXPECT_EQ(5ms, task->taskQuantum());
  EXPECT_EQ(1u, told);
}

TEST_F(TaskTest, quantumViolationsAreCountedByTheirSize) {
  struct {
    std::chrono::nanoseconds time;
    unsigned twice, five;
  } const cases[] = {{39'999'999ns, 0, 0}, {40ms, 1, 0}, {99'999'999ns, 1, 0}, {100ms, 0, 1}};
  for (auto const& c : cases) {
    auto const task = make("t", TaskPriority::normal, taking(c.time));
    task->taskRunFromTest();
    EXPECT_EQ(c.twice, task->getStats().taskQuantumViolation200()) << c.time.count();
    EXPECT_EQ(c.five, task->getStats().taskQuantumViolation500()) << c.time.count();
  }
}

TEST_F(TaskTest, workFigures) {
  struct {
    char const* name;
    std::vector<U64> counts;
    float average;
    U32 mark;
  } const rows[] = {
      {"none", {}, 0, 4294967295},
      {"the first is the average", {7}, 7, 7},
      {"a tenth of the newest", {7, 17}, 8, 17},
      {"zero is a sample", {0}, 0, 0},
      {"smaller counts leave the mark", {9, 1}, 8.2F, 9},
      {"the mark is capped", {4294967295}, 4294967296.0F, 4294967294},
      {"a count past 32 bits keeps its low ones", {9, (1ull << 32) + 3}, 429496737.6F, 3},
  };
  for (auto const& row : rows) {
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
  unsigned answers = 0;
  auto const task = make("t", TaskPriority::normal, [&](DoTask& self) {
    EXPECT_FALSE(self.taskShouldYield());  // may look, and remembers when
    outside.nowNs += 30000000;
    // Half a millisecond of processor time has to pass before the next look.
    while (!self.taskShouldYield()) ++answers;
    EXPECT_TRUE(self.taskShouldYield());  // no checkpoint after a yes: looks again
  });
  for (int run = 0; run < 3; ++run) {
    answers = 0;
    outside.clockReads = 0;
    task->scheduleTask();
    turn();
    EXPECT_GE(answers, 1u);
  }
  EXPECT_GT(answers, 100u);
  EXPECT_LT(outside.clockReads, 10u);
  EXPECT_EQ("taskCurrentlyRunning: 0 taskRunCount: 3",
            assertionOf([&] { task->taskShouldYield(); }));
  EXPECT_TRUE(make("never ran")->taskShouldYield());
}

TEST_F(TaskTest, forcedYieldIsAQuantumOfZero) {
  auto const task = make("t", TaskPriority::normal, [this](DoTask& self) {
    EXPECT_FALSE(self.taskShouldYield());
    self.taskForceYieldInTestIs(true);
    EXPECT_TRUE(self.taskShouldYield()) << "asked again at once";
    outside.nowNs += 1000000000;
  });
  task->taskRunFromTest();
  EXPECT_EQ(0u, task->getStats().taskQuantumViolation500());
  EXPECT_EQ(0ns, task->taskQuantum());
  task->taskQuantumIs(0ns);  // no change, no complaint
}

// A task whose storage outlives it, as an object in a pool does.
TEST_F(TaskTest, oneThatDestroysItselfInItsRunIsNoticed) {
  alignas(DoTask) static unsigned char storage[sizeof(DoTask)];
  auto* const raw = new (storage) DoTask(root, TaskPriority::normal, "suicide");
  std::shared_ptr<DoTask> const task(raw, [](DoTask*) {});
  std::string const key = TaskKey(raw).toStrep();
  auto const other = make("other");
  raw->work = [](DoTask& self) { self.~DoTask(); };
  raw->scheduleTask();
  other->scheduleTask();
  EXPECT_EQ("Task: suicide" + key + " taskMagicNumber: 0 taskMagicNumberConstructed: 1119771390",
            assertionOf([&] { turn(); }));
  EXPECT_TRUE(turn());
  EXPECT_EQ(1u, other->taskRunCount());
}
}  // namespace
}  // namespace Veltro
