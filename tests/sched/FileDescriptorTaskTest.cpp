#include "SchedSupport.h"
#include "tests/platform/Backends.h"

namespace Veltro {
namespace {

struct FileDescriptorTaskTest : SchedTest {
  std::shared_ptr<Pipe> task = make<Pipe>("p", TaskPriority::high);
};

TEST_F(FileDescriptorTaskTest, theWriteTaskComesWithTheFirstInterestAndStays) {
  task->taskWatchWritableIs(false);
  EXPECT_EQ(1u, root->registeredTaskCount());
  task->taskQuantumIs(3ms);
  task->taskSuspendedForTestIs(true);
  task->taskWatchFdIs(task->ends[0]);
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
