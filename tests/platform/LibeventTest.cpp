// What is libevent's alone: bases, its log and fatal errors, fast forward, threads that end.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <cmath>
#include <sstream>

#include "tests/platform/Backends.h"
#include "tests/support/Asserts.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {

constexpr char const* kFile = "Veltro/LibeventFactoryCpp";

/// Each test starts and ends without a base.
struct LibeventTest : testing::Test {
  LibeventTest() { leFree(); }
  ~LibeventTest() override { leFree(); }
};

TEST_F(LibeventTest, aThreadHasOneBaseAtATime) {
  EXPECT_EQ(1, doLeEventLoop()) << "makes one, which has nothing to do";
  EXPECT_TRUE(leInitialized());
  leFree();
  leFree();
  EXPECT_FALSE(leInitialized());
  event_base* const own = event_base_new();
  event_base* const other = event_base_new();
  leRegisterBase(own);
  leInit();
  EXPECT_NO_THROW(leRegisterBase(own));
  std::ostringstream text;
  text << "Tried to register a base:" << static_cast<void*>(other)
       << " but a thread_local  base already exists: " << static_cast<void*>(own);
  EXPECT_THAT([=] { leRegisterBase(other); }, asserts(kFile, "leRegisterBase", text.str()));
  leFree();
  EXPECT_THROW(leRegisterBase(nullptr), AssertException);
  EXPECT_NO_THROW(leRegisterBase(other));
}

TEST_F(LibeventTest, anAdoptedBaseMayBeRunByItsOwner) {
  event_base* const own = event_base_new();
  leRegisterBase(own);
  Timeout handler([] { throw 7; });
  auto const timer = getLeTimerControl(&handler);
  timer->setTimeout(0);
  EXPECT_THROW(event_base_dispatch(own), int) << "nobody else would hear of it";
}

// A descriptor is watched for reads from the start, and anew when it is bound after clearEvents().
TEST_F(LibeventTest, controlsOutliveTheirBase) {
  Timeout handler;
  FdEvents events;
  auto timer = getLeTimerControl(&handler);
  auto fd = getLeFdControl(&events);
  events.onRead = [&](int) { fd->clearEvents(); };
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  EXPECT_EQ(1, ::write(ends[1], "x", 1));
  for (int const round : {1, 2}) {
    timer->setTimeout(0);
    fd->setFd(ends[0]);
    EXPECT_EQ(1, doLeEventLoop());
    EXPECT_EQ(round, handler.calls);
    EXPECT_EQ(round, events.reads);
    timer->setTimeout(0);
    fd->setReads(true);
    leFree();
    EXPECT_TRUE(std::isinf(timer->remainingTimeout()));
  }
  EXPECT_NE(0, ::fcntl(ends[0], F_GETFL) & O_NONBLOCK);
  timer.reset();
  fd.reset();
  EXPECT_FALSE(leInitialized());
  for (int const end : ends) ::close(end);
}

using LibeventDeathTest = LibeventTest;

TEST_F(LibeventDeathTest, aDescriptorThatCannotBeBoundEndsTheProcess) {
  FdEvents events;
  auto const fd = getLeFdControl(&events);
  EXPECT_DEATH(fd->setFd(-1), "flags >= 0");
  int const path = ::open("/", O_PATH | O_CLOEXEC);  // refuses F_SETFL
  EXPECT_DEATH(fd->setFd(path), "result == 0");
  ::close(path);
}

TEST_F(LibeventTest, fatalErrorsAssert) {
  EXPECT_THAT([] { le_fatal_cb(-3); }, asserts(kFile, "le_fatal_cb", "libevent fatal error:-3"));
  inChild([] {
    limitIs(RLIMIT_NOFILE, 0);
    EXPECT_THROW(leInit(), AssertException) << "libevent would end the process";
    EXPECT_FALSE(leInitialized());
  });
}

TEST_F(LibeventTest, fastForwardIsTheMainThreadsAndForTheEndOfARunToo) {
  Timeout handler;
  auto const timer = getLeTimerControl(&handler);
  setLeFastForward(true);
  for (double const unit : {0.25, 100.0, 1e8}) {
    timer->setTimeout(3 * unit);
    EXPECT_EQ(0, doLeEventLoop(unit));
  }
  EXPECT_EQ(3, handler.calls);
  LibeventBackend::run([] {
    leInit();
    EXPECT_THAT([] { setLeFastForward(false); },
                asserts(kFile, "setLeFastForward", "FastForward invoked from non-main thread"));
    EXPECT_TRUE(leFastForward());
  });
  setLeFastForward(false);
  timer->setTimeout(1000);
  EXPECT_EQ(0, doLeEventLoop(0.01));
  EXPECT_GT(timer->remainingTimeout(), 900) << "switched off, time is real";
}

TEST_F(LibeventTest, aThreadMayEndInsideAHandler) {
  auto const loop = [](void* mark) -> void* {
    struct Freer {
      ~Freer() { leFree(); }
    } const freer;
    Timeout handler([mark] { ::pthread_exit(mark); });
    auto const timer = getLeTimerControl(&handler);
    timer->setTimeout(0);
    doLeEventLoop();
    return nullptr;
  };
  pthread_t thread;
  void* result = nullptr;
  ASSERT_EQ(0, ::pthread_create(&thread, nullptr, loop, &result));
  ASSERT_EQ(0, ::pthread_join(thread, &result));
  EXPECT_EQ(&result, result);
}

}  // namespace
}  // namespace Veltro
