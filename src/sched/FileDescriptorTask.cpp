#include "Veltro/FileDescriptorTask.h"

#include <utility>

#include "SchedDebug.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

/// A sub-task: a run of it is a run of one side of its owner.
class FileDescriptorTask::ReadWriteTaskBase : public Task {
 public:
  ReadWriteTaskBase(FileDescriptorTask& owner, char const* suffix)
      : Task(owner.taskScheduler(), owner.taskPriority(), _name(owner, suffix)), owner_(&owner) {}

  /// The owner goes. A handler that lets go of its owner gets here inside its own run.
  void ownerDel() { owner_ = nullptr; }

  void handleTaskBusy() override {
    if (owner_) owner_->taskBusyIs(owner_->taskScheduled(), taskBusyChangedAt());
  }

 protected:
  FileDescriptorTask* owner_;

 private:
  // Without a scheduler there are no names yet, and Task refuses.
  static std::string _name(FileDescriptorTask const& owner, char const* suffix) {
    return owner.taskScheduler() ? owner.taskName() + suffix : suffix;
  }
};

class FileDescriptorTask::ReadTask final : public ReadWriteTaskBase {
 public:
  explicit ReadTask(FileDescriptorTask& owner) : ReadWriteTaskBase(owner, ":read") {}

 private:
  void taskExecute() override {
    if (owner_) owner_->_taskExecuteReadable();
  }
};

class FileDescriptorTask::WriteTask final : public ReadWriteTaskBase {
 public:
  explicit WriteTask(FileDescriptorTask& owner) : ReadWriteTaskBase(owner, ":write") {}

 private:
  void taskExecute() override {
    if (owner_) owner_->_taskExecuteWritable();
  }
};

/// Marks a sub-task as the one inside the handler, for the life of the object.
class FileDescriptorTask::Executing final {
 public:
  Executing(FileDescriptorTask& owner, TaskImpl& task) : owner_(owner) {
    VELTRO_ASSERT(schedDebug(), !owner.executingTask_, "Executing task already set");
    owner.executingTask_ = &task;
  }
  Executing(Executing const&) = delete;
  Executing& operator=(Executing const&) = delete;
  ~Executing() { owner_.executingTask_ = nullptr; }

 private:
  FileDescriptorTask& owner_;
};

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, std::string const& name)
    : _TaskBase(std::move(scheduler), priority, name),
      readTask_(std::make_shared<ReadTask>(*this)) {
  // Last: if it throws there is a read task to unwind, and nothing else.
  taskScheduler()->schedulerRoot().fileDescriptorTaskCreated(*this);
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority,
                                       std::string const& name)
    : FileDescriptorTask(_shared(scheduler), priority, name) {}

FileDescriptorTask::~FileDescriptorTask() {
  sanityCheckCurrentRunningThread();  // before the loop of another thread is touched
  taskScheduler()->schedulerRoot().fileDescriptorTaskDestroyed(*this);
  readTask_->ownerDel();
  if (writeTask_) writeTask_->ownerDel();
}

bool FileDescriptorTask::taskScheduled() const {
  return taskScheduledReadable() || taskScheduledWritable();
}
bool FileDescriptorTask::taskScheduledReadable() const { return readTask_->taskScheduled(); }
bool FileDescriptorTask::taskScheduledWritable() const {
  return writeTask_ && writeTask_->taskScheduled();
}

TaskImpl& FileDescriptorTask::_executingTask() const {
  VELTRO_ASSERT(schedDebug(), executingTask_, "Executing task not set");
  return *executingTask_;
}
bool FileDescriptorTask::taskShouldYield() const { return _executingTask().taskShouldYield(); }
void FileDescriptorTask::taskWorkCountInc(U64 n) { _executingTask().taskWorkCountInc(n); }
void FileDescriptorTask::taskWorkPendingIs(U32 n) { _executingTask().taskWorkPendingIs(n); }

int FileDescriptorTask::taskWatchFd() const {
  return taskScheduler()->schedulerRoot().fileDescriptorTaskFd(*this);
}
void FileDescriptorTask::taskWatchFdIs(int fd) {
  sanityCheckCurrentRunningThread();
  readableMuted_ = writableMuted_ = false;
  taskScheduler()->schedulerRoot().fileDescriptorTaskFdIs(*this, fd);
}
void FileDescriptorTask::taskWatchFdDel() {
  sanityCheckCurrentRunningThread();
  taskScheduler()->schedulerRoot().fileDescriptorTaskFdDel(*this);
  _dropQueued();
}
void FileDescriptorTask::preFdCloseCleanup() {
  sanityCheckCurrentRunningThread();
  taskScheduler()->schedulerRoot().preFdCloseCleanup(*this);
  _dropQueued();
}

// Readiness told before is of a descriptor that is no longer watched.
void FileDescriptorTask::_dropQueued() {
  readableMuted_ = writableMuted_ = false;
  if (taskScheduledReadable()) readTask_->unscheduleTask();
  if (taskScheduledWritable()) writeTask_->unscheduleTask();
}

namespace {

// Refused by the loop it is as it was: else switching it on once more would do nothing.
template <class TellLoop>
void switchTo(bool& watch, bool on, TellLoop const& tellLoop) {
  watch = on;
  try {
    tellLoop();
  } catch (...) {
    watch = !on;
    throw;
  }
}

}  // namespace

void FileDescriptorTask::taskWatchReadableIs(bool on) {
  sanityCheckCurrentRunningThread();
  if (on == watchReadable_) return;
  readableMuted_ = false;
  switchTo(watchReadable_, on,
           [&] { taskScheduler()->schedulerRoot().fileDescriptorTaskWatchReadableIs(*this, on); });
  if (!on) readTask_->unscheduleTask();
}

void FileDescriptorTask::taskWatchWritableIs(bool on) {
  sanityCheckCurrentRunningThread();
  if (on == watchWritable_) return;
  checkCreateWriteTask();
  writableMuted_ = false;
  switchTo(watchWritable_, on,
           [&] { taskScheduler()->schedulerRoot().fileDescriptorTaskWatchWritableIs(*this, on); });
  if (!on) writeTask_->unscheduleTask();
}

void FileDescriptorTask::checkCreateWriteTask() {
  if (writeTask_) return;
  auto task = std::make_shared<WriteTask>(*this);
  if (!readTask_->taskForceYieldInTest()) task->taskQuantumIs(readTask_->taskQuantum());
  task->taskSuspendedForTestIs(readTask_->taskSuspendedForTest());
  task->taskForceYieldInTestIs(readTask_->taskForceYieldInTest());
  writeTask_ = std::move(task);
}

void FileDescriptorTask::handleReadable() {
  VELTRO_ASSERT(schedDebug(), watchReadable_, "handleReadable() called with taskWatchReadable off");
  if (_mayNotRun(*readTask_)) {
    readableMuted_ = true;
    taskScheduler()->schedulerRoot().fileDescriptorTaskWatchReadableIs(*this, false);
  }
  scheduleTaskReadable();  // last: handleTaskBusy() may let go of this task
}
void FileDescriptorTask::handleWritable() {
  VELTRO_ASSERT(schedDebug(), watchWritable_, "handleWritable() called with taskWatchWritable off");
  if (_mayNotRun(*writeTask_)) {
    writableMuted_ = true;
    taskScheduler()->schedulerRoot().fileDescriptorTaskWatchWritableIs(*this, false);
  }
  scheduleTaskWritable();
}

// Told of readiness, over and over, while nothing can be done about it, the loop would never sleep:
// it is asked to look away until the sub-task runs, which it does once after being resumed.
bool FileDescriptorTask::_mayNotRun(TaskImpl const& task) const {
  return task.taskSuspendedForTest() || taskScheduler()->schedulerRoot().suspended();
}
void FileDescriptorTask::scheduleTaskReadable() { readTask_->scheduleTask(); }
void FileDescriptorTask::scheduleTaskWritable() { _writeTask().scheduleTask(); }

void FileDescriptorTask::_taskExecuteReadable() {
  std::shared_ptr<_TaskBase> const self = shared_from_this();  // the handler may let go of us
  VELTRO_ASSERT(schedDebug(), watchReadable_, "ReadTask should only run if taskWatchReadable");
  if (std::exchange(readableMuted_, false)) {
    taskScheduler()->schedulerRoot().fileDescriptorTaskWatchReadableIs(*this, true);
  }
  Executing const executing(*this, *readTask_);
  taskExecuteReadable();
}

void FileDescriptorTask::_taskExecuteWritable() {
  std::shared_ptr<_TaskBase> const self = shared_from_this();
  if (std::exchange(writableMuted_, false)) {
    taskScheduler()->schedulerRoot().fileDescriptorTaskWatchWritableIs(*this, true);
  }
  Executing const executing(*this, *writeTask_);
  taskExecuteWritable();
}

FileDescriptorTask::WriteTask& FileDescriptorTask::_writeTask() const {
  VELTRO_ASSERT(schedDebug(), writeTask_, "WriteTask not created by taskWatchWritableIs( true )");
  return *writeTask_;
}

void FileDescriptorTask::taskWorkCountReadableInc(U64 n) { readTask_->taskWorkCountInc(n); }
void FileDescriptorTask::taskWorkCountWritableInc(U64 n) { _writeTask().taskWorkCountInc(n); }

U64 FileDescriptorTask::taskWorkCountReadableTotal() const {
  return readTask_->taskWorkCountTotal();
}
float FileDescriptorTask::taskWorkCountReadableDecayAvg() const {
  return readTask_->taskWorkCountDecayAvg();
}
U32 FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
  return readTask_->taskWorkCountHighWaterMark();
}
U64 FileDescriptorTask::taskWorkCountWritableTotal() const {
  return _writeTask().taskWorkCountTotal();
}
float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
  return _writeTask().taskWorkCountDecayAvg();
}
U32 FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
  return _writeTask().taskWorkCountHighWaterMark();
}

FileDescriptorTask::Nanoseconds FileDescriptorTask::taskQuantum() const {
  return readTask_->taskQuantum();
}
void FileDescriptorTask::taskQuantumIs(Nanoseconds quantum) {
  readTask_->taskQuantumIs(quantum);
  if (writeTask_) writeTask_->taskQuantumIs(quantum);
}
bool FileDescriptorTask::taskSuspendedForTest() const { return readTask_->taskSuspendedForTest(); }
void FileDescriptorTask::taskSuspendedForTestIs(bool suspended) {
  std::shared_ptr<_TaskBase> const self = weak_from_this().lock();  // handleTaskBusy() may let go
  bool const resumed = taskSuspendedForTest() && !suspended;
  readTask_->taskSuspendedForTestIs(suspended);
  if (writeTask_) writeTask_->taskSuspendedForTestIs(suspended);
  if (!resumed) return;
  // A task resumed gets a run in any case; but a side that is off has nothing to catch up with.
  if (!watchReadable_) readTask_->unscheduleTask();
  if (writeTask_ && !watchWritable_) writeTask_->unscheduleTask();
}
bool FileDescriptorTask::taskForceYieldInTest() const { return readTask_->taskForceYieldInTest(); }
void FileDescriptorTask::taskForceYieldInTestIs(bool force) {
  readTask_->taskForceYieldInTestIs(force);
  if (writeTask_) writeTask_->taskForceYieldInTestIs(force);
}

}  // namespace Veltro
