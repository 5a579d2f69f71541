// Which loop stands behind a thread's controls.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "Veltro/Debug.h"
#include "tests/platform/Backends.h"
#include "tests/support/Asserts.h"

namespace Veltro {
namespace {

template <typename Expected, typename Control>
bool is(std::shared_ptr<Control> const& control) {
  return dynamic_cast<Expected*>(control.get()) != nullptr;
}

/// What the calling thread gets from the facade.
bool getsLibevent() {
  Timeout timeout;
  FdEvents events;
  Callback back;
  bool const result = is<LibeventTimerControl>(Platform::getTimerControl(&timeout));
  EXPECT_EQ(result, is<LibeventFdControl>(Platform::getFdControl(&events)));
  EXPECT_EQ(result, is<LibeventCallbackControl>(Platform::getCallbackControl(&back)));
  return result;
}

TEST(FacadeTest, aThreadKeepsTheLoopOfItsFirstCall) {
  ASSERT_FALSE(hasThreadLocalSingletons()) << "run this test in a process of its own";
  struct {
    char const* name;
    std::function<void()> firstCall;
    bool libevent;
  } const cases[] = {
      {"a control", [] { EXPECT_FALSE(getsLibevent()); }, false},
      {"a limited run", [] { EXPECT_EQ(0, Platform::doEventLoop(0)); }, false},
      {"a run", [] { EXPECT_EQ(0, Platform::doEventLoop()); }, false},
      {"a question about fast forward", [] { EXPECT_FALSE(Platform::fastForward()); }, false},
      {"nothing", [] {}, true},
      {"calls that do not ask",
       [] {
         delete Platform::getDebugHandler("Asker");
         EXPECT_FALSE(isMainThread());
         EXPECT_FALSE(leInitialized());
       },
       true},
  };
  // One after the other: those with the type system's loop share it.
  std::mutex turn;
  std::atomic<std::size_t> called{0};
  std::promise<void> optIn;
  auto const optedIn = optIn.get_future().share();
  std::vector<std::thread> threads;
  for (auto const& c : cases) {
    threads.emplace_back([&] {
      c.firstCall();
      ++called;
      optedIn.wait();
      std::lock_guard<std::mutex> const lock(turn);
      EXPECT_EQ(c.libevent, getsLibevent()) << c.name;
      leFree();
    });
    while (called < threads.size()) std::this_thread::yield();
  }
  useThreadLocalSingletons();
  EXPECT_TRUE(hasThreadLocalSingletons());
  optIn.set_value();
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(getsLibevent()) << "the main thread";
}

TEST(FacadeTest, fastForwardIsNotForThreadsWithALoopOfTheirOwn) {
  LibeventBackend::run([] {
    char const text[] = "ThreadLocal fastForward invoked from non-main thread";
    EXPECT_THAT([] { Platform::setFastForward(true); },
                asserts("Veltro/PlatformCpp", "setFastForward", text));
    EXPECT_THAT([] { Platform::fastForward(); },
                asserts("Veltro/PlatformCpp", "fastForward", text));
  });
  EXPECT_FALSE(Platform::fastForward());
  Platform::setFastForward(true);
  EXPECT_TRUE(Platform::fastForward());
  Timeout handler;
  auto const timer = Platform::getTimerControl(&handler);
  timer->setTimeout(365 * 86400.0);
  EXPECT_EQ(0, Platform::doEventLoop());
  EXPECT_EQ(1, handler.calls);
  timer->setTimeout(5);
  Platform::setFastForward(false);
  EXPECT_NEAR(5, timer->remainingTimeout(), 1) << "time does not go back";
}

}  // namespace
}  // namespace Veltro
