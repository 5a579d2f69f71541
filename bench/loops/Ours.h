#pragma once
#include <memory>

#include "Kiv/ActivityManager.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/System.h"
#include "Veltro/Platform.h"
#include "bench/loops/Callback.h"

namespace bench {

/// libkiv's loop, which is the main thread's. One a process: adaptors share it.
struct KivLoop {
  using Delay = double;
  static constexpr bool kCachedClock = false;
  static Delay delay(double seconds) { return seconds; }

  template <class Body>
  struct Timer : Kiv::Clock::Notifiee {
    explicit Timer(KivLoop&) : Notifiee(Kiv::ActivityManager::instance().config().clock()) {}
    ~Timer() override = default;
    void again() { timeMinIsNow(); }
    void arm(Delay seconds) { timeMinIs(Kiv::System::currentTime() + seconds); }
    void rearm(Delay seconds) { arm(seconds); }
    void onTime() final { static_cast<Body*>(this)->called(); }
  };
  template <class Body>
  using Again = Timer<Body>;
  template <class Body>
  struct Watch : Kiv::FileDescriptor::Notifiee {
    Watch(KivLoop&, int fd) : Notifiee(Kiv::allocate<Kiv::FileDescriptor>("bench")) {
      notifier().notifyOnReadableIs(true);
      notifier().descriptorIs(fd);
    }
    ~Watch() override { notifier().descriptorIs(-1); }
    void onReadableCount() final { static_cast<Body*>(this)->ready(); }
  };
  void run() { Kiv::System::doRun(); }
  void stop() { Kiv::System::doStop(); }
  void timersCatchUp() { Kiv::System::currentTime(); }
};

/// The same, armed by the reading that the caller or the loop has made already.
struct KivLoopCachedClock : KivLoop {
  template <class Body>
  struct Timer : KivLoop::Timer<Body> {
    explicit Timer(KivLoop& loop) : KivLoop::Timer<Body>(loop) {}
    void rearm(Delay seconds) { this->timeMinIs(this->clock().latestTime() + seconds); }
  };
};

/// The main thread's loop through the facade.
struct FacadeLoop {
  using Delay = double;
  static constexpr bool kCachedClock = false;
  static Delay delay(double seconds) { return seconds; }

  template <class Body>
  struct Timer : Veltro::Platform::TimeoutHandler {
    explicit Timer(FacadeLoop&) : control_(Veltro::Platform::getTimerControl(this)) {}
    void again() { control_->setTimeout(0); }
    void arm(Delay seconds) { control_->setTimeout(seconds); }
    void rearm(Delay seconds) { arm(seconds); }
    void timeout() final { static_cast<Body*>(this)->called(); }
    std::shared_ptr<Veltro::Platform::TimerControl> const control_;
  };
  template <class Body>
  using Again = Timer<Body>;
  template <class Body>
  struct Watch : Veltro::Platform::FdEventHandler {
    Watch(FacadeLoop&, int fd) : control_(Veltro::Platform::getFdControl(this)) {
      control_->setReads(true);
      control_->setFd(fd);
    }
    ~Watch() override { control_->delFd(); }
    void readFdEvent(int) final { static_cast<Body*>(this)->ready(); }
    void writeFdEvent(int) final {}
    std::shared_ptr<Veltro::Platform::FdControl> const control_;
  };
  void run() { Veltro::Platform::doEventLoop(); }
  void stop() { Kiv::System::doStop(); }
  void timersCatchUp() { Kiv::System::currentTime(); }
};

}  // namespace bench
