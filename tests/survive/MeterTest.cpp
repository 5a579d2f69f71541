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
    void (*leave)(Platform::FdControl&);
    bool hungUp;  // else there is unread data
  } const cases[] = {
      {"reads off", [](auto& control) { control.setReads(false); }, false},
      {"both off",
       [](auto& control) {
         control.setReads(false);
         control.setWrites(true);
         control.setWrites(false);
       },
       true},
      {"events cleared", [](auto& control) { control.clearEvents(); }, false},
      {"taken off", [](auto& control) { control.delFd(); }, false},
  };
  TypeParam::run([&] {
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      S s;
      auto& watch = s.watch(s.pairs[0].ends[0], 'a');
      s.pairs[0].put();
      if (c.hungUp) s.pairs[0].close(1);
      c.leave(*watch.control);
      Platform::doEventLoop(100);
      EXPECT_EQ("", s.log);
      EXPECT_GT(kFewWaits, s.outside.calls[Outside::epollWait]);
    }
  });
}

// A task that may not run does not keep the loop awake, and misses nothing.
TYPED_TEST(MeterTest, aSuspendedRootOrTaskWithAReadyDescriptor) {
  struct Pipe final : FileDescriptorTask {
    using FileDescriptorTask::FileDescriptorTask;
    void taskExecuteReadable() override { bytes += SocketPair::take(taskWatchFd()); }
    void taskExecuteWritable() override { ++writes; }
    std::size_t bytes = 0;
    unsigned writes = 0;
  };
  TypeParam::run([] {
    for (bool const wholeRoot : {true, false}) {
      SCOPED_TRACE(wholeRoot);
      Outside outside;
      SocketPair pair;
      auto const root = schedulerRootVeltro();
      auto const pipe = std::make_shared<Pipe>(root, TaskPriority::normal, "pipe");
      auto const suspendedIs = [&](bool on) {
        wholeRoot ? root->suspendedIs(on) : pipe->taskSuspendedForTestIs(on);
      };
      auto const runs = [] {
        for (int run = 0; run < 3; ++run) Platform::doEventLoop(0);
      };
      pipe->taskWatchReadableIs(true);
      pipe->taskWatchWritableIs(true);
      pipe->taskWatchFdIs(pair.ends[0]);
      for (int round = 0; round < 3; ++round) {
        suspendedIs(true);
        pair.put();
        pipe->bytes = 0;
        unsigned const writes = pipe->writes;
        std::size_t const events = root->schedulerHistory()->eventCount();
        outside.calls = {};
        Platform::doEventLoop(100);
        EXPECT_EQ(0u, pipe->bytes);
        EXPECT_EQ(writes, pipe->writes);
        EXPECT_GT(kFewWaits, outside.calls[Outside::epollWait]);
        EXPECT_GT(events + 30, root->schedulerHistory()->eventCount());
        suspendedIs(false);
        runs();
        EXPECT_EQ(1u, pipe->bytes);
        pair.put();
        runs();
        EXPECT_EQ(2u, pipe->bytes) << "watched as before";
        EXPECT_LT(writes + 2, pipe->writes);
      }
    }
  });
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
    Scene<TypeParam> s;
    unsigned calls = 0, untilRead = 0, atTimer = 0;
    auto &a = s.timer('a'), &b = s.timer('b');
    auto const work = [&](auto& next) {
      ++calls;
      s.outside.nowNs += 10000;
      if ((untilRead == 0 || atTimer == 0) && calls < 20000) next.in(0);
    };
    a.handler.onTimeout = [&] { work(b); };
    b.handler.onTimeout = [&] { work(a); };
    auto& watch = s.watch(s.pairs[0].ends[0], 'w');
    watch.handler.onRead = [&](int) {
      untilRead = calls + 1;
      watch.off();
    };
    a.in(0);
    s.timerIn(0.05, 't', [&] { atTimer = calls; });
    s.pairs[0].put();
    Platform::doEventLoop();
    EXPECT_LE(1u, untilRead);
    EXPECT_GE(kMost, untilRead);
    EXPECT_LE(4990u, atTimer);
    EXPECT_GE(5001 + 2 * kMost, atTimer);
  });
}

// A task a pass: between any two tasks the loop has its turn, which is a timer of its own here.
TYPED_TEST(MeterTest, everyTaskLeavesTheLoopItsTurn) {
  TypeParam::run([] {
    Scene<TaskBackend<TypeParam>> s;
    for (char const letter : {'a', 'b', 'c', 'd'}) s.call(letter).soon();
    Timeout handler;
    auto const beat = Platform::getTimerControl(&handler);
    handler.onTimeout = [&] {
      s.log += '.';
      if (s.log.size() < 12) beat->setTimeout(0);
    };
    beat->setTimeout(0);
    Platform::doEventLoop(0.1);
    for (std::size_t i = 0; i + 1 < s.log.size(); ++i) {
      EXPECT_TRUE(s.log[i] == '.' || s.log[i + 1] == '.') << s.log;
    }
    EXPECT_NE(std::string::npos, s.log.find('d'));
  });
}

}  // namespace
}  // namespace Veltro
