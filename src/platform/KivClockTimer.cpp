#include "platform/KivClockTimer.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "Kiv/System.h"
#include "platform/OwnDebugHandler.h"

namespace KivVeltro {
namespace {

constexpr char const* kSourceFile = "Veltro/PlatformCpp";
constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// Asked of the bits: on 32 bits a caller stores the argument in halves, and reading it whole at
/// once has to wait for both. Says yes to a not-a-number, which is due in the next pass either way.
bool isPositive(double seconds) {
  std::int64_t bits = 0;
  static_assert(sizeof bits == sizeof seconds);
  std::memcpy(&bits, &seconds, sizeof bits);
  return bits > 0;
}

}  // namespace

ClockTimer::ClockTimer(Veltro::Platform::TimeoutHandler* handler, Kiv::Ptr<Kiv::Clock> clock)
    : handler_(handler), clock_(clock), notifiee_(new Notifiee(*this, clock)) {}

ClockTimer::~ClockTimer() {
  notifiee_->orphan();
  ClockTimer::delTimeout();
}

void ClockTimer::setTimeout(double seconds) {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::ClockTimer::setTimeout()");
  if (isPositive(seconds)) {
    notifiee_->timeMinIs(Kiv::System::currentTime() + seconds);
  } else {
    notifiee_->timeMinIsNow();  // negative and not-a-number too; costs no clock read
  }
}

void ClockTimer::delTimeout() {
  VELTRO_TRACE(Veltro::ownDebugHandler(), 5, "KivVeltro::ClockTimer::delTimeout()");
  notifiee_->timeMinDel();
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
  timeMinDel();                       // so that the handler finds its timer idle
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
