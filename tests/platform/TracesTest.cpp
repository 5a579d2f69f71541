// What the back ends write, to the letter. A record reads "level text".
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "Veltro/Debug.h"
#include "tests/platform/Backends.h"
#include "tests/support/Asserts.h"
#include "tests/support/StandardError.h"

namespace Veltro {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

/// The records of a category, the prefix that they share taken off.
std::vector<std::string> traces(char const* category, std::string const& prefix,
                                std::function<void()> const& body) {
  Platform::setTraceFormat("%l %m");
  Platform::setupVeltroDebug(category);
  std::vector<std::string> lines = standardError(body);
  Platform::clearVeltroDebug(category);
  Platform::clearTraceFormat();
  for (std::string& line : lines) {
    if (line.compare(0, prefix.size(), prefix) == 0) line.erase(0, prefix.size());
  }
  return lines;
}

/// Runs a loop that a handler may leave by exception.
void run(int (*loop)() = &Platform::doEventLoop) {
  try {
    loop();
  } catch (int) {
  }
}
void throwOne() { throw 1; }

struct TracesTest : testing::Test {
  TracesTest() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends)); }
  ~TracesTest() override {
    for (int const end : ends) ::close(end);
  }
  int ends[2] = {-1, -1};
};

TEST_F(TracesTest, typeSystemTimersAndCallbacks) {
  char const* const handled =
      "9 ClockTimer::Notifiee::onNotificationException: "
      "Timeout notification exception was handled";
  Timeout handler(throwOne);
  Callback back(throwOne);
  auto timer = Platform::getTimerControl(&handler);
  Timeout killer([&] { timer.reset(); });
  auto const first = Platform::getTimerControl(&killer);
  auto const callback = Platform::getCallbackControl(&back);
  auto const body = [&] {
    timer->setTimeout(100);
    timer->remainingTimeout();
    timer->delTimeout();
    for (bool const answer : {false, true}) {
      handler.answer = answer;
      timer->setTimeout(0);
      run();
    }
    first->setTimeout(0);
    timer->setTimeout(0);
    run();
    callback->requestCallback();
    callback->pendingCallback();
    run();
    callback->cancelCallback();
  };
  std::vector<std::string> const expected = {
      "setTimeout()", "remainingTimeout()", "delTimeout()",
      // Both ways an exception may go.
      "setTimeout()", "onTime()", handled, "setTimeout()", "onTime()", handled,
      // The first destroys the second.
      "setTimeout()", "setTimeout()", "onTime()", "Notifiee::orphan()", "delTimeout()",
      "Notifiee::onTime() ignoring orphan",
      // A callback is a timer.
      "setTimeout()", "remainingTimeout()", "onTime()", handled, "delTimeout()"};
  EXPECT_EQ(expected, traces("KivVeltro", "5 KivVeltro::ClockTimer::", body));
}

TEST_F(TracesTest, typeSystemDescriptors) {
  std::string const fd = std::to_string(ends[0]);
  std::string const set = "setFd() registering fd:" + fd, clear = "clearEvents() fd:" + fd;
  std::string const del = "delFd() deleting fd:" + fd, orphan = "Notifiee::orphan() fd:" + fd;
  std::string const handled =
      "9 FileDescriptor::Notifiee::onNotificationException: Fd notification exception was handled";
  FdEvents handler;
  handler.onRead = handler.onWrite = [](int) { throw 1; };
  EXPECT_EQ(1, ::write(ends[1], "x", 1));
  EXPECT_THAT(
      traces("KivVeltro", "5 KivVeltro::FileDescriptor::",
             [&] {
               auto control = Platform::getFdControl(&handler);
               control->setFd(ends[0]);
               control->setWrites(true);
               run();
               control->setWrites(false);
               control->setReads(true);
               run();
               control->clearEvents();
               control->delFd();
               control->setFd(ends[0]);
               control.reset();
             }),
      ElementsAre("FileDescriptor()", set, "setWrites():1",
                  "onWritableCount() fd:" + fd + "writableCount:1", handled, "setWrites():0",
                  "setReads():1", "onReadableCount() fd:" + fd + "readableCount:1", handled, clear,
                  del, clear, set, orphan, del, clear));
}

TEST_F(TracesTest, libeventNotesWhatDidNotLeaveTheLoop) {
  std::string const timerNote =
      "9 LibeventTimerControl::handler: Timeout notification exception was handled";
  std::string const callbackNote =
      "9 LibeventCallbackControl::timeout: Callback notification exception was handled";
  Timeout handler;
  Callback back;
  auto const timer = getLeTimerControl(&handler);
  auto const callback = getLeCallbackControl(&back);
  struct {
    char const* name;
    std::function<void()> does;
    bool answer;
    std::vector<std::string> timers, callbacks;
  } const cases[] = {{"nothing was thrown", [] {}, false, {timerNote}, {timerNote}},
                     {"unanswered", throwOne, false, {}, {}},
                     {"answered", throwOne, true, {timerNote}, {callbackNote, timerNote}}};
  for (auto const& c : cases) {
    handler.onTimeout = back.onCallback = c.does;
    handler.answer = back.answer = c.answer;
    timer->setTimeout(0);
    EXPECT_EQ(c.timers, traces("VeltroLibevent", "", [] { run(&doLeEventLoop); })) << c.name;
    callback->requestCallback();
    EXPECT_EQ(c.callbacks, traces("VeltroLibevent", "", [] { run(&doLeEventLoop); })) << c.name;
  }
}

TEST_F(TracesTest, libeventLog) {
  auto const log = [] {
    for (int const severity : {0, 1, 2, 3}) le_debug_cb(severity, "text");
    le_debug_cb(2, nullptr);
  };
  EXPECT_THAT(traces("VeltroLibevent", "", log),
              ElementsAre("9 libevent: text", "5 libevent: text", "1 libevent: text",
                          "0 libevent: text", "1 libevent: "));
  for (int const severity : {-1, 4}) {
    EXPECT_THAT([=] { le_debug_cb(severity, "text"); },
                asserts("Veltro/LibeventFactoryCpp", "le_debug_cb",
                        "invalid libevent severity:" + std::to_string(severity) + " msg:text"));
  }
  // libevent's own warning takes the same way.
  Timeout handler([] { EXPECT_EQ(-1, doLeEventLoop()); });
  auto const timer = getLeTimerControl(&handler);
  timer->setTimeout(0);
  EXPECT_THAT(traces("VeltroLibevent/1", "", [] { doLeEventLoop(); }),
              ElementsAre(StartsWith("1 libevent: event_base_loop: reentrant")));
}

}  // namespace
}  // namespace Veltro
