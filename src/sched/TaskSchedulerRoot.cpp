#include "Veltro/TaskSchedulerRoot.h"

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <limits>
#include <mutex>
#include <thread>

#include "Report.h"
#include "SchedDebug.h"
#include "Veltro/TaskSchedulerHistory.h"

namespace Veltro {

int auxThreadCount = 0;

// All roots of the process, for gdb/veltro.py: nothing here reads the list.
TaskSchedulerRoot* firstSchedulerRoot = nullptr;

namespace {
constexpr unsigned kAll = std::numeric_limits<unsigned>::max();

std::mutex& allRoots() {
  static auto* const mutex = new std::mutex;
  return *mutex;
}
}  // namespace

void TaskSchedulerRoot::_joinAll() {
  std::lock_guard<std::mutex> const lock(allRoots());
  nextRoot_ = firstSchedulerRoot;
  firstSchedulerRoot = this;
}

void TaskSchedulerRoot::_leaveAll() {
  std::lock_guard<std::mutex> const lock(allRoots());
  TaskSchedulerRoot** link = &firstSchedulerRoot;
  while (*link != this) link = &(*link)->nextRoot_;
  *link = nextRoot_;
}

TaskSchedulerRoot::TaskSchedulerRoot(std::string const& name, Nanoseconds minimumTimerDelay)
    : TaskScheduler(name, this, std::make_shared<TaskSchedulerHistory>()),
      minimumTimerDelay_(minimumTimerDelay),
      ownerThread_(pthread_self()),
      ownerPid_(getpid()),
      randomDevice_("default"),
      randomEngine_(randomDevice_()) {
  if (pthread_getname_np(ownerThread_, ownerThreadName_, sizeof ownerThreadName_) != 0) {
    ownerThreadName_[0] = '\0';
  }
  registerScheduler(this);
  _joinAll();
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
  _leaveAll();
  releaseResetStatsTask();
  unregisterScheduler(this);
}

void TaskSchedulerRoot::handleTaskForceYieldInTest() {}
void TaskSchedulerRoot::taskCreated(TaskImpl& /*task*/) {}
void TaskSchedulerRoot::taskDestroyed(TaskImpl& /*task*/) {}
void TaskSchedulerRoot::timerCreated(TimerTask& /*task*/) {}
void TaskSchedulerRoot::timerDestroyed(TimerTask& /*task*/) {}
void TaskSchedulerRoot::fileDescriptorTaskCreated(FileDescriptorTask& /*task*/) {}
void TaskSchedulerRoot::fileDescriptorTaskDestroyed(FileDescriptorTask& /*task*/) {}

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
  VELTRO_ASSERT(schedDebug(), schedulers_.insert(scheduler).second,
                "insert failed for " << *scheduler);
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
  VELTRO_ASSERT(schedDebug(), schedulers_.erase(scheduler) == 1,
                "delete failed for " << *scheduler);
}

unsigned TaskSchedulerRoot::taskGroupCount() const {
  VELTRO_ASSERT(schedDebug(), !schedulers_.empty(), "");
  return static_cast<unsigned>(schedulers_.size() - 1);
}

unsigned TaskSchedulerRoot::totalRegisteredTaskCount() const {
  unsigned count = 0;
  for (TaskScheduler const* scheduler : schedulers_) count += scheduler->registeredTaskCount();
  return count;
}

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
  TaskSchedulerQueueStats stats;
  for (TaskScheduler const* scheduler : schedulers_) stats += scheduler->queueStats();
  return stats;
}

bool TaskSchedulerRoot::resetStatsInProgress() const {
  for (TaskScheduler const* scheduler : schedulers_) {
    // Asked virtually, the root's own answer would be this very walk.
    bool const inProgress = scheduler == this ? TaskScheduler::resetStatsInProgress()
                                              : scheduler->resetStatsInProgress();
    if (inProgress) return true;
  }
  return false;
}

void TaskSchedulerRoot::suspendedIs(bool suspended) {
  sanityCheckCurrentRunningThread();
  if (suspended == suspended_) return;
  suspended_ = suspended;
  TimePoint const now = std::chrono::steady_clock::now();
  if (suspended) {
    schedulerHistory()->insert(now, TaskSchedulerEventType::schedulerSuspended, this);
  } else {
    schedulerHistory()->insert(now, TaskSchedulerEventType::schedulerUnsuspended, this);
    requestSchedulerRunAndRecord(now);
  }
}

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
  if (disabled == threadSanityDisabled_) return;
  VELTRO_TRACE(schedDebug(), 1,
               *this << " " << (disabled ? "dis" : "en") << "able thread sanity checking");
  threadSanityDisabled_ = disabled;
}

void TaskSchedulerRoot::_checkOtherThread() const {
  if (threadSanityDisabled_ || auxThreadCount != 0) return;
  pid_t const pid = getpid();
  if (pid != ownerPid_) return;  // a forked child: its threads are no longer those of here
  Platform::DebugStream stream;
  stream << "Executing in wrong thread " << std::this_thread::get_id() << "(" << currentThreadName()
         << ") pid " << pid << " scheduler belongs to thread " << std::thread::id(ownerThread_)
         << "(" << ownerThreadName_ << ") pid " << ownerPid_;
  debugAndThrowAssertException(schedDebug(), 0, stream, kSourceFile,
                               "sanityCheckCurrentRunningThread", __LINE__);
}

std::string TaskSchedulerRoot::currentThreadName() {
  char name[16];
  return pthread_getname_np(pthread_self(), name, sizeof name) == 0 ? name : "";
}

void TaskSchedulerRoot::printStats(std::ostream& stream, bool includeIdle, bool showKeys,
                                   unsigned limit, unsigned deadLimit,
                                   unsigned historyEvents) const {
  std::vector<TaskStat> live;
  std::vector<TaskStat> dead;
  unsigned liveSkipped = 0;
  unsigned deadSkipped = 0;
  for (TaskScheduler const* scheduler : schedulers_) {
    liveSkipped += scheduler->getTaskStats(&live, includeIdle);
    if (deadLimit != 0) deadSkipped += scheduler->getDeadTaskStats(&dead, includeIdle);
  }
  printStatsImpl(stream, queueStatsRoot(), maxSchedulerLatency(), live, liveSkipped,
                 deadLimit != 0 ? &dead : nullptr, deadSkipped, showKeys, limit, deadLimit);
  if (historyEvents != 0) printHistory(stream, historyEvents);
}

void TaskSchedulerRoot::printStatsStdErr() const {
  printStats(std::cerr, true, true, kAll, kAll, 0);
}

void TaskSchedulerRoot::printHistory(std::ostream& stream, unsigned n) const {
  schedulerHistory()->print(stream, n);
}
void TaskSchedulerRoot::printHistoryStdErr() const { printHistory(std::cerr, kAll); }

void TaskSchedulerRoot::clearHistory() {
  VELTRO_TRACE(schedDebug(), 8, *this << " history cleared");
  schedulerHistory()->clear();
}

}  // namespace Veltro
