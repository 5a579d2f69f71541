// What is the poller's own; what it shares with the other back ends is in tests/survive.
#include <fcntl.h>
#include <gmock/gmock.h>
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

/// One pass of the loop, which looks at the descriptors once and does not wait.
void look() {
  try {
    runFor(0);
  } catch (int) {
  }
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
      Watch watch(good.ends[0], [] {});
      watch.notifier().notifyOnReadableIs(interested);
      EXPECT_THAT([&] { watch.notifier().descriptorIs(c.descriptor); },
                  testing::Throws<ErrnoException>(
                      testing::Property(&ErrnoException::errnum, testing::Eq(c.errnum))));
      EXPECT_EQ(-1, watch.notifier().descriptor());
    }
  }
  ::close(folder);
  // Closed while it is watched: a new interest is refused, an old one goes quietly.
  Watch watch(good.ends[0]), other(good.ends[0], [] {});
  good.close(0);
  EXPECT_THROW(watch.notifier().notifyOnWritableIs(true), ErrnoException);
  EXPECT_FALSE(watch.notifier().notifyOnWritable());
  EXPECT_NO_THROW(other.notifier().notifyOnReadableIs(false));
  EXPECT_EQ(0, System::doRun()) << "nothing is left behind";
  Ptr<FileDescriptor> const taken(&watch.notifier());
  EXPECT_THROW(allocate<FileDescriptor::Notifiee>(taken), RangeException);
}

TEST(DescriptorTest, closedAndReusedWithoutAWord) {
  for (bool const keepDuplicate : {false, true}) {  // the kernel keeps reporting the old file
    Pair old, fresh;
    int const number = old.ends[0];
    int oldReads = 0, newReads = 0;
    Watch const watch(number, [&] { ++oldReads; });
    int const duplicate = keepDuplicate ? ::dup(number) : -1;
    ::dup2(fresh.ends[0], number);
    Watch const second(number, [&] { ++newReads; });
    fresh.write();
    look();
    EXPECT_EQ(1, oldReads) << "shares the number with the new one";
    EXPECT_EQ(1, newReads);
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
  look();
  EXPECT_EQ(1u, watch.notifier().readableCount());
  ::close(duplicate);
}

TEST(DescriptorTest, whatThrowsOrStopsForEverStarvesNobody) {
  struct {
    char const* throwing;  // of a and b, the timers, and d, the descriptors: all in every pass
    bool stops;            // the descriptors stop the run
    char const* calls;     // a bar ends a run
  } const cases[] = {
      {"", false, "abddd|abddd|"}, {"d", false, "abd|abd|abd|"},   {"d", true, "abd|abd|abd|"},
      {"", true, "abd|abd|abd|"},  {"a", false, "a|bddd|a|bddd|"}, {"abd", false, "a|b|d|a|b|d|"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.calls);
    std::string calls;
    auto const called = [&](char who) {
      calls += who;
      if (c.stops && who == 'd') System::doStop();
      if (std::string(c.throwing).find(who) != std::string::npos) throw 1;
    };
    Pair pairs[3];
    std::vector<std::unique_ptr<Watch>> watches;
    for (auto& pair : pairs) {
      pair.write();
      watches.push_back(std::make_unique<Watch>(pair.ends[0], [&] { called('d'); }));
    }
    Timer a([&] { a.timeMinIsNow(), called('a'); });
    Timer b([&] { b.timeMinIsNow(), called('b'); });
    a.timeMinIsNow();
    b.timeMinIsNow();
    for (int run = 0; run < 18; ++run, calls += '|') look();
    EXPECT_EQ(c.calls, calls.substr(0, std::string(c.calls).size()));
    for (auto const& each : watches) {
      EXPECT_EQ(watches[0]->notifier().readableCount(), each->notifier().readableCount());
    }
  }
}

TEST(DescriptorTest, whatATimerHasReadIsNotServedOnceMore) {
  Pair pair;
  pair.write();
  Watch const watch(pair.ends[0], [] {});
  Timer timer([&] { pair.read(); });
  timer.timeMinIsNow();
  runFor(0);
  EXPECT_EQ(0u, watch.notifier().readableCount());
}

TEST(DescriptorTest, oneAddedInAReactionWaitsForTheNextLook) {
  Pair pair;
  pair.write();
  int calls = 0;
  std::unique_ptr<Watch> added;
  Watch const watch(pair.ends[0], [&] {
    if (!added) added = std::make_unique<Watch>(pair.ends[0], [&] { ++calls; });
  });
  for (int const expected : {0, 1}) {
    look();
    EXPECT_EQ(expected, calls);
  }
}

TEST(DescriptorTest, virtualTimeJumpsOnlyWhenNothingIsReady) {
  config().virtualTimeIs(true);
  Pair pair;
  pair.write();
  std::string order;
  Watch watch(pair.ends[0], [&] {
    order += 'r';
    watch.notifier().notifyOnReadableIs(order.size() < 3);
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

TEST(DescriptorTest, aForkedChildDoesNotDisturbTheParent) {
  struct {
    char const* name;
    void (*child)(Ptr<Watch>&);
  } const cases[] = {
      {"closes every descriptor, opens others, and uses the loop",
       [](auto& watch) {
         for (int d = 3; d < 100; ++d) ::close(d);
         for (int d = 3; d < 30; ++d) EXPECT_EQ(d, ::open("/dev/null", O_RDONLY));
         watch->notifier().descriptorIs(-1);
         for (int d = 3; d < 30; ++d) EXPECT_LE(0, ::fcntl(d, F_GETFD));
       }},
      {"has no descriptor left for a set of its own, and needs none for its timers",
       [](auto& watch) {
         Veltro::limitIs(RLIMIT_NOFILE, 3);
         watch->notifier().notifyOnReadableIs(false);
         watch = nullptr;
         Timer timer;
         timer.timeMinIs(System::currentTime() + 0.001);
         runFor(0.002);
         EXPECT_EQ(1, timer.calls);
       }},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Pair pair;
    Ptr<Watch> watch = allocate<Watch>(pair.ends[0], [&] { pair.read(); });
    look();
    Veltro::inChild([&] { c.child(watch); });
    pair.write();
    look();
    EXPECT_EQ(1u, watch->notifier().readableCount());
  }
}

}  // namespace
}  // namespace Kiv
