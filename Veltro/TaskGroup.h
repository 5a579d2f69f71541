#pragma once
#include <memory>
#include <string>

#include "Veltro/TaskScheduler.h"

namespace Veltro {

/// A scheduler inside a scheduler: to its parent it is one task, with one priority and one
/// quantum; inside, its tasks compete by their own priorities.
///
/// The parent task, "TaskGroup;" and the group's name, runs group tasks until none is left or its
/// quantum is used up, looking only between two of them; a group with work left is queued again.
/// Owned through std::shared_ptr, by its tasks too; keeps its parent alive. Shares the parent's
/// root and history, and takes over its default quantum once.
class VELTRO_API TaskGroup : public TaskScheduler {
 public:
  /// With `enforceGroupPriority` every task of the group must have the group's priority.
  static std::shared_ptr<TaskGroup> TaskGroupIs(std::string const& name, TaskPriority priority,
                                                bool enforceGroupPriority,
                                                std::shared_ptr<TaskScheduler> parent);
  /// For TaskGroupIs() and derived classes; the group must become owned by a shared pointer.
  TaskGroup(std::string const& name, TaskPriority priority, bool enforceGroupPriority,
            std::shared_ptr<TaskScheduler> parent);
  ~TaskGroup() override;

  void requestSchedulerRun() override;
  /// A group in which any task forces its yield runs one task a turn.
  void handleTaskForceYieldInTest() override;
  /// Throws AssertException for a task of another priority where the group enforces its own.
  void taskRegister(TaskImpl* task) override;

  /// Of the parent task: the longest time that the group takes from its parent in one turn.
  Nanoseconds taskGroupQuantum() const;
  void taskGroupQuantumIs(Nanoseconds quantum);
  /// Of the parent task: one group task a turn.
  bool taskGroupForceYieldInTest() const;
  void taskGroupForceYieldInTestIs(bool force);
  /// Turns, not runs of group tasks.
  unsigned parentTaskRunCount() const;
  /// Whether the group is queued in its parent.
  bool parentTaskScheduled() const;

 private:
  class ParentTask;
  std::shared_ptr<ParentTask> parentTask_;
  TaskPriority const groupPriority_;
  bool const enforceGroupPriority_;
};

}  // namespace Veltro
