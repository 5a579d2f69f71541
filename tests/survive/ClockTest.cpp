// Delays and clocks that go astray. All times are the test's own.
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <ucontext.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <deque>
#include <vector>

#include "Kiv/TimeStampCounter.h"
#include "Scene.h"

namespace Veltro {
namespace {

template <typename Backend>
struct ClockTest : testing::Test {};
TYPED_TEST_SUITE(ClockTest, AllBackends, );

constexpr double kDay = 86400;

TYPED_TEST(ClockTest, delaysFireOnTimeAndNeverEarly) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  constexpr double tiny = std::numeric_limits<double>::denorm_min();
  double const delays[] = {
      -infinity,  -1e300,     -2147483649.0, -1,         -0.0,        0,     std::nan(""),
      tiny,       1e-9,       0.0101,        1.5 * kDay, 2147483.648, 1e8,   2147483646.5,
      2147483647, 2147483648, 2147483649,    4294967296, 1e18,        1e300, infinity};
  TypeParam::run([&] {
    for (double const delay : delays) {
      SCOPED_TRACE(delay);
      Scene<TypeParam> s;
      double fired = infinity;
      auto& a = s.timerIn(delay, 'a', [&] { fired = s.outside.seconds(); });
      double const left = a.control->remainingTimeout();
      if (delay > 0) {
        EXPECT_EQ(delay == infinity, left == infinity);
      }
      if (delay > 0 && delay < 1e10) {
        EXPECT_NEAR(delay, left, 2);
      }
      double const due = delay > 0 ? delay : 0;
      if (due < 1e8) {
        Platform::doEventLoop(due + 1);
        EXPECT_GE(fired + 1e-9, due);
        EXPECT_LE(fired, due + 0.02) << "libevent waits in milliseconds";
      } else {
        Platform::doEventLoop(1e5);
        EXPECT_EQ(infinity, fired);
      }
    }
  });
}

// The wall clock may go where it likes: deadlines are told by the monotonic one.
TYPED_TEST(ClockTest, stepsOfTheWallClockMoveNoDeadline) {
  constexpr std::int64_t kSecond = 1000000000, kYear = 31557600 * kSecond;
  struct {
    char const* name;
    std::int64_t start, step;
  } const cases[] = {
      {"an hour back", 1700000000 * kSecond, -3600 * kSecond},
      {"ten years on", 1700000000 * kSecond, 10 * kYear},
      {"ten years back", 1700000000 * kSecond, -10 * kYear},
      {"over the end of 32 bits", 2147482640 * kSecond, 30 * kSecond},
      {"beyond it from the start", 2200000000 * kSecond, 0},
  };
  TypeParam::run([&] {
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      Scene<TypeParam> s;
      s.outside.wallNs = c.start;
      std::vector<double> late;  // by how much each fired after its deadline
      auto const lateBy = [&](double due) {
        return [&, due] { late.push_back(s.outside.seconds() - due); };
      };
      auto& second = s.timer('b', lateBy(15));
      s.timerIn(5, 's', [&] {
        s.outside.wallNs += c.step;
        second.in(10);
      });
      s.timerIn(10, 'a', lateBy(10));
      s.timerIn(2 * kDay, 'c', lateBy(2 * kDay));
      Platform::doEventLoop();
      EXPECT_EQ("sabc", s.log);
      EXPECT_THAT(late, testing::Each(testing::AllOf(testing::Ge(0), testing::Lt(0.2))));
      EXPECT_GT(1000u, s.outside.calls[Outside::epollWait]);
    }
  });
}

// The main thread's libevent timers under its fast forward: all due, by deadline, once, also where
// an exception cuts the run and the next one forwards what is left again.
TEST(LibeventFastForwardTest, keepsTheOrderOverRunsThatAreCut) {
  constexpr int kTimers = 60;
  Outside outside;
  leInit();
  setLeFastForward(true);
  std::vector<int> order;
  std::deque<Timeout> handlers;
  std::vector<std::shared_ptr<Platform::TimerControl>> timers;
  for (int i = 0; i < kTimers; ++i) {
    int const rank = i * 37 % kTimers;
    handlers.emplace_back([&order, rank] {
      order.push_back(rank);
      if (rank % 7 == 3) throw rank;
    });
    timers.push_back(getLeTimerControl(&handlers.back()));
    timers.back()->setTimeout(100 + rank * 0.75);
  }
  for (int runs = 0; runs < kTimers; ++runs) {
    try {
      doLeEventLoop();
    } catch (int) {
    }
  }
  ASSERT_EQ(static_cast<std::size_t>(kTimers), order.size());
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_GT(100, outside.seconds()) << "waited";
  setLeFastForward(false);
  timers.clear();
  leFree();
}

// The processor's counter, as a virtual machine may show it: its instruction is made to fault, and
// the fault's handler answers.
volatile std::uint64_t counter, counterStep;

void answerCounter(int, siginfo_t*, void* context) {
  auto* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
#ifdef __x86_64__
  auto& ip = registers[REG_RIP];
  auto &low = registers[REG_RAX], &high = registers[REG_RDX];
#else
  auto& ip = registers[REG_EIP];
  auto &low = registers[REG_EAX], &high = registers[REG_EDX];
#endif
  auto const* const code = reinterpret_cast<unsigned char const*>(static_cast<std::uintptr_t>(ip));
  if (code[0] != 0x0f || code[1] != 0x31) ::_exit(99);
  ip += 2;
  counter = counter + counterStep;
  low = static_cast<greg_t>(static_cast<std::uint32_t>(counter));
  high = static_cast<greg_t>(static_cast<std::uint32_t>(counter >> 32));
}

TEST(CounterTest, howeverTheCounterGoesADescriptorIsServedInTime) {
  constexpr unsigned kPassesPerLook = 256;  // as kiv/README.md states
  while (Kiv::TimeStampCounter::ticks(std::chrono::seconds(1)) == 0) continue;
  struct sigaction action {
  }, before;
  action.sa_sigaction = answerCounter;
  action.sa_flags = SA_SIGINFO;
  ASSERT_EQ(0, ::sigaction(SIGSEGV, &action, &before));
  // It stands still, creeps, jumps, and goes backwards.
  for (std::uint64_t const step : {0ull, 1ull, 1ull << 40, ~1000ull}) {
    SCOPED_TRACE(step);
    Scene<KivBackend> s;
    counterStep = step;
    unsigned passes = 0, longest = 0;
    auto& busy = s.timer('b');
    auto& watch = s.watch(s.pairs[0].ends[0], 'w');
    unsigned served = 0;
    watch.handler.onRead = [&](int) {
      longest = std::max(longest, std::exchange(passes, 0));
      if (++served == 20) watch.off();
    };
    busy.handler.onTimeout = [&] {
      ++passes;
      if (served < 20 && passes < 10000) busy.in(0);
    };
    busy.in(0);
    s.pairs[0].put();
    ASSERT_EQ(0, ::prctl(PR_SET_TSC, PR_TSC_SIGSEGV));
    Platform::doEventLoop();
    ::prctl(PR_SET_TSC, PR_TSC_ENABLE);
    EXPECT_EQ(20u, served);
    EXPECT_GE(kPassesPerLook, longest);
  }
  ::sigaction(SIGSEGV, &before, nullptr);
}

}  // namespace
}  // namespace Veltro
