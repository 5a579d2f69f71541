// What is libevent's alone: bases, its log and fatal errors, fast forward, threads that end.
#include <event2/event.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>

#include "Veltro/Debug.h"
#include "Veltro/Exception.h"
#include "tests/platform/Backends.h"
#include "tests/support/Asserts.h"

namespace Veltro {
namespace {

constexpr char const* kFile = "Veltro/LibeventFactoryCpp";

/// Each test starts and ends without a base, and has two connected sockets.
struct LibeventTest : testing::Test {
  LibeventTest() {
    leFree();
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  }
  ~LibeventTest() override {
    setFastForward(false);
    leFree();
    for (int const end : ends) ::close(end);
  }
  static void setFastForward(bool on) {
    leInit();
    setLeFastForward(on);
  }
  int ends[2] = {-1, -1};
};

TEST_F(LibeventTest, aBaseIsMadeOnceAndForgottenWhenFreed) {
  EXPECT_FALSE(leInitialized());
  leFree();
  Timeout handler;
  getLeTimerControl(&handler);
  EXPECT_TRUE(leInitialized());
  leInit();
  leFree();
  EXPECT_FALSE(leInitialized());
  EXPECT_EQ(1, doLeEventLoop()) << "makes one, which has nothing to do";
  EXPECT_TRUE(leInitialized());
}

TEST_F(LibeventTest, aSecondBaseIsRefused) {
  event_base* const own = event_base_new();
  event_base* const other = event_base_new();
  leRegisterBase(own);
  EXPECT_NO_THROW(leRegisterBase(own));
  std::ostringstream text;
  text << "Tried to register a base:" << static_cast<void*>(other)
       << " but a thread_local  base already exists: " << static_cast<void*>(own);
  EXPECT_THAT([=] { leRegisterBase(other); }, asserts(kFile, "leRegisterBase", text.str()));
  EXPECT_THROW(leRegisterBase(nullptr), AssertException);
  leFree();
  EXPECT_NO_THROW(leRegisterBase(other));
}

TEST_F(LibeventTest, anAdoptedBaseMayBeRunByItsOwner) {
  event_base* const own = event_base_new();
  leRegisterBase(own);
  Timeout handler;
  auto const timer = getLeTimerControl(&handler);
  timer->setTimeout(0);
  EXPECT_EQ(1, event_base_dispatch(own));
  EXPECT_EQ(1, handler.calls);
  handler.onTimeout = [] { throw 7; };
  timer->setTimeout(0);
  EXPECT_THROW(event_base_dispatch(own), int) << "nobody else would hear of it";
}

TEST_F(LibeventTest, controlsOutliveTheirBase) {
  Timeout handler;
  FdEvents events;
  auto timer = getLeTimerControl(&handler);
  auto fd = getLeFdControl(&events);
  timer->setTimeout(0);
  fd->setWrites(true);
  fd->setFd(ends[1]);
  events.onWrite = [&](int) { fd->delFd(); };
  leFree();
  EXPECT_TRUE(std::isinf(timer->remainingTimeout()));
  fd->setReads(false);
  fd->setFd(ends[1]);
  timer->setTimeout(0);
  EXPECT_EQ(1, doLeEventLoop());
  EXPECT_EQ(1, handler.calls);
  EXPECT_EQ(1, events.writes);
  timer->setTimeout(0);
  leFree();
  timer.reset();
  fd.reset();
  EXPECT_FALSE(leInitialized());
}

TEST_F(LibeventTest, readsAreOnFromTheStart) {
  FdEvents events;
  auto const fd = getLeFdControl(&events);
  events.onRead = [&](int) { fd->clearEvents(); };
  EXPECT_EQ(1, ::write(ends[1], "x", 1));
  fd->setFd(ends[0]);
  EXPECT_EQ(1, doLeEventLoop());
  EXPECT_EQ(1, events.reads);
  EXPECT_EQ(ends[0], fd->getFd());
  fd->setFd(ends[0]);
  EXPECT_EQ(1, doLeEventLoop());
  EXPECT_EQ(2, events.reads) << "a descriptor bound after clearEvents is watched as before";
}

using LibeventDeathTest = LibeventTest;

void breakARuleOfLibevent() {
  leFree();
  event_enable_debug_mode();
  leInit();
  event_base* const base = event_base_new();
  event timer;
  evtimer_assign(
      &timer, base, [](int, short, void*) {}, nullptr);
  timeval const delay = {100, 0};
  event_add(&timer, &delay);
  try {
    evtimer_assign(
        &timer, base, [](int, short, void*) {}, nullptr);
  } catch (AssertException const& e) {
    std::fputs(e.message().c_str(), stderr);
    std::_Exit(7);
  }
}

TEST_F(LibeventDeathTest, aDescriptorThatCannotBeBoundEndsTheProcess) {
  FdEvents events;
  auto const fd = getLeFdControl(&events);
  EXPECT_DEATH(fd->setFd(-1), "flags >= 0");
  int const closed = ::dup(0);
  ::close(closed);
  EXPECT_DEATH(fd->setFd(closed), "flags >= 0");
  int const path = ::open("/", O_PATH | O_CLOEXEC);  // refuses F_SETFL
  EXPECT_DEATH(fd->setFd(path), "result == 0");
  ::close(path);
}

TEST_F(LibeventDeathTest, fatalErrorsAssert) {
  EXPECT_THAT([] { le_fatal_cb(-3); }, asserts(kFile, "le_fatal_cb", "libevent fatal error:-3"));
  // And by libevent itself, which would end the process: in a process that starts anew, since its
  // checks must be on before anything else.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(breakARuleOfLibevent(), testing::ExitedWithCode(7),
              "le_fatal_cb:[0-9]+: libevent fatal error:-?[0-9]+");
}

TEST_F(LibeventTest, fastForwardIsForTheEndOfARunTooAndEndsWhenSwitchedOff) {
  std::string order;
  Timeout a([&] { order += 'a'; }), b([&] { order += 'b'; });
  auto const ta = getLeTimerControl(&a), tb = getLeTimerControl(&b);
  setFastForward(true);
  for (double const unit : {0.25, 100.0, 1e8}) {
    ta->setTimeout(3 * unit);
    tb->setTimeout(2 * unit);
    EXPECT_EQ(0, doLeEventLoop(unit));
    EXPECT_EQ("ba", std::exchange(order, ""));
  }
  setFastForward(false);
  ta->setTimeout(1000);
  EXPECT_EQ(0, doLeEventLoop(0.01));
  EXPECT_GT(ta->remainingTimeout(), 900) << "switched off, time is real";
}

TEST_F(LibeventTest, onlyTheMainThreadSwitchesFastForward) {
  LibeventBackend::run([] {
    leInit();
    EXPECT_THAT([] { setLeFastForward(true); },
                asserts(kFile, "setLeFastForward", "FastForward invoked from non-main thread"));
    EXPECT_FALSE(leFastForward());
  });
}

/// Runs a loop whose handler ends the thread by itself.
void* threadThatEnds(void* endThread) {
  struct Freer {
    ~Freer() { leFree(); }
  } const freer;
  Timeout handler(reinterpret_cast<void (*)()>(endThread));
  auto const timer = getLeTimerControl(&handler);
  timer->setTimeout(0);
  doLeEventLoop();
  return nullptr;
}

TEST_F(LibeventTest, aThreadMayEndInsideAHandler) {
  static int mark;
  void (*const cancels)() = [] {
    ::pthread_cancel(::pthread_self());
    ::pthread_testcancel();
  };
  void (*const exits)() = [] { ::pthread_exit(&mark); };
  for (auto const end : {cancels, exits}) {
    pthread_t thread;
    void* result = nullptr;
    ASSERT_EQ(0, ::pthread_create(&thread, nullptr, &threadThatEnds, reinterpret_cast<void*>(end)));
    ASSERT_EQ(0, ::pthread_join(thread, &result));
    EXPECT_EQ(end == cancels ? PTHREAD_CANCELED : &mark, result);
  }
}

}  // namespace
}  // namespace Veltro
