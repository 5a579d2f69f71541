#include "Veltro/Backtrace.h"

// On 64 bits libunwind keeps a pipe of its own from its first walk on. It is made here, before
// any test counts descriptors.
[[maybe_unused]] static Veltro::Backtrace const firstWalk(true);
