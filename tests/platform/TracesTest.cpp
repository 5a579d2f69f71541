// What the back ends write, to the letter. A record reads "level text".
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/platform/Backends.h"
#include "tests/support/Asserts.h"
#include "tests/support/StandardError.h"

namespace Veltro {
namespace {

using testing::ElementsAre;

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

TEST(TracesTest, typeSystemTimersAndCallbacks) {
  char const* const handled =
      "9 ClockTimer::Notifiee::onNotificationException: "
      "Timeout notification exception was handled";
  Timeout handler(throwOne);
  Callback back(throwOne);
  auto timer = Platform::getTimerControl(&handler);
  Timeout killer([&] { timer.reset(); });
  auto const first = Platform::getTimerControl(&killer);
  auto const callback = Platform::getCallbackControl(&back);
  EXPECT_THAT(traces("KivVeltro", "5 KivVeltro::ClockTimer::",
                     [&] {
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
                     }),
              ElementsAre(  //
                  "setTimeout()", "remainingTimeout()", "delTimeout()",
                  // Both ways an exception may go.
                  "setTimeout()", "onTime()", handled, "setTimeout()", "onTime()", handled,
                  // The first destroys the second.
                  "setTimeout()", "setTimeout()", "onTime()", "Notifiee::orphan()", "delTimeout()",
                  "Notifiee::onTime() ignoring orphan",
                  // A callback is a timer.
                  "setTimeout()", "remainingTimeout()", "onTime()", handled, "delTimeout()"));
}

TEST(TracesTest, typeSystemDescriptors) {
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
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
  EXPECT_NE(0, ::fcntl(ends[0], F_GETFL) & O_NONBLOCK);
  for (int const end : ends) ::close(end);
}

constexpr char kTimerNote[] =
    "9 LibeventTimerControl::handler: Timeout notification exception was handled";
constexpr char kCallbackNote[] =
    "9 LibeventCallbackControl::timeout: Callback notification exception was handled";

TEST(TracesTest, libeventNotesWhatDidNotLeaveTheLoop) {
  Timeout handler;
  Callback back;
  auto const timer = getLeTimerControl(&handler);
  auto const callback = getLeCallbackControl(&back);
  struct {
    void (*does)();
    bool answer;
    std::vector<std::string> notes;  // of the timer, then of the callback
  } const cases[] = {{[] {}, false, {kTimerNote, kTimerNote}},
                     {throwOne, false, {}},
                     {throwOne, true, {kTimerNote, kCallbackNote, kTimerNote}}};
  for (auto const& c : cases) {
    handler.onTimeout = back.onCallback = c.does;
    handler.answer = back.answer = c.answer;
    EXPECT_EQ(c.notes, traces("VeltroLibevent", "", [&] {
                timer->setTimeout(0);
                run(&doLeEventLoop);
                callback->requestCallback();
                run(&doLeEventLoop);
              }));
  }
}

TEST(TracesTest, libeventLog) {
  // A run inside a run: libevent itself warns.
  Timeout handler([] { EXPECT_EQ(-1, doLeEventLoop()); });
  auto const timer = getLeTimerControl(&handler);
  timer->setTimeout(0);
  EXPECT_THAT(
      traces("VeltroLibevent", "",
             [] {
               for (int const severity : {0, 1, 2, 3}) le_debug_cb(severity, "text");
               le_debug_cb(2, nullptr);
               doLeEventLoop();
             }),
      ElementsAre("9 libevent: text", "5 libevent: text", "1 libevent: text", "0 libevent: text",
                  "1 libevent: ", testing::StartsWith("1 libevent: event_base_loop: reentrant"),
                  kTimerNote));
  EXPECT_THAT([] { le_debug_cb(4, "text"); }, asserts("Veltro/LibeventFactoryCpp", "le_debug_cb",
                                                      "invalid libevent severity:4 msg:text"));
}

}  // namespace
}  // namespace Veltro
