// What is the loop's own; what it shares with the other back ends is in tests/survive.
#include <algorithm>
#include <memory>
#include <vector>

#include "tests/kiv/LoopSupport.h"

namespace Kiv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct LoopTest : testing::Test {
  LoopTest() { config().virtualTimeIs(true); }
  ~LoopTest() override { config().virtualTimeIs(false); }
  /// A timer that notes its letter; more can be added to its action.
  Timer& timer(char letter, double deadline, std::function<void()> more = {}) {
    timers.push_back(std::make_unique<Timer>([this, letter, more] {
      calls += letter;
      if (more) more();
    }));
    timers.back()->timeMinIs(deadline);
    return *timers.back();
  }
  double const start = System::currentTime();
  std::string calls;
  std::vector<std::unique_ptr<Timer>> timers;
};

TEST_F(LoopTest, callsInOrderOfDeadlineThenArming) {
  struct {
    char const* name;
    std::vector<double> delays;  // armed in this order, by a, b, c...
    char const* order;
  } const cases[] = {
      {"equal ones by arming", {2, 1, 2, 1, 2}, "bdace"},
      {"by less than a nanosecond", {1.00001, 1.00001 - 5e-10, 1}, "cba"},
      {"past ones too", {-3, -1, -2, 0, 1}, "acbde"},
      {"before the clock began", {-1e9, -1e300, -kInfinity}, "cba"},
  };
  for (auto const& c : cases) {
    calls.clear();
    timers.clear();
    double const base = System::currentTime() + 0.001;
    char letter = 'a';
    for (double delay : c.delays) timer(letter++, base + delay);
    EXPECT_EQ(0, runFor(10));
    EXPECT_EQ(c.order, calls) << c.name;
  }
}

TEST_F(LoopTest, deadlineStandsDuringTheCallAndGoesWithIt) {
  Timer a([&] {
    if (a.calls < 4) a.timeMinIs(a.timeMin() + 1);  // still this call's own
    if (a.calls == 4) throw 1;
  });
  a.onException = [&] {
    EXPECT_EQ(kInfinity, a.timeMin());
    a.timeMinIs(start + 9);
  };
  a.timeMinIs(start + 5);
  EXPECT_EQ(0, System::doRun());
  EXPECT_EQ(5, a.calls) << "who answers for an exception may arm anew";
  EXPECT_EQ(kInfinity, a.timeMin());
}

TEST_F(LoopTest, stopEndsThisRunOrTheNext) {
  timer('a', start, [] { System::doStop(); });
  timer('b', start);
  timer('c', start + 5);
  System::doStop();
  for (char const* order : {"", "a", "abc"}) {
    EXPECT_EQ(0, System::doRun());
    EXPECT_EQ(order, calls) << "the rest of the batch waits";
  }
}

TEST_F(LoopTest, timeNeverGoesBack) {
  double latest = start;
  // Up to where a unit in the last place is longer than the machine has been up: each doubling
  // of the time rounds anew.
  for (double jump = 1; jump < 1e18; jump *= 1.3) {
    for (bool const fast : {true, false}) {
      config().virtualTimeIs(fast);
      runFor(fast ? jump : 1e-6);
      latest = std::max(latest, config().clock()->latestTime());
      double const now = System::currentTime();
      ASSERT_LE(latest, now);
      ASSERT_EQ(now, config().clock()->latestTime());
    }
  }
  EXPECT_LT(1e18, latest);
}

}  // namespace
}  // namespace Kiv
