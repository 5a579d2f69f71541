#include "Veltro/TaskControls.h"

#include <utility>

#include "SchedDebug.h"
#include "Veltro/TaskSchedulerRoot.h"
#include "diag/Catching.h"

namespace Veltro {
namespace {

/// A control's run, on the stack around its handler's event. Each holds one reference to it.
class Run final {
 public:
  explicit Run(_TaskBase const& control) : control_(control), outer_(innermost) {
    innermost = this;
  }
  Run(Run const&) = delete;
  Run& operator=(Run const&) = delete;
  ~Run() { innermost = outer_; }
  /// Whether the runs alone, this one and those that it is nested in, keep the control.
  bool released() const {
    long runs = 0;
    for (Run const* run = this; run != nullptr; run = run->outer_) {
      if (&run->control_ == &control_) ++runs;
    }
    return control_.weak_from_this().use_count() <= runs;
  }

 private:
  static thread_local Run const* innermost;
  _TaskBase const& control_;
  Run const* const outer_;
};
thread_local Run const* Run::innermost = nullptr;

/// Calls `event`, the handler's event in a run of `control`; what it throws goes on unless the
/// handler answers for it. One that has let go of its control may be gone itself: nobody to ask.
template <typename Event, typename Answer>
void call(_TaskBase const& control, char const* kind, Event&& event, Answer&& answer) {
  Run const run(control);
  bool const handled = catching(event, [&] {
    if (run.released() || !answer()) throw;
  });
  if (handled) {
    VELTRO_TRACE(schedDebug(), 9, control << " " << kind << " notification exception was handled");
  }
}

}  // namespace

Platform::TaskTimerControl::TaskTimerControl(TimeoutHandler* handler,
                                             std::shared_ptr<TaskScheduler> scheduler,
                                             TaskPriority priority, std::string const& name)
    : TimerTask(std::move(scheduler), priority, name), handler_(handler) {}

Platform::TaskTimerControl::~TaskTimerControl() = default;

void Platform::TaskTimerControl::setTimeout(double seconds) { scheduleTaskDelay(seconds); }
void Platform::TaskTimerControl::delTimeout() { stopTimerTask(); }
double Platform::TaskTimerControl::remainingTimeout() const { return timerRemaining(); }

void Platform::TaskTimerControl::taskExecute() {
  call(
      *this, "Timeout", [this] { handler_->timeout(); },
      [this] { return handler_->handleTimeoutException(); });
}

Platform::TaskCallbackControl::TaskCallbackControl(CallbackHandler* handler,
                                                   std::shared_ptr<TaskScheduler> scheduler,
                                                   TaskPriority priority, std::string const& name)
    : Task(std::move(scheduler), priority, name), handler_(handler) {}

Platform::TaskCallbackControl::~TaskCallbackControl() = default;

void Platform::TaskCallbackControl::requestCallback() { scheduleTask(); }
void Platform::TaskCallbackControl::cancelCallback() { unscheduleTask(); }
bool Platform::TaskCallbackControl::pendingCallback() const { return taskScheduled(); }

void Platform::TaskCallbackControl::taskExecute() {
  call(
      *this, "Callback", [this] { handler_->callback(); },
      [this] { return handler_->handleCallbackException(); });
}

Platform::TaskFdControl::TaskFdControl(FdEventHandler* handler,
                                       std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, std::string const& name)
    : FileDescriptorTask(std::move(scheduler), priority, name), handler_(handler) {}

Platform::TaskFdControl::~TaskFdControl() = default;

// An interest that is on already may have been dropped from the loop by clearEvents(): the task
// would see nothing to do, so the loop is told.
void Platform::TaskFdControl::setReads(bool on) {
  if (on && taskWatchReadable()) {
    taskScheduler()->schedulerRoot().fileDescriptorTaskWatchReadableIs(*this, true);
  } else {
    taskWatchReadableIs(on);
  }
}
void Platform::TaskFdControl::setWrites(bool on) {
  if (on && taskWatchWritable()) {
    taskScheduler()->schedulerRoot().fileDescriptorTaskWatchWritableIs(*this, true);
  } else {
    taskWatchWritableIs(on);
  }
}

void Platform::TaskFdControl::setFd(int fd) { taskWatchFdIs(fd); }
void Platform::TaskFdControl::delFd() { taskWatchFdDel(); }
int Platform::TaskFdControl::getFd() const { return taskWatchFd(); }
void Platform::TaskFdControl::clearEvents() { preFdCloseCleanup(); }

// The descriptor is read before the event, which may take it off.
void Platform::TaskFdControl::taskExecuteReadable() {
  int const fd = getFd();
  call(
      *this, "Fd", [=] { handler_->readFdEvent(fd); },
      [=] { return handler_->handleFdException(fd); });
}

void Platform::TaskFdControl::taskExecuteWritable() {
  int const fd = getFd();
  call(
      *this, "Fd", [=] { handler_->writeFdEvent(fd); },
      [=] { return handler_->handleFdException(fd); });
}

std::shared_ptr<Platform::TimerControl> Platform::getTimerControl(
    TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
    std::string const& name) {
  return std::make_shared<TaskTimerControl>(handler, std::move(scheduler), priority, name);
}

std::shared_ptr<Platform::FdControl> Platform::getFdControl(
    FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
    std::string const& name) {
  return std::make_shared<TaskFdControl>(handler, std::move(scheduler), priority, name);
}

std::shared_ptr<Platform::CallbackControl> Platform::getCallbackControl(
    CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
    std::string const& name) {
  return std::make_shared<TaskCallbackControl>(handler, std::move(scheduler), priority, name);
}

}  // namespace Veltro
