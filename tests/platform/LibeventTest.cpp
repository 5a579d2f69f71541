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

#include "Veltro/Debug.h"
#include "Veltro/Exception.h"
#include "tests/platform/Backends.h"
#include "tests/support/Asserts.h"

namespace Veltro {
namespace {

constexpr char const* kFile = "Veltro/LibeventFactoryCpp";

/// Each test starts and ends without a base.
struct LibeventTest : testing::Test {
  LibeventTest() { leFree(); }
  ~LibeventTest() override {
    setFastForward(false);
    leFree();
  }
  static void setFastForward(bool on) {
    leInit();
    setLeFastForward(on);
  }
};

struct SocketsTest : LibeventTest {
  SocketsTest() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends)); }
  ~SocketsTest() override {
    ::close(ends[0]);
    ::close(ends[1]);
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

TEST_F(SocketsTest, controlsOutliveTheirBase) {
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

TEST_F(SocketsTest, readsAreOnFromTheStart) {
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
  fd->setReads(false);
  fd->setFd(ends[0]);
  EXPECT_EQ(1, doLeEventLoop());
  EXPECT_EQ(2, events.reads);
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

TEST_F(LibeventTest, unknownSeverityAsserts) {
  for (int const severity : {-1, 4, 7}) {
    EXPECT_THAT([=] { le_debug_cb(severity, "text"); },
                asserts(kFile, "le_debug_cb",
                        "invalid libevent severity:" + std::to_string(severity) + " msg:text"));
  }
  EXPECT_THAT([] { le_debug_cb(7, nullptr); },
              asserts(kFile, "le_debug_cb", "invalid libevent severity:7 msg:"));
}

TEST_F(LibeventDeathTest, fatalErrorsAssert) {
  EXPECT_THAT([] { le_fatal_cb(-3); }, asserts(kFile, "le_fatal_cb", "libevent fatal error:-3"));
  // And by libevent itself, which would end the process: in a process that starts anew, since its
  // checks must be on before anything else.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(breakARuleOfLibevent(), testing::ExitedWithCode(7),
              "le_fatal_cb:[0-9]+: libevent fatal error:-?[0-9]+");
}

TEST_F(LibeventTest, fastForwardMakesAllTimersDueInOrder) {
  std::string order;
  Timeout a([&] { order += 'a'; }), b([&] { order += 'b'; }), c([&] { order += 'c'; });
  auto const ta = getLeTimerControl(&a), tb = getLeTimerControl(&b), tc = getLeTimerControl(&c);
  setFastForward(true);
  EXPECT_TRUE(leFastForward());
  struct {
    char const* name;
    double a, b, c;
    char const* order;
    int result;
    int (*run)();
  } const cases[] = {
      {"all", 1e6, 3, 1000, "bca", 1, [] { return doLeEventLoop(); }},
      {"again, and days", 3e8, 7 * 86400.5, 7 * 86400.25, "cba", 1, [] { return doLeEventLoop(); }},
      {"parts of a second", 100.5, 100.25, 100.75, "bac", 1, [] { return doLeEventLoop(); }},
      {"the end of the run too", 300, 100, 200, "bca", 0, [] { return doLeEventLoop(50.0); }},
  };
  for (auto const& row : cases) {
    SCOPED_TRACE(row.name);
    order.clear();
    ta->setTimeout(row.a);
    tb->setTimeout(row.b);
    tc->setTimeout(row.c);
    EXPECT_EQ(row.result, row.run());
    EXPECT_EQ(row.order, order);
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
  Timeout handler([=] { (*static_cast<void (**)()>(endThread))(); });
  auto const timer = getLeTimerControl(&handler);
  timer->setTimeout(0);
  doLeEventLoop();
  return nullptr;
}

TEST_F(LibeventTest, aThreadMayEndInsideAHandler) {
  static int mark;
  struct {
    char const* name;
    void (*end)();
    void* result;
  } cases[] = {
      {"cancelled",
       [] {
         ::pthread_cancel(::pthread_self());
         ::pthread_testcancel();
       },
       PTHREAD_CANCELED},
      {"exit", [] { ::pthread_exit(&mark); }, &mark},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    pthread_t thread;
    void* result = nullptr;
    ASSERT_EQ(0, ::pthread_create(&thread, nullptr, &threadThatEnds, &c.end));
    ASSERT_EQ(0, ::pthread_join(thread, &result));
    EXPECT_EQ(c.result, result);
  }
}

}  // namespace
}  // namespace Veltro
