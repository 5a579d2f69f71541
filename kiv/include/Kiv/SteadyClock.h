#pragma once
#include <time.h>

#include <chrono>

#include "Kiv/Types.h"

namespace Kiv {

/// std::chrono::steady_clock for those who read it at every turn: without the library call and the
/// 64-bit multiplication that come between it and the C library's clock at 32 bits. Its time points
/// are the standard's. Any thread.
struct SteadyClock {
  /// The standard's own.
  using time_point = std::chrono::steady_clock::time_point;
  /// Since the machine's start. 32 bits of seconds are 68 years.
  struct Reading {
    S32 seconds;      ///< whole ones
    S32 nanoseconds;  ///< the rest, below a second
  };

  /// Takes the time, in the kernel's two parts.
  static Reading read() noexcept {
    ::timespec time;
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return {static_cast<S32>(time.tv_sec), static_cast<S32>(time.tv_nsec)};
  }
  /// Takes the time, as the standard's now() does.
  static time_point now() noexcept {
    Reading const reading = read();
    return time_point(
        std::chrono::nanoseconds(S64{reading.seconds} * 1000000000 + reading.nanoseconds));
  }
};

}  // namespace Kiv
