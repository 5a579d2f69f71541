#include <algorithm>
#include <deque>
#include <limits>
#include <memory>
#include <random>
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
  Timer& timer(char letter, double deadline = kInfinity, std::function<void()> more = {}) {
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
      {"by deadline", {3, 1, 2}, "bca"},
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
  EXPECT_EQ(start + 5, a.timeMin());
  System::doRun();
  EXPECT_EQ(start + 5, a.seen);
  EXPECT_EQ(kInfinity, a.timeMin());
  a.onTime_ = [&] { a.timeMinIs(a.calls < 4 ? a.timeMin() + 1 : kInfinity); };
  a.timeMinIs(start + 6);
  System::doRun();
  EXPECT_EQ(4, a.calls);
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
      {"destroyed", [](auto& t) { t.timers[1].reset(); }, "ac"},
      {"the next and the last destroyed", [](auto& t) { t.timers.resize(1); }, "a"},
      {"itself, called again by name",
       [](auto& t) {
         if (t.calls.size() < 2) t.timers[0]->timeMinIsNow();
       },
       "abca"},
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
    bool const disarmed = calls == "abc";
    EXPECT_TRUE(!disarmed || timers[1]->seen == kInfinity);
  }
}

TEST_F(LoopTest, lastReferenceMayGoAnywhere) {
  struct {
    char const* name;
    char const* releasedBy;
    char const* order;  // a letter and a dot: begin and end of a call; X: destroyed
  } const cases[] = {
      {"before the run: never called", "-", "Xa.c."},
      {"by an earlier one of its batch: called, then destroyed", "a", "a.b.Xc."},
      {"by itself: destroyed after the call", "b", "a.b.Xc."},
      {"by a later one: destroyed at once", "c", "a.b.cX."},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    calls.clear();
    timers.clear();
    Ptr<Timer> b;
    auto const act = [&](char who) {
      calls += who;
      if (who == *c.releasedBy) b = nullptr;
      calls += '.';
    };
    Timer a([&] { act('a'); });
    b = allocate<Timer>([&] { act('b'); });
    b->onGone = [&] { calls += 'X'; };
    Timer last([&] { act('c'); });
    for (auto* each : {&a, b.ptr(), &last}) each->timeMinIs(start);
    if (*c.releasedBy == '-') b = nullptr;
    System::doRun();
    EXPECT_EQ(c.order, calls);
  }
}

TEST_F(LoopTest, aReferenceTakenInTheOrphansCallKeepsIt) {
  Ptr<Timer> b = allocate<Timer>();
  Timer* const raw = b.ptr();
  Timer a([&] { b = nullptr; });
  raw->onTime_ = [&] { b = raw; };
  a.timeMinIs(start);
  b->timeMinIs(start);
  System::doRun();
  ASSERT_TRUE(b);
  EXPECT_EQ(1, b->calls);
  b->timeMinIs(start);
  System::doRun();
  EXPECT_EQ(2, b->calls);
}

TEST_F(LoopTest, whoAnswersMayArmAnew) {
  Timer a([&] {
    if (a.calls == 1) throw 1;
  });
  a.onException = [&] {
    EXPECT_EQ(kInfinity, a.timeMin());
    a.timeMinIs(start + 3);
  };
  a.timeMinIs(start);
  EXPECT_EQ(0, System::doRun());
  EXPECT_EQ(2, a.calls);
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
  System::doStop();
  EXPECT_EQ(0, System::doRun());
  EXPECT_EQ("", calls);
  EXPECT_EQ(0, System::doRun());
  EXPECT_EQ("a", calls) << "the rest of the batch waits";
  EXPECT_EQ(0, System::doRun());
  EXPECT_EQ("abc", calls);
  timers[0]->onTime_ = [] {
    System::doStop();
    throw 1;
  };
  timers[0]->timeMinIs(start);
  timers[1]->timeMinIs(start);
  EXPECT_THROW(System::doRun(), int);
  System::doRun();
  EXPECT_EQ("abcb", calls) << "the exception ended that run; nothing is left to stop";
}

TEST_F(LoopTest, executionTimeHoldsForOneRun) {
  struct {
    char const* name;
    double seconds;
    double lasts;
    char const* order;
  } const cases[] = {
      {"what is due now", 0, 0, "a"},
      {"negative is zero", -5, 0, "a"},
      {"not a number is zero", kNan, 0, "a"},
      {"between two", 15, 15, "ab"},
      {"longer than anything armed", 1e6, 1e6, "abc"},
      {"infinite ends with the last", kInfinity, 20, "abc"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    calls.clear();
    timers.clear();
    double const base = System::currentTime();
    timer('a', base);
    timer('b', base + 10);
    timer('c', base + 20);
    EXPECT_EQ(0, runFor(c.seconds));
    EXPECT_EQ(c.order, calls);
    double const lasted = System::currentTime() - base;
    EXPECT_LE(c.lasts, lasted);
    EXPECT_GT(c.lasts + 5, lasted);
    EXPECT_EQ(kInfinity, config().executionTime());
    System::doRun();
    EXPECT_EQ("abc", calls);
  }
  Timer bad([] { throw 1; });
  bad.timeMinIsNow();
  EXPECT_THROW(runFor(5), int);
  EXPECT_EQ(kInfinity, config().executionTime());
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
