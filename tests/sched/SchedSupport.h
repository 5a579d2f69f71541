#pragma once
#include <gmock/gmock.h>

#include <regex>
#include <sstream>
#include <vector>

#include "Kiv/TimeStampCounter.h"
#include "Veltro/Exception.h"
#include "Veltro/TaskGroup.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TestKit.h"
#include "src/sched/Report.h"
#include "tests/survive/Scene.h"

namespace Veltro {

using namespace std::chrono_literals;

/// A task, of whichever kind, whose work is a function.
template <class Base>
class Doing : public Base {
 public:
  using Work = std::function<void(Doing&)>;
  Doing(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name,
        Work does = {})
      : Base(std::move(scheduler), priority, name), work(std::move(does)) {}

  void taskExecute() override {
    if (work) work(*this);
  }
  void handleResetStats() override {
    if (onReset) onReset();
  }
  Work work;
  std::function<void()> onReset;
};
using DoTask = Doing<Task>;
using DoTimer = Doing<TimerTask>;

/// A descriptor task whose work is two functions, for the first of two sockets.
struct Pipe final : FileDescriptorTask {
  using FileDescriptorTask::FileDescriptorTask;
  ~Pipe() override { taskWatchFdDel(); }
  void taskExecuteReadable() override {
    char byte;
    EXPECT_GE(1, ::recv(pair.ends[0], &byte, 1, MSG_DONTWAIT));
    if (onRead) onRead();
  }
  void taskExecuteWritable() override {
    if (onWrite) onWrite();
  }
  void handleTaskBusy() override {
    if (auto const react = std::exchange(onBusy, nullptr)) react();
  }
  SocketPair const pair;
  std::function<void()> onRead, onWrite, onBusy;
};

// The time-stamp counter's rate is learnt by the real clock, before a test has one of its own.
inline bool const rateKnown = [] {
  while (Kiv::TimeStampCounter::ticks(1s) == 0) continue;
  return true;
}();

/// A root that the test turns by hand, under a clock that only the work of tasks moves.
struct SchedTest : testing::Test {
  Outside outside;
  std::shared_ptr<TestKit> root = std::make_shared<TestKit>();

  template <class T = DoTask, class... Work>
  std::shared_ptr<T> make(std::string const& name, TaskPriority priority = TaskPriority::normal,
                          Work... work) {
    return std::make_shared<T>(root, priority, name, std::move(work)...);
  }
  /// Work that takes this long.
  DoTask::Work taking(std::chrono::nanoseconds time) {
    return [this, time](DoTask&) { outside.nowNs += time.count(); };
  }
  /// At most one run of a task; true if there was one.
  bool turn() { return root->runUntilIdle(1) == 1; }
};

/// The report's line, each run of blanks as one.
inline std::string figures(TaskStat const& stat) {
  std::ostringstream table;
  taskSchedulerDisplay(table, {stat}, "", 0, true, false, kNoReportLimit);
  std::string const text = table.str(), row = text.substr(text.find("-\n") + 2);
  return std::regex_replace(row.substr(0, row.find('\n')), std::regex(" +"), " ");
}

/// The message of the AssertException that `action` throws, cut down to what follows the function
/// and the line; empty when it does not throw.
inline std::string assertionOf(std::function<void()> const& action) {
  try {
    action();
  } catch (AssertException const& e) {
    return e.message().substr(e.message().find(": ") + 2);
  }
  return {};
}

}  // namespace Veltro
