#pragma once
#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "Veltro/FileDescriptorTask.h"
#include "Veltro/TaskSchedulerRoot.h"
#include "Veltro/TimerTask.h"

namespace Veltro {

/// For tests of agents: a scheduler that the test turns by hand, in virtual time.
///
///     auto const kit = std::make_shared<Veltro::TestKit>();
///     auto const poller = std::make_shared<Poller>(kit);  // the code under test
///     kit->runFor(std::chrono::hours(24));                // a day, at once
///     EXPECT_EQ(1440u, poller->taskRunCount());
///
/// Stands in for schedulerRootVeltro() wherever code takes its scheduler from outside: tasks,
/// timer tasks, descriptor tasks, groups, and the controls that Platform hands out for a scheduler.
/// What asks Platform for a control without one is on the thread's real loop, and not here.
///
/// Time stands still while tasks run, and jumps to the next timer when none is queued; timers due
/// at once fire in the order in which they were armed. So a test never waits, and two runs of it
/// are the same. Quanta and figures are still measured in real time: force yields where a test is
/// about them. Descriptors are real and are asked without waiting: a pipe or a socket pair in the
/// test is served, a peer that answers later is not waited for.
///
/// Owned through std::shared_ptr, by its tasks too. Belongs to the thread that made it. What a task
/// throws leaves the operation that ran it; the next one goes on.
class TestKit final : public TaskSchedulerRoot {
 public:
  /// More than any test means to run.
  static constexpr unsigned kManyRuns = 1000000;

  /// Equal seeds draw equal jitter. No timer is shorter than `minimumTimerDelay`.
  explicit TestKit(U32 jitterSeed = 1, Nanoseconds minimumTimerDelay = Nanoseconds::zero())
      : TaskSchedulerRoot("TestKit", minimumTimerDelay), origin_(std::chrono::steady_clock::now()) {
    jitterSeedIs(jitterSeed);
  }
  ~TestKit() override { releaseResetStatsTask(); }

  /// How far virtual time has come since the kit was made.
  Nanoseconds elapsed() const { return elapsed_; }

  /// Runs `n` tasks, one after the other, letting time jump whenever none is queued. Returns how
  /// many ran: fewer when nothing is queued, armed or ready any more.
  unsigned step(unsigned n = 1) { return _run(n, Nanoseconds::max()); }
  /// Runs what can run now and lets no time pass. Returns how many tasks ran; `limit` means that
  /// more want to.
  unsigned runUntilIdle(unsigned limit = kManyRuns) { return _run(limit, elapsed_); }
  /// Runs for that much virtual time. Returns how many tasks ran; `limit` means that it was cut
  /// short, as it is when tasks queue themselves again and again and leave time no room to pass.
  unsigned runFor(Nanoseconds time, unsigned limit = kManyRuns) {
    Nanoseconds const end = _after(time);
    unsigned const runs = _run(limit, end);
    if (runs < limit) elapsed_ = end;
    return runs;
  }

  /// While on, taskShouldYield() is true at every call, in all tasks and those still to come: each
  /// run is the smallest slice that the task can do, and a group runs one task a turn.
  bool forcedYields() const { return forcedYields_; }
  void forcedYieldsIs(bool on) {
    forcedYields_ = on;
    for (TaskImpl* const task : tasks_) _forceYield(*task);
  }

  void requestSchedulerRun() override { runRequested_ = true; }
  void taskCreated(TaskImpl& task) override {
    tasks_.push_back(&task);
    created_ = true;
  }
  void taskDestroyed(TaskImpl& task) override {
    tasks_.erase(std::remove(tasks_.begin(), tasks_.end(), &task), tasks_.end());
    quanta_.erase(&task);
  }
  void timerDestroyed(TimerTask& task) override { timers_.erase(&task); }
  bool timerStart(TimerTask& task, double seconds, bool restart) override {
    double const nanoseconds = seconds * 1e9;
    bool const fits = nanoseconds < static_cast<double>(Nanoseconds::max().count());
    return timerStart(
        task, fits ? Nanoseconds(static_cast<Nanoseconds::rep>(nanoseconds)) : Nanoseconds::max(),
        restart);
  }
  bool timerStart(TimerTask& task, Nanoseconds delay, bool restart) override {
    Due const due{_after(delay), ++armings_};
    auto const armed = timers_.find(&task);
    if (!restart && armed != timers_.end() && armed->second.first <= due.first) return false;
    timers_[&task] = due;
    return true;
  }
  void timerStop(TimerTask& task) override { timers_.erase(&task); }
  double timerRemaining(TimerTask const& task) const override {
    auto const armed = timers_.find(const_cast<TimerTask*>(&task));  // looked up, not touched
    if (armed == timers_.end()) return std::numeric_limits<double>::infinity();
    return std::chrono::duration<double>(armed->second.first - elapsed_).count();
  }
  TimePoint timerExpiry(TimerTask const& task) const override {
    auto const armed = timers_.find(const_cast<TimerTask*>(&task));
    return armed == timers_.end() ? TimePoint::max() : origin_ + armed->second.first;
  }

  void fileDescriptorTaskCreated(FileDescriptorTask& task) override {
    watches_.push_back({&task, -1, false, false});
  }
  void fileDescriptorTaskDestroyed(FileDescriptorTask& task) override {
    watches_.erase(watches_.begin() + (_watch(task) - watches_.data()));
  }
  void fileDescriptorTaskWatchReadableIs(FileDescriptorTask& task, bool on) override {
    _watch(task)->reads = on;
  }
  void fileDescriptorTaskWatchWritableIs(FileDescriptorTask& task, bool on) override {
    _watch(task)->writes = on;
  }
  int fileDescriptorTaskFd(FileDescriptorTask const& task) const override {
    return const_cast<TestKit*>(this)->_watch(task)->fd;
  }
  void fileDescriptorTaskFdIs(FileDescriptorTask& task, int fd) override {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    *_watch(task) = {&task, fd, task.taskWatchReadable(), task.taskWatchWritable()};
  }
  void fileDescriptorTaskFdDel(FileDescriptorTask& task) override {
    *_watch(task) = {&task, -1, false, false};
  }
  void preFdCloseCleanup(FileDescriptorTask& task) override {
    *_watch(task) = {&task, _watch(task)->fd, false, false};
  }

 private:
  using Due = std::pair<Nanoseconds, U64>;  // when, and the order of arming
  struct Watch {
    FileDescriptorTask* task;
    int fd;
    bool reads;
    bool writes;
  };

  /// Null for a task that is gone.
  Watch* _watch(FileDescriptorTask const& task) {
    auto const found = std::find_if(watches_.begin(), watches_.end(),
                                    [&](Watch const& watch) { return watch.task == &task; });
    return found == watches_.end() ? nullptr : &*found;
  }

  Nanoseconds _after(Nanoseconds delay) const {
    return delay < Nanoseconds::max() - elapsed_ ? elapsed_ + delay : Nanoseconds::max();
  }

  unsigned _run(unsigned limit, Nanoseconds end) {
    unsigned runs = 0;
    while (runs < limit) {
      if (_runOne()) {
        ++runs;
      } else if (!_fireTimers(end)) {
        break;
      }
    }
    return runs;
  }

  bool _runOne() {
    _askDescriptors();
    if (!std::exchange(runRequested_, false)) return false;
    if (std::exchange(created_, false) && forcedYields_) forcedYieldsIs(true);
    bool const runs = !suspended() && runnableTaskCount() > 0;
    // Holds the kit: its last owner may be the task that runs.
    std::shared_ptr<TaskScheduler> const self = shared_from_this();
    handleSchedulerRun();  // with nothing queued it goes idle
    return runs;
  }

  // False when no timer is due until then.
  bool _fireTimers(Nanoseconds end) {
    auto const earliest =
        std::min_element(timers_.begin(), timers_.end(),
                         [](auto const& a, auto const& b) { return a.second < b.second; });
    if (earliest == timers_.end() || earliest->second.first > end) return false;
    TimerTask& task = *earliest->first;
    elapsed_ = std::max(elapsed_, earliest->second.first);
    timers_.erase(earliest);
    task.timerRunningIs(false);
    task.scheduleTask();
    // The others of the same moment are queued before any runs, as by a loop's pass.
    while (_fireTimers(elapsed_)) {
    }
    return true;
  }

  // In the order in which the tasks were made.
  void _askDescriptors() {
    std::vector<pollfd> asked;
    std::vector<FileDescriptorTask*> tasks;
    for (Watch const& watch : watches_) {
      int const events = (watch.reads ? POLLIN : 0) | (watch.writes ? POLLOUT : 0);
      asked.push_back({events != 0 ? watch.fd : -1, static_cast<short>(events), 0});
      tasks.push_back(watch.task);
    }
    if (asked.empty() || ::poll(asked.data(), static_cast<nfds_t>(asked.size()), 0) <= 0) return;
    for (std::size_t i = 0; i < asked.size(); ++i) _ready(*tasks[i], asked[i].revents);
  }

  // Being queued may make a task change or drop this one and others.
  void _ready(FileDescriptorTask& task, short events) {
    bool const both = (events & (POLLHUP | POLLERR)) != 0;  // a hang-up is for either direction
    Watch const* watch = _watch(task);
    if (watch && watch->reads && (both || (events & POLLIN) != 0)) task.handleReadable();
    watch = _watch(task);
    if (watch && watch->writes && (both || (events & POLLOUT) != 0)) task.handleWritable();
  }

  void _forceYield(TaskImpl& task) {
    if (task.taskForceYieldInTest() == forcedYields_) return;
    if (forcedYields_) quanta_[&task] = task.taskQuantum();
    task.taskForceYieldInTestIs(forcedYields_);
    if (!forcedYields_) task.taskQuantumIs(quanta_[&task]);
  }

  TimePoint const origin_;
  Nanoseconds elapsed_{0};
  U64 armings_ = 0;
  bool runRequested_ = false;
  bool forcedYields_ = false;
  bool created_ = false;  // since the last run
  std::map<TimerTask*, Due> timers_;
  std::vector<Watch> watches_;
  std::vector<TaskImpl*> tasks_;
  std::map<TaskImpl*, Nanoseconds> quanta_;  // as they were before yields were forced
};

}  // namespace Veltro
