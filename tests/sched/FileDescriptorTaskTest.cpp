#include "SchedSupport.h"
#include "tests/platform/Backends.h"

namespace Veltro {
namespace {

struct FileDescriptorTaskTest : SchedTest {
  std::shared_ptr<Pipe> task = make<Pipe>("p", TaskPriority::high);
  unsigned tasks() const { return root->registeredTaskCount(); }
};

TEST_F(FileDescriptorTaskTest, theWriteTaskComesWithTheFirstInterestAndStays) {
  task->taskWatchWritableIs(false);
  EXPECT_EQ(1u, tasks());
  task->taskQuantumIs(3ms);
  task->taskSuspendedForTestIs(true);
  task->taskWatchFdIs(task->ends[0]);
  task->taskWatchReadableIs(true);
  task->taskWatchWritableIs(true);
  EXPECT_EQ(2u, tasks());
  root->runUntilIdle(3);
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, true);
  EXPECT_EQ("p:read Sh; p:write Sh", stats[0].name() + ' ' + stats[0].taskStatusString() + "; " +
                                         stats[1].name() + ' ' + stats[1].taskStatusString());
  bool yields = false;
  task->onWrite = [&] {
    outside.nowNs += 5000000;
    yields = task->taskShouldYield();
    task->taskWatchWritableIs(false);
  };
  task->taskSuspendedForTestIs(false);
  root->runUntilIdle(9);
  EXPECT_TRUE(yields) << "the quantum is the read task's";
  EXPECT_EQ(2u, tasks());
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
      EXPECT_EQ(0u, tasks());
    }
  }
}

TEST_F(FileDescriptorTaskTest, theHandlersAccountsGoToTheSideThatRuns) {
  task->taskWatchReadableIs(true);
  task->taskWatchWritableIs(true);
  task->onRead = [&] {
    EXPECT_FALSE(task->taskShouldYield());
    task->taskWorkCountInc(3);
    task->taskWorkPendingIs(1);
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
  task->taskWorkCountReadableInc(1);
  EXPECT_EQ(4u, task->taskWorkCountReadableTotal());
  EXPECT_EQ(3u, task->taskWorkCountReadableHighWaterMark());
}

TEST_F(FileDescriptorTaskTest, resumedItRunsTheSidesThatAreOn) {
  task->taskWatchWritableIs(true);
  int writes = 0;
  task->onRead = [] { FAIL() << "reads are off"; };
  task->onWrite = [&] { ++writes; };
  task->taskSuspendedForTestIs(true);
  task->taskSuspendedForTestIs(false);
  root->runUntilIdle();
  EXPECT_EQ(1, writes);
}

// Controls are tasks as well.
using TaskControlsTest = SchedTest;

TEST_F(TaskControlsTest, urgentHandlersComeFirst) {
  std::string calls;
  Timeout timeout([&] { calls += 't'; });
  Callback back([&] { calls += 'c'; });
  FdEvents events;
  auto const timer = Platform::getTimerControl(&timeout, root, TaskPriority::high, "timer");
  auto const callback = Platform::getCallbackControl(&back, root, TaskPriority::normal, "callback");
  auto const fd = Platform::getFdControl(&events, root, TaskPriority::low, "fd");
  auto const pipe = make<Pipe>("");
  events.onRead = [&](int number) { calls += number == pipe->ends[0] ? 'r' : '?'; };
  fd->setFd(pipe->ends[0]);
  fd->setReads(true);
  pipe->put();
  callback->requestCallback();
  timer->setTimeout(0);
  root->runUntilIdle(3);
  EXPECT_EQ("tcr", calls);
  std::string names;
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, false);
  for (TaskStat const& stat : stats) names += stat.name() + stat.taskPriority().oneCharString();
  EXPECT_EQ("timerHcallbackNfd:readL", names);
}

// The handler may have gone with its control: nobody to ask, so the exception goes on.
TEST_F(TaskControlsTest, aHandlerThatReleasedItsControlIsNotAsked) {
  Callback back;
  FdEvents events;
  back.answer = events.answer = true;
  auto callback = Platform::getCallbackControl(&back, root, TaskPriority::normal, "callback");
  auto fd = Platform::getFdControl(&events, root, TaskPriority::normal, "fd");
  auto const pipe = make<Pipe>("");
  back.onCallback = [&] {
    callback.reset();
    throw 1;
  };
  events.onRead = [&](int) {
    fd.reset();
    throw 1;
  };
  callback->requestCallback();
  EXPECT_THROW(root->runUntilIdle(), int);
  fd->setFd(pipe->ends[0]);
  fd->setReads(true);
  pipe->put();
  EXPECT_THROW(root->runUntilIdle(), int);
}

TEST_F(TaskControlsTest, releasedInsideANestedRunItIsNotAskedEither) {
  Callback back;
  back.answer = true;
  auto callback = Platform::getCallbackControl(&back, root, TaskPriority::normal, "callback");
  int runs = 0;
  back.onCallback = [&] {
    if (++runs == 1) return dynamic_cast<Task&>(*callback).taskRunFromTest();
    callback.reset();
    throw 1;
  };
  callback->requestCallback();
  EXPECT_THROW(root->runUntilIdle(), int);
}
}  // namespace
}  // namespace Veltro
