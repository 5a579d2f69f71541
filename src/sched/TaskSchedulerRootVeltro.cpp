#include "TaskSchedulerRootVeltro.h"

#include <limits>
#include <sstream>
#include <thread>

#include "RootCompanion.h"
#include "SchedDebug.h"
#include "Veltro/FileDescriptorTask.h"
#include "Veltro/TimerTask.h"

namespace Veltro {

/// The timer of one timer task. Belongs to the task, as far as the root's hooks go.
class TaskSchedulerRootVeltro::TimerNotifiee final : public Platform::TimeoutHandler {
 public:
  explicit TimerNotifiee(TimerTask& task) : control_(Platform::getTimerControl(this)), task_(task) {
    control_->delTimeout();
  }
  Platform::TimerControl& control() const { return *control_; }

 private:
  void timeout() override {
    task_.timerRunningIs(false);
    task_.scheduleTask();  // last: the task may go, and this with it
  }

  std::shared_ptr<Platform::TimerControl> const control_;
  TimerTask& task_;
};

/// The descriptor watch of one descriptor task.
class TaskSchedulerRootVeltro::FdNotifiee final : public Platform::FdEventHandler {
 public:
  explicit FdNotifiee(FileDescriptorTask& task)
      : control_(Platform::getFdControl(this)), task_(task) {
    // Some loops watch for reads unasked; a descriptor task watches for nothing at first.
    control_->setReads(false);
  }
  Platform::FdControl& control() const { return *control_; }

 private:
  void readFdEvent(int fd) override {
    VELTRO_ASSERT(schedDebug(), fd == control_->getFd(), fd << " == " << control_->getFd());
    task_.handleReadable();
  }
  void writeFdEvent(int fd) override {
    VELTRO_ASSERT(schedDebug(), fd == control_->getFd(), fd << " == " << control_->getFd());
    task_.handleWritable();
  }

  std::shared_ptr<Platform::FdControl> const control_;
  FileDescriptorTask& task_;
};

TaskSchedulerRootVeltro::TaskSchedulerRootVeltro(std::string const& name)
    : TaskSchedulerRoot(name, Nanoseconds::zero()), runTimer_(Platform::getTimerControl(this)) {}

void TaskSchedulerRootVeltro::requestSchedulerRun() { runTimer_->setTimeout(0.0); }

// The run may destroy this root: nothing comes after it.
void TaskSchedulerRootVeltro::timeout() {
  if (turnMark() != nullptr) return _markedTurn();
  handleSchedulerRun();
}

// The turn may destroy this root, and end by an exception.
void TaskSchedulerRootVeltro::_markedTurn() {
  struct Turn {
    explicit Turn(std::shared_ptr<std::atomic<U32>> turnMark) : mark(std::move(turnMark)) {
      mark->fetch_add(1, std::memory_order_relaxed);
    }
    ~Turn() { mark->fetch_add(1, std::memory_order_relaxed); }
    std::shared_ptr<std::atomic<U32>> const mark;
  } const turn(turnMark());
  handleSchedulerRun();
}

TaskSchedulerRootVeltro::TimerNotifiee& TaskSchedulerRootVeltro::_notifiee(TimerTask const& task) {
  return static_cast<TimerNotifiee&>(*task.timerNotifiee());
}

TaskSchedulerRootVeltro::FdNotifiee& TaskSchedulerRootVeltro::_notifiee(
    FileDescriptorTask const& task) {
  return static_cast<FdNotifiee&>(*task.fdNotifiee());
}

void TaskSchedulerRootVeltro::timerCreated(TimerTask& task) {
  task.timerNotifieeIs(new TimerNotifiee(task));
}

void TaskSchedulerRootVeltro::timerDestroyed(TimerTask& task) {
  delete task.timerNotifiee();
  task.timerNotifieeIs(nullptr);
}

bool TaskSchedulerRootVeltro::timerStart(TimerTask& task, double seconds, bool restart) {
  Platform::TimerControl& control = _notifiee(task).control();
  if (!restart && !(seconds < control.remainingTimeout())) return false;
  control.setTimeout(seconds);
  return true;
}

bool TaskSchedulerRootVeltro::timerStart(TimerTask& task, Nanoseconds delay, bool restart) {
  return timerStart(task, static_cast<double>(delay.count()) / 1e9, restart);
}

void TaskSchedulerRootVeltro::timerStop(TimerTask& task) { _notifiee(task).control().delTimeout(); }

double TaskSchedulerRootVeltro::timerRemaining(TimerTask const& task) const {
  double const seconds = _notifiee(task).control().remainingTimeout();
  return seconds > std::numeric_limits<double>::max() ? std::numeric_limits<double>::infinity()
                                                      : seconds;
}

TaskSchedulerRoot::TimePoint TaskSchedulerRootVeltro::timerExpiry(TimerTask const& task) const {
  double const nanoseconds = timerRemaining(task) * 1e9;
  TimePoint const now = std::chrono::steady_clock::now();
  // Anything that does not fit counts as never.
  double const most = static_cast<double>((TimePoint::max() - now).count());
  if (!(nanoseconds < most)) return TimePoint::max();
  return now + Nanoseconds(static_cast<Nanoseconds::rep>(nanoseconds));
}

void TaskSchedulerRootVeltro::fileDescriptorTaskCreated(FileDescriptorTask& task) {
  task.fdNotifieeIs(new FdNotifiee(task));
}

void TaskSchedulerRootVeltro::fileDescriptorTaskDestroyed(FileDescriptorTask& task) {
  delete task.fdNotifiee();
  task.fdNotifieeIs(nullptr);
}

void TaskSchedulerRootVeltro::fileDescriptorTaskWatchReadableIs(FileDescriptorTask& task, bool on) {
  _notifiee(task).control().setReads(on);
}

void TaskSchedulerRootVeltro::fileDescriptorTaskWatchWritableIs(FileDescriptorTask& task, bool on) {
  _notifiee(task).control().setWrites(on);
}

int TaskSchedulerRootVeltro::fileDescriptorTaskFd(FileDescriptorTask const& task) const {
  return _notifiee(task).control().getFd();
}

void TaskSchedulerRootVeltro::fileDescriptorTaskFdIs(FileDescriptorTask& task, int fd) {
  Platform::FdControl& control = _notifiee(task).control();
  control.setFd(fd);
  // clearEvents() or delFd() may have dropped what the task still wants.
  if (task.taskWatchReadable()) control.setReads(true);
  if (task.taskWatchWritable()) control.setWrites(true);
}

void TaskSchedulerRootVeltro::fileDescriptorTaskFdDel(FileDescriptorTask& task) {
  _notifiee(task).control().delFd();
}

void TaskSchedulerRootVeltro::preFdCloseCleanup(FileDescriptorTask& task) {
  _notifiee(task).control().clearEvents();
}

std::unique_ptr<RootCompanion> (*makeRootCompanion)(TaskSchedulerRoot& root) = nullptr;

std::shared_ptr<TaskSchedulerRoot> schedulerRootVeltroNonShared(std::string name) {
  return std::make_shared<TaskSchedulerRootVeltro>(name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootVeltro() {
  thread_local std::shared_ptr<TaskSchedulerRoot> root;
  thread_local std::unique_ptr<RootCompanion> companion;  // goes before the root
  if (!root) {
    std::ostringstream name;
    name.imbue(std::locale::classic());
    name << "thread:" << std::this_thread::get_id();
    root = schedulerRootVeltroNonShared(name.str());
    if (makeRootCompanion != nullptr) companion = makeRootCompanion(*root);
  }
  return root;
}

}  // namespace Veltro
