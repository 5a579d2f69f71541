// Roots on the event loops of real threads.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "SchedSupport.h"
#include "Veltro/LibeventFactoryCpp.h"
#include "tests/support/Child.h"
#include "tests/support/VirtualTime.h"

namespace Veltro {
namespace {
using testing::HasSubstr;
using testing::MatchesRegex;

struct Channel final : FileDescriptorTask {
  explicit Channel(std::string const& name)
      : FileDescriptorTask(schedulerRootVeltro(), TaskPriority::high, name) {}
  void taskExecuteReadable() override {
    if (onRead) onRead();
  }
  void taskExecuteWritable() override {
    if (onWrite) onWrite();
  }
  std::function<void()> onRead, onWrite;
};

struct SocketPair {
  SocketPair() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fd)); }
  ~SocketPair() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  SocketPair(SocketPair const&) = delete;
  SocketPair& operator=(SocketPair const&) = delete;
  void send() const { EXPECT_EQ(1, ::write(fd[1], "x", 1)); }
  char receive() const {
    char c = 0;
    return ::read(fd[0], &c, 1) == 1 ? c : '-';
  }
  int fd[2];
};

/// Runs each test on the main thread's loop and on a worker's.
class RootTest : public testing::TestWithParam<char const*> {
 protected:
  static void run(std::function<void()> const& body) {
    if (std::string(GetParam()) == "main") {
      body();
      return;
    }
    useThreadLocalSingletons();
    std::thread([&] {
      body();
      leFree();  // with the thread's root still there
    }).join();
  }
};
INSTANTIATE_TEST_SUITE_P(Loops, RootTest, testing::Values("main", "worker"),
                         [](auto const& loop) { return std::string(loop.param); });

std::shared_ptr<DoTask> makeTask(std::string const& name, DoTask::Work work) {
  return std::make_shared<DoTask>(schedulerRootVeltro(), TaskPriority::normal, name,
                                  std::move(work));
}
std::shared_ptr<DoTimer> makeTimer(std::string const& name, DoTimer::Work work) {
  return std::make_shared<DoTimer>(schedulerRootVeltro(), TaskPriority::normal, name,
                                   std::move(work));
}

// The whole road through the loop, for long: what leaks a little shows, and so does an allocation.
TEST(EnduranceTest, tenMillionRunsLeaveMemoryFlat) {
#if defined(__SANITIZE_THREAD__)
  constexpr unsigned kRuns = 200000;  // ten times as dear, and it looks for races
#else
  constexpr unsigned kRuns = 10000000;
#endif
  constexpr unsigned kWarm = 50000;  // the history has gone round by then
  unsigned runs = 0;
  unsigned long warm = 0;
  auto const work = [&](TaskImpl& self) {
    if (++runs == kWarm) warm = allocations();
    if (runs < kRuns) self.scheduleTask();
  };
  auto const one = makeTask("one", work);
  auto const two = makeTask("two", work);
  auto const timer = makeTimer("timer", [&](DoTimer& self) {
    if (runs < kRuns) self.scheduleTaskJitterUp(100us, 50);
  });
  one->scheduleTask();
  two->scheduleTask();
  timer->scheduleTask();
  Platform::doEventLoop();
  EXPECT_GE(runs, kRuns);
  EXPECT_GT(timer->taskRunCount(), 10u);
  EXPECT_EQ(warm, allocations());
}

TEST_P(RootTest, rootOperationsOfTimers) {
  run([] {
    auto const root = schedulerRootVeltro();
    auto const timer = makeTimer("t", {});
    double const never = std::numeric_limits<double>::infinity();
    EXPECT_EQ(never, timer->timerRemaining());
    EXPECT_EQ(DoTimer::TimePoint::max(), root->timerExpiry(*timer));
    EXPECT_TRUE(root->timerStart(*timer, 200.0, false));
    EXPECT_FALSE(root->timerStart(*timer, 500.0, false));
    EXPECT_LT(timer->timerRemaining(), 201);
    EXPECT_TRUE(root->timerStart(*timer, std::chrono::nanoseconds(100s), false));
    EXPECT_LT(timer->timerRemaining(), 101);
    EXPECT_GT(timer->timerRemaining(), 50);
    EXPECT_TRUE(root->timerStart(*timer, 500.0, true));
    EXPECT_GT(timer->timerRemaining(), 400);
    root->timerStop(*timer);
    EXPECT_EQ(never, timer->timerRemaining());
    for (double delay : {1e10, 1e300}) {  // longer than clocks can say, but a delay
      timer->scheduleTaskDelay(delay);
      EXPECT_GT(timer->timerRemaining(), 1e8);
      EXPECT_GT(timer->currentExpirationTime() - std::chrono::steady_clock::now(), 24h);
    }
    Platform::doEventLoop(0.002);
    EXPECT_EQ(0u, timer->taskRunCount());
  });
}

TEST_P(RootTest, aDescriptorIsWatchedAsTheTaskSays) {
  run([] {
    SocketPair first, second;
    auto const channel = std::make_shared<Channel>("c");
    std::string log;
    channel->onRead = [&] {
      log += 'r';
      channel->taskWatchReadableIs(false);
    };
    channel->onWrite = [&] {
      log += 'w';
      channel->taskWatchWritableIs(false);
    };
    auto const logged = [&] {
      Platform::doEventLoop(0.005);
      return std::exchange(log, "");
    };
    first.send();
    second.send();
    channel->taskWatchFdIs(first.fd[0]);
    EXPECT_EQ("", logged()) << "no interest, no event";
    channel->taskWatchWritableIs(true);
    EXPECT_EQ("w", logged());
    channel->taskWatchReadableIs(true);
    channel->preFdCloseCleanup();
    EXPECT_EQ("", logged());
    channel->taskWatchFdIs(second.fd[0]);
    EXPECT_EQ("r", logged()) << "the interest came back";
    channel->taskWatchReadableIs(true);
    channel->taskWatchFdDel();
    EXPECT_EQ(-1, channel->taskWatchFd());
    channel->taskWatchFdIs(first.fd[0]);
    EXPECT_EQ("r", logged());
    EXPECT_EQ("99 == " + std::to_string(first.fd[0]),
              assertionOf([&] { channel->fdNotifiee()->readFdEvent(99); }));
    EXPECT_THAT(assertionOf([&] { channel->fdNotifiee()->writeFdEvent(98); }), HasSubstr("98 == "));
  });
}

TEST_P(RootTest, aRunMayEndItsOwnRoot) {
  run([] {
    auto root = schedulerRootVeltroNonShared("mine");
    EXPECT_EQ("mine", root->schedulerName());
    EXPECT_EQ(0u, root->taskGroupCount());
    std::weak_ptr<TaskSchedulerRoot> const watch = root;
    auto task = std::make_shared<DoTimer>(root, TaskPriority::low, "t");
    task->workIs([&](DoTimer&) { task.reset(); });
    root.reset();
    task->scheduleTaskDelay(1ms);
    Platform::doEventLoop();
    EXPECT_TRUE(watch.expired());
  });
}

// Declared first in a thread, so that it goes last: after the thread's root.
struct FreeBaseAtThreadEnd {
  ~FreeBaseAtThreadEnd() { leFree(); }
};

TEST(RootThreadsTest, aThreadMayEndWithAllItHas) {
  useThreadLocalSingletons();
  for (bool rootFirst : {true, false}) {
    std::weak_ptr<TaskSchedulerRoot> watch;
    std::thread([&] {
      thread_local FreeBaseAtThreadEnd const freeBase;
      if (rootFirst) schedulerRootVeltro();
      thread_local std::vector<std::shared_ptr<_TaskBase>> live;
      live.reserve(8);
      watch = schedulerRootVeltro();
      auto const timer = makeTimer("timer", {});
      timer->scheduleTaskDelay(1h);
      auto const queued = makeTask("queued", {});
      queued->scheduleTask();
      for (auto i = TaskSchedulerHistory::kCapacity; i > 0; --i) makeTask("brief", {});
      live = {timer, queued, std::make_shared<Channel>("c")};
      schedulerRootVeltro()->resetStats();
      Platform::doEventLoop(0.0);
    }).join();
    EXPECT_TRUE(watch.expired());
  }
}

TEST(RootThreadsTest, eightThreadsEachWithItsOwn) {
  useThreadLocalSingletons();
  std::shared_ptr<DoTask> const mine = makeTask("mine", {});
  std::atomic<unsigned> ready{0};
  std::vector<std::string> names(8);
  std::vector<std::thread> threads;
  for (std::string& name : names) {
    threads.emplace_back([&] {
      thread_local FreeBaseAtThreadEnd const freeBase;
      auto const root = schedulerRootVeltro();
      EXPECT_EQ(root, schedulerRootVeltro());
      name = root->schedulerName();
      std::ostringstream expected;
      expected << "thread:" << std::this_thread::get_id();
      EXPECT_EQ(expected.str(), name);
      ++ready;
      while (ready < 8) std::this_thread::yield();  // all at once
      SocketPair pair;
      auto const channel = std::make_shared<Channel>("c");
      unsigned reads = 0;
      channel->taskWatchFdIs(pair.fd[0]);
      channel->taskWatchReadableIs(true);
      channel->onRead = [&] {
        pair.receive();
        if (++reads == 50) {
          channel->taskWatchReadableIs(false);
        } else {
          pair.send();
        }
      };
      pair.send();
      auto const busy = makeTask("busy", [](DoTask& self) {
        if (self.taskRunCount() < 2000) self.scheduleTask();
      });
      auto const timer = makeTimer("timer", [](DoTimer& self) {
        if (self.taskRunCount() < 5) self.scheduleTaskJitterUp(100us, 100);
      });
      busy->scheduleTask();
      timer->scheduleTask();
      Platform::doEventLoop();
      EXPECT_EQ(2000u, busy->taskRunCount());
      EXPECT_EQ(5u, timer->taskRunCount());
      EXPECT_EQ(50u, reads);
      EXPECT_THAT(assertionOf([&] { mine->scheduleTask(); }),
                  HasSubstr("Executing in wrong thread "));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names.end(), std::adjacent_find(names.begin(), names.end()));
}

TEST(RootThreadsTest, theThreadCheck) {
  useThreadLocalSingletons();
  auto const root = schedulerRootVeltro();
  auto const task = makeTask("t", {});
  auto const timer = makeTimer("timer", {});
  struct {
    char const* name;
    std::function<void()> action;
  } const entries[] = {
      {"schedule", [&] { task->scheduleTask(); }},
      {"unschedule", [&] { task->unscheduleTask(); }},
      {"register", [&] { DoTask(root, TaskPriority::low, "x"); }},
      {"unregister", [&] { root->taskUnregister(task.get()); }},
      {"run", [&] { root->handleSchedulerRun(); }},
      {"run from test", [&] { task->taskRunFromTest(); }},
      {"suspend", [&] { task->taskSuspendedForTestIs(true); }},
      {"force yield", [&] { task->taskForceYieldInTestIs(true); }},
      {"delay", [&] { timer->scheduleTaskDelay(1.0); }},
      {"delay of zero", [&] { timer->scheduleTaskDelay(0ns); }},
      {"lowest delay", [&] { timer->scheduleTaskLowestDelay(1s); }},
      {"jitter", [&] { timer->scheduleTaskJitterDown(1s, 1); }},
      {"stop", [&] { timer->stopTimerTask(); }},
      {"remaining", [&] { timer->timerRemaining(); }},
      {"expiry", [&] { timer->currentExpirationTime(); }},
  };
  auto const elsewhere = [](std::function<void()> const& action) {
    std::thread([&] {
      ::pthread_setname_np(::pthread_self(), "stranger");
      action();
    }).join();
  };
  std::string const pid = std::to_string(::getpid());
  for (auto const& entry : entries) {
    SCOPED_TRACE(entry.name);
    elsewhere([&] {
      EXPECT_THAT(assertionOf(entry.action),
                  MatchesRegex("Executing in wrong thread [0-9]+\\(stranger\\) pid " + pid +
                               " scheduler belongs to thread [0-9]+\\(.+\\) pid " + pid));
    });
  }
  EXPECT_FALSE(task->taskSuspendedForTest() || task->taskForceYieldInTest());
  elsewhere([] { EXPECT_EQ("stranger", TaskSchedulerRoot::currentThreadName()); });
  EXPECT_EQ("", assertionOf([&] { root->sanityCheckCurrentRunningThread(); }));
  auto const passes = [&] {
    EXPECT_EQ("", assertionOf([&] { root->sanityCheckCurrentRunningThread(); }));
  };
  root->threadSanityDisabledIs(true);
  elsewhere(passes);
  root->threadSanityDisabledIs(false);
  auxThreadCount = 1;
  elsewhere(passes);
  auxThreadCount = 0;
  elsewhere([&] { inChild(passes); });
}
}  // namespace
}  // namespace Veltro
