// Clearing a large scheduler's figures in slices, by a task of its own.
#include "SchedDebug.h"
#include "Veltro/TaskScheduler.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

/// Walks its scheduler's tasks. The scheduler owns it, so it does not own the scheduler.
class TaskScheduler::ResetStatsTask final : public Task {
 public:
  /// Registered as any scheduler registers: a group that enforces its priority makes an exception.
  explicit ResetStatsTask(TaskScheduler& scheduler)
      : Task(std::shared_ptr<TaskScheduler>(std::shared_ptr<void>(), &scheduler),
             TaskPriority::normal, scheduler.schedulerName() + ";ResetStats",
             Registration::byCreator) {
    scheduler.TaskScheduler::taskRegister(this);
  }

 private:
  void taskExecute() override { taskScheduler()->handleResetStatsTaskRun(); }
};

void TaskScheduler::resetStats() {
  root_->sanityCheckCurrentRunningThread();
  if (!resetStatsTask_) resetStatsTask_ = std::make_shared<ResetStatsTask>(*this);
  if (!resetStatsWalk_.walking()) resetStatsWalk_.start();
  resetStatsTask_->scheduleTask();
}

bool TaskScheduler::resetStatsInProgress() const { return resetStatsWalk_.walking(); }

void TaskScheduler::handleResetStatsTaskRun() {
  // At least one a run, so that the walk goes on under a quantum of 0 as well.
  U64 count = 0;
  bool yield = false;
  while (!yield) {
    TaskImpl* const task = resetStatsWalk_.next();
    if (!task) break;
    ++count;
    try {
      task->resetStats();
    } catch (...) {
      resetStatsTask_->scheduleTask();  // the walk goes on behind the task that threw
      throw;
    }
    yield = resetStatsTask_->taskShouldYield();
  }
  resetStatsTask_->taskWorkCountInc(count);
  if (yield) {
    resetStatsTask_->scheduleTask();
  } else {
    clearStatsCommon();
  }
}

void TaskScheduler::releaseResetStatsTask() {
  resetStatsWalk_.end();
  resetStatsTask_.reset();
}

}  // namespace Veltro
