// What the back ends write, to the letter. A record reads "level text".
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

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Action = std::function<void()>;
using Lines = std::vector<std::string>;

Lines traces(char const* category, Action const& body) {
  Platform::setTraceFormat("%l %m");
  Platform::setupVeltroDebug(category);
  Lines lines = standardError(body);
  Platform::clearVeltroDebug(category);
  Platform::clearTraceFormat();
  return lines;
}
Lines kiv(Action const& body) { return traces("KivVeltro", body); }
Lines libevent(Action const& body) { return traces("VeltroLibevent", body); }

void throwOne() { throw 1; }

/// Runs a loop that a handler may leave by exception.
void run(int (*loop)() = &Platform::doEventLoop) {
  try {
    loop();
  } catch (int) {
  }
}
void fire(Platform::TimerControl& timer, int (*loop)() = &Platform::doEventLoop) {
  timer.setTimeout(0);
  run(loop);
}

struct DescriptorTracesTest : testing::Test {
  DescriptorTracesTest() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends)); }
  ~DescriptorTracesTest() override {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  int ends[2] = {-1, -1};
};

TEST(TracesTest, typeSystemTimersAndCallbacks) {
  std::string const prefix = "5 KivVeltro::ClockTimer::";
  std::string const set = prefix + "setTimeout()", del = prefix + "delTimeout()";
  std::string const remaining = prefix + "remainingTimeout()", fired = prefix + "onTime()";
  std::string const orphan = prefix + "Notifiee::orphan()";
  std::string const ignored = prefix + "Notifiee::onTime() ignoring orphan";
  std::string const handled =
      "9 ClockTimer::Notifiee::onNotificationException: "
      "Timeout notification exception was handled";
  Timeout handler;
  std::shared_ptr<Platform::TimerControl> timer;
  EXPECT_THAT(kiv([&] { timer = Platform::getTimerControl(&handler); }), IsEmpty());
  EXPECT_THAT(kiv([&] { timer->setTimeout(100); }), ElementsAre(set));
  EXPECT_THAT(kiv([&] { timer->remainingTimeout(); }), ElementsAre(remaining));
  EXPECT_THAT(kiv([&] { timer->delTimeout(); }), ElementsAre(del));
  EXPECT_THAT(kiv([&] { fire(*timer); }), ElementsAre(set, fired));
  handler.onTimeout = throwOne;
  for (bool const answer : {false, true}) {
    handler.answer = answer;
    EXPECT_THAT(kiv([&] { fire(*timer); }), ElementsAre(set, fired, handled)) << answer;
  }
  EXPECT_THAT(kiv([&] { timer.reset(); }), ElementsAre(orphan, del));

  timer = Platform::getTimerControl(&handler);
  Timeout killer([&] { timer.reset(); });
  auto const first = Platform::getTimerControl(&killer);
  first->setTimeout(0);
  timer->setTimeout(0);
  EXPECT_THAT(kiv([] { run(); }), ElementsAre(fired, orphan, del, ignored));

  Callback back(throwOne);
  auto const callback = Platform::getCallbackControl(&back);
  EXPECT_THAT(kiv([&] { callback->requestCallback(); }), ElementsAre(set));
  EXPECT_THAT(kiv([&] { callback->pendingCallback(); }), ElementsAre(remaining));
  EXPECT_THAT(kiv([] { run(); }), ElementsAre(fired, handled));
  EXPECT_THAT(kiv([&] { callback->cancelCallback(); }), ElementsAre(del));
}

TEST_F(DescriptorTracesTest, typeSystem) {
  std::string const fd = std::to_string(ends[0]), prefix = "5 KivVeltro::FileDescriptor::";
  std::string const set = prefix + "setFd() registering fd:" + fd;
  std::string const clear = prefix + "clearEvents() fd:" + fd;
  std::string const del = prefix + "delFd() deleting fd:" + fd;
  std::string const orphan = prefix + "Notifiee::orphan() fd:" + fd;
  std::string const readable = prefix + "onReadableCount() fd:" + fd + "readableCount:1";
  std::string const writable = prefix + "onWritableCount() fd:" + fd + "writableCount:1";
  std::string const handled =
      "9 FileDescriptor::Notifiee::onNotificationException: Fd notification exception was handled";
  FdEvents handler;
  handler.onRead = handler.onWrite = [](int) { throw 1; };
  std::shared_ptr<Platform::FdControl> control;
  EXPECT_THAT(kiv([&] { control = Platform::getFdControl(&handler); }),
              ElementsAre(prefix + "FileDescriptor()"));
  EXPECT_THAT(kiv([&] { control->setFd(ends[0]); }), ElementsAre(set));
  EXPECT_THAT(kiv([&] { control->setWrites(true); }), ElementsAre(prefix + "setWrites():1"));
  EXPECT_THAT(kiv([] { run(); }), ElementsAre(writable, handled));
  EXPECT_THAT(kiv([&] { control->setWrites(false); }), ElementsAre(prefix + "setWrites():0"));
  EXPECT_THAT(kiv([&] { control->setReads(true); }), ElementsAre(prefix + "setReads():1"));
  EXPECT_EQ(1, ::write(ends[1], "x", 1));
  EXPECT_THAT(kiv([] { run(); }), ElementsAre(readable, handled));
  EXPECT_THAT(kiv([&] { control->clearEvents(); }), ElementsAre(clear));
  EXPECT_THAT(kiv([&] { control->delFd(); }), ElementsAre(del, clear));
  control->setFd(ends[0]);
  EXPECT_THAT(kiv([&] { control.reset(); }), ElementsAre(orphan, del, clear));
}

TEST_F(DescriptorTracesTest, libeventNotesWhatDidNotLeaveTheLoop) {
  std::string const timerNote =
      "9 LibeventTimerControl::handler: Timeout notification exception was handled";
  std::string const callbackNote =
      "9 LibeventCallbackControl::timeout: Callback notification exception was handled";
  auto const again = [](Platform::TimerControl& timer) { fire(timer, &doLeEventLoop); };
  Timeout handler;
  auto const timer = getLeTimerControl(&handler);
  EXPECT_THAT(libevent([&] { timer->remainingTimeout(); }), IsEmpty());
  EXPECT_THAT(libevent([&] { again(*timer); }), ElementsAre(timerNote)) << "nothing was thrown";
  handler.onTimeout = throwOne;
  EXPECT_THAT(libevent([&] { again(*timer); }), IsEmpty());
  handler.answer = true;
  EXPECT_THAT(libevent([&] { again(*timer); }), ElementsAre(timerNote));

  Callback back;
  auto const callback = getLeCallbackControl(&back);
  auto const call = [&] {
    callback->requestCallback();
    run(&doLeEventLoop);
  };
  EXPECT_THAT(libevent(call), ElementsAre(timerNote));
  back.onCallback = throwOne;
  EXPECT_THAT(libevent(call), IsEmpty());
  back.answer = true;
  EXPECT_THAT(libevent(call), ElementsAre(callbackNote, timerNote));

  FdEvents events;
  auto const fd = getLeFdControl(&events);
  events.onWrite = [&](int) {
    fd->delFd();
    throw 1;
  };
  events.answer = true;
  fd->setWrites(true);
  fd->setFd(ends[0]);
  EXPECT_THAT(libevent([] { run(&doLeEventLoop); }), IsEmpty());
  EXPECT_EQ(1u, events.asked.size());
}

TEST(TracesTest, libeventLog) {
  EXPECT_THAT(libevent([] { le_debug_cb(0, "text"); }), ElementsAre("9 libevent: text"));
  EXPECT_THAT(libevent([] { le_debug_cb(1, "text"); }), ElementsAre("5 libevent: text"));
  EXPECT_THAT(libevent([] { le_debug_cb(2, "text"); }), ElementsAre("1 libevent: text"));
  EXPECT_THAT(libevent([] { le_debug_cb(3, "text"); }), ElementsAre("0 libevent: text"));
  EXPECT_THAT(libevent([] { le_debug_cb(2, nullptr); }), ElementsAre("1 libevent: "));
  // libevent's own warning takes the same way.
  Timeout handler([] { EXPECT_EQ(-1, doLeEventLoop()); });
  auto const timer = getLeTimerControl(&handler);
  timer->setTimeout(0);
  EXPECT_THAT(traces("VeltroLibevent/1", [] { doLeEventLoop(); }),
              ElementsAre(StartsWith("1 libevent: event_base_loop: reentrant")));
}

}  // namespace
}  // namespace Veltro
