// Work is bounded where nothing can be done: counted in calls and system calls, not in seconds.
#include <cmath>
#include <vector>

#include "Scene.h"
#include "Veltro/FileDescriptorTask.h"
#include "Veltro/TaskSchedulerHistory.h"

namespace Veltro {
namespace {

template <typename Backend>
struct MeterTest : testing::Test {};
TYPED_TEST_SUITE(MeterTest, AllBackends, );

constexpr unsigned long kFewWaits = 20;

TYPED_TEST(MeterTest, whatNobodyWantsCostsNothing) {
  using S = Scene<TypeParam>;
  struct {
    char const* name;
    void (*prepare)(S&, typename S::Watch&);
  } const cases[] = {
      {"unread data, reads off",
       [](S& s, auto& watch) {
         s.pairs[0].put();
         watch.control->setReads(false);
       }},
      {"a peer that hung up, both off",
       [](S& s, auto& watch) {
         s.pairs[0].close(1);
         watch.control->setReads(false);
         watch.control->setWrites(true);
         watch.control->setWrites(false);
       }},
      {"unread data, events cleared",
       [](S& s, auto& watch) {
         s.pairs[0].put();
         watch.control->clearEvents();
       }},
      {"unread data, taken off",
       [](S& s, auto& watch) {
         s.pairs[0].put();
         watch.off();
       }},
  };
  TypeParam::run([&] {
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      S s;
      c.prepare(s, s.watch(s.pairs[0].ends[0], 'a'));
      Platform::doEventLoop(100);
      EXPECT_EQ("", s.log);
      EXPECT_GT(kFewWaits, s.outside.calls[Outside::epollWait]);
    }
  });
}

// A task that may not run does not keep the loop awake, and misses nothing.
template <typename Backend>
void suspendedTask(std::function<void(FileDescriptorTask&, bool)> const& suspendedIs) {
  struct Pipe final : FileDescriptorTask {
    using FileDescriptorTask::FileDescriptorTask;
    void taskExecuteReadable() override { bytes += SocketPair::take(taskWatchFd()); }
    void taskExecuteWritable() override { ++writes; }
    std::size_t bytes = 0;
    unsigned writes = 0;
  };
  Backend::run([&] {
    Outside outside;
    SocketPair pair;
    auto const root = schedulerRootVeltro();
    auto const pipe = std::make_shared<Pipe>(root, TaskPriority::normal, "pipe");
    pipe->taskWatchReadableIs(true);
    pipe->taskWatchWritableIs(true);
    pipe->taskWatchFdIs(pair.ends[0]);
    for (std::size_t round = 1; round < 4; ++round) {
      suspendedIs(*pipe, true);
      pair.put();
      unsigned const writes = pipe->writes;
      std::size_t const events = root->schedulerHistory()->eventCount();
      outside.calls = {};
      Platform::doEventLoop(100);
      EXPECT_EQ(round - 1, pipe->bytes);
      EXPECT_EQ(writes, pipe->writes);
      EXPECT_GT(kFewWaits, outside.calls[Outside::epollWait]);
      EXPECT_GT(events + 30, root->schedulerHistory()->eventCount());
      suspendedIs(*pipe, false);
      for (int run = 0; run < 3; ++run) Platform::doEventLoop(0);
      EXPECT_EQ(round, pipe->bytes);
      pair.put();
      for (int run = 0; run < 3; ++run) Platform::doEventLoop(0);
      EXPECT_EQ(round + 1, pipe->bytes) << "watched as before";
      EXPECT_LT(writes + 2, pipe->writes);
      pipe->bytes = round;
    }
  });
}
TYPED_TEST(MeterTest, aSuspendedRootWithAReadyDescriptor) {
  suspendedTask<TypeParam>([](auto&, bool on) { schedulerRootVeltro()->suspendedIs(on); });
}
TYPED_TEST(MeterTest, aSuspendedTaskWithAReadyDescriptor) {
  suspendedTask<TypeParam>([](auto& task, bool on) { task.taskSuspendedForTestIs(on); });
}

TYPED_TEST(MeterTest, manyTimersDueAtOneInstant) {
  constexpr int kTimers = 100000;
  TypeParam::run([&] {
    Outside outside;
    Timeout handler;
    std::vector<std::shared_ptr<Platform::TimerControl>> timers;
    for (int i = 0; i < kTimers; ++i) timers.push_back(TypeParam::timer(&handler));
    for (auto const& timer : timers) timer->setTimeout(1);
    Platform::doEventLoop();
    EXPECT_EQ(kTimers, handler.calls);
    EXPECT_EQ(1, std::lround(outside.seconds()));
    unsigned long const perCall = TypeParam::kDueHasTimeLeft ? 0 : 1;  // tasks: a pass each
    EXPECT_GE(kFewWaits + perCall * kTimers, outside.calls[Outside::epollWait]);
  });
}

// Two zero delays that arm each other, each call of 10 us, beside a descriptor and a timer.
TYPED_TEST(MeterTest, endlessWorkLeavesRoomForTheRest) {
  constexpr unsigned kMost = 256 + 2;  // passes from one look at the outside to the next
  TypeParam::run([&] {
    using S = Scene<TypeParam>;
    S s;
    unsigned calls = 0, untilRead = 0, atTimer = 0;
    auto &a = s.timer('a'), &b = s.timer('b');
    auto& watch = s.watch(s.pairs[0].ends[0], 'w');
    auto const done = [&] { return untilRead != 0 && atTimer != 0; };
    auto const work = [&](typename S::Timer& next) {
      ++calls;
      s.outside.nowNs += 10000;
      if (!done() && calls < 20000) next.in(0);
    };
    a.handler.onTimeout = [&] { work(b); };
    b.handler.onTimeout = [&] { work(a); };
    watch.handler.onRead = [&](int) {
      untilRead = calls + 1;
      watch.off();
    };
    a.in(0);
    s.timerIn(0.05, 't', [&] { atTimer = calls; });
    s.pairs[0].put();
    Platform::doEventLoop();
    EXPECT_TRUE(done());
    EXPECT_GE(kMost, untilRead);
    EXPECT_LE(4990u, atTimer);
    EXPECT_GE(5001 + 2 * kMost, atTimer);
  });
}

// A task a pass: between any two tasks the loop has its turn, which is a timer of its own here.
TYPED_TEST(MeterTest, everyTaskLeavesTheLoopItsTurn) {
  TypeParam::run([] {
    Outside outside;
    std::string log;
    auto const root = schedulerRootVeltro();
    std::vector<std::unique_ptr<Callback>> handlers;
    std::vector<std::shared_ptr<Platform::CallbackControl>> controls;
    for (char const letter : {'a', 'b', 'c', 'd'}) {
      handlers.push_back(std::make_unique<Callback>([&log, letter] { log += letter; }));
      controls.push_back(
          Platform::getCallbackControl(handlers.back().get(), root, TaskPriority::normal, "t"));
      controls.back()->requestCallback();
    }
    Timeout handler;
    auto const beat = Platform::getTimerControl(&handler);
    handler.onTimeout = [&] {
      log += '.';
      if (log.size() < 12) beat->setTimeout(0);
    };
    beat->setTimeout(0);
    Platform::doEventLoop(0.1);
    for (std::size_t i = 0; i + 1 < log.size(); ++i) {
      EXPECT_TRUE(log[i] == '.' || log[i + 1] == '.') << log;
    }
    EXPECT_NE(std::string::npos, log.find('d'));
  });
}

}  // namespace
}  // namespace Veltro
