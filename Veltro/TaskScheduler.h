#pragma once
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Veltro/Task.h"

namespace Veltro {

class TaskSchedulerHistory;
class TaskSchedulerRoot;

/// Holds tasks, keeps a run queue for each priority, and runs one task whenever its owner lets it.
/// The owner is the thread's event loop (TaskSchedulerRoot) or a parent scheduler (TaskGroup).
///
/// One run, handleSchedulerRun():
///  1. the thread check; the clock is read, and the time since the request is the run's slip;
///  2. while the root is suspended: an event, and nothing more; resuming asks for the next run;
///  3. one task is picked and taken off its queue; with all queues empty the scheduler goes idle
///     and asks for nothing;
///  4. the task's own reference is locked, so that it outlives its run whoever lets go of it;
///  5. "run start", taskExecute(), the clock is read again, the figures, "run end", busy or idle;
///  6. the next run is requested, whether or not work is left, so that timers, descriptors and
///     other schedulers come between any two tasks;
///  7. the lock is released, which may destroy the task and, with it, this scheduler.
/// An exception out of the task leaves the run after steps 6 and 7; its figures are not kept.
///
/// Priorities are strict, but high and normal make way for one task of a lower priority (down to
/// low) when they were picked n times in a row and
///     n x sum of weight x length of the lower queues  >  own weight x own length
/// with the weights 64, 8 and 1 for high, normal and low: of equally many, 9 high to 1 normal.
///
/// Owned through std::shared_ptr, by its tasks too. Belongs to one thread; nothing is locked.
/// Scheduling, picking and recording allocate nothing and make no system call.
class VELTRO_API TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
 public:
  /// Those of its tasks.
  using TimePoint = _TaskBase::TimePoint;
  using Nanoseconds = _TaskBase::Nanoseconds;

  TaskScheduler(TaskScheduler const&) = delete;
  TaskScheduler& operator=(TaskScheduler const&) = delete;

  /// From resetStats() until the last task has been reset.
  virtual bool resetStatsInProgress() const;
  /// Prints the report of this scheduler's tasks; for the arguments see TaskSchedulerRoot.
  virtual void printStats(std::ostream& stream, bool includeIdle, bool showKeys, unsigned limit,
                          unsigned deadLimit, unsigned historyEvents) const;
  /// Asks the owner to call handleSchedulerRun() once, soon, and not from inside this call.
  virtual void requestSchedulerRun() = 0;
  /// The set of tasks with force-yield-in-test has changed.
  virtual void handleTaskForceYieldInTest() = 0;
  /// Called by a task under construction: identity and base class only.
  virtual void taskRegister(TaskImpl* task);
  virtual ~TaskScheduler() noexcept;

  /// Called by a task under destruction; adds its figures to those of the dead.
  void taskUnregister(TaskImpl* task);

  /// As given at construction.
  std::string const& schedulerName() const { return name_.string(); }
  ConstStringRef const& schedulerNameRef() const { return name_; }
  /// The thread's root, and the history that all its schedulers share.
  TaskSchedulerRoot& schedulerRoot() const { return *root_; }
  std::shared_ptr<TaskSchedulerHistory> const& schedulerHistory() const { return history_; }

  /// For tasks made from now on; above 0 and at most a second. 20 ms at first.
  Nanoseconds defaultTaskQuantum() const { return defaultTaskQuantum_; }
  void defaultTaskQuantumIs(Nanoseconds quantum);

  /// Runs one task. For the owner.
  void handleSchedulerRun();

  /// From the first schedule until a run has found nothing; a run is requested for as long.
  bool schedulerHasRunnableTasks() const { return hasRunnableTasks_; }
  /// Tasks queued: all, or those of one priority (absolute to scavenge).
  U64 runnableTaskCount() const;
  U64 runnableTaskCount(TaskPriority priority) const;
  /// Tasks taken off the queue since the statistics were cleared.
  U64 runTaskCount(TaskPriority priority) const;
  /// Tasks that live, tasks that died, and all that live.
  unsigned tasksPerPriority(TaskPriority priority) const;
  unsigned deadTasksPerPriority(TaskPriority priority) const;
  unsigned registeredTaskCount() const;
  /// The task that runs now; null between two runs.
  _TaskBase const* executingTask() const { return executingTask_.get(); }
  /// The longest time from a request to the run that served it: the scheduler's slip.
  Nanoseconds maxSchedulerLatency() const { return maxSchedulerLatency_; }

  /// Appends a record for each task, without those that never ran unless `includeIdle`; returns
  /// how many were left out.
  unsigned getTaskStats(std::vector<TaskStat>* stats, bool includeIdle) const;
  /// The same of the tasks that died, one record a name.
  unsigned getDeadTaskStats(std::vector<TaskStat>* stats, bool includeIdle) const;
  /// The counts by priority.
  TaskSchedulerQueueStats queueStats() const;
  /// Clears all figures at once.
  void clearStats();
  /// Clears them by a task of normal priority that keeps to its quantum. While it is under way
  /// another call starts nothing new.
  void resetStats();

 protected:
  /// The history is the root's, shared by all schedulers of it.
  TaskScheduler(std::string const& name, TaskSchedulerRoot* root,
                std::shared_ptr<TaskSchedulerHistory> history);

  /// Records the change and asks for a run when there is something to run now.
  void schedulerHasRunnableTasksIs(bool runnable, TimePoint now) {
    if (runnable != hasRunnableTasks_) _hasRunnableTasksChanged(runnable, now);
  }
  /// Also keeps when, for the slip. Refused, the next schedule asks again.
  void requestSchedulerRunAndRecord(TimePoint now) {
    runRequestedAt_ = now;
    try {
      requestSchedulerRun();
    } catch (...) {
      hasRunnableTasks_ = false;
      throw;
    }
  }
  /// Measures the slip of the run that begins.
  void checkSchedulerLatency();
  /// Takes a task of priority `from` or lower off its queue; null when there is none.
  TaskImpl* pickOneTask(TimePoint now, TaskPriority from);
  /// Whether a lower priority has its turn now, by the rule above.
  bool attemptLowerPriorityBump(TaskPriority priority, U32 consecutivePicks) const;
  /// Takes a queued task off its queue.
  void taskSchedulerUnlinkTask(TimePoint now, TaskImpl& task);

  /// Steps of the counts and of the dead tasks' figures.
  void tasksPerPriorityInc(TaskPriority priority);
  void tasksPerPriorityDec(TaskPriority priority);
  void deadTasksPerPriorityInc(TaskPriority priority);
  void deadTasksPerPriorityDec(TaskPriority priority);
  void updateDeadTaskStats(TaskImpl* task);
  void clearStatsCommon();

  /// Whether force-yield-in-test is on in any task.
  bool anyTaskForcesYield() const { return !forceYieldTasks_.empty(); }
  /// Ends a walk and destroys the reset task. An owner's destructor must call it while the root
  /// lives and its own virtuals are still there.
  void releaseResetStatsTask();

 private:
  friend class TaskImpl;
  class ResetStatsTask;

  using RunQueue = List<TaskImpl, ListLinkNode, &TaskImpl::taskRunQueueLink_>;
  using RegisteredTasks =
      BookmarkList<TaskImpl, BookmarkListLinkNode, &TaskImpl::taskRegisteredLink_>;

  struct PriorityRecord {
    RunQueue runQueue;
    U32 consecutivePicks = 0;  // since last found empty or passed over
    U64 enqueued = 0;          // put on the queue, less those unscheduled
    U64 dequeued = 0;          // taken off to run, or because they died
    U64 dequeuedAtClear = 0;   // dequeued when the statistics were cleared
    U64 length() const { return enqueued - dequeued; }
  };
  static constexpr unsigned kPriorities = TaskPriority::oneBeyondLast;

  PriorityRecord& _record(TaskPriority priority);
  PriorityRecord const& _record(TaskPriority priority) const;
  void _enqueue(TaskImpl& task) {
    PriorityRecord& record = records_[task.taskPriority().value()];
    record.runQueue.pushBack(task);
    ++record.enqueued;
  }
  void _cancel(TaskImpl& task) {
    PriorityRecord& record = records_[task.taskPriority().value()];
    record.runQueue.erase(task);
    --record.enqueued;
  }
  void _hasRunnableTasksChanged(bool runnable, TimePoint now);
  void taskForceYieldInTestNotify(TaskImpl* task, bool force);
  void handleResetStatsTaskRun();
  void _foldDeadStats(TaskImpl const& task);
  void _runTask(TaskImpl& task, TimePoint now);
  static std::shared_ptr<_TaskBase> _lock(TaskImpl& task, TimePoint now);

  ConstStringRef name_;
  TaskSchedulerRoot* const root_;
  std::shared_ptr<TaskSchedulerHistory> history_;
  std::unordered_set<TaskImpl*> forceYieldTasks_;
  RegisteredTasks registeredTasks_;
  PriorityRecord records_[kPriorities];
  TimePoint runRequestedAt_;
  TimePoint runStartedAt_;
  Nanoseconds maxSchedulerLatency_{0};
  Nanoseconds defaultTaskQuantum_;
  std::map<TaskPriority, unsigned> tasksPerPriority_;
  std::map<TaskPriority, unsigned> deadTasksPerPriority_;
  bool hasRunnableTasks_ = false;
  std::shared_ptr<_TaskBase> executingTask_;
  std::unordered_map<std::string, TaskStat> deadTaskStats_;
  std::shared_ptr<Task> resetStatsTask_;
  RegisteredTasks::Bookmark resetStatsWalk_;
};

/// Prints the name.
VELTRO_API std::ostream& operator<<(std::ostream& stream, TaskScheduler const& scheduler);

}  // namespace Veltro
