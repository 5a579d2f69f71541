#pragma once
#include <memory>
#include <string>

#include "Veltro/FileDescriptorTask.h"
#include "Veltro/Platform.h"
#include "Veltro/Task.h"
#include "Veltro/TimerTask.h"

// The platform's controls as tasks: code written against handlers and controls runs under a
// scheduler's priorities, quanta and statistics by asking for its control with a scheduler.
// Platform's factories make them; what is said of controls in Veltro/Platform.h holds, but:
//  - an event queues the task; the handler is called when the scheduler picks it;
//  - the client's shared pointer owns task and control in one; released inside the handler, the
//    task lives to the end of that run and is not run again;
//  - the control keeps its scheduler alive and belongs to the scheduler's thread.
// Made directly they need std::make_shared: a task is run through its own shared pointer.
// A null scheduler throws AssertException ("Need a TaskScheduler").

namespace Veltro {

/// A timer whose expiry queues a task that calls timeout().
class VELTRO_API Platform::TaskTimerControl final : public TimerTask,
                                                    public Platform::TimerControl {
 public:
  /// Borrows the handler, keeps the scheduler.
  TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                   TaskPriority priority, std::string const& name);
  ~TaskTimerControl() override;

  /// scheduleTaskDelay(): 0 queues at once.
  void setTimeout(double seconds) override;
  /// stopTimerTask(): also cancels a call that is due.
  void delTimeout() override;
  /// timerRemaining(): positive infinity as soon as the timer has expired, also while the call is
  /// still waiting for its turn.
  double remainingTimeout() const override;

 private:
  void taskExecute() override;

  TimeoutHandler* const handler_;
};

/// A request is a scheduled task that calls callback().
class VELTRO_API Platform::TaskCallbackControl final : public Task,
                                                       public Platform::CallbackControl {
 public:
  /// Borrows the handler, keeps the scheduler.
  TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                      TaskPriority priority, std::string const& name);
  ~TaskCallbackControl() override;

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;

 private:
  void taskExecute() override;

  CallbackHandler* const handler_;
};

/// A descriptor whose readiness queues tasks that call readFdEvent() and writeFdEvent(). Both
/// interests are off at first.
class VELTRO_API Platform::TaskFdControl final : public FileDescriptorTask,
                                                 public Platform::FdControl {
 public:
  /// Borrows the handler, keeps the scheduler.
  TaskFdControl(FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                TaskPriority priority, std::string const& name);
  ~TaskFdControl() override;

  /// Switching off also drops a call that is due.
  void setReads(bool on) override;
  void setWrites(bool on) override;
  /// Takes up the interests as they were last set, also after clearEvents() and delFd().
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  /// preFdCloseCleanup(): no event comes until setReads, setWrites or setFd arms again.
  void clearEvents() override;

 private:
  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

  FdEventHandler* const handler_;
};

}  // namespace Veltro
