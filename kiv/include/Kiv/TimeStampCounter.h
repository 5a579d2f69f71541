#pragma once
#include <chrono>

#include "Kiv/Export.h"
#include "Kiv/Types.h"

namespace Kiv {

/// The processor's time-stamp counter, for checks that a clock read is too dear for.
/// The rate is learnt from use: the first call of ticks() keeps a sample, and once at least a
/// millisecond lies between it and a later call the rate is known. Nothing spins.
class KIV_API TimeStampCounter final {
 public:
  /// The counter. Not ordered with other instructions; may differ between cores by little.
  static U64 now() { return __builtin_ia32_rdtsc(); }
  /// Ticks in `duration`; 0 while the rate is not yet known.
  static U64 ticks(std::chrono::nanoseconds duration);
};

}  // namespace Kiv
