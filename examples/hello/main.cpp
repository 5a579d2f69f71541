#include <cstdio>
#include <memory>

#include "Veltro/Platform.h"

// Says hello three times, a quarter of a second apart; then nothing is left and the loop ends.
class Greeter final : private Veltro::Platform::TimeoutHandler {
 public:
  Greeter() : timer_(Veltro::Platform::getTimerControl(this)) { timer_->setTimeout(0); }

 private:
  void timeout() override {
    std::printf("hello %d\n", ++greetings_);
    if (greetings_ < 3) timer_->setTimeout(0.25);
  }

  int greetings_ = 0;
  std::shared_ptr<Veltro::Platform::TimerControl> const timer_;  // last, so disarmed first
};

int main() {
  Greeter const greeter;
  return Veltro::Platform::doEventLoop();
}
