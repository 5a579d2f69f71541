#include "SchedSupport.h"

namespace Veltro {
namespace {
using testing::ElementsAre;

struct Pipe final : FileDescriptorTask {
  using FileDescriptorTask::FileDescriptorTask;
  void taskExecuteReadable() override {
    if (onRead) onRead();
  }
  void taskExecuteWritable() override {
    if (onWrite) onWrite();
  }
  void handleTaskBusy() override {
    if (auto const react = std::exchange(onBusy, nullptr)) react();
  }
  std::function<void()> onRead, onWrite, onBusy;
};

struct FileDescriptorTaskTest : SchedTest {
  std::shared_ptr<Pipe> task = std::make_shared<Pipe>(root, TaskPriority::high, "p");
  unsigned tasks() const { return root->registeredTaskCount(); }
};

TEST_F(FileDescriptorTaskTest, theWriteTaskComesWithTheFirstInterestAndStays) {
  task->taskWatchWritableIs(false);
  EXPECT_EQ(1u, tasks());
  task->taskQuantumIs(3ms);
  task->taskSuspendedForTestIs(true);
  task->taskWatchWritableIs(true);
  EXPECT_EQ(2u, tasks());
  EXPECT_TRUE(root->watches[task.get()].writes);
  std::vector<TaskStat> stats;
  root->getTaskStats(&stats, true);
  EXPECT_EQ("p:read", stats[0].name());
  EXPECT_EQ("p:write", stats[1].name());
  EXPECT_EQ("Sh", stats[1].taskStatusString());  // taken over from the read task
  task->taskWatchWritableIs(false);
  EXPECT_EQ(2u, tasks());
  EXPECT_FALSE(root->watches[task.get()].writes);
  task.reset();
  EXPECT_EQ(0u, tasks());
}

TEST_F(FileDescriptorTaskTest, becomingBusyMayBeItsEnd) {
  for (auto const ready : {&Pipe::handleReadable, &Pipe::handleWritable}) {
    task = std::make_shared<Pipe>(root, TaskPriority::high, "p");
    task->taskWatchReadableIs(true);
    task->taskWatchWritableIs(true);
    task->onBusy = [this] { task.reset(); };
    (*task.*ready)();
    EXPECT_EQ(0u, tasks());
  }
}

TEST_F(FileDescriptorTaskTest, switchingOffDropsWhatIsQueued) {
  task->taskWatchReadableIs(true);
  task->taskWatchWritableIs(true);
  root->takeEvents();
  task->handleReadable();
  task->handleReadable();
  EXPECT_TRUE(task->taskScheduled());
  EXPECT_TRUE(task->taskBusy());
  task->handleWritable();
  task->taskWatchReadableIs(false);
  EXPECT_FALSE(task->taskScheduledReadable());
  EXPECT_TRUE(task->taskBusy());
  task->taskWatchReadableIs(true);
  EXPECT_FALSE(task->taskScheduledReadable());
  task->taskWatchWritableIs(false);
  EXPECT_FALSE(task->taskBusy());
  EXPECT_THAT(
      root->takeEvents(),
      ElementsAre("schedule   p:read", "schedulerRunnable root", "busy       p:read",
                  "busy       p", "schedule   p:write", "busy       p:write", "unschedule p:read",
                  "idle       p:read", "unschedule p:write", "idle       p:write", "idle       p"));
}

TEST_F(FileDescriptorTaskTest, theHandlersAccountsGoToTheSideThatRuns) {
  task->taskWatchReadableIs(true);
  task->taskWatchWritableIs(true);
  task->onRead = [&] {
    EXPECT_FALSE(task->taskShouldYield());
    task->taskWorkCountInc(3);
    task->taskWorkPendingIs(1);
  };
  task->onWrite = [&] { task->taskWorkCountInc(5); };
  task->handleReadable();
  task->handleWritable();
  clock.reads = 0;
  while (root->turn()) continue;
  EXPECT_EQ(3u, task->taskWorkCountReadableTotal());
  EXPECT_EQ(5u, task->taskWorkCountWritableTotal());
  // Three runs, of two reads each but for the last that finds nothing; one for the check above.
  EXPECT_EQ(2u + 1 + 2 + 1, clock.reads);
  task->taskWorkCountReadableInc(1);
  EXPECT_EQ(4u, task->taskWorkCountReadableTotal());
  EXPECT_EQ(3u, task->taskWorkCountReadableHighWaterMark());
}

TEST_F(FileDescriptorTaskTest, aHandlerMayThrowOrLetGoOfItsTask) {
  task->taskWatchReadableIs(true);
  task->onRead = [] { throw 1; };
  task->handleReadable();
  EXPECT_THROW(root->turn(), int);
  EXPECT_EQ("Executing task not set", assertionOf([&] { task->taskWorkCountInc(1); }));
  task->onRead = [&] { task.reset(); };
  task->handleReadable();
  root->turn();
  EXPECT_EQ(nullptr, task);
  EXPECT_EQ(0u, tasks());
}

TEST_F(FileDescriptorTaskTest, whatItRefuses) {
  struct {
    std::function<void()> action;
    char const* text;
  } const cases[] = {
      {[&] { Pipe(std::shared_ptr<TaskScheduler>(), TaskPriority::low, "x"); },
       "Need a TaskScheduler"},
      {[&] { task->handleReadable(); }, "handleReadable() called with taskWatchReadable off"},
      {[&] { task->handleWritable(); }, "handleWritable() called with taskWatchWritable off"},
      {[&] { task->taskWorkCountWritableInc(1); },
       "WriteTask not created by taskWatchWritableIs( true )"},
      {[&] { task->taskShouldYield(); }, "Executing task not set"},
      {[&] { task->taskWorkPendingIs(1); }, "Executing task not set"},
      {[&] {
         task->scheduleTaskReadable();
         root->turn();
       },
       "ReadTask should only run if taskWatchReadable"},
      {[&] {
         task->taskWatchReadableIs(true);
         task->onRead = [&] {
           task->handleReadable();
           root->handleSchedulerRun();
         };
         task->handleReadable();
         root->turn();
       },
       "Executing task already set"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.text, assertionOf(c.action));
}
}  // namespace
}  // namespace Veltro
