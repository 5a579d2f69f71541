#pragma once
#include <memory>
#include <string>

#include "Veltro/Platform.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

/// A root on the calling thread's event loop: a zero-delay timer for its own runs, a timer for
/// each timer task, a descriptor watch for each descriptor task.
class TaskSchedulerRootVeltro final : public TaskSchedulerRoot, public Platform::TimeoutHandler {
 public:
  explicit TaskSchedulerRootVeltro(std::string const& name);

  void requestSchedulerRun() override;
  void timerCreated(TimerTask& task) override;
  void timerDestroyed(TimerTask& task) override;
  void fileDescriptorTaskCreated(FileDescriptorTask& task) override;
  void fileDescriptorTaskDestroyed(FileDescriptorTask& task) override;
  bool timerStart(TimerTask& task, double seconds, bool restart) override;
  bool timerStart(TimerTask& task, Nanoseconds delay, bool restart) override;
  void timerStop(TimerTask& task) override;
  double timerRemaining(TimerTask const& task) const override;
  TimePoint timerExpiry(TimerTask const& task) const override;
  void fileDescriptorTaskWatchReadableIs(FileDescriptorTask& task, bool on) override;
  void fileDescriptorTaskWatchWritableIs(FileDescriptorTask& task, bool on) override;
  int fileDescriptorTaskFd(FileDescriptorTask const& task) const override;
  void fileDescriptorTaskFdIs(FileDescriptorTask& task, int fd) override;
  void fileDescriptorTaskFdDel(FileDescriptorTask& task) override;
  void preFdCloseCleanup(FileDescriptorTask& task) override;

 private:
  class TimerNotifiee;
  class FdNotifiee;

  void timeout() override;
  void _markedTurn();
  static TimerNotifiee& _notifiee(TimerTask const& task);
  static FdNotifiee& _notifiee(FileDescriptorTask const& task);

  std::shared_ptr<Platform::TimerControl> const runTimer_;
};

}  // namespace Veltro
