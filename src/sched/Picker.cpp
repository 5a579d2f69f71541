// The run queues: putting tasks on, taking them off, and choosing the next.
#include "SchedDebug.h"
#include "Veltro/TaskScheduler.h"

namespace Veltro {

namespace {
constexpr U32 kWeight[] = {0, 64, 8, 1, 0};  // by priority; 0 takes no part in the bump

TaskPriority nextLower(TaskPriority priority) { return TaskPriority(priority.value() + 1u); }
}  // namespace

TaskScheduler::PriorityRecord& TaskScheduler::_record(TaskPriority priority) {
  VELTRO_ASSERT(schedDebug(), priority < TaskPriority(TaskPriority::oneBeyondLast),
                "priority: " << priority);
  return records_[priority.value()];
}

TaskScheduler::PriorityRecord const& TaskScheduler::_record(TaskPriority priority) const {
  return const_cast<TaskScheduler*>(this)->_record(priority);
}

void TaskScheduler::taskSchedulerUnlinkTask(TimePoint now, TaskImpl& task) {
  VELTRO_ASSERT(schedDebug(), task.taskPriority() < TaskPriority(TaskPriority::oneBeyondLast),
                "Task: " << task << " priority: " << task.taskPriority());
  PriorityRecord& record = records_[task.taskPriority().value()];
  VELTRO_ASSERT(
      schedDebug(), record.dequeued < record.enqueued,
      "Task: " << task << " dequeued: " << record.dequeued << " enqueued: " << record.enqueued);
  ++record.dequeued;
  if (task.taskRunQueueLink_.isLinked()) record.runQueue.erase(task);
  task._schedulingLatencyIs(now);
}

TaskImpl* TaskScheduler::pickOneTask(TimePoint now, TaskPriority from) {
  for (TaskPriority q = from; q.value() < kPriorities; q = nextLower(q)) {
    PriorityRecord& record = records_[q.value()];
    TaskImpl* const task = record.runQueue.front();
    if (!task) {
      record.consecutivePicks = 0;
      continue;
    }
    if (attemptLowerPriorityBump(q, record.consecutivePicks)) {
      if (TaskImpl* const lower = pickOneTask(now, nextLower(q))) {
        record.consecutivePicks = 0;
        return lower;
      }
    }
    ++record.consecutivePicks;
    taskSchedulerUnlinkTask(now, *task);
    return task;
  }
  return nullptr;
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority priority, U32 consecutivePicks) const {
  unsigned const q = priority.value();
  if (q != TaskPriority::high && q != TaskPriority::normal) return false;
  auto const weighted = [this](unsigned r) {
    return kWeight[r] * static_cast<U32>(records_[r].length());
  };
  U32 sum = 0;
  for (unsigned r = q + 1; r <= TaskPriority::low; ++r) sum += weighted(r);
  return sum != 0 && sum * consecutivePicks > weighted(q);
}

U64 TaskScheduler::runnableTaskCount() const {
  U64 count = 0;
  for (PriorityRecord const& record : records_) count += record.length();
  return count;
}

U64 TaskScheduler::runnableTaskCount(TaskPriority priority) const {
  return _record(priority).length();
}

U64 TaskScheduler::runTaskCount(TaskPriority priority) const {
  PriorityRecord const& record = _record(priority);
  return record.dequeued - record.dequeuedAtClear;
}

}  // namespace Veltro
