#pragma once
#include "platform/KivClockTimer.h"

namespace KivVeltro {

/// A deferred call on the type system's clock: a timer of zero delay whose handler is this
/// object. TimeoutHandler stands before ClockTimer, which is given it during construction.
class Callback final : public Veltro::Platform::CallbackControl,
                       private Veltro::Platform::TimeoutHandler,
                       private ClockTimer {
 public:
  Callback(Veltro::Platform::CallbackHandler* handler, Kiv::Ptr<Kiv::Clock> clock);

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;

 private:
  void timeout() override;
  bool onNotificationException() override;

  Veltro::Platform::CallbackHandler* const handler_;
};

}  // namespace KivVeltro
