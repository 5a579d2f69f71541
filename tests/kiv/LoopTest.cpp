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

TEST_F(LoopTest, armingAgainReplaces) {
  struct {
    char const* name;
    std::vector<double> delays;  // of b; a and c stand at 1 and 3
    char const* order;
  } const cases[] = {
      {"earlier", {4, 2}, "abc"},
      {"later", {2, 4}, "acb"},
      {"later, then between", {0.5, 4, 2}, "abc"},
      {"behind an equal one", {0.5, 3}, "acb"},
      {"to the same time, behind an equal one", {3, 3}, "acb"},
      {"now", {4, 0}, "bac"},
      {"from now to later", {0, 2}, "abc"},
      {"disarmed", {2, kInfinity}, "ac"},
      {"disarmed when due", {0, kInfinity}, "ac"},
      {"disarmed and armed", {2, kInfinity, 0.5}, "bac"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    calls.clear();
    timers.clear();
    double const base = System::currentTime();
    timer('a', base + 1);
    Timer& b = timer('b', base + c.delays.front());
    timer('c', base + 3);
    for (double delay : c.delays) b.timeMinIs(base + delay);
    EXPECT_EQ(0, System::doRun());
    EXPECT_EQ(c.order, calls);
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

TEST_F(LoopTest, zeroDelayWaitsForTheNextPass) {
  timer('a', start, [&] {
    if (calls.size() < 8) timers[0]->timeMinIsNow();
  });
  timer('b', start, [&] {
    if (calls.size() < 8) timers[1]->timeMinIs(System::currentTime());
  });
  timer('c', start);
  System::doRun();
  EXPECT_EQ("abcababab", calls);
}

TEST_F(LoopTest, zeroDelaysStarveNoDescriptorAndNoTimer) {
  constexpr int kPassesPerLook = 256;  // the bound that README.md states
  config().virtualTimeIs(false);
  Pair pair;
  int passes = 0;
  Timer busy([&] {
    ++passes;
    busy.timeMinIsNow();
  });
  busy.timeMinIsNow();
  int served = 0;
  int longest = 0;
  Watch watch(pair.ends[0], [&] {
    longest = std::max(longest, std::exchange(passes, 0));
    if (++served == 20) System::doStop();
  });
  pair.write();
  System::doRun();
  EXPECT_EQ(20, served);
  EXPECT_GE(kPassesPerLook, longest);
  pair.read();
  Timer& late = timer('t', System::currentTime() + 0.001, [] { System::doStop(); });
  System::doRun();
  EXPECT_EQ(1, late.calls);
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

TEST_F(LoopTest, exceptionsLeaveTheRunOnlyUnanswered) {
  enum class Answer { yes, no, throwsAnew, destroyed };
  struct {
    char const* name;
    Answer answer;
    char const* thrown;
    char const* inFirstRun;
  } const cases[] = {
      {"answered", Answer::yes, "", "abc"},
      {"unanswered: the rest comes with the next run", Answer::no, "b", "ab"},
      {"what the answer throws goes out instead", Answer::throwsAnew, "anew", "ab"},
      {"nobody left to ask", Answer::destroyed, "b", "ab"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    calls.clear();
    timers.clear();
    timer('a', start);
    Timer& b = timer('b', start, [&] {
      if (c.answer == Answer::destroyed) timers[1].reset();
      throw std::runtime_error("b");
    });
    timer('c', start);
    Timer& d = timer('d');
    if (c.answer == Answer::yes) {
      b.onException = [] { EXPECT_THROW(throw, std::runtime_error); };
    } else if (c.answer == Answer::throwsAnew) {
      b.onException = [] { throw std::runtime_error("anew"); };
    }
    std::string thrown;
    try {
      System::doRun();
    } catch (std::runtime_error const& e) {
      thrown = e.what();
    }
    EXPECT_EQ(c.thrown, thrown);
    EXPECT_EQ(c.inFirstRun, calls);
    d.timeMinIs(start - 1);  // earlier than c, but c's turn had come
    EXPECT_EQ(0, System::doRun());
    EXPECT_EQ("abcd", calls);
  }
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

TEST_F(LoopTest, aTimerThatThrowsInEveryRunStarvesNoDescriptor) {
  Pair pair;
  pair.write();
  int reads = 0;
  Watch watch(pair.ends[0], [&] { ++reads; });
  Timer bad([&] {
    bad.timeMinIsNow();
    throw 1;
  });
  bad.timeMinIsNow();
  for (int i = 0; i < 6; ++i) EXPECT_THROW(System::doRun(), int);
  EXPECT_LE(5, reads);
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

TEST_F(LoopTest, aFiniteRunEndsUnderEndlessWork) {
  config().virtualTimeIs(false);
  Timer busy([&] { busy.timeMinIsNow(); });
  busy.timeMinIsNow();
  double const base = System::currentTime();
  EXPECT_EQ(0, runFor(0.002));
  EXPECT_LE(base + 0.002, System::currentTime());
}

TEST_F(LoopTest, nothingToDoReturnsAtOnce) {
  Pair pair;
  Watch uninterested(pair.ends[0]);
  EXPECT_EQ(0, System::doRun());
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

TEST_F(LoopTest, delaysAreRightAfterVirtualTime) {
  runFor(1e6);
  config().virtualTimeIs(false);
  Timer& a = timer('a', System::currentTime() + 1e-3);
  System::doRun();
  EXPECT_EQ(1, a.calls);
  EXPECT_EQ(0, a.early);
}

TEST_F(LoopTest, realDelaysAreNeverEarly) {
  config().virtualTimeIs(false);
  for (int i = 1; i < 200; ++i) {
    Timer& a = timer('a', System::currentTime() + 1.37e-7 * i * i);
    System::doRun();
    ASSERT_EQ(1, a.calls);
    ASSERT_EQ(0, a.early);
  }
}

/// The rules of Kiv/ActivityManager.h said once more, as slowly as they can be.
class Walk {
 public:
  explicit Walk(unsigned seed) : random_(seed) {
    for (int i = 0; i < 40; ++i) _create();
  }

  void steps(int count) {
    for (int i = 0; i < count && !testing::Test::HasFailure(); ++i) {
      grid_ = _latest();
      for (unsigned changes = _below(20); changes != 0; --changes) _change(_any());
      try {
        _below(3) == 0 ? System::doRun() : runFor(1e-3 * _below(20));
      } catch (int) {
      }
    }
    quiet_ = true;
    System::doRun();
    for (auto const& node : nodes_) EXPECT_EQ(kInfinity, node.deadline);
    EXPECT_LT(count, calls_);
  }

 private:
  struct Node {
    std::unique_ptr<Timer> timer;
    double deadline = kInfinity;
    long armed = 0;
    bool inBatch = false;
  };
  unsigned _below(unsigned n) { return static_cast<unsigned>(random_()) % n; }
  Node& _any() { return nodes_[_below(static_cast<unsigned>(nodes_.size()))]; }
  double _latest() const { return config().clock()->latestTime(); }

  void _create() {
    nodes_.emplace_back();
    _fill(nodes_.back());
  }
  void _fill(Node& node) {
    node.timer = std::make_unique<Timer>();
    // No currentTime() here: the model knows the time of the batch by latestTime().
    node.timer->onTime_ = [this, &node] { _called(node); };
  }

  void _change(Node& node) {
    switch (_below(8)) {
      case 0:
        return _arm(node, kInfinity);
      case 1:
        _remove(node);
        return _fill(node);
      case 2:
        node.timer->timeMinIsNow();
        return _note(node, _latest());
      case 3:
        return _arm(node, _latest() - 1e-3 * _below(4));
      default:
        return _arm(node, grid_ + 1e-3 * _below(40));
    }
  }
  void _arm(Node& node, double deadline) {
    node.timer->timeMinIs(deadline);
    _note(node, deadline);
  }
  void _note(Node& node, double deadline) {
    if (deadline < kInfinity) node.inBatch = false;
    node.deadline = deadline;
    node.armed = ++armings_;
  }
  void _remove(Node& node) {
    node.timer.reset();
    node.deadline = kInfinity;
    node.inBatch = false;
    for (auto*& each : batch_) {
      if (each == &node) each = nullptr;
    }
  }

  void _takeBatch() {
    batch_.clear();
    for (auto& node : nodes_) {
      if (node.deadline <= _latest()) {
        node.inBatch = true;
        batch_.push_back(&node);
      }
    }
    std::sort(batch_.begin(), batch_.end(), [](Node const* a, Node const* b) {
      return a->deadline != b->deadline ? a->deadline < b->deadline : a->armed < b->armed;
    });
  }
  void _called(Node& node) {
    ++calls_;
    auto const gone = [](Node const* each) { return each == nullptr || !each->inBatch; };
    batch_.erase(std::remove_if(batch_.begin(), batch_.end(), gone), batch_.end());
    if (batch_.empty()) _takeBatch();
    ASSERT_FALSE(batch_.empty());
    ASSERT_EQ(batch_.front(), &node);
    ASSERT_EQ(node.deadline, node.timer->timeMin());
    batch_.erase(batch_.begin());
    node.inBatch = false;
    node.deadline = kInfinity;
    if (quiet_) return;
    for (unsigned i = _below(4); i != 0; --i) {
      Node& other = _any();
      if (&other != &node) _change(other);
    }
    if (_below(3) == 0) _arm(node, _below(2) == 0 ? _latest() : grid_ + 1e-3 * _below(40));
    if (_below(16) == 0) System::doStop();
    if (_below(16) == 0) throw 1;
  }

  std::mt19937 random_;
  double grid_ = 0;         // few different deadlines, so that many are equal
  std::deque<Node> nodes_;  // they stay where they are
  std::vector<Node*> batch_;
  long armings_ = 0;
  int calls_ = 0;
  bool quiet_ = false;
};

TEST_F(LoopTest, randomWalkAgreesWithTheModel) {
  for (unsigned seed = 1; seed <= 20 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Walk(seed).steps(2000);
  }
}

}  // namespace
}  // namespace Kiv
