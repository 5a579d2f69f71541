#include "Veltro/TaskStat.h"

#include <algorithm>
#include <locale>

#include "SchedDebug.h"
#include "Veltro/DisplayPointer.h"

namespace Veltro {
namespace {

// No sample is not the largest mark but the smallest.
void raise(U32& mark, U32 other) {
  if (other == TaskStat::kNoSample) return;
  if (other > (mark == TaskStat::kNoSample ? 0 : mark)) mark = other;
}

char statusLetter(TaskStat::TaskStatus status) {
  if (status.taskCurrentlyRunning()) return '*';
  if (status.taskSuspendedForTest()) return 'S';
  if (status.taskTimer()) return status.taskTimerRunning() ? 'T' : 't';
  return ' ';
}

}  // namespace

std::string TaskKey::toStrep() const { return "(" + DisplayPointer(task_).toString() + ")"; }

std::string TaskStat::taskStatusString() const {
  std::string const priority = taskPriority_.oneCharString();
  std::string text(1, statusLetter(status_));
  text +=
      status_.taskOnRunQueue() ? priority[0] : std::tolower(priority[0], std::locale::classic());
  return text;
}

TaskStat& TaskStat::operator+=(TaskStat const& other) {
  VELTRO_ASSERT(schedDebug(), name_ == other.name_, name_ << " != " << other.name_);
  runCount_ += other.runCount_;
  totalRunTime_ += other.totalRunTime_;
  workCountTotal_ += other.workCountTotal_;
  quantumViolation500_ += other.quantumViolation500_;
  quantumViolation200_ += other.quantumViolation200_;
  workCountDecayAvg_ = other.workCountDecayAvg_;
  lastWorkPending_ = other.lastWorkPending_;
  raise(workCountHighWaterMark_, other.workCountHighWaterMark_);
  raise(workPendingHighWaterMark_, other.workPendingHighWaterMark_);
  runTimeHighWaterMark_ = std::max(runTimeHighWaterMark_, other.runTimeHighWaterMark_);
  schedulingLatencyHighWaterMark_ =
      std::max(schedulingLatencyHighWaterMark_, other.schedulingLatencyHighWaterMark_);
  lastSchedulingLatency_ = other.lastSchedulingLatency_;
  deadCount_ += 1;
  status_ = other.status_;
  return *this;
}

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(
    TaskSchedulerPriorityStats const& other) {
  VELTRO_ASSERT(schedDebug(), taskPriority_ == other.taskPriority_,
                taskPriority_ << " != " << other.taskPriority_);
  runnableCount_ += other.runnableCount_;
  idleCount_ += other.idleCount_;
  deadCount_ += other.deadCount_;
  totalRunCount_ += other.totalRunCount_;
  return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(TaskSchedulerQueueStats const& other) {
  for (auto const& [priority, stats] : other.priorityStats_) {
    auto const [mine, inserted] = priorityStats_.emplace(priority, stats);
    if (!inserted) mine->second += stats;
  }
  return *this;
}

}  // namespace Veltro
