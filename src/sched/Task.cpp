#include "Veltro/Task.h"

#include <algorithm>
#include <utility>

#include "Kiv/SteadyClock.h"
#include "SchedDebug.h"
#include "Veltro/DisplayPointer.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

namespace {
using Clock = Kiv::SteadyClock;
constexpr std::chrono::nanoseconds kLongestQuantum = std::chrono::seconds(1);
constexpr U32 kHighestMark = 0xfffffffe;  // the one above means "no sample"
}  // namespace

// The cache is the scheduler's thread's own.
static ConstStringRef interned(TaskScheduler& scheduler, std::string const& name) {
  scheduler.schedulerRoot().sanityCheckCurrentRunningThread();
  return scheduler.schedulerHistory()->cache().lookup(name);
}

// _TaskBase

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string const& name)
    : scheduler_(std::move(scheduler)),
      taskName_(scheduler_ ? interned(*scheduler_, name) : ConstStringRef()),
      taskStatsName_(taskName_),
      taskPriority_(priority) {}

_TaskBase::~_TaskBase() noexcept = default;

std::shared_ptr<TaskScheduler> _TaskBase::_shared(TaskScheduler* scheduler) {
  return scheduler ? scheduler->shared_from_this() : nullptr;
}

void _TaskBase::handleTaskBusy() {}
void _TaskBase::handleResetStats() {}

void _TaskBase::taskStatsNameIs(std::string const& name) {
  taskStatsName_ = interned(*scheduler_, name);
}

void _TaskBase::sanityCheckCurrentRunningThread() const {
  scheduler_->schedulerRoot().sanityCheckCurrentRunningThread();
}

void _TaskBase::_busyChanged(bool busy, TimePoint now) {
  busy_ = busy;
  busyChangedAt_ = now;
  scheduler_->schedulerHistory()->insert(
      now, busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle, taskName_);
  handleTaskBusy();
}

std::ostream& operator<<(std::ostream& stream, _TaskBase const& task) {
  return stream << task.taskName() << TaskKey(&task).toStrep();
}

// TaskImpl

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                   std::string const& name, Registration registration)
    : _TaskBase(std::move(scheduler), priority, name),
      taskQuantum_(taskScheduler() ? taskScheduler()->defaultTaskQuantum() : Nanoseconds::zero()) {
  if (registration == Registration::byScheduler) handleInitialized();
}

TaskImpl::~TaskImpl() {
  taskForceYieldInTestIs(false);
  handleDestroy();
  taskMagicNumber_ = 0;
}

void TaskImpl::handleInitialized() {
  VELTRO_ASSERT(schedDebug(), taskScheduler(), "Need a TaskScheduler");
  taskScheduler()->taskRegister(this);
}

void TaskImpl::handleDestroy() {
  if (taskRegisteredLink_.isLinked()) {
    taskScheduler()->taskUnregister(this);
  } else if (taskRunQueueLink_.isLinked()) {
    taskScheduler()->taskSchedulerUnlinkTask(Clock::now(), *this);  // unregistered by hand
  }
}

bool TaskImpl::taskScheduled() const { return taskRunQueueLink_.isLinked(); }

void TaskImpl::scheduleTask() {
  TaskScheduler& scheduler = *taskScheduler();
  scheduler.root_->sanityCheckCurrentRunningThread();
  if (taskRunQueueLink_.isLinked()) {
    // Queued, and no run is asked for: the last request was refused.
    if (!scheduler.hasRunnableTasks_) scheduler.schedulerHasRunnableTasksIs(true, Clock::now());
    return;
  }
  TimePoint const now = Clock::now();
  if (taskSuspendedForTest_) {
    scheduler.history_->insert(now, TaskSchedulerEventType::scheduleSuspended, taskNameRef());
    taskBusyIs(taskScheduled(), now);  // a timer that fired has just stopped being scheduled
    return;
  }
  VELTRO_TRACE(schedDebug(), 8, "Scheduled " << *this);
  scheduler.history_->insert(now, TaskSchedulerEventType::schedule, taskNameRef());
  scheduledAt_ = now;
  scheduler._enqueue(*this);
  scheduler.schedulerHasRunnableTasksIs(true, now);
  taskBusyIs(taskScheduled(), now);
}

void TaskImpl::unscheduleTask() {
  sanityCheckCurrentRunningThread();
  TimePoint const now = Clock::now();
  unscheduleTaskPrivate(now);
  taskBusyIs(taskScheduled(), now);
}

void TaskImpl::unscheduleTaskPrivate(TimePoint now) {
  if (!taskRunQueueLink_.isLinked()) return;
  VELTRO_TRACE(schedDebug(), 8, "Unscheduled " << *this);
  taskScheduler()->history_->insert(now, TaskSchedulerEventType::unschedule, taskNameRef());
  taskScheduler()->_cancel(*this);
  _schedulingLatencyIs(now);
}

void TaskImpl::taskQuantumIs(Nanoseconds quantum) {
  if (quantum == taskQuantum_) return;
  VELTRO_ASSERT(schedDebug(), quantum > Nanoseconds::zero() && quantum <= kLongestQuantum,
                "Quantum: " << quantum);
  VELTRO_TRACE(schedDebug(), 5, "Set quantum " << *this << " to " << quantum);
  taskQuantum_ = quantum;
}

void TaskImpl::taskSuspendedForTestIs(bool suspended) {
  if (suspended == taskSuspendedForTest_) return;
  sanityCheckCurrentRunningThread();
  taskSuspendedForTest_ = suspended;
  TimePoint const now = Clock::now();
  if (suspended) {
    VELTRO_TRACE(schedDebug(), 1, "Suspend " << *this);
    taskScheduler()->history_->insert(now, TaskSchedulerEventType::suspendOn, taskNameRef());
    unscheduleTask();
    return;
  }
  VELTRO_TRACE(schedDebug(), 1, "Unsuspend " << *this);
  taskScheduler()->history_->insert(now, TaskSchedulerEventType::suspendOff, taskNameRef());
  // Schedules dropped meanwhile must not be lost, so one run in any case.
  if (!taskScheduled()) scheduleTask();
}

void TaskImpl::taskForceYieldInTestIs(bool force) {
  if (force == taskForceYieldInTest_) return;
  sanityCheckCurrentRunningThread();
  taskForceYieldInTest_ = force;
  force ? _forceYieldOn() : _forceYieldOff();
  taskScheduler()->taskForceYieldInTestNotify(this, force);
}

void TaskImpl::_forceYieldOn() {
  taskScheduler()->history_->insert(Clock::now(), TaskSchedulerEventType::forceYieldOn,
                                    taskNameRef());
  VELTRO_TRACE(schedDebug(), 1, "Set quantum " << *this << " to " << Nanoseconds::zero());
  taskQuantum_ = Nanoseconds::zero();
}

void TaskImpl::_forceYieldOff() {
  taskScheduler()->history_->insert(Clock::now(), TaskSchedulerEventType::forceYieldOff,
                                    taskNameRef());
  taskQuantumIs(taskScheduler()->defaultTaskQuantum());
}

TaskStat::TaskStatus TaskImpl::taskStatus() const {
  TaskStat::TaskStatus status;
  status.taskOnRunQueueIs(taskRunQueueLink_.isLinked());
  status.taskCurrentlyRunningIs(taskCurrentlyRunning_);
  status.taskSuspendedForTestIs(taskSuspendedForTest_);
  return status;
}

void TaskImpl::taskWorkCountInc(U64 n) {
  workCountTotal_ += n;
  bool const first = workCountHighWaterMark_ == kNoSample;
  float const sample = static_cast<float>(n);
  workCountDecayAvg_ = first ? sample : (9 * workCountDecayAvg_ + sample) / 10;
  // A count that does not fit keeps its low bits on purpose, so the mark may even fall.
  if (first || n > workCountHighWaterMark_) {
    workCountHighWaterMark_ = std::min(static_cast<U32>(n), kHighestMark);
  }
}

void TaskImpl::taskWorkPendingIs(U32 n) {
  workPending_ = n;
  if (workPendingHighWaterMark_ == kNoSample || n > workPendingHighWaterMark_) {
    workPendingHighWaterMark_ = std::min(n, kHighestMark);
  }
}

// Task

Task::Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name)
    : TaskImpl(std::move(scheduler), priority, name) {}

Task::Task(TaskScheduler* scheduler, TaskPriority priority, std::string const& name)
    : Task(_shared(scheduler), priority, name) {}

Task::Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name,
           Registration registration)
    : TaskImpl(std::move(scheduler), priority, name, registration) {}

Task::~Task() = default;

bool Task::taskScheduled() const { return TaskImpl::taskScheduled(); }
void Task::scheduleTask() { TaskImpl::scheduleTask(); }
void Task::taskRunFromTest() { TaskImpl::taskRunFromTest(); }
TaskStat::TaskStatus Task::taskStatus() const { return TaskImpl::taskStatus(); }

}  // namespace Veltro
