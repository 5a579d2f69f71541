#include "Veltro/TaskControls.h"

#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>

#include "SchedSupport.h"

namespace Veltro {
namespace {

struct Handler : Platform::TimeoutHandler, Platform::FdEventHandler, Platform::CallbackHandler {
  std::vector<std::string> calls;
  std::function<void()> action;
  bool answer = false;

  void timeout() override { event("timeout"); }
  void readFdEvent(int fd) override { event("read " + std::to_string(fd)); }
  void writeFdEvent(int fd) override { event("write " + std::to_string(fd)); }
  void callback() override { event("callback"); }
  bool handleTimeoutException() override { return answered("timeout"); }
  bool handleFdException(int fd) override { return answered(std::to_string(fd)); }
  bool handleCallbackException() override { return answered("callback"); }

  void event(std::string const& name) {
    calls.push_back(name);
    if (action) action();
  }
  bool answered(std::string const& name) {
    EXPECT_THROW(throw, std::runtime_error);  // asked while the exception is being handled
    calls.push_back("exception " + name);
    return answer;
  }
  std::vector<std::string> take() { return std::exchange(calls, {}); }
};

using Calls = std::vector<std::string>;

struct TaskControlsTest : SchedTest {
  Handler handler;
  std::shared_ptr<Platform::TimerControl> timer =
      Platform::getTimerControl(&handler, root, TaskPriority::high, "timer");
  std::shared_ptr<Platform::FdControl> fd =
      Platform::getFdControl(&handler, root, TaskPriority::low, "fd");
  std::shared_ptr<Platform::CallbackControl> callback =
      Platform::getCallbackControl(&handler, root, TaskPriority::normal, "callback");

  TimerTask& timerTask() { return dynamic_cast<TimerTask&>(*timer); }
  FileDescriptorTask& fdTask() { return dynamic_cast<FileDescriptorTask&>(*fd); }
  void runAll() {
    while (root->turn()) {
    }
  }
};

TEST_F(TaskControlsTest, descriptorEventsCallTheHandlerWithTheDescriptor) {
  fd->setFd(7);
  EXPECT_EQ(7, fd->getFd());
  EXPECT_FALSE(fdTask().taskWatchReadable());
  EXPECT_FALSE(fdTask().taskWatchWritable());
  fd->setReads(true);
  fd->setWrites(true);
  fdTask().handleWritable();
  fdTask().handleReadable();
  runAll();
  EXPECT_EQ((Calls{"write 7", "read 7"}), handler.take());

  fdTask().handleReadable();
  fd->setReads(false);
  runAll();
  EXPECT_EQ(Calls(), handler.take());
  fd->delFd();
  EXPECT_EQ(-1, fd->getFd());
}

TEST_F(TaskControlsTest, urgentHandlersComeFirst) {
  fd->setFd(7);
  fd->setReads(true);
  fdTask().handleReadable();
  callback->requestCallback();
  timer->setTimeout(0);
  runAll();
  EXPECT_EQ((Calls{"timeout", "callback", "read 7"}), handler.take());
  EXPECT_EQ("timer", timerTask().taskName());
  EXPECT_EQ("fd", fdTask().taskName());
}

// It may have gone with its control: nobody to ask, so the exception goes on.
TEST_F(TaskControlsTest, aHandlerThatReleasedItsControlIsNotAsked) {
  handler.answer = true;
  fd->setFd(7);
  fd->setReads(true);
  std::function<void()> const releases[] = {[&] { timer.reset(); }, [&] { callback.reset(); },
                                            [&] { fd.reset(); }};
  std::function<void()> const triggers[] = {[&] { timer->setTimeout(0); },
                                            [&] { callback->requestCallback(); },
                                            [&] { fdTask().handleReadable(); }};
  for (unsigned i = 0; i < 3; ++i) {
    handler.action = [&] {
      releases[i]();
      throw std::runtime_error("out of a handler without a control");
    };
    triggers[i]();
    EXPECT_THROW(runAll(), std::runtime_error);
    EXPECT_EQ(1u, handler.take().size());
  }
}

TEST(TaskControlsWithoutSchedulerTest, areRefused) {
  Handler handler;
  EXPECT_EQ("Need a TaskScheduler", assertionOf([&] {
              Platform::getTimerControl(&handler, nullptr, TaskPriority::low, "");
            }));
  EXPECT_EQ("Need a TaskScheduler",
            assertionOf([&] { Platform::getFdControl(&handler, nullptr, TaskPriority::low, ""); }));
  EXPECT_EQ("Need a TaskScheduler", assertionOf([&] {
              Platform::getCallbackControl(&handler, nullptr, TaskPriority::low, "");
            }));
}

}  // namespace
}  // namespace Veltro
