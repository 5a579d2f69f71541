#include "Kiv/ActivityManager.h"

#include "Loop.h"

namespace Kiv {

Clock::~Clock() = default;
double Clock::latestTime() const { return loop_.latest(); }

Clock::Notifiee::Notifiee(Ptr<Clock> clock) : clock_(std::move(clock)) {
  if (!clock_) throwNullValidPtr();
  clock_->loop_.timers().join(*this);
}

Clock::Notifiee::~Notifiee() {
  clock_->loop_.timers().leave(*this);
  clock_->loop_.reaction().forget(*this);
}

void Clock::Notifiee::onZeroReferences() {
  Loop& loop = clock_->loop_;
  if (loop.timers().inBatch(*this)) {
    released_ = true;
  } else if (!loop.reaction().takesOver(*this)) {
    NotifieeConst::onZeroReferences();
  }
}

void Clock::Notifiee::timeMinIs(double seconds) {
  Loop& loop = clock_->loop_;
  loop.timers().arm(*this, seconds, loop.latest());
}

void Clock::Notifiee::timeMinIsNow() {
  Loop& loop = clock_->loop_;
  loop.timers().armNow(*this, loop.latest());
}

void Clock::Notifiee::_timeMinDel() { clock_->loop_.timers().disarm(*this); }

ActivityManager& ActivityManager::instance() {
  static ActivityManager* const manager = new ActivityManager;
  return *manager;
}

ActivityManager::ActivityManager()
    : config_(Loop::instance()), clock_(new Clock(Loop::instance())) {}

Ptr<Clock> ActivityManager::Config::clock() const { return ActivityManager::instance().clock_; }
void ActivityManager::Config::executionTimeIs(double seconds) { loop_.executionTimeIs(seconds); }
double ActivityManager::Config::executionTime() const { return loop_.executionTime(); }
void ActivityManager::Config::virtualTimeIs(bool on) { loop_.virtualTimeIs(on); }
bool ActivityManager::Config::virtualTime() const { return loop_.virtualTime(); }
void ActivityManager::Config::passObserverIs(PassObserver* observer) {
  loop_.passObserverIs(observer);
}
PassObserver* ActivityManager::Config::passObserver() const { return loop_.passObserver(); }

}  // namespace Kiv
