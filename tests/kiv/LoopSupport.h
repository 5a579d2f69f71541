#pragma once
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "Kiv/ActivityManager.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/System.h"
#include "gtest/gtest.h"

namespace Kiv {

inline ActivityManager::Config& config() { return ActivityManager::instance().config(); }
inline int runFor(double seconds) {
  config().executionTimeIs(seconds);
  return System::doRun();
}

/// A notifiee that does what the test says, and answers for exceptions or not.
struct Timer final : Clock::Notifiee {
  explicit Timer(std::function<void()> action = {})
      : Notifiee(config().clock()), onTime_(std::move(action)) {}
  ~Timer() override {
    if (onGone) onGone();
  }
  void onTime() override {
    ++calls;
    seen = timeMin();
    if (clock().latestTime() < seen && seen <= std::numeric_limits<double>::max()) ++early;
    if (onTime_) onTime_();
  }
  void onNotificationException() override {
    if (onException) return onException();
    Notifiee::onNotificationException();
  }
  std::function<void()> onTime_;
  std::function<void()> onException;
  std::function<void()> onGone;
  int calls = 0;
  int early = 0;
  double seen = 0;
};

/// An entity and its notifiee, one after the other's life.
struct Watch final : FileDescriptor::Notifiee {
  explicit Watch(int descriptor, std::function<void()> readable = {})
      : Notifiee(allocate<FileDescriptor>("test")), onReadable(std::move(readable)) {
    notifier().descriptorIs(descriptor);
    notifier().notifyOnReadableIs(onReadable != nullptr);
  }
  ~Watch() override {
    notifier().descriptorIs(-1);
    if (onGone) onGone();
  }
  void onReadableCount() override { onReadable(); }
  void onWritableCount() override { onWritable(); }
  void onNotificationException() override {
    if (!answers) Notifiee::onNotificationException();
  }
  std::function<void()> onReadable;
  std::function<void()> onWritable;
  std::function<void()> onGone;
  bool answers = false;
};

/// Two connected ends; whatever is still open closes with it.
struct Pair final {
  Pair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) std::abort();
  }
  Pair(Pair const&) = delete;
  ~Pair() {
    close(0);
    close(1);
  }
  void close(int end) {
    if (ends[end] >= 0) ::close(std::exchange(ends[end], -1));
  }
  void write(char const* text = "x") const {
    EXPECT_LT(0, ::write(ends[1], text, std::char_traits<char>::length(text)));
  }
  std::string read() const {
    char buffer[4096];
    ssize_t const n = ::read(ends[0], buffer, sizeof buffer);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
  }
  int ends[2];
};

/// Runs `body` in a child; its result is the child's exit status.
inline int inChild(std::function<int()> const& body) {
  ::pid_t const child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace Kiv
