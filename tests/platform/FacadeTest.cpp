// Which loop stands behind a thread's controls.

#include <gtest/gtest.h>

#include <thread>

#include "Veltro/Debug.h"
#include "tests/platform/Backends.h"
#include "tests/support/Asserts.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {

/// Whether the calling thread gets libevent's controls from the facade.
bool getsLibevent() {
  Timeout timeout;
  FdEvents events;
  Callback back;
  auto const timer = Platform::getTimerControl(&timeout);
  auto const fd = Platform::getFdControl(&events);
  auto const callback = Platform::getCallbackControl(&back);
  bool const result = dynamic_cast<LibeventTimerControl*>(timer.get()) != nullptr;
  EXPECT_EQ(result, dynamic_cast<LibeventFdControl*>(fd.get()) != nullptr);
  EXPECT_EQ(result, dynamic_cast<LibeventCallbackControl*>(callback.get()) != nullptr);
  return result;
}

TEST(FacadeTest, aThreadKeepsTheLoopOfItsFirstCall) {
  struct {
    char const* name;
    std::function<void()> firstCall;
    bool libevent;
  } const cases[] = {
      {"a control", [] { EXPECT_FALSE(getsLibevent()); }, false},
      {"a limited run", [] { EXPECT_EQ(0, Platform::doEventLoop(0)); }, false},
      {"a run", [] { EXPECT_EQ(0, Platform::doEventLoop()); }, false},
      {"a question about fast forward", [] { EXPECT_FALSE(Platform::fastForward()); }, false},
      {"calls that do not ask",
       [] {
         delete Platform::getDebugHandler("Asker");
         EXPECT_FALSE(isMainThread());
         EXPECT_FALSE(leInitialized());
       },
       true},
  };
  for (auto const& c : cases) {
    inChild([&c] {
      EXPECT_FALSE(hasThreadLocalSingletons()) << "run this test in a process of its own";
      std::thread([&c] {
        c.firstCall();
        useThreadLocalSingletons();
        EXPECT_EQ(c.libevent, getsLibevent()) << c.name;
        leFree();
      }).join();
      EXPECT_TRUE(hasThreadLocalSingletons());
      EXPECT_FALSE(getsLibevent()) << "the main thread";
    });
  }
}

TEST(FacadeTest, fastForwardIsNotForThreadsWithALoopOfTheirOwn) {
  LibeventBackend::run([] {
    char const text[] = "ThreadLocal fastForward invoked from non-main thread";
    EXPECT_THAT([] { Platform::setFastForward(true); },
                asserts("Veltro/PlatformCpp", "setFastForward", text));
    EXPECT_THAT([] { Platform::fastForward(); },
                asserts("Veltro/PlatformCpp", "fastForward", text));
  });
}

}  // namespace
}  // namespace Veltro
