#pragma once
#include <chrono>
#include <iosfwd>

#include "Kiv/ActivityManager.h"
#include "Veltro/Export.h"
#include "Veltro/IntrospectionFormat.h"

namespace Veltro {

/// How well the type system's loop turns: how late its timers are, how long a pass takes, how much
/// of the time it waits for work, how many events a pass serves. Log-2 histograms over windows of
/// five seconds. A thread's own loop on libevent has none: there the scheduler's worst slip serves.
///
/// Measures only while it was asked to: else a pass costs one compare. One for the process, as the
/// loop is; belongs to its thread. Never destroyed.
class VELTRO_API LoopHealth final : private Kiv::PassObserver {
 public:
  /// What is measured, and for how long each window lasts.
  using Window = IntrospectionFormat::Loop;
  using Histogram = IntrospectionFormat::Histogram;
  static constexpr std::chrono::seconds kWindow{5};

  /// The process's one.
  static LoopHealth& instance();

  /// Measures from now on for at least so long; std::chrono::nanoseconds::max() is for good. Takes
  /// the place of another pass observer.
  void measureFor(std::chrono::nanoseconds time);
  bool measuring() const;
  /// The window under way, and the last whole one: `passes` is 0 until there is one.
  Window const& current() const { return current_; }
  Window const& last() const { return last_; }

  /// Prints the last whole window (until there is one, that under way) beside the scheduler's
  /// report: idle share, and for each figure the middle, the 99th of a hundred and the worst.
  void print(std::ostream& stream) const;

  /// A value that `share` (0 to 1) of the histogram's samples do not exceed: the upper end of its
  /// bucket, or the largest sample.
  static U64 quantile(Histogram const& histogram, double share);

 private:
  LoopHealth() = default;
  void onPass(Kiv::Pass const& pass) override;

  Window current_{};
  Window last_{};
  U64 until_ = 0;
};

}  // namespace Veltro
