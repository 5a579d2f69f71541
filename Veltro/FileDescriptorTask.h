#pragma once
#include <memory>
#include <string>

#include "Veltro/Task.h"

namespace Veltro {

/// Turns readiness of one descriptor into runs of two tasks, one that reads and one that writes,
/// both of this one's scheduler and priority, named after it with ":read" and ":write". Derive
/// from it and write taskExecuteReadable() and taskExecuteWritable().
///
/// Never queued itself: not registered, and without a row in the statistics; its sub-tasks have
/// one each. The descriptor stays the client's; call taskWatchFdDel() before closing it. The write
/// task is made when writability is first watched and then stays.
class VELTRO_API FileDescriptorTask : public _TaskBase {
 public:
  /// Watches nothing yet. A null scheduler throws AssertException ("Need a TaskScheduler").
  FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string const& name);
  FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, std::string const& name);
  ~FileDescriptorTask() override;

  /// Of the sub-tasks: whether either is queued.
  bool taskScheduled() const override;
  /// Of the sub-task whose handler is running; outside a handler they throw AssertException.
  bool taskShouldYield() const override;
  void taskWorkCountInc(U64 n) override;
  void taskWorkPendingIs(U32 n) override;

  /// The work to do when the descriptor is ready. Called once a run, for as long as the interest
  /// is on and the descriptor is ready. May switch the interests, change or drop the descriptor,
  /// and let go of this object.
  virtual void taskExecuteReadable() = 0;
  virtual void taskExecuteWritable() = 0;

  /// The descriptor, -1 when none.
  int taskWatchFd() const;
  /// Watches `fd` from now on, with the interests as they are.
  void taskWatchFdIs(int fd);
  /// Forgets the descriptor. This and the next drop runs that are queued.
  void taskWatchFdDel();
  /// Drops what the loop watches, not the interests: they are taken up by the next
  /// taskWatchFdIs(), but switching one on that is on already does nothing.
  void preFdCloseCleanup();

  /// Both interests are off at first. Off drops a run that is queued. One that the loop refuses
  /// stays as it was.
  bool taskWatchReadable() const { return watchReadable_; }
  void taskWatchReadableIs(bool on);
  bool taskWatchWritable() const { return watchWritable_; }
  void taskWatchWritableIs(bool on);

  /// The descriptor is ready: queues the sub-task. For the root; throws AssertException when the
  /// interest is off.
  void handleReadable();
  void handleWritable();
  /// Queues the sub-task as if the descriptor were ready.
  void scheduleTaskReadable();
  void scheduleTaskWritable();
  /// Whether that sub-task is queued.
  bool taskScheduledReadable() const;
  bool taskScheduledWritable() const;

  /// Work done, by direction: as taskWorkCountInc() and TaskImpl's figures. Those for writes throw
  /// AssertException before the first taskWatchWritableIs().
  void taskWorkCountReadableInc(U64 n);
  void taskWorkCountWritableInc(U64 n);
  U64 taskWorkCountReadableTotal() const;
  float taskWorkCountReadableDecayAvg() const;
  U32 taskWorkCountReadableHighWaterMark() const;
  U64 taskWorkCountWritableTotal() const;
  float taskWorkCountWritableDecayAvg() const;
  U32 taskWorkCountWritableHighWaterMark() const;

  /// Of the read task; set, of the write task too if it exists. A write task made later takes
  /// them over.
  Nanoseconds taskQuantum() const;
  void taskQuantumIs(Nanoseconds quantum);
  bool taskSuspendedForTest() const;
  void taskSuspendedForTestIs(bool suspended);
  bool taskForceYieldInTest() const;
  void taskForceYieldInTestIs(bool force);

  /// For the root alone: its record of this descriptor, made in fileDescriptorTaskCreated() and
  /// deleted in fileDescriptorTaskDestroyed().
  Platform::FdEventHandler* fdNotifiee() const { return fdNotifiee_; }
  void fdNotifieeIs(Platform::FdEventHandler* notifiee) { fdNotifiee_ = notifiee; }

 private:
  class ReadWriteTaskBase;
  class ReadTask;
  class WriteTask;
  class Executing;

  void checkCreateWriteTask();
  void _dropQueued();
  bool _mayNotRun(TaskImpl const& task) const;
  void _taskExecuteReadable();
  void _taskExecuteWritable();
  TaskImpl& _executingTask() const;
  WriteTask& _writeTask() const;

  bool watchReadable_ = false;
  bool watchWritable_ = false;
  std::shared_ptr<ReadTask> readTask_;
  std::shared_ptr<WriteTask> writeTask_;
  TaskImpl* executingTask_ = nullptr;
  Platform::FdEventHandler* fdNotifiee_ = nullptr;
  bool readableMuted_ = false;  // taken off the loop while the read task may not run
  bool writableMuted_ = false;
};

}  // namespace Veltro
