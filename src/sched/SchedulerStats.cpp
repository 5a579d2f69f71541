// The figures that a scheduler and its tasks keep: reading, folding, clearing.
#include <new>
#include <utility>

#include "Report.h"
#include "SchedDebug.h"
#include "Veltro/TaskScheduler.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

namespace {
using Counts = std::map<TaskPriority, unsigned>;

unsigned countOf(Counts const& counts, TaskPriority priority) {
  auto const found = counts.find(priority);
  return found == counts.end() ? 0 : found->second;
}

void decrement(Counts& counts, TaskPriority priority) {
  unsigned const count = countOf(counts, priority);
  VELTRO_ASSERT(schedDebug(), count != 0, "Priority: " << priority << " count: " << count);
  --counts[priority];
}
}  // namespace

TaskStat TaskImpl::getStats() const {
  TaskStat stat(taskStatsName(), this, taskPriority());
  stat.taskRunInc(taskRunCount_);
  stat.taskTotalRunTimeInc(totalRunTime_);
  stat.taskWorkCountTotalInc(workCountTotal_);
  stat.taskWorkCountDecayAvgIs(workCountDecayAvg_);
  stat.taskWorkCountHighWaterMarkIs(workCountHighWaterMark_);
  stat.taskLastWorkPendingIs(workPending_);
  stat.taskWorkPendingHighWaterMarkIs(workPendingHighWaterMark_);
  stat.taskQuantumViolation500Inc(quantumViolations500_);
  stat.taskQuantumViolation200Inc(quantumViolations200_);
  stat.taskRunTimeHighWaterMarkIs(maxRunTime_);
  stat.taskLastSchedulingLatencyIs(lastSchedulingLatency_);
  stat.taskSchedulingLatencyHighWaterMarkIs(maxSchedulingLatency_);
  stat.taskStatusIs(taskStatus());
  return stat;
}

void TaskImpl::resetStats() {
  taskRunCount_ = 0;
  totalRunTime_ = maxRunTime_ = Nanoseconds::zero();
  workCountTotal_ = 0;
  workCountDecayAvg_ = 0;
  workCountHighWaterMark_ = workPendingHighWaterMark_ = kNoSample;
  workPending_ = 0;
  quantumViolations200_ = quantumViolations500_ = 0;
  lastSchedulingLatency_ = maxSchedulingLatency_ = Nanoseconds::zero();
  handleResetStats();
}

unsigned TaskScheduler::tasksPerPriority(TaskPriority priority) const {
  return countOf(tasksPerPriority_, priority);
}
unsigned TaskScheduler::deadTasksPerPriority(TaskPriority priority) const {
  return countOf(deadTasksPerPriority_, priority);
}
void TaskScheduler::tasksPerPriorityInc(TaskPriority priority) {
  deadTasksPerPriority_.try_emplace(priority, 0);  // a task that ends may need no memory
  ++tasksPerPriority_[priority];
}
void TaskScheduler::tasksPerPriorityDec(TaskPriority priority) {
  decrement(tasksPerPriority_, priority);
}
void TaskScheduler::deadTasksPerPriorityInc(TaskPriority priority) {
  ++deadTasksPerPriority_[priority];
}
void TaskScheduler::deadTasksPerPriorityDec(TaskPriority priority) {
  decrement(deadTasksPerPriority_, priority);
}

unsigned TaskScheduler::registeredTaskCount() const {
  unsigned count = 0;
  for ([[maybe_unused]] TaskImpl const& task : registeredTasks_) ++count;
  return count;
}

unsigned TaskScheduler::getTaskStats(std::vector<TaskStat>* stats, bool includeIdle) const {
  unsigned skipped = 0;
  for (TaskImpl const& task : registeredTasks_) {
    if (includeIdle || task.taskRunCount() != 0) {
      stats->push_back(task.getStats());
    } else {
      ++skipped;
    }
  }
  return skipped;
}

unsigned TaskScheduler::getDeadTaskStats(std::vector<TaskStat>* stats, bool includeIdle) const {
  unsigned skipped = 0;
  for (auto const& [name, stat] : deadTaskStats_) {
    if (includeIdle || stat.taskRunCount() != 0) {
      stats->push_back(stat);
    } else {
      ++skipped;
    }
  }
  return skipped;
}

void TaskScheduler::_foldDeadStats(TaskImpl const& task) {
  TaskStat stat = task.getStats();
  VELTRO_ASSERT(schedDebug(), stat.taskDeadCount() == 0,
                "Task: " << task << " deadCount: " << stat.taskDeadCount());
  stat.taskDeadCountIs(1);
  auto const found = deadTaskStats_.find(task.taskStatsName());
  if (found != deadTaskStats_.end()) {
    found->second += stat;
  } else {
    deadTaskStats_.emplace(task.taskStatsName(), std::move(stat));
  }
}

void TaskScheduler::updateDeadTaskStats(TaskImpl* task) {
  TaskPriority const priority = task->taskPriority();
  if (!task->taskRegisteredLink_.isLinked() || priority.value() >= kPriorities) return;
  unsigned const count = tasksPerPriority(priority);
  VELTRO_ASSERT(schedDebug(), count != 0, "Task: " << *task << " tasksPerPriority: " << count);
  try {
    _foldDeadStats(*task);
  } catch (std::bad_alloc const&) {
    // Destructors get here: the figures are lost, and not the process.
  }
  tasksPerPriorityDec(priority);
  deadTasksPerPriorityInc(priority);
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
  TaskSchedulerQueueStats stats;
  for (unsigned value = 0; value < kPriorities; ++value) {
    TaskPriority const priority(value);
    U32 const runnable = static_cast<U32>(runnableTaskCount(priority));
    TaskSchedulerPriorityStats const entry(priority, runnable,
                                           tasksPerPriority(priority) - runnable,
                                           deadTasksPerPriority(priority), runTaskCount(priority));
    VELTRO_ASSERT(schedDebug(), stats.priorityStatsInsert(entry),
                  "Priority: " << priority << " insert failed");
  }
  return stats;
}

void TaskScheduler::clearStatsCommon() {
  maxSchedulerLatency_ = Nanoseconds::zero();
  deadTaskStats_.clear();
  for (auto& [priority, count] : deadTasksPerPriority_) count = 0;
  for (PriorityRecord& record : records_) record.dequeuedAtClear = record.dequeued;
}

void TaskScheduler::clearStats() {
  root_->sanityCheckCurrentRunningThread();
  clearStatsCommon();
  RegisteredTasks::Bookmark walk(registeredTasks_);  // handleResetStats() may destroy tasks
  walk.start();
  while (TaskImpl* const task = walk.next()) task->resetStats();
}

void TaskScheduler::printStats(std::ostream& stream, bool includeIdle, bool showKeys,
                               unsigned limit, unsigned deadLimit, unsigned historyEvents) const {
  std::vector<TaskStat> live;
  std::vector<TaskStat> dead;
  unsigned const liveSkipped = getTaskStats(&live, includeIdle);
  unsigned const deadSkipped = deadLimit != 0 ? getDeadTaskStats(&dead, includeIdle) : 0;
  printStatsImpl(stream, queueStats(), maxSchedulerLatency(), live, liveSkipped,
                 deadLimit != 0 ? &dead : nullptr, deadSkipped, showKeys, limit, deadLimit);
  if (historyEvents != 0) history_->print(stream, historyEvents);
}

}  // namespace Veltro
