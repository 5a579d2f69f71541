#pragma once
#include <chrono>
#include <memory>
#include <string>

#include "Veltro/Task.h"

namespace Veltro {

/// A task that is queued when a delay has passed. Derive from it and write taskExecute(); for a
/// period, start the next delay there.
///
/// Delays are seconds or nanoseconds. 0 queues at once; below the root's minimum counts as the
/// minimum; not-a-number counts as 0. Positive infinity, or the largest nanosecond count, is
/// "never": it stops the timer. Percentages of jitter are 0 to 100; above throws AssertException.
class VELTRO_API TimerTask : public TaskImpl {
 public:
  /// Registers with `scheduler`; null throws AssertException ("Need a TaskScheduler").
  TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
            std::string const& name);
  TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string const& name);
  ~TimerTask() override;

  /// Runs once, after the delay from now: a timer that runs starts over, a run that is due is put
  /// off.
  void scheduleTaskDelay(double delayIntoFuture);
  void scheduleTaskDelay(Nanoseconds delayIntoFuture);
  /// The same, later or sooner by a random part, in steps of 1 %, of maxJitterPercentage % of the
  /// delay.
  void scheduleTaskJitterUp(double delayIntoFuture, std::uint8_t maxJitterPercentage);
  void scheduleTaskJitterUp(Nanoseconds delayIntoFuture, std::uint8_t maxJitterPercentage);
  void scheduleTaskJitterDown(double delayIntoFuture, std::uint8_t maxJitterPercentage);
  void scheduleTaskJitterDown(Nanoseconds delayIntoFuture, std::uint8_t maxJitterPercentage);
  /// Runs after the delay or earlier: keeps a run that is due, or a timer with less left. "Never"
  /// throws AssertException.
  void scheduleTaskLowestDelay(double delayIntoFuture);
  void scheduleTaskLowestDelay(Nanoseconds delayIntoFuture);
  /// Stops the timer and cancels a run that is due.
  void stopTimerTask();

  /// Seconds left; positive infinity while no timer runs, also when the task is queued.
  double timerRemaining() const;
  /// Now when queued; the largest time point while no timer runs.
  TimePoint currentExpirationTime() const;

  /// One draw: 0 to maxJitterPercentage % of the delay.
  double jitterOffset(double delayIntoFuture, std::uint8_t maxJitterPercentage) const;
  Nanoseconds jitterOffset(Nanoseconds delayIntoFuture, std::uint8_t maxJitterPercentage) const;

  /// Queued, or its timer runs.
  bool taskScheduled() const override;
  /// Stops the timer and queues at once.
  void scheduleTask() override;
  void taskRunFromTest() override;
  TaskStat::TaskStatus taskStatus() const override;

  /// Whether the timer is armed.
  bool timerRunning() const { return timerRunning_; }

  /// For the root alone: its record of this timer, made in timerCreated() and deleted in
  /// timerDestroyed(); and the mark, which it clears as the timer fires.
  Platform::TimeoutHandler* timerNotifiee() const { return timerNotifiee_; }
  void timerNotifieeIs(Platform::TimeoutHandler* notifiee) { timerNotifiee_ = notifiee; }
  void timerRunningIs(bool running) { timerRunning_ = running; }

 private:
  template <class Delay>
  void _scheduleTaskDelay(Delay delay);
  template <class Delay>
  void _scheduleTaskJitterUp(Delay delay, std::uint8_t maxJitterPercentage);
  template <class Delay>
  void _scheduleTaskJitterDown(Delay delay, std::uint8_t maxJitterPercentage);
  template <class Delay>
  void _scheduleTaskLowestDelay(Delay delay);
  template <class Delay>
  void scheduleTaskDelayedPrivate(Delay delay, bool restart);
  template <class Delay>
  Delay _jitterOffset(Delay delay, std::uint8_t maxJitterPercentage) const;
  void doStopTimer();

  bool timerRunning_ = false;
  Platform::TimeoutHandler* timerNotifiee_ = nullptr;
};

}  // namespace Veltro
