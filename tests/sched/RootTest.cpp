// Roots on the event loops of real threads.
#include <atomic>
#include <cerrno>
#include <thread>

#include "SchedSupport.h"

namespace Veltro {
namespace {
using testing::HasSubstr;

template <typename Backend>
struct RootTest : testing::Test {};
using Backends = testing::Types<KivBackend, LibeventBackend>;
TYPED_TEST_SUITE(RootTest, Backends, );

template <class T>
std::shared_ptr<T> make(typename T::Work work = {}) {
  return std::make_shared<T>(schedulerRootVeltro(), TaskPriority::normal, "t", std::move(work));
}
std::shared_ptr<Pipe> makePipe() {
  return std::make_shared<Pipe>(schedulerRootVeltro(), TaskPriority::high, "p");
}

// The whole road through the loop, for long: what leaks a little shows, and so does an allocation.
TYPED_TEST(RootTest, aMillionRunsLeaveMemoryFlat) {
  TypeParam::run([] {
    constexpr unsigned kWarm = 50000;  // the history has gone round by then
    Outside outside;
    unsigned long warm = 0;
    auto const task = make<DoTask>([&](DoTask& self) {
      outside.nowNs += 500;
      if (self.taskRunCount() == kWarm) warm = outside.calls[Outside::allocation];
      if (self.taskRunCount() < 1000000) self.scheduleTask();
    });
    auto const timer = make<DoTimer>([&](DoTimer& self) {
      if (task->taskScheduled()) self.scheduleTaskJitterUp(100us, 50);
    });
    task->scheduleTask();
    timer->scheduleTaskDelay(1us);
    Platform::doEventLoop();
    EXPECT_EQ(1000000u, task->taskRunCount());
    EXPECT_GT(timer->taskRunCount(), 10u);
    EXPECT_EQ(warm, outside.calls[Outside::allocation]);
  });
}

TYPED_TEST(RootTest, operationsOfTimersOfARootThatEndsInItsRun) {
  TypeParam::run([] {
    Outside const outside;
    auto root = schedulerRootVeltroNonShared("mine");
    auto timer = std::make_shared<DoTimer>(root, TaskPriority::low, "t");
    EXPECT_EQ(DoTimer::TimePoint::max(), root->timerExpiry(*timer));
    EXPECT_TRUE(root->timerStart(*timer, 200.0, false));
    EXPECT_FALSE(root->timerStart(*timer, 500.0, false));
    EXPECT_NEAR(200, root->timerRemaining(*timer), 0.1);
    EXPECT_TRUE(root->timerStart(*timer, std::chrono::nanoseconds(100s), false));
    EXPECT_TRUE(root->timerStart(*timer, 500.0, true));
    EXPECT_NEAR(500, root->timerRemaining(*timer), 0.1);
    EXPECT_TRUE(root->timerStart(*timer, 1e300, true));  // longer than clocks can say, but a delay
    EXPECT_GT(root->timerExpiry(*timer) - std::chrono::steady_clock::now(), 24h);
    root->timerStop(*timer);
    EXPECT_EQ(std::numeric_limits<double>::infinity(), root->timerRemaining(*timer));
    std::weak_ptr<TaskSchedulerRoot> const watch = root;
    timer->work = [&](DoTimer&) { timer.reset(); };
    root.reset();
    timer->scheduleTaskDelay(1ms);
    Platform::doEventLoop();
    EXPECT_TRUE(watch.expired());
  });
}

TYPED_TEST(RootTest, aDescriptorsInterestComesBackWithItsNumber) {
  TypeParam::run([] {
    Outside outside;
    auto const pipe = makePipe();
    std::string log;
    pipe->onRead = [&] { log += 'r'; };
    pipe->onWrite = [&] { log += 'w'; };
    auto const logged = [&] {
      pipe->pair.put();
      for (int i = 0; i < 3; ++i) Platform::doEventLoop(0);
      return std::exchange(log, "").substr(0, 2);
    };
    pipe->taskWatchFdIs(pipe->pair.ends[0]);
    EXPECT_EQ("", logged()) << "no interest, no event";
    for (auto const watch : {&Pipe::taskWatchReadableIs, &Pipe::taskWatchWritableIs}) {
      outside.failIs(Outside::epollControl, 0, false, ENOMEM);
      EXPECT_ANY_THROW((*pipe.*watch)(true));
      (*pipe.*watch)(true);  // what was refused may be asked for again
    }
    EXPECT_THAT(logged(), testing::AnyOf("rw", "wr"));
    for (auto const drop : {&Pipe::preFdCloseCleanup, &Pipe::taskWatchFdDel}) {
      (*pipe.*drop)();
      EXPECT_EQ("", logged());
      pipe->taskWatchFdIs(pipe->pair.ends[0]);
      EXPECT_THAT(logged(), testing::AnyOf("rw", "wr"));
    }
    EXPECT_THAT(assertionOf([&] { pipe->fdNotifiee()->readFdEvent(99); }), HasSubstr("99 == "));
    EXPECT_THAT(assertionOf([&] { pipe->fdNotifiee()->writeFdEvent(98); }), HasSubstr("98 == "));
  });
}

// At some number of armed timers the loop needs memory for one more: that of the root's runs.
TEST(RootThreadsTest, aRunThatTheLoopRefusesIsAskedForAgain) {
  LibeventBackend::run([] {
    Outside outside;
    Timeout handler;
    std::vector<std::shared_ptr<Platform::TimerControl>> timers;
    timers.reserve(70);
    auto const task = make<DoTask>([&](DoTask& self) {
      outside.failNone();
      if (timers.size() == 70) return;
      timers.push_back(Platform::getTimerControl(&handler));
      timers.back()->setTimeout(1000);
      self.scheduleTask();
      outside.failIs(Outside::allocation, 0, true, 0);
    });
    unsigned refused = 0;
    for (unsigned round = 0; round < 9; ++round) {
      task->scheduleTask();
      try {
        Platform::doEventLoop(1);
      } catch (std::exception const&) {
        ++refused;
      }
      outside.failNone();
    }
    EXPECT_EQ(70u, timers.size());
    EXPECT_NE(0u, refused);
  });
}

// Declared first in a thread, so that it goes last: after the thread's root.
struct FreeBaseAtThreadEnd {
  ~FreeBaseAtThreadEnd() { leFree(); }
};

TEST(RootThreadsTest, eightThreadsMayEndWithAllTheyHave) {
  useThreadLocalSingletons();
  std::atomic<unsigned> ready{0};
  std::vector<std::thread> threads;
  std::weak_ptr<TaskSchedulerRoot> watches[8];
  for (auto& watch : watches) {
    threads.emplace_back([&] {
      thread_local FreeBaseAtThreadEnd const freeBase;
      if (&watch - watches < 4) schedulerRootVeltro();  // goes after or before what is live
      thread_local std::vector<std::shared_ptr<_TaskBase>> live(3);
      auto const root = schedulerRootVeltro();
      watch = root;
      EXPECT_EQ((std::ostringstream() << "thread:" << std::this_thread::get_id()).str(),
                root->schedulerName());
      for (++ready; ready < 8;) std::this_thread::yield();  // all at once
      auto const pipe = makePipe();
      pipe->onRead = [&] { pipe->taskWatchReadableIs(false); };
      pipe->taskWatchFdIs(pipe->pair.ends[0]);
      pipe->taskWatchReadableIs(true);
      pipe->pair.put();
      auto const busy = make<DoTask>([](DoTask& self) {
        if (self.taskRunCount() < 5000) self.scheduleTask();
      });
      busy->scheduleTask();
      Platform::doEventLoop();
      EXPECT_EQ(5000u, busy->taskRunCount());
      auto const timer = make<DoTimer>();
      timer->scheduleTaskDelay(1h);
      busy->scheduleTask();
      root->resetStats();
      live = {timer, busy, pipe};
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (auto const& watch : watches) EXPECT_TRUE(watch.expired());
}
}  // namespace
}  // namespace Veltro
