#include <algorithm>
#include <memory>
#include <vector>

#include "tests/kiv/LoopSupport.h"

namespace Kiv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

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
      {"not a number is now", {1, kNan, -1}, "cba"},
      {"infinite and huge ones do not come", {kInfinity, 1e300, 1e18, 1e10, 1}, "e"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    calls.clear();
    timers.clear();
    double const base = System::currentTime() + 0.001;
    char letter = 'a';
    for (double delay : c.delays) timer(letter++, base + delay);
    EXPECT_EQ(0, runFor(10));
    EXPECT_EQ(c.order, calls);
    for (auto const& each : timers) EXPECT_EQ(0, each->early);
  }
}

TEST_F(LoopTest, deadlineStandsDuringTheCallAndGoesWithIt) {
  Timer a;
  a.timeMinIs(start + 5);
  System::doRun();
  EXPECT_EQ(start + 5, a.seen);
  EXPECT_EQ(kInfinity, a.timeMin());
  a.onTime_ = [&] { a.timeMinIs(a.calls < 4 ? a.timeMin() + 1 : kInfinity); };
  a.timeMinIs(start + 6);
  System::doRun();
  EXPECT_EQ(4, a.calls);
  a.onTime_ = [&] {
    if (a.calls == 5) throw 1;
  };
  a.onException = [&] {
    EXPECT_EQ(kInfinity, a.timeMin());
    a.timeMinIs(start + 9);
  };
  a.timeMinIsNow();
  EXPECT_EQ(0, System::doRun());
  EXPECT_EQ(6, a.calls) << "who answers for an exception may arm anew";
}

TEST_F(LoopTest, membersOfTheBatchMayBeChangedBeforeTheirTurn) {
  // a, b and c are due together; a's reaction is the case.
  struct {
    char const* name;
    std::function<void(LoopTest&)> action;
    char const* order;
  } const cases[] = {
      {"disarmed: the call comes, and finds it so",
       [](auto& t) { t.timers[1]->timeMinIs(kInfinity); }, "abc"},
      {"armed anew: one call, later", [](auto& t) { t.timers[1]->timeMinIsNow(); }, "acb"},
      {"disarmed and armed anew",
       [](auto& t) {
         t.timers[1]->timeMinIs(kInfinity);
         t.timers[1]->timeMinIs(t.start + 9);
       },
       "acb"},
      {"the next and the last destroyed", [](auto& t) { t.timers.resize(1); }, "a"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    calls.clear();
    timers.clear();
    timer('a', start, [&] { c.action(*this); });
    timer('b', start);
    timer('c', start);
    EXPECT_EQ(0, System::doRun());
    EXPECT_EQ(c.order, calls);
    EXPECT_TRUE(calls != "abc" || timers[1]->seen == kInfinity);
  }
}

TEST_F(LoopTest, lastReferenceMayGoAnywhere) {
  struct {
    char const* name;
    char const* releasedBy;
    char const* order;  // a letter and a dot: begin and end of a call; X: destroyed
    bool takenAnew = false;
  } const cases[] = {
      {"before the run: never called", "-", "Xa.c."},
      {"by an earlier one of its batch: called, then destroyed", "a", "a.b.Xc."},
      {"by itself: destroyed after the call", "b", "a.b.Xc."},
      {"by a later one: destroyed at once", "c", "a.b.cX."},
      {"by an earlier one, and a new one taken in its call", "a", "a.b.c.", true},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    calls.clear();
    Ptr<Timer> b;
    Timer* raw = nullptr;
    auto const act = [&](char who) {
      calls += who;
      if (who == *c.releasedBy) b = nullptr;
      if (who == 'b' && c.takenAnew) b = raw;
      calls += '.';
    };
    Timer a([&] { act('a'); });
    b = allocate<Timer>([&] { act('b'); });
    raw = b.ptr();
    b->onGone = [&] { calls += 'X'; };
    Timer last([&] { act('c'); });
    for (auto* each : {&a, raw, &last}) each->timeMinIs(start);
    if (*c.releasedBy == '-') b = nullptr;
    System::doRun();
    EXPECT_EQ(c.order, calls);
    EXPECT_EQ(c.takenAnew, b && b->references() == 1);
  }
}

TEST_F(LoopTest, stopEndsThisRunOrTheNext) {
  timer('a', start, [] {
    EXPECT_EQ(-1, System::doRun()) << "nested";
    System::doStop();
    System::doStop();
  });
  timer('b', start);
  timer('c', start + 5);
  System::doStop();
  for (char const* order : {"", "a", "abc"}) {
    EXPECT_EQ(0, System::doRun());
    EXPECT_EQ(order, calls) << "the rest of the batch waits";
  }
  timers[0]->onTime_ = [] {
    System::doStop();
    throw 1;
  };
  timers[0]->timeMinIs(start);
  timers[1]->timeMinIs(start);
  EXPECT_THROW(runFor(5), int);
  EXPECT_EQ(kInfinity, config().executionTime());
  System::doRun();
  EXPECT_EQ("abcb", calls) << "the exception ended that run; nothing is left to stop";
}

TEST_F(LoopTest, timeNeverGoesBack) {
  double latest = start;
  auto const look = [&](double seconds) {
    runFor(seconds);
    latest = std::max(latest, config().clock()->latestTime());
    for (int i = 0; i < 3; ++i) {
      double const now = System::currentTime();
      ASSERT_LE(latest, now);
      ASSERT_EQ(now, config().clock()->latestTime());
      latest = now;
    }
  };
  // Up to where a unit in the last place is longer than the machine has been up: each doubling
  // of the time rounds anew.
  for (double jump = 1; jump < 1e18; jump *= 1.3) {
    config().virtualTimeIs(true);
    look(jump);
    config().virtualTimeIs(false);
    look(1e-6);
  }
  EXPECT_LT(1e18, latest);
}

}  // namespace
}  // namespace Kiv
