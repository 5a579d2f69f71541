#include "Veltro/TaskGroup.h"

#include <utility>

#include "SchedDebug.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

namespace {
TaskScheduler& checked(std::shared_ptr<TaskScheduler> const& parent) {
  VELTRO_ASSERT(schedDebug(), parent, "Need a TaskScheduler");
  parent->schedulerRoot().sanityCheckCurrentRunningThread();  // before its names are touched
  return *parent;
}
}  // namespace

/// The group as its parent sees it: one task.
class TaskGroup::ParentTask final : public Task {
 public:
  ParentTask(std::shared_ptr<TaskScheduler> parent, TaskPriority priority, TaskGroup& group)
      : Task(std::move(parent), priority, "TaskGroup;" + group.schedulerName()), group_(&group) {}

  void groupDel() { group_ = nullptr; }

 private:
  void taskExecute() override {
    if (!group_) return;
    std::shared_ptr<TaskScheduler> const group = group_->shared_from_this();
    taskWorkCountInc(_runGroup(*group));
    taskWorkPendingIs(static_cast<U32>(group->runnableTaskCount()));
  }
  void handleResetStats() override {
    if (group_) group_->clearStats();
  }

  /// Returns how many group tasks it ran.
  U64 _runGroup(TaskScheduler& group) {
    U64 count = 0;
    while (group.schedulerHasRunnableTasks()) {
      // A group task did that. Runs are ignored now; its own has queued us, which is what starts
      // the group again on resuming.
      if (group.schedulerRoot().suspended()) break;
      if (group.runnableTaskCount() == 0) {
        group.handleSchedulerRun();  // finds nothing and goes idle
        break;
      }
      ++count;
      group.handleSchedulerRun();
      if (taskShouldYield()) break;
    }
    return count;
  }

  TaskGroup* group_;
};

std::shared_ptr<TaskGroup> TaskGroup::TaskGroupIs(std::string const& name, TaskPriority priority,
                                                  bool enforceGroupPriority,
                                                  std::shared_ptr<TaskScheduler> parent) {
  return std::make_shared<TaskGroup>(name, priority, enforceGroupPriority, std::move(parent));
}

TaskGroup::TaskGroup(std::string const& name, TaskPriority priority, bool enforceGroupPriority,
                     std::shared_ptr<TaskScheduler> parent)
    : TaskScheduler(name, &checked(parent).schedulerRoot(), checked(parent).schedulerHistory()),
      parentTask_(std::make_shared<ParentTask>(parent, priority, *this)),
      groupPriority_(priority),
      enforceGroupPriority_(enforceGroupPriority) {
  defaultTaskQuantumIs(parent->defaultTaskQuantum());
  schedulerRoot().registerScheduler(this);  // last: nothing can throw behind it
}

TaskGroup::~TaskGroup() {
  // The parent task may hold the last reference to the parent, and by that to the root.
  std::shared_ptr<TaskScheduler> const parent = parentTask_->taskScheduler();
  parentTask_->groupDel();
  releaseResetStatsTask();
  schedulerRoot().unregisterScheduler(this);
  parentTask_.reset();
}

void TaskGroup::taskRegister(TaskImpl* task) {
  VELTRO_ASSERT(schedDebug(), !enforceGroupPriority_ || task->taskPriority() == groupPriority_,
                "taskPriority( " << task->taskPriority() << " ) != taskGroupPriority( "
                                 << groupPriority_ << " )");
  TaskScheduler::taskRegister(task);
}

void TaskGroup::requestSchedulerRun() { parentTask_->scheduleTask(); }

void TaskGroup::handleTaskForceYieldInTest() {
  parentTask_->taskForceYieldInTestIs(anyTaskForcesYield());
}

TaskGroup::Nanoseconds TaskGroup::taskGroupQuantum() const { return parentTask_->taskQuantum(); }
void TaskGroup::taskGroupQuantumIs(Nanoseconds quantum) { parentTask_->taskQuantumIs(quantum); }
bool TaskGroup::taskGroupForceYieldInTest() const { return parentTask_->taskForceYieldInTest(); }
void TaskGroup::taskGroupForceYieldInTestIs(bool force) {
  parentTask_->taskForceYieldInTestIs(force);
}
unsigned TaskGroup::parentTaskRunCount() const { return parentTask_->taskRunCount(); }
bool TaskGroup::parentTaskScheduled() const { return parentTask_->taskScheduled(); }

}  // namespace Veltro
