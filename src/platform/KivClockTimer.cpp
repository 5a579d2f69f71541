#include "platform/KivClockTimer.h"

#include <cmath>
#include <limits>

#include "Kiv/System.h"
#include "platform/OwnDebugHandler.h"

namespace KivVeltro {
namespace {

constexpr char const* kSourceFile = "Veltro/PlatformCpp";
constexpr double kInfinity = std::numeric_limits<double>::infinity();

}  // namespace

ClockTimer::ClockTimer(Veltro::Platform::TimeoutHandler* handler, Kiv::Ptr<Kiv::Clock> clock)
    : handler_(handler), clock_(clock), notifiee_(new Notifiee(*this, clock)) {}

ClockTimer::~ClockTimer() {
  notifiee_->orphan();
  ClockTimer::delTimeout();
}

void ClockTimer::setTimeout(double seconds) {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::ClockTimer::setTimeout()");
  if (seconds > 0) {
    notifiee_->timeMinIs(Kiv::System::currentTime() + seconds);
  } else {
    notifiee_->timeMinIsNow();  // negative and not-a-number too; costs no clock read
  }
}

void ClockTimer::delTimeout() {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::ClockTimer::delTimeout()");
  notifiee_->timeMinIs(kInfinity);
}

double ClockTimer::remainingTimeout() const {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::ClockTimer::remainingTimeout()");
  if (!armed()) return kInfinity;
  double const deadline = notifiee_->timeMin();
  double const now = Kiv::System::currentTime();
  return now > deadline ? 0 : deadline - now;
}

bool ClockTimer::armed() const {
  return notifiee_->timeMin() <= std::numeric_limits<double>::max();
}

bool ClockTimer::onNotificationException() { return handler_->handleTimeoutException(); }

ClockTimer::Notifiee::Notifiee(ClockTimer& owner, Kiv::Ptr<Kiv::Clock> clock)
    : Kiv::Clock::Notifiee(std::move(clock)), owner_(&owner) {}

void ClockTimer::Notifiee::orphan() {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::ClockTimer::Notifiee::orphan()");
  owner_ = nullptr;
}

void ClockTimer::Notifiee::onTime() {
  if (owner_ == nullptr) {
    VELTRO_TRACE(Veltro::ownDebugHandler(), 5,
                 "KivVeltro::ClockTimer::Notifiee::onTime() ignoring orphan");
    return;
  }
  if (std::isinf(timeMin())) return;  // disarmed since the pass began
  timeMinIs(kInfinity);               // so that the handler finds its timer idle
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::ClockTimer::onTime()");
  owner_->handler_->timeout();
}

void ClockTimer::Notifiee::onNotificationException() {
  bool const answered = owner_ != nullptr && owner_->onNotificationException();
  if (!answered) Kiv::PtrInterface::NotifieeConst::onNotificationException();
  VELTRO_TRACE(
      Veltro::ownDebugHandler(), 9,
      "ClockTimer::Notifiee::onNotificationException: Timeout notification exception was handled");
}

}  // namespace KivVeltro
