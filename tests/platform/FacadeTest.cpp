// Which loop stands behind a thread's controls.

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Veltro/Debug.h"
#include "tests/platform/Backends.h"
#include "tests/support/Asserts.h"
#include "tests/support/Child.h"

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

/// A thread that makes a first call, and says after the opt-in what it gets.
class Asker {
 public:
  explicit Asker(std::function<void()> firstCall)
      : thread_([this, firstCall = std::move(firstCall)] {
          firstCall();
          called_.set_value();
          optedIn_.get_future().wait();
          answer_.set_value(getsLibevent());
          leFree();
        }) {
    called_.get_future().wait();
  }
  ~Asker() { thread_.join(); }
  bool getsLibeventNow() {
    optedIn_.set_value();
    return answer_.get_future().get();
  }

 private:
  std::promise<void> called_;
  std::promise<void> optedIn_;
  std::promise<bool> answer_;
  std::thread thread_;
};

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
  std::vector<std::unique_ptr<Asker>> askers;
  for (auto const& c : cases) askers.push_back(std::make_unique<Asker>(c.firstCall));
  useThreadLocalSingletons();
  EXPECT_TRUE(hasThreadLocalSingletons());
  for (std::size_t i = 0; i < askers.size(); ++i) {
    SCOPED_TRACE(cases[i].name);
    EXPECT_EQ(cases[i].libevent, askers[i]->getsLibeventNow());
  }
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

TEST(FacadeTest, aForkedWorkerKeepsItsLoop) {
  LibeventBackend::run([] {
    EXPECT_TRUE(getsLibevent());
    EXPECT_FALSE(isMainThread());
    inChild([] {
      EXPECT_TRUE(isMainThread());
      EXPECT_TRUE(getsLibevent());
    });
  });
}

}  // namespace
}  // namespace Veltro
