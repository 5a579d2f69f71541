// Roots on the event loops of real threads.
#include <atomic>
#include <sstream>
#include <thread>

#include "SchedSupport.h"
#include "tests/platform/Backends.h"

namespace Veltro {
namespace {
using testing::HasSubstr;

template <typename Backend>
struct RootTest : testing::Test {};
using Backends = testing::Types<KivBackend, LibeventBackend>;
TYPED_TEST_SUITE(RootTest, Backends, );

template <class T>
std::shared_ptr<T> make(std::string const& name, typename T::Work work = {}) {
  return std::make_shared<T>(schedulerRootVeltro(), TaskPriority::normal, name, std::move(work));
}

// The whole road through the loop, for long: what leaks a little shows, and so does an allocation.
TYPED_TEST(RootTest, aMillionRunsLeaveMemoryFlat) {
  TypeParam::run([] {
    constexpr unsigned kRuns = 1000000;
    constexpr unsigned kWarm = 50000;  // the history has gone round by then
    Outside outside;
    unsigned runs = 0;
    unsigned long warm = 0;
    auto const work = [&](TaskImpl& self) {
      outside.nowNs += 500;
      if (++runs == kWarm) warm = outside.calls[Outside::allocation];
      if (runs < kRuns) self.scheduleTask();
    };
    auto const one = make<DoTask>("one", work), two = make<DoTask>("two", work);
    auto const timer = make<DoTimer>("timer", [&](DoTimer& self) {
      if (runs < kRuns) self.scheduleTaskJitterUp(100us, 50);
    });
    one->scheduleTask();
    two->scheduleTask();
    timer->scheduleTask();
    Platform::doEventLoop();
    EXPECT_GE(runs, kRuns);
    EXPECT_GT(timer->taskRunCount(), 10u);
    EXPECT_EQ(warm, outside.calls[Outside::allocation]);
  });
}

TYPED_TEST(RootTest, rootOperationsOfTimers) {
  TypeParam::run([] {
    Outside const outside;
    auto const root = schedulerRootVeltro();
    auto const timer = make<DoTimer>("t");
    double const never = std::numeric_limits<double>::infinity();
    EXPECT_EQ(never, timer->timerRemaining());
    EXPECT_EQ(DoTimer::TimePoint::max(), root->timerExpiry(*timer));
    EXPECT_TRUE(root->timerStart(*timer, 200.0, false));
    EXPECT_FALSE(root->timerStart(*timer, 500.0, false));
    EXPECT_NEAR(200, timer->timerRemaining(), 0.1);
    EXPECT_TRUE(root->timerStart(*timer, std::chrono::nanoseconds(100s), false));
    EXPECT_NEAR(100, timer->timerRemaining(), 0.1);
    EXPECT_TRUE(root->timerStart(*timer, 500.0, true));
    EXPECT_NEAR(500, timer->timerRemaining(), 0.1);
    root->timerStop(*timer);
    EXPECT_EQ(never, timer->timerRemaining());
    for (double delay : {1e10, 1e300}) {  // longer than clocks can say, but a delay
      timer->scheduleTaskDelay(delay);
      EXPECT_GT(timer->timerRemaining(), 1e8);
      EXPECT_GT(timer->currentExpirationTime() - std::chrono::steady_clock::now(), 24h);
    }
    Platform::doEventLoop(1);
    EXPECT_EQ(0u, timer->taskRunCount());
  });
}

TYPED_TEST(RootTest, aDescriptorsInterestComesBackWithItsNumber) {
  TypeParam::run([] {
    Outside const outside;
    auto const pipe = std::make_shared<Pipe>(schedulerRootVeltro(), TaskPriority::high, "p");
    std::string log;
    pipe->onRead = [&] { log += 'r'; };
    pipe->onWrite = [&] { log += 'w'; };
    auto const logged = [&] {
      pipe->put();
      for (int i = 0; i < 3; ++i) Platform::doEventLoop(0);
      return std::exchange(log, "").substr(0, 2);
    };
    pipe->taskWatchFdIs(pipe->ends[0]);
    EXPECT_EQ("", logged()) << "no interest, no event";
    pipe->taskWatchReadableIs(true);
    pipe->taskWatchWritableIs(true);
    for (auto const drop : {&Pipe::preFdCloseCleanup, &Pipe::taskWatchFdDel}) {
      (*pipe.*drop)();
      EXPECT_EQ("", logged());
      pipe->taskWatchFdIs(pipe->ends[0]);
      EXPECT_THAT(logged(), testing::AnyOf("rw", "wr"));
    }
    EXPECT_THAT(assertionOf([&] { pipe->fdNotifiee()->readFdEvent(99); }), HasSubstr("99 == "));
    EXPECT_THAT(assertionOf([&] { pipe->fdNotifiee()->writeFdEvent(98); }), HasSubstr("98 == "));
  });
}

TYPED_TEST(RootTest, aRunMayEndItsOwnRoot) {
  TypeParam::run([] {
    auto root = schedulerRootVeltroNonShared("mine");
    EXPECT_EQ("mine", root->schedulerName());
    std::weak_ptr<TaskSchedulerRoot> const watch = root;
    auto task = std::make_shared<DoTimer>(root, TaskPriority::low, "t");
    task->work = [&](DoTimer&) { task.reset(); };
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
      auto const timer = make<DoTimer>("timer");
      timer->scheduleTaskDelay(1h);
      auto const queued = make<DoTask>("queued");
      queued->scheduleTask();
      for (auto i = TaskSchedulerHistory::kCapacity; i > 0; --i) make<DoTask>("brief");
      live = {timer, queued,
              std::make_shared<Pipe>(schedulerRootVeltro(), TaskPriority::high, "p")};
      schedulerRootVeltro()->resetStats();
      Platform::doEventLoop(0.0);
    }).join();
    EXPECT_TRUE(watch.expired());
  }
}

TEST(RootThreadsTest, eightThreadsEachWithItsOwn) {
  useThreadLocalSingletons();
  std::atomic<unsigned> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      thread_local FreeBaseAtThreadEnd const freeBase;
      auto const root = schedulerRootVeltro();
      EXPECT_EQ(root, schedulerRootVeltro());
      std::ostringstream name;
      name << "thread:" << std::this_thread::get_id();
      EXPECT_EQ(name.str(), root->schedulerName());
      ++ready;
      while (ready < 8) std::this_thread::yield();  // all at once
      auto const pipe = std::make_shared<Pipe>(root, TaskPriority::high, "p");
      unsigned reads = 0;
      pipe->onRead = [&] { ++reads < 50 ? pipe->put() : pipe->taskWatchReadableIs(false); };
      pipe->taskWatchFdIs(pipe->ends[0]);
      pipe->taskWatchReadableIs(true);
      pipe->put();
      auto const busy = make<DoTask>("busy", [](DoTask& self) {
        if (self.taskRunCount() < 2000) self.scheduleTask();
      });
      busy->scheduleTask();
      Platform::doEventLoop();
      EXPECT_EQ(2000u, busy->taskRunCount());
      EXPECT_EQ(50u, reads);
    });
  }
  for (std::thread& thread : threads) thread.join();
}
}  // namespace
}  // namespace Veltro
