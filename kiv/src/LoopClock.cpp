#include "LoopClock.h"

#include "Kiv/SteadyClock.h"

namespace Kiv {

double LoopClock::read() {
  SteadyClock::Reading const time = SteadyClock::read();
  double const reading = time.seconds + time.nanoseconds * 1e-9 + offset_;
  // Not only for safety: after a jump the sum may fall short of the target by a rounding.
  if (reading > latest_) latest_ = reading;
  return latest_;
}

void LoopClock::jump(double seconds) {
  offset_ += seconds - latest_;
  latest_ = seconds;
}

}  // namespace Kiv
