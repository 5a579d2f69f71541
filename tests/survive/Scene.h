#pragma once
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "tests/platform/Backends.h"
#include "tests/survive/Outside.h"

namespace Veltro {

/// Two connected sockets; what is still open closes with it.
struct SocketPair final {
  SocketPair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
      std::abort();
    }
  }
  SocketPair(SocketPair const&) = delete;
  SocketPair& operator=(SocketPair const&) = delete;
  ~SocketPair() {
    close(0);
    close(1);
  }
  void close(int end) {
    if (ends[end] >= 0) ::close(std::exchange(ends[end], -1));
  }
  /// Makes the first end readable.
  void put() const { EXPECT_EQ(1, ::send(ends[1], "x", 1, MSG_NOSIGNAL)); }
  static std::size_t take(int fd) {
    char bytes[4096];
    std::size_t total = 0;
    for (ssize_t n; (n = ::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT)) > 0;) {
      total += static_cast<std::size_t>(n);
    }
    return total;
  }
  int ends[2];
};

/// Controls of one back end, each with a letter that its calls write into the log (a descriptor
/// writes its capital for a write event) before they do what the scene says.
template <typename Backend>
class Scene final {
 public:
  static constexpr double kInfinity = std::numeric_limits<double>::infinity();
  struct Timer {
    Timeout handler;
    std::shared_ptr<Platform::TimerControl> control;
    void in(double seconds) const { control->setTimeout(seconds); }
  };
  struct Call {
    Callback handler;
    std::shared_ptr<Platform::CallbackControl> control;
    void soon() const { control->requestCallback(); }
  };
  struct Watch {
    FdEvents handler;
    std::shared_ptr<Platform::FdControl> control;
    void off() const { control->delFd(); }
    void gone() { control.reset(); }
  };

  Timer& timer(char letter, std::function<void()> then = {}) {
    Timer& timer = timers_.emplace_back();
    timer.handler.onTimeout = _noting(letter, std::move(then));
    timer.control = Backend::timer(&timer.handler);
    return timer;
  }
  Timer& timerIn(double seconds, char letter, std::function<void()> then = {}) {
    Timer& made = timer(letter, std::move(then));
    made.in(seconds);
    return made;
  }
  Call& call(char letter, std::function<void()> then = {}) {
    Call& call = calls_.emplace_back();
    call.handler.onCallback = _noting(letter, std::move(then));
    call.control = Backend::callback(&call.handler);
    return call;
  }
  /// Reads on, writes off.
  Watch& watch(int fd, char letter, std::function<void()> then = {}) {
    Watch& watch = watches_.emplace_back();
    auto const read = _noting(letter, then);
    auto const write = _noting(static_cast<char>(letter - 'a' + 'A'), then);
    watch.handler.onRead = [read](int) { read(); };
    watch.handler.onWrite = [write](int) { write(); };
    watch.control = Backend::fd(&watch.handler);
    watch.control->setReads(true);
    if (fd >= 0) watch.control->setFd(fd);
    return watch;
  }

  /// Off after its first read event.
  Watch& watchOnce(int fd, char letter) {
    Watch& made = watch(fd, letter);
    made.handler.onRead = [this, letter, &made](int) {
      log += letter;
      made.off();
    };
    return made;
  }

  Outside outside;
  std::string log;
  std::deque<SocketPair> pairs{3};

 private:
  std::function<void()> _noting(char letter, std::function<void()> then) {
    return [this, letter, then = std::move(then)] {
      log += letter;
      if (then) then();
    };
  }
  std::deque<Timer> timers_;
  std::deque<Call> calls_;
  std::deque<Watch> watches_;
};

using AllBackends = testing::Types<KivBackend, LibeventBackend, TaskBackend<KivBackend>,
                                   TaskBackend<LibeventBackend>>;

}  // namespace Veltro
