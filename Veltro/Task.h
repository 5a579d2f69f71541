#pragma once
#include <chrono>
#include <iosfwd>
#include <memory>
#include <string>

#include "Veltro/ConstStringCache.h"
#include "Veltro/Export.h"
#include "Veltro/IntrusiveBookmarkLinkedList.h"
#include "Veltro/IntrusiveLinkedListBase.h"
#include "Veltro/Platform.h"
#include "Veltro/TaskPriority.h"
#include "Veltro/TaskStat.h"

namespace Veltro {

class TaskScheduler;

/// What everything schedulable has: a scheduler, a priority, names and a busy state.
///
/// Owned through std::shared_ptr; keeps its scheduler alive. Belongs to the scheduler's thread:
/// use from another one throws AssertException ("Executing in wrong thread ..."), and the
/// destruction of a task there ends the process, for a destructor cannot throw. So let go of all
/// tasks before their thread ends.
class VELTRO_API _TaskBase : public std::enable_shared_from_this<_TaskBase> {
 public:
  /// The steady clock's, for all of scheduling.
  using TimePoint = std::chrono::steady_clock::time_point;
  using Nanoseconds = std::chrono::nanoseconds;

  _TaskBase(_TaskBase const&) = delete;
  _TaskBase& operator=(_TaskBase const&) = delete;

  /// Whether work is waiting for a run.
  virtual bool taskScheduled() const = 0;
  /// Whether the running task has used up its quantum and should return soon.
  virtual bool taskShouldYield() const = 0;
  /// Accounts `n` units of work done; once a run, for the figures are kept by call.
  virtual void taskWorkCountInc(U64 n) = 0;
  /// Reports `n` units of work that wait.
  virtual void taskWorkPendingIs(U32 n) = 0;
  /// taskBusy() has changed. May destroy this object, if nothing else of it is used after.
  virtual void handleTaskBusy();
  /// The statistics have been reset. May create and destroy tasks.
  virtual void handleResetStats();
  virtual ~_TaskBase() noexcept;

  /// Never null, but in a task whose construction fails.
  std::shared_ptr<TaskScheduler> const& taskScheduler() const { return scheduler_; }
  /// As given at construction; need not be unique.
  std::string const& taskName() const { return taskName_.string(); }
  ConstStringRef const& taskNameRef() const { return taskName_; }
  /// The name under which the statistics of dead tasks are summed up; the task's name unless set.
  std::string const& taskStatsName() const { return taskStatsName_.string(); }
  void taskStatsNameIs(std::string const& name);
  /// As given at construction.
  TaskPriority taskPriority() const { return taskPriority_; }
  /// taskScheduled() as it was after the last schedule or run.
  bool taskBusy() const { return busy_; }

  /// Throws AssertException unless the calling thread may use this task.
  void sanityCheckCurrentRunningThread() const;

 protected:
  /// A null scheduler is left to the derived class to refuse.
  _TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
            std::string const& name);

  /// Calls handleTaskBusy() when that is a change.
  void taskBusyIs(bool busy, TimePoint now) {
    if (busy != busy_) _busyChanged(busy, now);
  }
  /// The `now` of the last taskBusyIs() that changed something: the time for handleTaskBusy().
  TimePoint taskBusyChangedAt() const { return busyChangedAt_; }

  /// The scheduler's own reference, from a plain pointer; null stays null.
  static std::shared_ptr<TaskScheduler> _shared(TaskScheduler* scheduler);

 private:
  friend class TaskScheduler;
  void _busyChanged(bool busy, TimePoint now);

  std::shared_ptr<TaskScheduler> const scheduler_;
  ConstStringRef const taskName_;
  ConstStringRef taskStatsName_;
  TaskPriority const taskPriority_;
  bool busy_ = false;
  TimePoint busyChangedAt_;
};

/// Prints the name, followed by the key.
VELTRO_API std::ostream& operator<<(std::ostream& stream, _TaskBase const& task);

/// A task that its scheduler can queue and run: the run queue's state, the quantum, the figures.
///
///     registered --scheduleTask()--> queued --picked--> running --> registered, or queued again
///
/// A run is one call of taskExecute(). A task with more work than fits into its quantum asks
/// taskShouldYield() as it works, schedules itself again and returns. It must not be destroyed
/// while it runs; while queued it may, and is taken off the queue.
class VELTRO_API TaskImpl : public _TaskBase {
 public:
  ~TaskImpl() override;

  /// Queues the task at the end of its priority; nothing happens while it is queued, or while it
  /// is suspended for test. Allocates nothing.
  virtual void scheduleTask();
  /// Runs the task now, outside its scheduler's turn.
  virtual void taskRunFromTest();
  /// What the task is doing, as flags.
  virtual TaskStat::TaskStatus taskStatus() const;
  /// The work of one run. An exception leaves the event loop, which may then be run again.
  virtual void taskExecute() = 0;

  bool taskScheduled() const override;
  /// Cheap enough for inner loops: within 500 us of the last look at the clock it answers false
  /// from the time-stamp counter, so a shorter quantum is noticed late. Only for the running task.
  bool taskShouldYield() const override;
  void taskWorkCountInc(U64 n) override;
  void taskWorkPendingIs(U32 n) override;

  /// Takes the task off the queue; nothing happens if it is not on it.
  void unscheduleTask();

  /// The time that one run is meant to take, above 0 and at most a second; at first the
  /// scheduler's default. Runs of twice and of five times this are counted.
  Nanoseconds taskQuantum() const { return taskQuantum_; }
  void taskQuantumIs(Nanoseconds quantum);

  /// For tests of client code: a suspended task is never queued; resumed, it is queued at once.
  bool taskSuspendedForTest() const { return taskSuspendedForTest_; }
  void taskSuspendedForTestIs(bool suspended);
  /// For tests of client code: makes every taskShouldYield() true, by a quantum of 0. Switched off
  /// it sets the scheduler's default quantum, whatever was set before.
  bool taskForceYieldInTest() const { return taskForceYieldInTest_; }
  void taskForceYieldInTestIs(bool force);
  /// Takes the task off the queue and runs it, with its figures.
  void taskRunAndRecordFromTest();

  /// From before taskExecute() until after it.
  bool taskCurrentlyRunning() const { return taskCurrentlyRunning_; }
  /// Wraps to 0 after 2^32 runs.
  unsigned taskRunCount() const { return taskRunCount_; }
  /// Of the reported work: all of it, and the average of a report.
  U64 taskWorkCountTotal() const { return workCountTotal_; }
  float taskWorkCountDecayAvg() const { return workCountDecayAvg_; }
  /// 4294967295 before the first sample.
  U32 taskWorkCountHighWaterMark() const { return workCountHighWaterMark_; }
  /// As last reported.
  U32 taskWorkPending() const { return workPending_; }
  /// The most that was reported waiting.
  U32 taskWorkPendingHighWaterMark() const { return workPendingHighWaterMark_; }

  /// The figures at this moment.
  TaskStat getStats() const;
  /// Clears the figures, then calls handleResetStats(). Quantum and test flags stay.
  void resetStats();

 protected:
  /// Who registers the new task: its scheduler's virtual taskRegister(), or the creator later.
  enum class Registration { byScheduler, byCreator };
  /// For derived classes.
  TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name,
           Registration registration = Registration::byScheduler);

  /// unscheduleTask() without the thread check, by a time already taken.
  void unscheduleTaskPrivate(TimePoint now);

 private:
  friend class TaskScheduler;

  static constexpr U32 taskMagicNumberConstructed = 0x42be5afe;
  static constexpr U32 kNoSample = TaskStat::kNoSample;

  void handleInitialized();
  void handleDestroy();
  void taskDoRun(TimePoint now, TimePoint& endTime);
  void _execute(TimePoint now);
  void _accountRun(Nanoseconds elapsed);
  void _accountViolation(Nanoseconds elapsed);
  void _schedulingLatencyIs(TimePoint now) {
    lastSchedulingLatency_ = now - scheduledAt_;
    if (lastSchedulingLatency_ > maxSchedulingLatency_) {
      maxSchedulingLatency_ = lastSchedulingLatency_;
    }
  }
  void _forceYieldOn();
  void _forceYieldOff();

  Nanoseconds taskQuantum_;
  bool taskSuspendedForTest_ = false;
  bool taskForceYieldInTest_ = false;
  bool taskCurrentlyRunning_ = false;
  TimePoint scheduledAt_;
  TimePoint runStart_;
  mutable U64 yieldCheckpoint_ = 0;
  Nanoseconds totalRunTime_{0};
  Nanoseconds maxRunTime_{0};
  U64 workCountTotal_ = 0;
  float workCountDecayAvg_ = 0;
  U32 workCountHighWaterMark_ = kNoSample;
  U32 workPending_ = 0;
  U32 workPendingHighWaterMark_ = kNoSample;
  U32 quantumViolations200_ = 0;
  U32 quantumViolations500_ = 0;
  unsigned taskRunCount_ = 0;
  // volatile: a plain store in the destructor would be dropped as dead, and the check after a run
  // would go on seeing the old value.
  U32 volatile taskMagicNumber_ = taskMagicNumberConstructed;
  ListLinkNode taskRunQueueLink_;
  BookmarkListLinkNode taskRegisteredLink_;
  Nanoseconds lastSchedulingLatency_{0};
  Nanoseconds maxSchedulingLatency_{0};
};

/// The plain task: derive from it and write taskExecute().
class VELTRO_API Task : public TaskImpl {
 public:
  /// Registers with `scheduler`; null throws AssertException ("Need a TaskScheduler").
  Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name);
  Task(TaskScheduler* scheduler, TaskPriority priority, std::string const& name);
  ~Task() override;

  bool taskScheduled() const override;
  void scheduleTask() override;
  void taskRunFromTest() override;
  TaskStat::TaskStatus taskStatus() const override;

 protected:
  /// For derived classes that register later.
  Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string const& name,
       Registration registration);
};

}  // namespace Veltro
