#pragma once
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "Veltro/LibeventFactoryCpp.h"
#include "Veltro/Platform.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

/// The loops that may stand behind the facade. `run` calls its argument on a thread that has
/// that loop; `timer`, `fd` and `callback` hand out controls there.

struct FacadeControls {
  static constexpr bool kDueHasTimeLeft = true;
  static auto timer(Platform::TimeoutHandler* h) { return Platform::getTimerControl(h); }
  static auto fd(Platform::FdEventHandler* h) { return Platform::getFdControl(h); }
  static auto callback(Platform::CallbackHandler* h) { return Platform::getCallbackControl(h); }
};

struct KivBackend : FacadeControls {
  static void run(std::function<void()> const& body) { body(); }
};

struct LibeventBackend : FacadeControls {
  static void run(std::function<void()> const& body) {
    useThreadLocalSingletons();
    std::thread([&] {
      body();
      leFree();
    }).join();
  }
};

/// The same loops under a scheduler: every control is a task of the thread's root.
template <typename Loop>
struct TaskBackend {
  static constexpr bool kDueHasTimeLeft = false;  // a timer that is due is a queued task
  static void run(std::function<void()> const& body) { Loop::run(body); }
  static auto timer(Platform::TimeoutHandler* h) {
    return Platform::getTimerControl(h, schedulerRootVeltro(), TaskPriority::normal, "timer");
  }
  static auto fd(Platform::FdEventHandler* h) {
    return Platform::getFdControl(h, schedulerRootVeltro(), TaskPriority::normal, "fd");
  }
  static auto callback(Platform::CallbackHandler* h) {
    return Platform::getCallbackControl(h, schedulerRootVeltro(), TaskPriority::normal, "callback");
  }
};

/// Handlers that call what the test gives them.

struct Timeout final : Platform::TimeoutHandler {
  explicit Timeout(std::function<void()> f = {}) : onTimeout(std::move(f)) {}
  void timeout() override {
    ++calls;
    if (onTimeout) onTimeout();
  }
  bool handleTimeoutException() override {
    if (onAsked) onAsked();
    return answer;
  }
  std::function<void()> onTimeout, onAsked;
  int calls = 0;
  bool answer = false;
};

struct FdEvents final : Platform::FdEventHandler {
  void readFdEvent(int fd) override {
    ++reads;
    if (onRead) onRead(fd);
  }
  void writeFdEvent(int fd) override {
    ++writes;
    if (onWrite) onWrite(fd);
  }
  bool handleFdException(int fd) override {
    asked.push_back(fd);
    if (onAsked) onAsked();
    return answer;
  }
  std::function<void(int)> onRead, onWrite;
  std::function<void()> onAsked;
  int reads = 0;
  int writes = 0;
  std::vector<int> asked;
  bool answer = false;
};

struct Callback final : Platform::CallbackHandler {
  explicit Callback(std::function<void()> f = {}) : onCallback(std::move(f)) {}
  void callback() override {
    ++calls;
    if (onCallback) onCallback();
  }
  bool handleCallbackException() override {
    if (onAsked) onAsked();
    return answer;
  }
  std::function<void()> onCallback, onAsked;
  int calls = 0;
  bool answer = false;
};

}  // namespace Veltro
