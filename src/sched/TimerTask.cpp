#include "Veltro/TimerTask.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "Kiv/SteadyClock.h"
#include "SchedDebug.h"
#include "Veltro/DisplayPointer.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

namespace {
using Clock = Kiv::SteadyClock;
using Nanoseconds = std::chrono::nanoseconds;

// The two families of delays differ in these functions only.

bool isNever(double delay) { return delay > std::numeric_limits<double>::max(); }
bool isNever(Nanoseconds delay) { return delay == Nanoseconds::max(); }

bool isNow(double delay) { return !(delay < 0 || delay > 0); }  // so is not-a-number
bool isNow(Nanoseconds delay) { return delay == Nanoseconds::zero(); }

double atLeast(Nanoseconds minimum, double delay) {
  return std::max(delay, static_cast<double>(minimum.count()) / 1e9);
}
Nanoseconds atLeast(Nanoseconds minimum, Nanoseconds delay) { return std::max(delay, minimum); }

double partOf(double delay, unsigned percentage, unsigned draw) {
  double const part = draw * static_cast<double>(percentage) * delay / 10000;
  // At 100 times 100 the product is more than the delay by a rounding error for some delays.
  return delay >= 0 && percentage <= 100 ? std::min(part, delay) : part;
}
Nanoseconds partOf(Nanoseconds delay, unsigned percentage, unsigned draw) {
  // Split, for delay x percentage x draw leaves 64 bits from ten days on. Same truncated quotient.
  auto const factor = Nanoseconds::rep{percentage} * draw;
  return delay / 10000 * factor + delay % 10000 * factor / 10000;
}

// A sum too large stays a delay: "never" is a word of its own.
double later(double delay, double offset) {
  return std::min(delay + offset, std::numeric_limits<double>::max());
}
Nanoseconds later(Nanoseconds delay, Nanoseconds offset) {
  constexpr Nanoseconds latest = Nanoseconds::max() - Nanoseconds(1);
  return delay > Nanoseconds::zero() && offset > latest - delay ? latest : delay + offset;
}
}  // namespace

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string const& name)
    : TaskImpl(std::move(scheduler), priority, name) {
  taskScheduler()->schedulerRoot().timerCreated(*this);
}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string const& name)
    : TimerTask(_shared(scheduler), priority, name) {}

TimerTask::~TimerTask() {
  sanityCheckCurrentRunningThread();  // before the loop of another thread is touched
  taskScheduler()->schedulerRoot().timerDestroyed(*this);
}

bool TimerTask::taskScheduled() const { return TaskImpl::taskScheduled() || timerRunning_; }

void TimerTask::scheduleTask() {
  sanityCheckCurrentRunningThread();
  if (timerRunning_) doStopTimer();
  TaskImpl::scheduleTask();
}

void TimerTask::taskRunFromTest() {
  sanityCheckCurrentRunningThread();
  if (timerRunning_) doStopTimer();
  TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
  TaskStat::TaskStatus status = TaskImpl::taskStatus();
  status.taskTimerIs(true);
  status.taskTimerRunningIs(timerRunning_);
  return status;
}

void TimerTask::stopTimerTask() {
  sanityCheckCurrentRunningThread();
  TimePoint const now = Clock::now();
  if (timerRunning_) {
    VELTRO_TRACE(schedDebug(), 9, "Timer stopped " << *this << ", was running");
    taskScheduler()->schedulerHistory()->insert(now, TaskSchedulerEventType::timerStop,
                                                taskNameRef());
    doStopTimer();
  } else {
    VELTRO_TRACE(schedDebug(), 9, "Timer stopped " << *this << ", was not running");
  }
  unscheduleTaskPrivate(now);
  taskBusyIs(taskScheduled(), now);
}

void TimerTask::doStopTimer() {
  timerRunning_ = false;
  taskScheduler()->schedulerRoot().timerStop(*this);
}

double TimerTask::timerRemaining() const {
  sanityCheckCurrentRunningThread();
  return taskScheduler()->schedulerRoot().timerRemaining(*this);
}

TimerTask::TimePoint TimerTask::currentExpirationTime() const {
  sanityCheckCurrentRunningThread();
  if (TaskImpl::taskScheduled()) return Clock::now();
  if (!timerRunning_) return TimePoint::max();
  return taskScheduler()->schedulerRoot().timerExpiry(*this);
}

template <class Delay>
void TimerTask::scheduleTaskDelayedPrivate(Delay delay, bool restart) {
  if (isNow(delay)) {
    scheduleTask();
    return;
  }
  TimePoint const now = Clock::now();
  if (restart) {
    unscheduleTaskPrivate(now);
  } else if (TaskImpl::taskScheduled()) {
    VELTRO_TRACE(schedDebug(), 8, "Already on runQueue " << *this);
    return;
  }
  TaskSchedulerRoot& root = taskScheduler()->schedulerRoot();
  delay = atLeast(root.minimumTimerDelay(), delay);
  if (!root.timerStart(*this, delay, restart)) {
    VELTRO_TRACE(schedDebug(), 8,
                 "Timer already running " << *this << " expire "
                                          << DisplayTaskTimeStamp(now, currentExpirationTime()));
    VELTRO_ASSERT(schedDebug(), timerRunning_, "Task: " << *this);
    return;
  }
  timerRunning_ = true;
  VELTRO_TRACE(schedDebug(), 8, "Timer started " << *this << " delay " << delay);
  taskScheduler()->schedulerHistory()->insert(now, TaskSchedulerEventType::timerStart,
                                              taskNameRef());
  taskBusyIs(taskScheduled(), now);
}

template <class Delay>
Delay TimerTask::_jitterOffset(Delay delay, std::uint8_t maxJitterPercentage) const {
  // The percentage is printed as the one character it is.
  VELTRO_ASSERT(schedDebug(), maxJitterPercentage <= 100,
                "maxJitterPercentage: " << maxJitterPercentage << " > 100");
  unsigned const draw = taskScheduler()->schedulerRoot().jitterDraw();
  Delay const offset = partOf(delay, maxJitterPercentage, draw);
  VELTRO_ASSERT(schedDebug(), !(offset > delay),
                "offset( " << offset << " ) > delayIntoFuture( " << delay << " )");
  return offset;
}

template <class Delay>
void TimerTask::_scheduleTaskDelay(Delay delay) {
  sanityCheckCurrentRunningThread();
  if (isNever(delay)) {
    stopTimerTask();
  } else {
    scheduleTaskDelayedPrivate(delay, true);
  }
}

template <class Delay>
void TimerTask::_scheduleTaskJitterUp(Delay delay, std::uint8_t maxJitterPercentage) {
  sanityCheckCurrentRunningThread();
  if (isNever(delay)) {
    stopTimerTask();
    return;
  }
  Delay const offset = _jitterOffset(delay, maxJitterPercentage);
  Delay const sum = later(delay, offset);
  VELTRO_TRACE(schedDebug(), 9,
               "Timer jitterUp " << *this << " delay " << delay << " + " << offset << " = " << sum);
  scheduleTaskDelayedPrivate(sum, true);
}

template <class Delay>
void TimerTask::_scheduleTaskJitterDown(Delay delay, std::uint8_t maxJitterPercentage) {
  sanityCheckCurrentRunningThread();
  if (isNever(delay)) {
    stopTimerTask();
    return;
  }
  Delay const offset = _jitterOffset(delay, maxJitterPercentage);
  Delay const difference = delay - offset;
  VELTRO_TRACE(
      schedDebug(), 9,
      "Timer jitterDown " << *this << " delay " << delay << " - " << offset << " = " << difference);
  scheduleTaskDelayedPrivate(difference, true);
}

template <class Delay>
void TimerTask::_scheduleTaskLowestDelay(Delay delay) {
  sanityCheckCurrentRunningThread();
  VELTRO_ASSERT(schedDebug(), !isNever(delay), "delayIntoFuture: " << delay);
  scheduleTaskDelayedPrivate(delay, false);
}

void TimerTask::scheduleTaskDelay(double delayIntoFuture) { _scheduleTaskDelay(delayIntoFuture); }
void TimerTask::scheduleTaskDelay(Nanoseconds delayIntoFuture) {
  _scheduleTaskDelay(delayIntoFuture);
}
void TimerTask::scheduleTaskJitterUp(double delayIntoFuture, std::uint8_t maxJitterPercentage) {
  _scheduleTaskJitterUp(delayIntoFuture, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterUp(Nanoseconds delayIntoFuture,
                                     std::uint8_t maxJitterPercentage) {
  _scheduleTaskJitterUp(delayIntoFuture, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterDown(double delayIntoFuture, std::uint8_t maxJitterPercentage) {
  _scheduleTaskJitterDown(delayIntoFuture, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterDown(Nanoseconds delayIntoFuture,
                                       std::uint8_t maxJitterPercentage) {
  _scheduleTaskJitterDown(delayIntoFuture, maxJitterPercentage);
}
void TimerTask::scheduleTaskLowestDelay(double delayIntoFuture) {
  _scheduleTaskLowestDelay(delayIntoFuture);
}
void TimerTask::scheduleTaskLowestDelay(Nanoseconds delayIntoFuture) {
  _scheduleTaskLowestDelay(delayIntoFuture);
}

double TimerTask::jitterOffset(double delayIntoFuture, std::uint8_t maxJitterPercentage) const {
  sanityCheckCurrentRunningThread();
  return _jitterOffset(delayIntoFuture, maxJitterPercentage);
}
Nanoseconds TimerTask::jitterOffset(Nanoseconds delayIntoFuture,
                                    std::uint8_t maxJitterPercentage) const {
  sanityCheckCurrentRunningThread();
  return _jitterOffset(delayIntoFuture, maxJitterPercentage);
}

}  // namespace Veltro
