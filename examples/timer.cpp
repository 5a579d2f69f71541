// A timer fires once for each setTimeout(); a period is a timer that arms itself again.
//
// Prints:
//   tick 1
//   tick 2
//   tick 3
//   disarmed: inf seconds left
#include <cstdio>
#include <memory>

#include "Veltro/Platform.h"

namespace {

class Ticker final : private Veltro::Platform::TimeoutHandler {
 public:
  Ticker() : timer_(Veltro::Platform::getTimerControl(this)) { timer_->setTimeout(kPeriodSeconds); }
  double secondsLeft() const { return timer_->remainingTimeout(); }

 private:
  static constexpr double kPeriodSeconds = 0.01;

  void timeout() override {
    std::printf("tick %d\n", ++ticks_);
    timer_->setTimeout(kPeriodSeconds);
    if (ticks_ == 3) timer_->delTimeout();
  }

  int ticks_ = 0;
  // The last member, so the first to go: nothing fires into a half destroyed object.
  std::shared_ptr<Veltro::Platform::TimerControl> const timer_;
};

}  // namespace

int main() {
  Ticker const ticker;
  int const status = Veltro::Platform::doEventLoop();  // until nothing is armed any more
  std::printf("disarmed: %g seconds left\n", ticker.secondsLeft());
  return status;
}
