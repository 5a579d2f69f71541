// Tasks, timer tasks, descriptor tasks, and the controls that are tasks.
#include <map>

#include "SchedSupport.h"

namespace Veltro {
namespace {
using std::chrono::nanoseconds;
using TaskTest = SchedTest;
using TimerTaskTest = SchedTest;

TEST(TaskPriorityTest, forms) {
  std::ostringstream forms;
  for (unsigned value = 0; value < 6; ++value) {
    TaskPriority const priority(value);
    forms << priority << ' ' << priority.toStrep() << ' ' << priority.oneCharString() << ' ';
  }
  EXPECT_EQ(
      "absolute absolute A high high H normal normal N low low L scavenge scavenge S "
      "oneBeyondLast oneBeyondLast - ",
      forms.str());
  TaskPriority const six(6), most(256);
  EXPECT_EQ("invalidPriority=6", (std::ostringstream() << std::hex << six).str());
  EXPECT_EQ("unexpected priority value 6", assertionOf([&] { six.toStrep(); }));
  EXPECT_EQ("unexpected priority 255", assertionOf([&] { most.oneCharString(); }));
}

TEST_F(TaskTest, figuresOfRunsAreKeptClearedAndFoldedByNameAtDeath) {
  auto task = make("stats", TaskPriority::normal, taking(100ms));
  auto const run = [&] {
    task->scheduleTask();
    outside.nowNs += 2000000;
    turn();
  };
  unsigned told = 0;
  task->onReset = [&] { ++told; };
  task->taskQuantumIs(30ms);
  for (int round = 0; round < 2; ++round) {
    run();
    EXPECT_EQ(2ms, root->maxSchedulerLatency());
    turn();
    task->scheduleTask();
    task->unscheduleTask();
    task->taskWorkCountInc(9);
    task->taskWorkPendingIs(9);
    EXPECT_EQ("stats n 1 0.100 0.000 0.002 1 0 100 0 9 9.0 9 9 9", figures(task->getStats()));
    task->resetStats();
    EXPECT_EQ("stats n 0 0.000 0.000 0.000 0 0 0 0 - - - - -", figures(task->getStats()));
  }
  EXPECT_EQ(2u, told);
  EXPECT_EQ(30ms, task->taskQuantum());
  for (U32 const work : {0u, 3u, 2u, 0u}) {  // none, the first, a smaller one, none
    run();
    if (work != 0) {
      task->taskWorkCountInc(work);
      task->taskWorkPendingIs(work);
    }
    task = make("another", work == 3 ? TaskPriority::low : TaskPriority::normal, taking(1ms));
    task->taskStatsNameIs("stats");
  }
  make("idle");
  std::vector<TaskStat> dead;
  EXPECT_EQ(1u, root->getDeadTaskStats(&dead, false));
  ASSERT_EQ(1u, dead.size());
  EXPECT_EQ("stats n 4 0.103 0.002 0.002 1 0 100 4 5 0.0 3 0 3", figures(dead[0]));
  EXPECT_EQ(4u, root->deadTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::low));
}

TEST_F(TaskTest, quantumViolationsAreCountedByTheirSize) {
  struct {
    nanoseconds time;
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
    U64 first, second;
    float average;
    U32 mark;
  } const rows[] = {
      {"a tenth of the newest", 7, 17, 8, 17},
      {"zero is a sample", 0, 0, 0, 0},
      {"smaller counts leave the mark", 9, 1, 8.2F, 9},
      {"the mark is capped", 9, 4294967295, 429496737.6F, 4294967294},
      {"a count past 32 bits keeps its low ones", 9, (1ull << 32) + 3, 429496737.6F, 3},
  };
  for (auto const& row : rows) {
    auto const task = make("t");
    task->taskWorkCountInc(row.first);
    EXPECT_EQ(static_cast<float>(row.first), task->taskWorkCountDecayAvg());
    task->taskWorkCountInc(row.second);
    EXPECT_FLOAT_EQ(row.average, task->taskWorkCountDecayAvg()) << row.name;
    EXPECT_EQ(row.mark, task->taskWorkCountHighWaterMark()) << row.name;
    EXPECT_EQ(row.first + row.second, task->taskWorkCountTotal());
  }
  auto const task = make("t");
  for (auto const& [pending, mark] : {std::pair{0u, 0u}, {5u, 5u}, {2u, 5u}, {~0u, ~0u - 1}}) {
    task->taskWorkPendingIs(pending);
    EXPECT_EQ(mark, task->taskWorkPendingHighWaterMark());
  }
}

TEST_F(TaskTest, shouldYieldLooksAtTheClockOnlyNowAndThen) {
  unsigned answers = 0;
  auto const task = make("t", TaskPriority::normal, [&](DoTask& self) {
    EXPECT_FALSE(self.taskShouldYield());  // may look, and remembers when
    self.taskForceYieldInTestIs(true);
    EXPECT_TRUE(self.taskShouldYield()) << "asked again at once";
    self.taskForceYieldInTestIs(false);
    EXPECT_FALSE(self.taskShouldYield());
    outside.nowNs += 30000000;
    // Half a millisecond of processor time has to pass before the next look.
    while (!self.taskShouldYield()) ++answers;
    EXPECT_TRUE(self.taskShouldYield());  // no checkpoint after a yes: looks again
    outside.nowNs += 1000000000;
    self.taskForceYieldInTestIs(true);
  });
  for (int run = 0; run < 3; ++run) {
    answers = 0;
    outside.clockReads = 0;
    task->taskForceYieldInTestIs(false);
    task->taskRunFromTest();
  }
  EXPECT_GT(answers, 100u);
  EXPECT_LT(outside.clockReads, 12u);
  EXPECT_EQ("taskCurrentlyRunning: 0 taskRunCount: 3",
            assertionOf([&] { task->taskShouldYield(); }));
  EXPECT_EQ(0u, task->getStats().taskQuantumViolation500()) << "no quantum, no violation";
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

TEST_F(TimerTaskTest, jitterIsUniformInHundredthsAndNeverMoreThanTheDelay) {
  auto const task = make<DoTimer>("t");
  std::map<nanoseconds, unsigned> seen;
  for (int i = 0; i < 10100; ++i) ++seen[task->jitterOffset(10000ns, 50)];
  EXPECT_EQ(101u, seen.size());
  EXPECT_EQ(5000ns, seen.rbegin()->first);
  for (auto const& [offset, times] : seen) {
    EXPECT_EQ(0, offset.count() % 50);
    EXPECT_TRUE(times > 40 && times < 180) << times;
  }
  // Delays at which rounding, or 64 bits, would not do.
  auto const check = [&](auto delay) {
    auto const offset = task->jitterOffset(delay, 100);
    ASSERT_TRUE(offset >= decltype(delay)() && offset <= delay);
  };
  for (int i = 0; i < 2000; ++i) {
    for (double delay : {0.029, 0.041, 0.058, 55.617889912237992, 1e300}) check(delay);
    for (nanoseconds delay : {nanoseconds(24h * 12), nanoseconds::max() - 1ns, 1ns}) check(delay);
    task->scheduleTaskJitterUp(nanoseconds::max() - 1ns, 100);  // not "never", whatever is drawn
    ASSERT_TRUE(task->timerRunning() && task->timerRemaining() > 9e9);
    task->scheduleTaskJitterDown(1s, 100);
    ASSERT_TRUE(task->timerRemaining() <= 1 || task->taskStatus().taskOnRunQueue());
    task->scheduleTaskJitterUp(1.0, 30);
    ASSERT_TRUE(task->timerRemaining() >= 1 && task->timerRemaining() <= 1.301);
  }
}

struct FileDescriptorTaskTest : SchedTest {
  std::shared_ptr<Pipe> task = make<Pipe>("p", TaskPriority::high);
};

TEST_F(FileDescriptorTaskTest, theWriteTaskComesWithTheFirstInterestAndStays) {
  task->taskWatchWritableIs(false);
  EXPECT_EQ(1u, root->registeredTaskCount());
  task->taskQuantumIs(3ms);
  task->taskSuspendedForTestIs(true);
  task->taskWatchFdIs(task->pair.ends[0]);
  task->taskWatchWritableIs(true);
  task->onRead = [] { FAIL() << "reads are off"; };
  EXPECT_EQ(0u, root->runUntilIdle(3));
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, true);
  ASSERT_EQ(2u, stats.size());
  EXPECT_EQ("p:read", stats[0].name());
  EXPECT_EQ("p:write Sh 0 0.000 0.000 0.000 0 0 0 0 - - - - -", figures(stats[1]));
  task->onWrite = [&] {
    outside.nowNs += 5000000;
    EXPECT_TRUE(task->taskShouldYield()) << "the quantum is the read task's";
    task->taskWatchWritableIs(false);
  };
  task->taskSuspendedForTestIs(false);
  EXPECT_EQ(1u, root->runUntilIdle(9));
  EXPECT_EQ(2u, root->registeredTaskCount());
}

TEST_F(FileDescriptorTaskTest, becomingBusyOrAHandlerMayBeItsEnd) {
  auto const drop = [this] { task.reset(); };
  for (auto const ready : {&Pipe::handleReadable, &Pipe::handleWritable}) {
    for (bool const inHandler : {false, true}) {
      task = make<Pipe>("p");
      task->taskWatchReadableIs(true);
      task->taskWatchWritableIs(true);
      (inHandler ? task->onRead : task->onBusy) = drop;
      if (inHandler) task->onWrite = drop;
      (*task.*ready)();
      root->runUntilIdle();
      EXPECT_EQ(0u, root->registeredTaskCount());
    }
  }
}

TEST_F(FileDescriptorTaskTest, theHandlersAccountsGoToTheSideThatRuns) {
  task->taskWatchReadableIs(true);
  task->taskWatchWritableIs(true);
  task->onRead = [&] {
    task->taskWorkCountInc(3);
    throw 1;
  };
  task->onWrite = [&] { task->taskWorkCountInc(5); };
  task->handleReadable();
  task->handleWritable();
  EXPECT_THROW(turn(), int);
  EXPECT_EQ("Executing task not set", assertionOf([&] { task->taskWorkCountInc(1); }));
  root->runUntilIdle();
  EXPECT_EQ(3u, task->taskWorkCountReadableTotal());
  EXPECT_EQ(5u, task->taskWorkCountWritableTotal());
}

// The handler of a control that goes in a run inside its run may have gone as well: nobody to ask.
TEST_F(SchedTest, aHandlerThatReleasedItsControlIsNotAsked) {
  Callback back;
  back.answer = true;
  auto callback = Platform::getCallbackControl(&back, root, TaskPriority::normal, "callback");
  back.onCallback = [&] {
    if (back.calls == 1) return dynamic_cast<Task&>(*callback).taskRunFromTest();
    callback.reset();
    throw 1;
  };
  callback->requestCallback();
  EXPECT_THROW(root->runUntilIdle(), int);
}
}  // namespace
}  // namespace Veltro
