#include "platform/KivCallback.h"

#include <cmath>
#include <utility>

namespace KivVeltro {

Callback::Callback(Veltro::Platform::CallbackHandler* handler, Kiv::Ptr<Kiv::Clock> clock)
    : ClockTimer(this, std::move(clock)), handler_(handler) {}

// One that is pending keeps its place: asking again neither adds a call nor puts it off.
void Callback::requestCallback() {
  if (!armed()) setTimeout(0);
}

void Callback::cancelCallback() { delTimeout(); }

bool Callback::pendingCallback() const { return !std::isinf(remainingTimeout()); }

void Callback::timeout() { handler_->callback(); }

bool Callback::onNotificationException() { return handler_->handleCallbackException(); }

}  // namespace KivVeltro
