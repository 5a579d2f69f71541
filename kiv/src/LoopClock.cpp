#include "LoopClock.h"

#include <ctime>

namespace Kiv {

double LoopClock::read() {
  ::timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  double const reading =
      static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9 + offset_;
  // Not only for safety: after a jump the sum may fall short of the target by a rounding.
  if (reading > latest_) latest_ = reading;
  return latest_;
}

void LoopClock::jump(double seconds) {
  offset_ += seconds - latest_;
  latest_ = seconds;
}

}  // namespace Kiv
