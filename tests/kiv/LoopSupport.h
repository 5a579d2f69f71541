#pragma once
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <limits>
#include <utility>

#include "Kiv/ActivityManager.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/System.h"

namespace Kiv {

inline ActivityManager::Config& config() { return ActivityManager::instance().config(); }
inline int runFor(double seconds) {
  config().executionTimeIs(seconds);
  return System::doRun();
}

/// A notifiee that does what the test says.
struct Timer final : Clock::Notifiee {
  explicit Timer(std::function<void()> action = {})
      : Notifiee(config().clock()), onTime_(std::move(action)) {}
  void onTime() override {
    ++calls;
    if (onTime_) onTime_();
  }
  void onNotificationException() override {
    if (onException) return onException();
    Notifiee::onNotificationException();
  }
  std::function<void()> onTime_, onException;
  int calls = 0;
};

/// An entity and its notifiee, one after the other's life.
struct Watch final : FileDescriptor::Notifiee {
  explicit Watch(int descriptor, std::function<void()> readable = {})
      : Notifiee(allocate<FileDescriptor>("test")), onReadable(std::move(readable)) {
    notifier().descriptorIs(descriptor);
    notifier().notifyOnReadableIs(onReadable != nullptr);
  }
  ~Watch() override { notifier().descriptorIs(-1); }
  void onReadableCount() override { onReadable(); }
  std::function<void()> onReadable;
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
  void write() const { EXPECT_EQ(1, ::write(ends[1], "x", 1)); }
  void read() const {
    char byte;
    EXPECT_EQ(1, ::read(ends[0], &byte, 1));
  }
  int ends[2];
};

}  // namespace Kiv
