#include "Veltro/TestKit.h"

#include <stdexcept>

#include "tests/sched/SchedSupport.h"

namespace Veltro {
namespace {

struct TestKitTest : SchedTest {
  std::string log;

  /// One that notes its name and the virtual second.
  std::shared_ptr<DoTimer> timer(std::string const& name) {
    return make<DoTimer>(name, TaskPriority::normal, [this](DoTimer& self) {
      log += self.taskName() + std::to_string(root->elapsed() / 1s) + ' ';
    });
  }
};

TEST_F(TestKitTest, timersFireInTheOrderOfDeadlineThenArming) {
  auto const a = timer("a"), b = timer("b"), c = timer("c"), d = timer("d");
  a->scheduleTaskDelay(7200s);
  b->scheduleTaskDelay(3600.0);
  c->scheduleTaskDelay(7200s);
  d->scheduleTaskDelay(86400s);
  b->scheduleTaskLowestDelay(10000s);  // has less left, and keeps it
  EXPECT_EQ(0u, root->runUntilIdle()) << "no time may pass";
  EXPECT_EQ(1u, root->step());
  EXPECT_EQ(3600, a->timerRemaining());
  EXPECT_EQ(2u, root->runFor(3600s));
  c->scheduleTaskDelay(10s);
  c->stopTimerTask();
  EXPECT_EQ(0u, root->runFor(60s));
  EXPECT_EQ(7260s, root->elapsed()) << "time passes with nothing to do";
  d->scheduleTask();
  EXPECT_EQ(1u, root->step(5));
  EXPECT_EQ("b3600 a7200 c7200 d7260 ", log);
}

TEST_F(TestKitTest, stepsStopBetweenTasksAndEndlessOnesAreCut) {
  auto const spin = [](DoTask& self) { self.scheduleTask(); };
  auto const high = make("high", TaskPriority::high, spin);
  auto const low = make("low", TaskPriority::normal, spin);
  high->scheduleTask();
  low->scheduleTask();
  EXPECT_EQ(3u, root->step(3));
  EXPECT_EQ(3u, high->taskRunCount());
  EXPECT_EQ(200u, root->runUntilIdle(200));
  EXPECT_GT(low->taskRunCount(), 0u) << "picked as the event loop would pick";
  EXPECT_EQ(10u, root->runFor(1h, 10));
  EXPECT_EQ(0s, root->elapsed());
  root->suspendedIs(true);
  EXPECT_EQ(0u, root->step(10));
  root->suspendedIs(false);
  EXPECT_EQ(10u, root->step(10));
}

TEST_F(TestKitTest, equalSeedsDrawEqualJitter) {
  auto const draws = [](U32 seed) {
    TestKit kit(seed);
    std::vector<unsigned> numbers(16);
    for (unsigned& number : numbers) number = kit.jitterDraw();
    return numbers;
  };
  EXPECT_EQ(draws(5), draws(5));
  EXPECT_NE(draws(5), draws(6));
}

TEST_F(TestKitTest, forcedYieldsReachOldAndNewTasksAndGiveTheQuantumBack) {
  auto const tenItems = [](DoTask& self) {
    for (unsigned item = 0; item < 10; ++item) {
      self.taskWorkCountInc(1);
      if (self.taskShouldYield()) return self.scheduleTask();
      if (self.taskWorkCountTotal() % 10 == 0) return;
    }
  };
  auto const old = make("old", TaskPriority::normal, tenItems);
  old->taskQuantumIs(123ms);
  root->forcedYieldsIs(true);
  auto const young = make("young", TaskPriority::normal, tenItems);
  old->scheduleTask();
  young->scheduleTask();
  root->step(20);
  EXPECT_EQ(10u, old->taskRunCount());
  EXPECT_EQ(10u, young->taskRunCount());
  root->forcedYieldsIs(false);
  EXPECT_EQ(123ms, old->taskQuantum());
  EXPECT_EQ(root->defaultTaskQuantum(), young->taskQuantum());
}

TEST_F(TestKitTest, forcedYieldsLetAGroupRunOneTaskATurn) {
  auto const group = TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, root);
  auto const say = [this](DoTask& self) { log += self.taskName(); };
  auto const inside = [&] {
    return std::make_shared<DoTask>(group, TaskPriority::normal, "i", say);
  };
  auto const a = inside(), b = inside(), other = make("o", TaskPriority::normal, say);
  root->forcedYieldsIs(true);
  for (auto const& task : {a, b, other}) task->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ("ioi", log);
}

TEST_F(TestKitTest, realDescriptorsAreServed) {
  auto const pipe = make<Pipe>("p");
  pipe->onRead = [&] {
    log += 'r';
    pipe->taskWatchWritableIs(log == "rr");
  };
  pipe->onWrite = [&] {
    log += 'w';
    pipe->taskWatchFdDel();
  };
  pipe->taskWatchFdIs(pipe->pair.ends[0]);
  pipe->taskWatchReadableIs(true);
  EXPECT_EQ(0u, root->runFor(1h)) << "nothing to read: not a run";
  pipe->pair.put();
  pipe->pair.put();
  root->runUntilIdle(100);
  EXPECT_EQ("rrw", log);
  EXPECT_EQ(-1, pipe->taskWatchFd());
}

TEST_F(TestKitTest, controlsOfASchedulerRunHereAndExceptionsLeave) {
  Timeout handler([] { throw std::runtime_error("from the handler"); });
  auto const control = Platform::getTimerControl(&handler, root, TaskPriority::high, "control");
  control->setTimeout(2.5);
  EXPECT_EQ(2.5, control->remainingTimeout());
  EXPECT_THROW(root->runFor(3s), std::runtime_error);
  EXPECT_EQ(2500ms, root->elapsed());
  EXPECT_EQ(0u, root->runFor(3s));
}

}  // namespace
}  // namespace Veltro
