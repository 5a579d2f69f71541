#pragma once
#include "Veltro/TaskSchedulerCpp.h"

namespace bench {

/// A scheduler for plain tasks only: no timers, no descriptors.
class PlainTaskRoot : public Veltro::TaskSchedulerRoot {
 public:
  PlainTaskRoot() : TaskSchedulerRoot("bench", std::chrono::nanoseconds(0)) {}
  bool timerStart(Veltro::TimerTask&, double, bool) override { return false; }
  bool timerStart(Veltro::TimerTask&, Nanoseconds, bool) override { return false; }
  void timerStop(Veltro::TimerTask&) override {}
  double timerRemaining(Veltro::TimerTask const&) const override { return 0; }
  TimePoint timerExpiry(Veltro::TimerTask const&) const override { return TimePoint::max(); }
  void fileDescriptorTaskWatchReadableIs(Veltro::FileDescriptorTask&, bool) override {}
  void fileDescriptorTaskWatchWritableIs(Veltro::FileDescriptorTask&, bool) override {}
  int fileDescriptorTaskFd(Veltro::FileDescriptorTask const&) const override { return -1; }
  void fileDescriptorTaskFdIs(Veltro::FileDescriptorTask&, int) override {}
  void fileDescriptorTaskFdDel(Veltro::FileDescriptorTask&) override {}
  void preFdCloseCleanup(Veltro::FileDescriptorTask&) override {}
};

/// The same scheduler on a loop's "run me again as soon as possible".
template <class Loop>
class RootOn final : public PlainTaskRoot, public Loop::template Again<RootOn<Loop>> {
 public:
  explicit RootOn(Loop& loop) : Loop::template Again<RootOn<Loop>>(loop) {}
  void requestSchedulerRun() override { this->again(); }
  void called() { handleSchedulerRun(); }
};

/// No loop at all: what the scheduler itself costs.
class LooplessRoot final : public PlainTaskRoot {
 public:
  void requestSchedulerRun() override { requested_ = true; }
  void run() {
    for (stopped_ = false; requested_ && !stopped_;) {
      requested_ = false;
      handleSchedulerRun();
    }
  }
  void stop() { stopped_ = true; }

 private:
  bool requested_ = false;
  bool stopped_ = false;
};

}  // namespace bench
