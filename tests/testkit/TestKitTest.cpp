#include "Veltro/TestKit.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "Veltro/TaskControls.h"
#include "Veltro/TaskGroup.h"

namespace Veltro {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Log = std::vector<std::string>;

template <class Base>
class Doing final : public Base {
 public:
  using Work = std::function<void(Doing&)>;
  Doing(std::shared_ptr<TaskScheduler> scheduler, std::string const& name, Work work,
        TaskPriority priority = TaskPriority::normal)
      : Base(std::move(scheduler), priority, name), work_(std::move(work)) {}
  void taskExecute() override { work_(*this); }

 private:
  Work const work_;
};
using DoTask = Doing<Task>;
using DoTimer = Doing<TimerTask>;

struct TestKitTest : testing::Test {
  std::shared_ptr<TestKit> kit = std::make_shared<TestKit>();
  Log log;

  /// One that notes its name and the virtual second.
  std::shared_ptr<DoTimer> timer(std::string const& name) {
    return std::make_shared<DoTimer>(kit, name, [this](DoTimer& self) {
      log.push_back(self.taskName() + "@" + std::to_string(kit->elapsed() / 1s));
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
  EXPECT_EQ(0u, kit->runUntilIdle()) << "no time may pass";
  EXPECT_EQ(1u, kit->step());
  EXPECT_EQ(3600, a->timerRemaining());
  EXPECT_EQ(2u, kit->runFor(3600s));
  c->scheduleTaskDelay(10s);
  c->stopTimerTask();
  EXPECT_EQ(0u, kit->runFor(60s));
  EXPECT_EQ(7260s, kit->elapsed()) << "time passes with nothing to do";
  d->scheduleTask();
  EXPECT_EQ(1u, kit->step(5));
  EXPECT_THAT(log, ElementsAre("b@3600", "a@7200", "c@7200", "d@7260"));
}

TEST_F(TestKitTest, stepsStopBetweenTasksAndEndlessOnesAreCut) {
  auto const spin = [](DoTask& self) { self.scheduleTask(); };
  auto const high = std::make_shared<DoTask>(kit, "high", spin, TaskPriority::high);
  auto const low = std::make_shared<DoTask>(kit, "low", spin, TaskPriority::low);
  high->scheduleTask();
  low->scheduleTask();
  EXPECT_EQ(3u, kit->step(3));
  EXPECT_EQ(3u, high->taskRunCount());
  EXPECT_EQ(200u, kit->runUntilIdle(200));
  EXPECT_GT(low->taskRunCount(), 0u) << "picked as the event loop would pick";
  EXPECT_EQ(10u, kit->runFor(1h, 10));
  EXPECT_EQ(0s, kit->elapsed());
  kit->suspendedIs(true);
  EXPECT_EQ(0u, kit->step(10));
  kit->suspendedIs(false);
  EXPECT_EQ(10u, kit->step(10));
}

TEST_F(TestKitTest, equalSeedsDrawEqualJitter) {
  auto const draws = [](U32 seed) {
    std::vector<unsigned> numbers(16);
    auto const seeded = std::make_shared<TestKit>(seed);
    for (unsigned& number : numbers) number = seeded->jitterDraw();
    return numbers;
  };
  EXPECT_EQ(draws(5), draws(5));
  EXPECT_NE(draws(5), draws(6));
  auto const jittered = timer("jittered");
  jittered->scheduleTaskJitterUp(100s, 50);
  EXPECT_EQ(0u, kit->runFor(99s));
  EXPECT_EQ(1u, kit->runFor(52s));
}

TEST_F(TestKitTest, forcedYieldsReachOldAndNewTasksAndGiveTheQuantumBack) {
  auto const tenItems = [](DoTask& self) {
    for (unsigned item = 0; item < 10; ++item) {
      self.taskWorkCountInc(1);
      if (self.taskShouldYield()) return self.scheduleTask();
      if (self.taskWorkCountTotal() % 10 == 0) return;
    }
  };
  auto const old = std::make_shared<DoTask>(kit, "old", tenItems);
  old->taskQuantumIs(123ms);
  kit->forcedYieldsIs(true);
  auto const young = std::make_shared<DoTask>(kit, "young", tenItems);
  old->scheduleTask();
  young->scheduleTask();
  kit->step(20);
  EXPECT_EQ(10u, old->taskRunCount());
  EXPECT_EQ(10u, young->taskRunCount());
  kit->forcedYieldsIs(false);
  EXPECT_EQ(123ms, old->taskQuantum());
  EXPECT_EQ(kit->defaultTaskQuantum(), young->taskQuantum());
}

TEST_F(TestKitTest, forcedYieldsLetAGroupRunOneTaskATurn) {
  auto const group = TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, kit);
  std::vector<std::shared_ptr<DoTask>> tasks;
  auto const say = [this](DoTask& self) { log.push_back(self.taskName()); };
  for (std::shared_ptr<TaskScheduler> const& scheduler :
       {std::static_pointer_cast<TaskScheduler>(group),
        std::static_pointer_cast<TaskScheduler>(group),
        std::static_pointer_cast<TaskScheduler>(kit)}) {
    char const* const name = scheduler == kit ? "outside" : "inside";
    tasks.push_back(std::make_shared<DoTask>(scheduler, name, say));
  }
  kit->forcedYieldsIs(true);
  for (auto const& task : tasks) task->scheduleTask();
  kit->runUntilIdle();
  EXPECT_THAT(log, ElementsAre("inside", "outside", "inside"));
}

/// Counts the bytes that it reads, and writes one answer when it may.
class Channel final : public FileDescriptorTask {
 public:
  Channel(std::shared_ptr<TaskScheduler> scheduler, int fd)
      : FileDescriptorTask(std::move(scheduler), TaskPriority::normal, "channel") {
    taskWatchFdIs(fd);
    taskWatchReadableIs(true);
  }
  int bytes = 0;

 private:
  void taskExecuteReadable() override {
    char byte;
    bytes += ::read(taskWatchFd(), &byte, 1) == 1 ? 1 : 0;
    taskWatchWritableIs(bytes == 2);
  }
  void taskExecuteWritable() override {
    EXPECT_EQ(1, ::write(taskWatchFd(), "!", 1));
    taskWatchFdDel();
  }
};

TEST_F(TestKitTest, realDescriptorsAreServed) {
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  auto const channel = std::make_shared<Channel>(kit, ends[0]);
  EXPECT_EQ(0u, kit->runFor(1h)) << "nothing to read: not a run";
  ASSERT_EQ(2, ::write(ends[1], "ab", 2));
  kit->runUntilIdle(100);
  EXPECT_EQ(2, channel->bytes);
  char answer = '-';
  EXPECT_EQ(1, ::recv(ends[1], &answer, 1, MSG_DONTWAIT));
  EXPECT_EQ(-1, channel->taskWatchFd());
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(TestKitTest, controlsOfASchedulerRunHereAndExceptionsLeave) {
  struct Throws final : Platform::TimeoutHandler {
    void timeout() override { throw std::runtime_error("from the handler"); }
  } handler;
  auto const control =
      Platform::getTimerControl(&handler, kit, TaskPriority(TaskPriority::high), "control");
  control->setTimeout(2.5);
  EXPECT_EQ(2.5, control->remainingTimeout());
  EXPECT_THROW(kit->runFor(3s), std::runtime_error);
  EXPECT_EQ(2500ms, kit->elapsed());
  EXPECT_EQ(0u, kit->runFor(3s));
}

}  // namespace
}  // namespace Veltro
