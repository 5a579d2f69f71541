// What the back ends write, to the letter.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "Veltro/Debug.h"
#include "tests/platform/Backends.h"
#include "tests/support/StandardError.h"

namespace Veltro {
namespace {

using testing::ElementsAreArray;
using Lines = std::vector<std::string>;

/// The records of a category, each as "level text".
Lines traces(char const* category, std::function<void()> const& body) {
  Platform::setTraceFormat("%l %m");
  Platform::setupVeltroDebug(category);
  Lines lines = standardError(body);
  Platform::clearVeltroDebug(category);
  Platform::clearTraceFormat();
  return lines;
}

struct Step {
  char const* name;
  std::function<void()> action;
  Lines records;
};

void expectRecords(char const* category, std::vector<Step> const& steps) {
  for (auto const& step : steps) {
    EXPECT_THAT(traces(category, step.action), ElementsAreArray(step.records)) << step.name;
  }
}

void runIgnoringExceptions(int (*run)()) {
  try {
    run();
  } catch (int) {
  }
}
void run() {
  runIgnoringExceptions([] { return Platform::doEventLoop(); });
}
void runLibevent() {
  runIgnoringExceptions([] { return doLeEventLoop(); });
}

TEST(TracesTest, typeSystemTimersAndCallbacks) {
  std::string const set = "5 KivVeltro::ClockTimer::setTimeout()";
  std::string const del = "5 KivVeltro::ClockTimer::delTimeout()";
  std::string const remaining = "5 KivVeltro::ClockTimer::remainingTimeout()";
  std::string const fired = "5 KivVeltro::ClockTimer::onTime()";
  std::string const orphan = "5 KivVeltro::ClockTimer::Notifiee::orphan()";
  std::string const ignored = "5 KivVeltro::ClockTimer::Notifiee::onTime() ignoring orphan";
  std::string const handled =
      "9 ClockTimer::Notifiee::onNotificationException: "
      "Timeout notification exception was handled";
  Timeout handler, killer;
  Callback back;
  std::shared_ptr<Platform::TimerControl> timer, first;
  std::shared_ptr<Platform::CallbackControl> callback;
  expectRecords("KivVeltro",
                {
                    {"make", [&] { timer = Platform::getTimerControl(&handler); }, {}},
                    {"arm", [&] { timer->setTimeout(100); }, {set}},
                    {"ask", [&] { timer->remainingTimeout(); }, {remaining}},
                    {"disarm", [&] { timer->delTimeout(); }, {del}},
                    {"arm for now", [&] { timer->setTimeout(0); }, {set}},
                    {"fire", [] { run(); }, {fired}},
                    {"throw, answered",
                     [&] {
                       handler.answer = true;
                       handler.onTimeout = [] { throw 1; };
                       timer->setTimeout(0);
                       run();
                     },
                     {set, fired, handled}},
                    {"throw, unanswered",
                     [&] {
                       handler.answer = false;
                       timer->setTimeout(0);
                       run();
                     },
                     {set, fired, handled}},
                    {"destroy", [&] { timer.reset(); }, {orphan, del}},
                    {"destroy one that is about to fire",
                     [&] {
                       killer.onTimeout = [&] { timer.reset(); };
                       first = Platform::getTimerControl(&killer);
                       timer = Platform::getTimerControl(&handler);
                       first->setTimeout(0);
                       timer->setTimeout(0);
                       run();
                     },
                     {set, set, fired, orphan, del, ignored}},
                    {"request",
                     [&] { (callback = Platform::getCallbackControl(&back))->requestCallback(); },
                     {set}},
                    {"call, answered",
                     [&] {
                       back.answer = true;
                       back.onCallback = [] { throw 1; };
                       run();
                     },
                     {fired, handled}},
                    {"cancel", [&] { callback->cancelCallback(); }, {del}},
                    {"ask for a call", [&] { callback->pendingCallback(); }, {remaining}},
                });
  EXPECT_EQ(3, handler.calls);
}

TEST(TracesTest, typeSystemDescriptors) {
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  std::string const fd = std::to_string(ends[0]);
  std::string const prefix = "5 KivVeltro::FileDescriptor::";
  std::string const clear = prefix + "clearEvents() fd:" + fd;
  std::string const del = prefix + "delFd() deleting fd:" + fd;
  std::string const handled =
      "9 FileDescriptor::Notifiee::onNotificationException: Fd notification exception was handled";
  FdEvents handler;
  std::shared_ptr<Platform::FdControl> control;
  expectRecords(
      "KivVeltro",
      {
          {"make",
           [&] { control = Platform::getFdControl(&handler); },
           {prefix + "FileDescriptor()"}},
          {"bind", [&] { control->setFd(ends[0]); }, {prefix + "setFd() registering fd:" + fd}},
          {"reads", [&] { control->setReads(true); }, {prefix + "setReads():1"}},
          {"writes", [&] { control->setWrites(true); }, {prefix + "setWrites():1"}},
          {"writable",
           [&] {
             handler.onWrite = [](int) { throw 1; };
             run();
           },
           {prefix + "onWritableCount() fd:" + fd + "writableCount:1", handled}},
          {"no writes", [&] { control->setWrites(false); }, {prefix + "setWrites():0"}},
          {"readable",
           [&] {
             EXPECT_EQ(1, ::write(ends[1], "x", 1));
             handler.onRead = [](int) { throw 1; };
             run();
           },
           {prefix + "onReadableCount() fd:" + fd + "readableCount:1", handled}},
          {"clear", [&] { control->clearEvents(); }, {clear}},
          {"unbind", [&] { control->delFd(); }, {del, clear}},
          {"destroy",
           [&] {
             control->setFd(ends[0]);
             control.reset();
           },
           {prefix + "setFd() registering fd:" + fd, prefix + "Notifiee::orphan() fd:" + fd, del,
            clear}},
      });
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(TracesTest, libeventNotes) {
  std::string const timerNote =
      "9 LibeventTimerControl::handler: Timeout notification exception was handled";
  std::string const callbackNote =
      "9 LibeventCallbackControl::timeout: Callback notification exception was handled";
  Timeout handler;
  Callback back;
  FdEvents events;
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  auto const timer = getLeTimerControl(&handler);
  auto const callback = getLeCallbackControl(&back);
  auto const fd = getLeFdControl(&events);
  auto const fire = [&](bool answer) {
    handler.answer = back.answer = events.answer = answer;
    runLibevent();
  };
  expectRecords("VeltroLibevent",
                {
                    {"ask before the first arming", [&] { timer->remainingTimeout(); }, {}},
                    {"timer",
                     [&] {
                       timer->setTimeout(0);
                       fire(false);
                     },
                     {timerNote}},
                    {"timer, answered",
                     [&] {
                       handler.onTimeout = [] { throw 1; };
                       timer->setTimeout(0);
                       fire(true);
                     },
                     {timerNote}},
                    {"timer, unanswered",
                     [&] {
                       timer->setTimeout(0);
                       fire(false);
                     },
                     {}},
                    {"callback",
                     [&] {
                       callback->requestCallback();
                       fire(false);
                     },
                     {timerNote}},
                    {"callback, answered",
                     [&] {
                       back.onCallback = [] { throw 1; };
                       callback->requestCallback();
                       fire(true);
                     },
                     {callbackNote, timerNote}},
                    {"callback, unanswered",
                     [&] {
                       callback->requestCallback();
                       fire(false);
                     },
                     {}},
                    {"descriptor, answered",
                     [&] {
                       events.onWrite = [&](int) {
                         fd->delFd();
                         throw 1;
                       };
                       fd->setWrites(true);
                       fd->setFd(ends[1]);
                       fire(true);
                     },
                     {}},
                });
  EXPECT_EQ(1u, events.asked.size());
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(TracesTest, libeventLog) {
  expectRecords("VeltroLibevent", {{"debug", [] { le_debug_cb(0, "text"); }, {"9 libevent: text"}},
                                   {"msg", [] { le_debug_cb(1, "text"); }, {"5 libevent: text"}},
                                   {"warn", [] { le_debug_cb(2, "text"); }, {"1 libevent: text"}},
                                   {"err", [] { le_debug_cb(3, "text"); }, {"0 libevent: text"}},
                                   {"no text", [] { le_debug_cb(2, nullptr); }, {"1 libevent: "}}});
  // libevent's own warning takes the same way.
  Timeout handler([] { EXPECT_EQ(-1, doLeEventLoop()); });
  auto const timer = getLeTimerControl(&handler);
  timer->setTimeout(0);
  EXPECT_THAT(traces("VeltroLibevent/1", [] { doLeEventLoop(); }),
              testing::ElementsAre(testing::StartsWith("1 libevent: event_base_loop: reentrant")));
}

}  // namespace
}  // namespace Veltro
