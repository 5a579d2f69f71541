#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <memory>
#include <vector>

#include "Kiv/Exception.h"
#include "tests/kiv/LoopSupport.h"

namespace Kiv {
namespace {

/// Passes of the loop that look at the descriptors once each and do not wait.
void looks(int count) {
  for (; count > 0; --count) runFor(0);
}

TEST(DescriptorTest, waitsForWhatComesLater) {
  Pair pair;
  std::string got;
  Watch watch(pair.ends[0], [&] {
    got += pair.read();
    System::doStop();
  });
  ::pid_t const child = ::fork();
  if (child == 0) {
    pair.write("late");
    ::_exit(0);
  }
  EXPECT_EQ(0, System::doRun());
  EXPECT_EQ("late", got);
  ::waitpid(child, nullptr, 0);
}

TEST(DescriptorTest, refusesAtOnceWhatCannotBeWatched) {
  char path[] = "loopXXXXXX";
  int const file = ::mkstemp(path);
  ::unlink(path);
  int const folder = ::open(".", O_RDONLY | O_DIRECTORY);
  int const number = ::fcntl(file, F_DUPFD, 200);
  ::close(number);
  struct {
    char const* name;
    int descriptor;
    int errnum;
  } const cases[] = {
      {"a regular file", file, EPERM}, {"a directory", folder, EPERM},
      {"closed", number, EBADF},       {"absurd", INT_MAX, EBADF},
      {"negative", -2, EBADF},         {"very negative", INT_MIN, EBADF},
  };
  Pair good;
  for (bool const interested : {false, true}) {
    for (auto const& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (interested ? ", interest on" : ", interest off"));
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
      watch.notifier().descriptorIs(good.ends[0]);
      EXPECT_EQ(good.ends[0], watch.notifier().descriptor());
    }
  }
  ::close(file);
  ::close(folder);
}

TEST(DescriptorTest, interestInAClosedDescriptorIsRefusedAndDroppedQuietly) {
  Pair pair;
  Watch watch(pair.ends[0]);
  Watch other(pair.ends[0], [] {});
  pair.close(0);
  EXPECT_THROW(watch.notifier().notifyOnWritableIs(true), ErrnoException);
  EXPECT_FALSE(watch.notifier().notifyOnWritable());
  EXPECT_NO_THROW(other.notifier().notifyOnReadableIs(false));
  EXPECT_NO_THROW(other.notifier().descriptorIs(-1));
  EXPECT_EQ(0, System::doRun());
}

TEST(DescriptorTest, nonBlockingModeIsOfTheEntity) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  auto const entity = allocate<FileDescriptor>("pipe");
  auto const isNonBlocking = [](int d) { return (::fcntl(d, F_GETFL) & O_NONBLOCK) != 0; };
  entity->descriptorIs(ends[0]);
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
}

TEST(DescriptorTest, oneNotifieeAnEntity) {
  Watch watch(-1);
  struct Second : FileDescriptor::Notifiee {
    using Notifiee::Notifiee;
  };
  EXPECT_THROW(allocate<Second>(Ptr<FileDescriptor>(&watch.notifier())), RangeException);
  EXPECT_THROW(allocate<Second>(nullptr), RangeException);
}

TEST(DescriptorTest, severalEntitiesShareANumber) {
  Pair pair;
  std::string calls;
  Watch a(pair.ends[0], [&] { calls += 'a'; });
  auto b = std::make_unique<Watch>(pair.ends[0], [&] { calls += 'b'; });
  Watch c(pair.ends[0]);
  c.onWritable = [&] { calls += 'c'; };
  c.notifier().notifyOnWritableIs(true);
  pair.write();
  looks(1);
  EXPECT_EQ("abc", calls);
  a.notifier().notifyOnReadableIs(false);
  looks(1);
  EXPECT_EQ("abcbc", calls);
  b.reset();
  looks(1);
  EXPECT_EQ("abcbcc", calls);
  c.notifier().descriptorIs(-1);
  a.notifier().notifyOnReadableIs(true);
  looks(1);
  EXPECT_EQ("abcbcca", calls);
}

TEST(DescriptorTest, reactionsMayChangeTheOthers) {
  struct Fixture {
    Pair pairs[3];
    std::vector<std::unique_ptr<Watch>> watches;
    std::vector<std::unique_ptr<Watch>> companions;  // one more on each number
    std::unique_ptr<Watch> extra;
    int calls = 0;
    bool acted = false;
  };
  // The first of three ready ones that is called does the action; what the look found is then
  // served as far as the interest still stands.
  struct {
    char const* name;
    std::function<void(Fixture&, Watch*)> action;
    int calls;
  } const cases[] = {
      {"nothing", [](auto&, auto*) {}, 6},
      {"destroys the next of its number", [](auto& f, auto*) { f.companions.clear(); }, 3},
      {"takes the next of its number off",
       [](auto& f, auto*) {
         for (auto& w : f.companions) w->notifier().descriptorIs(-1);
       },
       3},
      {"destroys the others",
       [](auto& f, auto* self) {
         for (auto& w : f.watches) {
           if (w.get() != self) w.reset();
         }
       },
       4},
      {"takes the others off",
       [](auto& f, auto* self) {
         for (auto& w : f.watches) {
           if (w.get() != self) w->notifier().descriptorIs(-1);
         }
       },
       4},
      {"switches the others off",
       [](auto& f, auto*) {
         for (auto& w : f.watches) w->notifier().notifyOnReadableIs(false);
       },
       4},
      {"closes the others and gives their numbers to unready ones",
       [](auto& f, auto* self) {
         for (int i = 0; i < 3; ++i) {
           int const number = f.pairs[i].ends[0];
           if (self->notifier().descriptor() == number) continue;
           f.watches[static_cast<std::size_t>(i)]->notifier().descriptorIs(-1);
           Pair fresh;
           ::dup2(fresh.ends[0], number);
           f.pairs[i].close(1);
           f.pairs[i].ends[1] = ::dup(fresh.ends[1]);
           f.watches[static_cast<std::size_t>(i)]->notifier().descriptorIs(number);
         }
       },
       2},
      {"adds one on its own number, which waits for the next look",
       [](auto& f, auto* self) {
         f.extra = std::make_unique<Watch>(self->notifier().descriptor(), [&f] { ++f.calls; });
       },
       6},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f;
    for (auto& pair : f.pairs) {
      pair.write();
      f.watches.push_back(std::make_unique<Watch>(pair.ends[0]));
      Watch* const self = f.watches.back().get();
      self->onReadable = [&f, &c, self] {
        ++f.calls;
        if (!std::exchange(f.acted, true)) c.action(f, self);
      };
      self->notifier().notifyOnReadableIs(true);
      f.companions.push_back(std::make_unique<Watch>(pair.ends[0], [&f] { ++f.calls; }));
    }
    looks(1);
    EXPECT_EQ(c.calls, f.calls);
  }
}

TEST(DescriptorTest, aReactionMayChangeItsOwn) {
  struct {
    char const* name;
    std::function<void(Ptr<Watch>&, int)> action;
  } const cases[] = {
      {"lets its notifiee go", [](auto& watch, int) { watch = nullptr; }},
      {"takes its descriptor off", [](auto& watch, int) { watch->notifier().descriptorIs(-1); }},
      {"takes another one, for the next look",
       [](auto& watch, int other) { watch->notifier().descriptorIs(other); }},
      {"wants no more of it",
       [](auto& watch, int) { watch->notifier().notifyOnWritableIs(false); }},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Pair pair, other;
    pair.write();
    int reads = 0;
    int writes = 0;
    auto watch = allocate<Watch>(pair.ends[0]);
    watch->onReadable = [&] {
      c.action(watch, other.ends[0]);
      ++reads;
    };
    watch->onGone = [&] { EXPECT_EQ(1, reads) << "destroyed before its reaction was over"; };
    watch->onWritable = [&] { ++writes; };
    watch->notifier().notifyOnReadableIs(true);
    watch->notifier().notifyOnWritableIs(true);
    looks(1);
    EXPECT_EQ(1, reads);
    EXPECT_EQ(0, writes);
  }
}

TEST(DescriptorTest, closedAndReusedWithoutAWord) {
  struct {
    char const* name;
    bool keepDuplicate;  // the old file stays open elsewhere, so the kernel keeps reporting it
    bool tellEntity;     // descriptorIs() with the same number
  } const cases[] = {
      {"told", false, true},
      {"told, old file still open", true, true},
      {"new entity", false, false},
      {"new entity, old file still open", true, false},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Pair old, fresh;
    int const number = old.ends[0];
    int oldReads = 0, newReads = 0;
    Watch watch(number, [&] { ++oldReads; });
    int const duplicate = c.keepDuplicate ? ::dup(number) : -1;
    ::dup2(fresh.ends[0], number);
    std::unique_ptr<Watch> second;
    if (c.tellEntity) {
      watch.notifier().descriptorIs(number);
    } else {
      second = std::make_unique<Watch>(number, [&] { ++newReads; });
    }
    fresh.write();
    looks(1);
    EXPECT_EQ(1, oldReads) << "shares the number with the new one";
    EXPECT_EQ(c.tellEntity ? 0 : 1, newReads);
    char byte;
    EXPECT_EQ(1, ::read(number, &byte, 1));
    if (c.keepDuplicate) {
      EXPECT_EQ(1, ::write(old.ends[1], "x", 1));
      // They would also keep virtual time from its jump.
      config().virtualTimeIs(true);
      runFor(1e6);
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

TEST(DescriptorTest, moreReadyThanOneLookHolds) {
  constexpr int kMany = 700;
  ::rlimit limit{4 * kMany, 4 * kMany};
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) GTEST_SKIP() << "no descriptors";
  std::vector<std::unique_ptr<Pair>> pairs;
  std::vector<std::unique_ptr<Watch>> watches;
  for (int i = 0; i < kMany; ++i) {
    pairs.push_back(std::make_unique<Pair>());
    pairs.back()->write();
    watches.push_back(std::make_unique<Watch>(pairs.back()->ends[0], [] {}));
  }
  looks(6);
  for (auto const& watch : watches) {
    EXPECT_LE(1u, watch->notifier().readableCount());
    EXPECT_GE(4u, watch->notifier().readableCount()) << "the kernel takes turns";
  }
}

TEST(DescriptorTest, whoIsCutOffComesFirst) {
  struct {
    char const* name;
    bool throws;
  } const cases[] = {{"by exceptions", true}, {"by stops", false}};
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Pair pairs[3];
    std::vector<std::unique_ptr<Watch>> watches;
    for (auto& pair : pairs) {
      pair.write();
      watches.push_back(std::make_unique<Watch>(pair.ends[0], [&c] {
        System::doStop();
        if (c.throws) throw 1;
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

TEST(DescriptorTest, virtualTimeJumpsOnlyWhenNothingIsReady) {
  config().virtualTimeIs(true);
  Pair pair;
  pair.write("abcdef");
  double const start = System::currentTime();
  std::string order;
  Watch watch(pair.ends[0], [&] {
    char c;
    if (::read(pair.ends[0], &c, 1) == 1) order += c;
  });
  Timer timer([&] { order += 'T'; });
  timer.timeMinIs(start + 1000);
  runFor(2000);
  EXPECT_EQ("abcdefT", order);
  EXPECT_LE(start + 2000, System::currentTime());
  config().virtualTimeIs(false);
}

TEST(DescriptorTest, aKernelWithoutTheExactWaitWaitsLongEnough) {
  EXPECT_EQ(0, inChild([] {
              ::sock_filter code[] = {
                  BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(::seccomp_data, nr)),
                  BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_epoll_pwait2, 0, 1),
                  BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                  BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
              };
              ::sock_fprog const program{4, code};
              ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
              if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) return 1;
              double const end = System::currentTime() + 0.0005;
              Timer timer;
              timer.timeMinIs(end);
              System::doRun();
              return timer.calls == 1 && timer.early == 0 && System::currentTime() >= end ? 0 : 2;
            }));
}

TEST(DescriptorTest, outOfDescriptorsIsAnErrorAndPasses) {
  EXPECT_EQ(0, inChild([] {
              Pair pair;
              auto const entity = allocate<FileDescriptor>("test");
              ::rlimit limit{};
              ::getrlimit(RLIMIT_NOFILE, &limit);
              ::rlimit const none{static_cast<::rlim_t>(pair.ends[1] + 1), limit.rlim_max};
              ::setrlimit(RLIMIT_NOFILE, &none);
              try {
                entity->descriptorIs(pair.ends[0]);
                return 1;
              } catch (ErrnoException const& e) {
                if (e.errnum() != EMFILE) return 2;
              }
              ::setrlimit(RLIMIT_NOFILE, &limit);
              entity->descriptorIs(pair.ends[0]);
              return 0;
            }));
}

TEST(DescriptorTest, interestsGoEvenWhereNoSetCanBeMade) {
  Pair pair;
  Watch watch(pair.ends[0], [] {});
  looks(1);
  pair.write();
  EXPECT_EQ(0, inChild([&] {
              ::rlimit limit{};
              ::getrlimit(RLIMIT_NOFILE, &limit);
              ::rlimit const none{0, limit.rlim_max};
              ::setrlimit(RLIMIT_NOFILE, &none);
              watch.notifier().notifyOnReadableIs(false);
              ::setrlimit(RLIMIT_NOFILE, &limit);
              config().virtualTimeIs(true);
              return runFor(1e6);  // lasts for real if what is readable is still asked for
            }));
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
    std::function<int(Scene&)> child;
  } const cases[] = {
      {"exits", [](auto&) { return 0; }},
      {"destroys its controls",
       [](auto& s) {
         s.watch.reset();
         s.second.reset();
         s.late.timeMinIs(std::numeric_limits<double>::infinity());
         return 0;
       }},
      {"changes its controls",
       [](auto& s) {
         s.watch->notifier().notifyOnReadableIs(false);
         s.second->notifier().notifyOnWritableIs(true);
         return 0;
       }},
      {"closes every descriptor, opens others, and uses the loop",
       [](auto& s) {
         for (int d = 3; d < 100; ++d) ::close(d);
         int mine[20];
         for (int& d : mine) d = ::open("/dev/null", O_RDONLY);
         s.watch->notifier().descriptorIs(-1);
         for (int d : mine) {
           if (::fcntl(d, F_GETFD) < 0) return 1;
         }
         return 0;
       }},
      {"has no descriptor left for a set of its own",
       [](auto& s) {
         ::rlimit const none{static_cast<::rlim_t>(3), 3};
         ::setrlimit(RLIMIT_NOFILE, &none);
         s.second->notifier().notifyOnReadableIs(false);
         s.watch.reset();
         return 0;
       }},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Scene s;
    int status = -1;
    s.watch = std::make_unique<Watch>(s.pair.ends[0], [&] {
      if (++s.reads == 1) status = inChild([&] { return c.child(s); });
      s.pair.read();
    });
    s.second = std::make_unique<Watch>(s.other.ends[0], [&] { s.other.read(); });
    s.pair.write();
    s.late.timeMinIs(System::currentTime() + 0.001);
    runFor(0.002);
    EXPECT_EQ(0, status);
    EXPECT_EQ(1, s.late.calls);
    s.pair.write();
    s.other.write();
    looks(1);
    EXPECT_EQ(2, s.reads);
    EXPECT_EQ(1u, s.second->notifier().readableCount());
  }
}

TEST(DescriptorTest, theSetSurvivesClosingAllDescriptors) {
  EXPECT_EQ(0, inChild([] {
              Pair pair;
              int reads = 0;
              Watch watch(pair.ends[0], [&] { ++reads; });
              looks(1);
              for (int d = 3; d < 100; ++d) {
                if (d != pair.ends[0] && d != pair.ends[1]) ::close(d);
              }
              pair.write();
              looks(2);
              return reads >= 1 ? 0 : 1;
            }));
}

}  // namespace
}  // namespace Kiv
