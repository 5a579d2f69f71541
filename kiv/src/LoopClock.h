#pragma once

namespace Kiv {

/// Seconds of a monotonic clock plus an offset that only grows: time never goes back, whoever
/// reads it and however often virtual time is switched.
///
/// Deadlines are kept as the very numbers that callers gave, and `latest()` is what currentTime()
/// shows: so "never early" and the order of deadlines hold on the callers' own numbers, with no
/// rounding between two units.
class LoopClock final {
 public:
  LoopClock() { read(); }
  /// Takes the time.
  double read();
  /// The latest time taken.
  double latest() const { return latest_; }
  /// Moves the present forward to `seconds`, which is later than the latest time.
  void jump(double seconds);

 private:
  double latest_ = 0;
  double offset_ = 0;
};

}  // namespace Kiv
