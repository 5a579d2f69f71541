#include "Veltro/TaskScheduler.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "Kiv/SteadyClock.h"
#include "SchedDebug.h"
#include "Veltro/DisplayPointer.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

namespace {
using Clock = Kiv::SteadyClock;

// Assertions of this room shall be seen without any setting.
void enableAssertionTracesOnce() {
  static std::atomic_flag done = ATOMIC_FLAG_INIT;
  if (!done.test_and_set()) Platform::setupVeltroDebug("TaskScheduler/0");
}
}  // namespace

TaskScheduler::TaskScheduler(std::string const& name, TaskSchedulerRoot* root,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : name_(history->cache().lookup(name)),
      root_(root),
      history_(std::move(history)),
      runRequestedAt_(Clock::now()),
      runStartedAt_(runRequestedAt_),
      defaultTaskQuantum_(std::chrono::milliseconds(20)),
      resetStatsWalk_(registeredTasks_) {
  forceYieldTasks_.max_load_factor(1.0F);
  deadTaskStats_.max_load_factor(1.0F);
  enableAssertionTracesOnce();
}

TaskScheduler::~TaskScheduler() noexcept {
  name_.clear();  // before the history, whose cache must then be empty
}

void TaskScheduler::defaultTaskQuantumIs(Nanoseconds quantum) {
  // Refused here, for what is in force here must suit every task's taskQuantumIs().
  VELTRO_ASSERT(schedDebug(), quantum > Nanoseconds::zero() && quantum <= std::chrono::seconds(1),
                "Quantum: " << quantum);
  defaultTaskQuantum_ = quantum;
}

void TaskScheduler::taskRegister(TaskImpl* task) {
  root_->sanityCheckCurrentRunningThread();
  TaskPriority const priority = task->taskPriority();
  VELTRO_ASSERT(schedDebug(), priority < TaskPriority(TaskPriority::oneBeyondLast),
                "Task: " << *task << " priority: " << priority);
  VELTRO_TRACE(schedDebug(), 4, *this << " Register " << *task);
  VELTRO_ASSERT(schedDebug(), !task->taskRegisteredLink_.isLinked(),
                "Task: " << *task << " already registered");
  tasksPerPriorityInc(priority);
  registeredTasks_.pushBack(*task);
  try {
    history_->insert(Clock::now(), TaskSchedulerEventType::taskCreate, task->taskNameRef());
    root_->taskCreated(*task);
  } catch (...) {
    registeredTasks_.erase(*task);  // the task's constructor fails
    tasksPerPriorityDec(priority);
    throw;
  }
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
  root_->sanityCheckCurrentRunningThread();
  VELTRO_TRACE(schedDebug(), 4, *this << " Unregister " << *task);
  VELTRO_ASSERT(schedDebug(), task->taskRegisteredLink_.isLinked(),
                "Task: " << *task << " not registered");
  TimePoint const now = Clock::now();
  root_->taskDestroyed(*task);
  if (task->taskRunQueueLink_.isLinked()) taskSchedulerUnlinkTask(now, *task);
  updateDeadTaskStats(task);
  registeredTasks_.erase(*task);
  history_->insert(now, TaskSchedulerEventType::taskDelete, task->taskNameRef());
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool force) {
  if (force) {
    forceYieldTasks_.insert(task);
  } else {
    forceYieldTasks_.erase(task);
  }
  handleTaskForceYieldInTest();
}

void TaskScheduler::_hasRunnableTasksChanged(bool runnable, TimePoint now) {
  hasRunnableTasks_ = runnable;
  if (runnable) {
    VELTRO_TRACE(schedDebug(), 8, *this << " Scheduler has runnable tasks, request run");
    history_->insert(now, TaskSchedulerEventType::schedulerRunnable, this);
    requestSchedulerRunAndRecord(now);
  } else {
    history_->insert(now, TaskSchedulerEventType::schedulerIdle, this);
    VELTRO_TRACE(schedDebug(), 8, *this << " Scheduler idle");
  }
}

void TaskScheduler::checkSchedulerLatency() {
  runStartedAt_ = Clock::now();
  maxSchedulerLatency_ =
      std::max(maxSchedulerLatency_, Nanoseconds(runStartedAt_ - runRequestedAt_));
}

void TaskScheduler::handleSchedulerRun() {
  root_->sanityCheckCurrentRunningThread();
  checkSchedulerLatency();
  TimePoint const now = runStartedAt_;
  if (root_->suspended()) {
    VELTRO_TRACE(schedDebug(), 8, *this << " Suspended");
    history_->insert(now, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended, this);
    return;
  }
  if (TaskImpl* const task = pickOneTask(now, TaskPriority::absolute)) {
    _runTask(*task, now);
  } else {
    schedulerHasRunnableTasksIs(false, now);
  }
}

void TaskScheduler::_runTask(TaskImpl& task, TimePoint now) {
  // The reset task alone does not keep its scheduler alive. First here, so destroyed last.
  std::shared_ptr<TaskScheduler> const self =
      &task == resetStatsTask_.get() ? shared_from_this() : nullptr;

  // A task that runs the event loop gets here again: the outer run's lock is kept and put back.
  // Letting go of ours may destroy the task, and by that this scheduler: the last thing done.
  struct Executing {
    std::shared_ptr<_TaskBase>& current;
    std::shared_ptr<_TaskBase> other;
    ~Executing() { current.swap(other); }
  } executing{executingTask_, nullptr};

  try {
    executing.other = _lock(task, now);
    executingTask_.swap(executing.other);
    TimePoint end;
    task.taskDoRun(now, end);
    VELTRO_TRACE(schedDebug(), 8, *this << " Scheduler completed task, request run");
    requestSchedulerRunAndRecord(end);
  } catch (...) {
    requestSchedulerRunAndRecord(now);  // else the tasks left would wait for ever
    throw;
  }
}

std::shared_ptr<_TaskBase> TaskScheduler::_lock(TaskImpl& task, TimePoint now) {
  try {
    return task.shared_from_this();
  } catch (std::bad_weak_ptr const&) {
    task.taskBusyIs(task.taskScheduled(), now);  // off the queue, and will not run
    throw;
  }
}

std::ostream& operator<<(std::ostream& stream, TaskScheduler const& scheduler) {
  return stream << scheduler.schedulerName();
}

}  // namespace Veltro
