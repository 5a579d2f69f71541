#pragma once
#include "Kiv/ActivityManager.h"
#include "Veltro/Platform.h"

namespace KivVeltro {

/// A timer on the type system's clock.
class ClockTimer : public Veltro::Platform::TimerControl {
 public:
  class Notifiee;

  ClockTimer(Veltro::Platform::TimeoutHandler* handler, Kiv::Ptr<Kiv::Clock> clock);
  ~ClockTimer() override;

  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;
  /// The handler's say over what its timeout() threw.
  virtual bool onNotificationException();

 protected:
  bool armed() const;

 private:
  Veltro::Platform::TimeoutHandler* const handler_;
  Kiv::Ptr<Kiv::Clock> const clock_;
  Kiv::Ptr<Notifiee> const notifiee_;
};

/// The timer's place in the clock. May outlive its owner inside one pass of the loop.
class ClockTimer::Notifiee final : public Kiv::Clock::Notifiee {
 public:
  Notifiee(ClockTimer& owner, Kiv::Ptr<Kiv::Clock> clock);
  void orphan();
  void onTime() override;
  void onNotificationException() override;

 private:
  ClockTimer* owner_;  // null once it has gone
};

}  // namespace KivVeltro
