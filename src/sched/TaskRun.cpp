// One run of a task: the protocol around taskExecute() and the check of its quantum.
#include <atomic>
#include <chrono>
#include <memory>

#include "Kiv/SteadyClock.h"
#include "Kiv/TimeStampCounter.h"
#include "SchedDebug.h"
#include "Veltro/DisplayPointer.h"
#include "Veltro/Task.h"
#include "Veltro/TaskScheduler.h"
#include "Veltro/TaskSchedulerHistory.h"

namespace Veltro {

namespace {
using Clock = Kiv::SteadyClock;

/// Ticks of the time-stamp counter between two looks at the clock; 0 while the rate is not known.
U64 yieldCheckTicks() {
  static std::atomic<U64> known{0};
  U64 ticks = known.load(std::memory_order_relaxed);
  if (ticks == 0) {
    ticks = Kiv::TimeStampCounter::ticks(std::chrono::microseconds(500));
    known.store(ticks, std::memory_order_relaxed);
  }
  return ticks;
}

U64 percentageOf(std::chrono::nanoseconds part, std::chrono::nanoseconds whole) {
  using Seconds = std::chrono::duration<double>;
  return static_cast<U64>(Seconds(part).count() / Seconds(whole).count() * 100);
}
}  // namespace

inline void TaskImpl::_execute(TimePoint now) {
  // A task that runs the event loop may be run again inside its run: then this is the inner run,
  // and what the outer one measures and asks must be put back.
  bool const nested = taskCurrentlyRunning_;
  TimePoint const outerStart = runStart_;
  auto const ended = [&] {
    taskCurrentlyRunning_ = nested;
    if (nested) runStart_ = outerStart;
  };
  // After the call nothing may be used of a task that is gone but what was taken here.
  ConstStringRef const name = taskNameRef();
  void const* const identity = static_cast<_TaskBase const*>(this);
  U32 const volatile& magicNumber = taskMagicNumber_;
  auto const isLive = [&] { return magicNumber == taskMagicNumberConstructed; };

  runStart_ = now;
  ++taskRunCount_;
  taskCurrentlyRunning_ = true;
  try {
    taskExecute();
  } catch (...) {
    if (isLive()) {
      ended();
      taskBusyIs(taskScheduled(), now);
    }
    throw;
  }
  VELTRO_ASSERT(schedDebug(), isLive(),
                "Task: " << name.string() << TaskKey(identity).toStrep()
                         << " taskMagicNumber: " << magicNumber
                         << " taskMagicNumberConstructed: " << taskMagicNumberConstructed);
  ended();
}

void TaskImpl::_accountViolation(Nanoseconds elapsed) {
  VELTRO_TRACE(schedDebug(), 5,
               "Ran " << *this << " used " << elapsed << " " << percentageOf(elapsed, taskQuantum_)
                      << "% violation");
  ++(elapsed < 5 * taskQuantum_ ? quantumViolations200_ : quantumViolations500_);
}

inline void TaskImpl::_accountRun(Nanoseconds elapsed) {
  if (taskQuantum_ != Nanoseconds::zero() && elapsed >= 2 * taskQuantum_) {
    _accountViolation(elapsed);
  } else {
    VELTRO_TRACE(schedDebug(), 7, "Ran " << *this << " used " << elapsed);
  }
  if (elapsed > maxRunTime_) maxRunTime_ = elapsed;
  totalRunTime_ += elapsed;
}

void TaskImpl::taskDoRun(TimePoint now, TimePoint& endTime) {
  TaskSchedulerHistory& history = *taskScheduler()->history_;
  history.insert(now, TaskSchedulerEventType::runStart, taskNameRef());
  VELTRO_ASSERT(schedDebug(), !taskRunQueueLink_.isLinked(),
                "Task: " << *this << " runs while it is on the run queue");
  VELTRO_TRACE(schedDebug(), 8, "Running " << *this);
  _execute(now);
  endTime = Clock::now();
  _accountRun(endTime - now);
  history.insert(endTime, TaskSchedulerEventType::runEnd, taskNameRef());
  taskBusyIs(taskScheduled(), endTime);
}

bool TaskImpl::taskShouldYield() const {
  VELTRO_ASSERT(
      schedDebug(), taskCurrentlyRunning_ || taskRunCount_ == 0,
      "taskCurrentlyRunning: " << taskCurrentlyRunning_ << " taskRunCount: " << taskRunCount_);
  U64 const ticks = Kiv::TimeStampCounter::now();
  if (ticks >= yieldCheckpoint_ && ticks < yieldCheckpoint_ + yieldCheckTicks() &&
      !taskForceYieldInTest_) {
    return false;
  }
  yieldCheckpoint_ = ticks;
  if (Clock::now() - runStart_ < taskQuantum_) return false;
  yieldCheckpoint_ = 0;
  return true;
}

void TaskImpl::taskRunFromTest() {
  sanityCheckCurrentRunningThread();
  taskRunAndRecordFromTest();
}

void TaskImpl::taskRunAndRecordFromTest() {
  // Destroyed last first: the task may let go of the last reference to both in its run.
  std::shared_ptr<TaskScheduler> const scheduler = taskScheduler();
  std::shared_ptr<_TaskBase> const self = weak_from_this().lock();
  TimePoint const now = Clock::now();
  if (taskRunQueueLink_.isLinked()) scheduler->taskSchedulerUnlinkTask(now, *this);
  TimePoint end;
  taskDoRun(now, end);
}

}  // namespace Veltro
