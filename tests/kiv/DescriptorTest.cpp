#include <fcntl.h>

#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <vector>

#include "Kiv/Exception.h"
#include "tests/kiv/LoopSupport.h"
#include "tests/support/Child.h"

namespace Kiv {
namespace {

/// Passes of the loop that look at the descriptors once each and do not wait.
void looks(int count) {
  for (; count > 0; --count) runFor(0);
}

TEST(DescriptorTest, refusesAtOnceWhatCannotBeWatched) {
  int const folder = ::open(".", O_RDONLY | O_DIRECTORY);
  int const closed = ::fcntl(folder, F_DUPFD, 200);
  ::close(closed);
  struct {
    int descriptor;
    int errnum;
  } const cases[] = {{folder, EPERM}, {closed, EBADF}, {INT_MAX, EBADF}, {-2, EBADF}};
  Pair good;
  for (bool const interested : {false, true}) {
    for (auto const& c : cases) {
      SCOPED_TRACE(c.descriptor);
      Watch watch(good.ends[0], [] {});
      watch.notifier().notifyOnReadableIs(interested);
      try {
        watch.notifier().descriptorIs(c.descriptor);
        ADD_FAILURE() << "not refused";
      } catch (ErrnoException const& e) {
        EXPECT_EQ(c.errnum, e.errnum()) << e.what();
      }
      EXPECT_EQ(-1, watch.notifier().descriptor());
      EXPECT_EQ(0, System::doRun()) << "nothing is left behind";
    }
  }
  ::close(folder);
}

TEST(DescriptorTest, interestInAClosedDescriptorIsRefusedAndDroppedQuietly) {
  Pair pair;
  Watch watch(pair.ends[0]), other(pair.ends[0], [] {});
  pair.close(0);
  EXPECT_THROW(watch.notifier().notifyOnWritableIs(true), ErrnoException);
  EXPECT_FALSE(watch.notifier().notifyOnWritable());
  EXPECT_NO_THROW(other.notifier().notifyOnReadableIs(false));
  EXPECT_NO_THROW(other.notifier().descriptorIs(-1));
  EXPECT_EQ(0, System::doRun());
}

TEST(DescriptorTest, nonBlockingModeAndNotifieeAreOfTheEntity) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  auto const isNonBlocking = [](int d) { return (::fcntl(d, F_GETFL) & O_NONBLOCK) != 0; };
  Watch watch(ends[0]);
  Ptr<FileDescriptor> const entity(&watch.notifier());
  EXPECT_FALSE(isNonBlocking(ends[0]));
  entity->nonBlockingIs(true);
  EXPECT_TRUE(isNonBlocking(ends[0]));
  entity->descriptorIs(ends[1]);
  EXPECT_TRUE(isNonBlocking(ends[1]));
  entity->descriptorIs(-1);
  EXPECT_TRUE(isNonBlocking(ends[1])) << "taken off is not closed";
  ::close(ends[0]);
  ::close(ends[1]);
  EXPECT_THROW(entity->descriptorIs(ends[0]), ErrnoException);
  for (auto const& taken : {entity, Ptr<FileDescriptor>()}) {
    EXPECT_THROW(allocate<FileDescriptor::Notifiee>(taken), RangeException);
  }
}

// Three descriptors are ready, each watched twice. The first that is called does the action; what
// the look found is then served as far as the interest still stands.
TEST(DescriptorTest, reactionsMayChangeTheOthers) {
  struct Scene {
    Pair pairs[3];
    std::vector<std::unique_ptr<Watch>> watches;
    std::vector<std::unique_ptr<Watch>> companions;  // one more on each number
    std::unique_ptr<Watch> extra;
    int calls = 0;
    bool acted = false;
  };
  struct {
    char const* name;
    std::function<void(Scene&, int self)> action;
    int calls;
  } const cases[] = {
      {"takes the next of its number off",
       [](auto& s, int) {
         for (auto& w : s.companions) w->notifier().descriptorIs(-1);
       },
       3},
      {"switches the others off",
       [](auto& s, int) {
         for (auto& w : s.watches) w->notifier().notifyOnReadableIs(false);
       },
       4},
      {"closes the others and gives their numbers to unready ones",
       [](auto& s, int self) {
         for (int i = 0; i < 3; ++i) {
           int const number = s.pairs[i].ends[0];
           if (self == number) continue;
           auto& entity = s.watches[static_cast<std::size_t>(i)]->notifier();
           entity.descriptorIs(-1);
           Pair fresh;
           ::dup2(fresh.ends[0], number);
           s.pairs[i].close(1);
           s.pairs[i].ends[1] = ::dup(fresh.ends[1]);
           entity.descriptorIs(number);
         }
       },
       2},
      {"adds one on its own number, which waits for the next look",
       [](auto& s, int self) { s.extra = std::make_unique<Watch>(self, [&s] { ++s.calls; }); }, 6},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Scene s;
    for (auto& pair : s.pairs) {
      pair.write();
      s.watches.push_back(std::make_unique<Watch>(pair.ends[0], [&s, &c, self = pair.ends[0]] {
        ++s.calls;
        if (!std::exchange(s.acted, true)) c.action(s, self);
      }));
      s.companions.push_back(std::make_unique<Watch>(pair.ends[0], [&s] { ++s.calls; }));
    }
    looks(1);
    EXPECT_EQ(c.calls, s.calls);
  }
}

TEST(DescriptorTest, aReactionMayChangeItsOwn) {
  struct {
    char const* name;
    std::function<void(Ptr<Watch>&, int other)> action;
  } const cases[] = {
      {"lets its notifiee go", [](auto& watch, int) { watch = nullptr; }},
      {"takes another one, for the next look",
       [](auto& watch, int other) { watch->notifier().descriptorIs(other); }},
      {"wants no more of it",
       [](auto& watch, int) { watch->notifier().notifyOnWritableIs(false); }},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Pair pair, other;
    pair.write();
    int reads = 0, writes = 0;
    Ptr<Watch> watch = allocate<Watch>(pair.ends[0], [&] {
      c.action(watch, other.ends[0]);
      ++reads;
    });
    watch->onGone = [&] { EXPECT_EQ(1, reads) << "destroyed before its reaction was over"; };
    watch->onWritable = [&] { ++writes; };
    watch->notifier().notifyOnWritableIs(true);
    looks(1);
    EXPECT_EQ(1, reads);
    EXPECT_EQ(0, writes);
  }
}

TEST(DescriptorTest, closedAndReusedWithoutAWord) {
  for (bool const keepDuplicate : {false, true}) {  // the kernel keeps reporting the old file
    for (bool const tellEntity : {false, true}) {   // descriptorIs() with the same number
      SCOPED_TRACE(testing::Message() << keepDuplicate << tellEntity);
      Pair old, fresh;
      int const number = old.ends[0];
      int oldReads = 0, newReads = 0;
      Watch watch(number, [&] { ++oldReads; });
      int const duplicate = keepDuplicate ? ::dup(number) : -1;
      ::dup2(fresh.ends[0], number);
      std::unique_ptr<Watch> second;
      if (tellEntity) {
        watch.notifier().descriptorIs(number);
      } else {
        second = std::make_unique<Watch>(number, [&] { ++newReads; });
      }
      fresh.write();
      looks(1);
      EXPECT_EQ(1, oldReads) << "shares the number with the new one";
      EXPECT_EQ(tellEntity ? 0 : 1, newReads);
      old.read();  // through the number
      if (!keepDuplicate) continue;
      old.write();
      config().virtualTimeIs(true);
      runFor(1e6);  // lasts for real if the old file's events keep virtual time from its jump
      config().virtualTimeIs(false);
      EXPECT_EQ(1, oldReads) << "the old file's events are nobody's";
      ::close(duplicate);
    }
  }
}

TEST(DescriptorTest, aFileMayComeBackUnderItsNumber) {
  Pair pair;
  int const number = pair.ends[0];
  int const duplicate = ::dup(number);
  Watch watch(number, [] {});
  ::close(number);
  watch.notifier().descriptorIs(-1);
  ASSERT_EQ(number, ::dup2(duplicate, number));
  watch.notifier().descriptorIs(number);  // which the kernel has been watching all the time
  pair.write();
  looks(1);
  EXPECT_EQ(1u, watch.notifier().readableCount());
  ::close(duplicate);
}

TEST(DescriptorTest, whoIsCutOffByAStopOrAnExceptionComesFirst) {
  for (bool const throws : {true, false}) {
    SCOPED_TRACE(throws);
    Pair pairs[3];
    std::vector<std::unique_ptr<Watch>> watches;
    for (auto& pair : pairs) {
      pair.write();
      watches.push_back(std::make_unique<Watch>(pair.ends[0], [throws] {
        System::doStop();
        if (throws) throw 1;
      }));
    }
    for (int run = 0; run < 6; ++run) {
      try {
        runFor(0);
      } catch (int) {
      }
    }
    for (auto const& watch : watches) EXPECT_EQ(2u, watch->notifier().readableCount());
  }
}

TEST(DescriptorTest, whatThrowsForEverStarvesNobody) {
  struct {
    char const* name;
    char const* throwing;  // of a and b, the timers, and d, the descriptor: all in every pass
    char const* calls;     // a bar ends a run
  } const cases[] = {
      {"none", "", "abd|abd|abd|abd|"},
      {"the descriptor", "d", "abd|abd|abd|abd|"},
      {"a timer", "a", "a|bd|a|bd|"},
      {"all", "abd", "a|b|d|a|"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    std::string calls;
    auto const called = [&](char who) {
      calls += who;
      if (std::string(c.throwing).find(who) != std::string::npos) throw 1;
    };
    Pair pair;
    pair.write();
    Watch const watch(pair.ends[0], [&] { called('d'); });
    Timer a([&] { a.timeMinIsNow(), called('a'); });
    Timer b([&] { b.timeMinIsNow(), called('b'); });
    a.timeMinIsNow();
    b.timeMinIsNow();
    for (int run = 0; run < 4; ++run) {
      try {
        runFor(0);
      } catch (int) {
      }
      calls += '|';
    }
    EXPECT_EQ(c.calls, calls);
  }
}

TEST(DescriptorTest, whatATimerHasReadIsNotServedOnceMore) {
  Pair pair;
  pair.write();
  Watch const watch(pair.ends[0], [] {});
  Timer timer([&] { pair.read(); });
  timer.timeMinIsNow();
  runFor(0);
  EXPECT_EQ(0u, watch->notifier().readableCount());
}

TEST(DescriptorTest, virtualTimeJumpsOnlyWhenNothingIsReady) {
  config().virtualTimeIs(true);
  Pair pair;
  for (int i = 0; i < 3; ++i) pair.write();
  std::string order;
  Watch watch(pair.ends[0], [&] {
    pair.read();
    order += 'r';
    if (order == "rrr") watch.notifier().notifyOnReadableIs(false);
  });
  Timer timer([&] { order += 'T'; });
  timer.timeMinIs(System::currentTime() + 1000);
  System::doRun();
  EXPECT_EQ("rrrT", order);
  config().virtualTimeIs(false);
}

TEST(DescriptorTest, aKernelWithoutTheExactWaitWaitsLongEnough) {
  Veltro::inChild([] {
    Veltro::failSystemCall(SYS_epoll_pwait2, ENOSYS);
    double const end = System::currentTime() + 0.0005;
    Timer timer;
    timer.timeMinIs(end);
    System::doRun();
    EXPECT_EQ(1, timer.calls);
    EXPECT_LE(end, System::currentTime());
  });
}

TEST(DescriptorTest, interestsGoEvenWhereNoSetCanBeMade) {
  Pair pair;
  Watch watch(pair.ends[0], [] {});
  looks(1);
  pair.write();
  Veltro::inChild([&] {
    Veltro::limitIs(RLIMIT_NOFILE, 0);
    watch.notifier().notifyOnReadableIs(false);
    Timer timer;
    timer.timeMinIs(System::currentTime() + 0.001);
    runFor(0.002);
    EXPECT_EQ(1, timer.calls) << "nothing is watched, so no set is needed";
    Veltro::limitIs(RLIMIT_NOFILE, 100);
    config().virtualTimeIs(true);
    runFor(1e6);  // lasts for real if what is readable is still asked for
  });
}

// Every row is a child forked from inside a reaction; the parent goes on with what it had.
TEST(DescriptorTest, aForkedChildDoesNotDisturbTheParent) {
  struct Scene {
    Pair pair, other;
    int reads = 0;
    std::unique_ptr<Watch> watch, second;
    Timer late;
  };
  struct {
    char const* name;
    std::function<void(Scene&)> child;
  } const cases[] = {
      {"changes its controls",
       [](auto& s) {
         s.watch.reset();
         s.second->notifier().notifyOnReadableIs(false);
         s.late.timeMinIs(std::numeric_limits<double>::infinity());
       }},
      {"closes every descriptor, opens others, and uses the loop",
       [](auto& s) {
         for (int d = 3; d < 100; ++d) ::close(d);
         int mine[20];
         for (int& d : mine) d = ::open("/dev/null", O_RDONLY);
         s.watch->notifier().descriptorIs(-1);
         for (int d : mine) EXPECT_LE(0, ::fcntl(d, F_GETFD));
       }},
      {"has no descriptor left for a set of its own",
       [](auto& s) {
         Veltro::limitIs(RLIMIT_NOFILE, 3);
         s.second->notifier().notifyOnReadableIs(false);
         s.watch.reset();
       }},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Scene s;
    s.watch = std::make_unique<Watch>(s.pair.ends[0], [&] {
      if (++s.reads == 1) Veltro::inChild([&] { c.child(s); });
      s.pair.read();
    });
    s.second = std::make_unique<Watch>(s.other.ends[0], [&] { s.other.read(); });
    s.pair.write();
    s.late.timeMinIs(System::currentTime() + 0.001);
    runFor(0.002);
    EXPECT_EQ(1, s.late.calls);
    s.pair.write();
    s.other.write();
    looks(1);
    EXPECT_EQ(2, s.reads);
    EXPECT_EQ(1u, s.second->notifier().readableCount());
  }
}

TEST(DescriptorTest, theSetSurvivesClosingAllDescriptors) {
  Veltro::inChild([] {
    Pair pair;
    Watch watch(pair.ends[0], [] {});
    looks(1);
    for (int d = 3; d < 100; ++d) {
      if (d != pair.ends[0] && d != pair.ends[1]) ::close(d);
    }
    pair.write();
    looks(2);
    EXPECT_LE(1u, watch.notifier().readableCount());
  });
}

}  // namespace
}  // namespace Kiv
