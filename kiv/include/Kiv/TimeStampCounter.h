#pragma once
#include <chrono>

#include "Kiv/Export.h"
#include "Kiv/Types.h"

namespace Kiv {

/// The processor's time-stamp counter, for checks that a clock read is too dear for.
/// The rate is learnt from use: the first call of ticks() keeps a sample, and once at least a
/// millisecond lies between it and a later call the rate is known. Nothing spins. Any thread.
class KIV_API TimeStampCounter final {
 public:
  /// The counter. Not ordered with other instructions; may differ between cores by little.
  /// Good for hints only: it may stand still, jump or change its pace where the machine moves.
  static U64 now() { return __builtin_ia32_rdtsc(); }
  /// Ticks in `duration`; 0 while the rate is not yet known, and for a negative duration.
  static U64 ticks(std::chrono::nanoseconds duration);
};

}  // namespace Kiv
