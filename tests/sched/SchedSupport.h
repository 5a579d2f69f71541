#pragma once
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "SteadyClock.h"
#include "Veltro/Exception.h"
#include "Veltro/FileDescriptorTask.h"
#include "Veltro/TaskGroup.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TaskSchedulerRoot.h"
#include "Veltro/TimerTask.h"

namespace Veltro {

using namespace std::chrono_literals;

/// A root whose event source is the test: it counts what it is asked for, and the test fires.
class ManualRoot final : public TaskSchedulerRoot {
 public:
  explicit ManualRoot(std::string const& name = "root", Nanoseconds minimumDelay = 0ns)
      : TaskSchedulerRoot(name, minimumDelay) {}

  unsigned requests = 0;
  std::map<TimerTask const*, TimePoint> timers;
  struct Watch {
    int fd = -1;
    bool reads = false;
    bool writes = false;
  };
  std::map<FileDescriptorTask const*, Watch> watches;
  unsigned created = 0;
  unsigned destroyed = 0;
  bool refuseTasks = false;

  /// One run if one was asked for.
  bool turn() {
    if (requests == 0) return false;
    requests = 0;
    handleSchedulerRun();
    return true;
  }
  void fire(TimerTask& task) {
    timers.erase(&task);
    task.timerRunningIs(false);
    task.scheduleTask();
  }
  /// The history so far, oldest first, forgotten by this.
  std::vector<std::string> takeEvents() {
    std::vector<std::string> texts;
    TaskSchedulerHistory& history = *schedulerHistory();
    for (std::size_t age = history.eventCount(); age-- > 0;) {
      texts.push_back(history.event(age).display());
    }
    clearHistory();
    return texts;
  }

  using TaskScheduler::attemptLowerPriorityBump;

  void requestSchedulerRun() override { ++requests; }
  void taskCreated(TaskImpl&) override {
    ++created;
    if (refuseTasks) throw RuntimeException("refused");
  }
  void taskDestroyed(TaskImpl&) override { ++destroyed; }
  bool timerStart(TimerTask& task, double seconds, bool restart) override {
    return timerStart(task, Nanoseconds(static_cast<Nanoseconds::rep>(seconds * 1e9)), restart);
  }
  bool timerStart(TimerTask& task, Nanoseconds delay, bool restart) override {
    TimePoint const now = std::chrono::steady_clock::now();
    TimePoint const expiry = delay < TimePoint::max() - now ? now + delay : TimePoint::max();
    auto const armed = timers.find(&task);
    if (!restart && armed != timers.end() && expiry >= armed->second) return false;
    timers[&task] = expiry;
    return true;
  }
  void timerStop(TimerTask& task) override { timers.erase(&task); }
  double timerRemaining(TimerTask const& task) const override {
    auto const armed = timers.find(&task);
    return armed == timers.end()
               ? std::numeric_limits<double>::infinity()
               : std::chrono::duration<double>(armed->second - std::chrono::steady_clock::now())
                     .count();
  }
  TimePoint timerExpiry(TimerTask const& task) const override { return timers.at(&task); }
  void fileDescriptorTaskWatchReadableIs(FileDescriptorTask& task, bool on) override {
    watches[&task].reads = on;
  }
  void fileDescriptorTaskWatchWritableIs(FileDescriptorTask& task, bool on) override {
    watches[&task].writes = on;
  }
  int fileDescriptorTaskFd(FileDescriptorTask const& task) const override {
    return watches.at(&task).fd;
  }
  void fileDescriptorTaskFdIs(FileDescriptorTask& task, int fd) override { watches[&task].fd = fd; }
  void fileDescriptorTaskFdDel(FileDescriptorTask& task) override { watches[&task].fd = -1; }
  void preFdCloseCleanup(FileDescriptorTask&) override {}
};

/// A task, of whichever kind, whose work is a function.
template <class Base>
class Doing : public Base {
 public:
  using Work = std::function<void(Doing&)>;
  Doing(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name,
        Work work = {})
      : Base(std::move(scheduler), priority, name), work_(std::move(work)) {}

  void taskExecute() override {
    if (work_) work_(*this);
  }
  void handleResetStats() override {
    if (onReset) onReset();
  }
  void handleTaskBusy() override {
    if (onBusy) onBusy();
  }
  void workIs(Work work) { work_ = std::move(work); }
  std::function<void()> onReset;
  std::function<void()> onBusy;
  using Base::taskBusyIs;

 private:
  Work work_;
};
using DoTask = Doing<Task>;
using DoTimer = Doing<TimerTask>;

/// A manual root under a fake clock.
struct SchedTest : testing::Test {
  FakeSteadyClock clock;
  std::shared_ptr<ManualRoot> root = std::make_shared<ManualRoot>();

  template <class T = DoTask>
  std::shared_ptr<T> make(std::string const& name, TaskPriority priority = TaskPriority::normal,
                          typename T::Work work = {}) {
    return std::make_shared<T>(root, priority, name, std::move(work));
  }
  /// Work that takes this long.
  DoTask::Work taking(std::chrono::nanoseconds time) {
    return [this, time](DoTask&) { clock.now += time; };
  }
};

/// The message of the AssertException that `action` throws, cut down to what follows the function
/// and the line; empty when it does not throw.
inline std::string assertionOf(std::function<void()> const& action) {
  try {
    action();
  } catch (AssertException const& e) {
    std::string const& text = e.message();
    std::size_t const at = text.find(": ");
    return at == std::string::npos ? "<" + text + ">" : text.substr(at + 2);
  }
  return {};
}

}  // namespace Veltro
