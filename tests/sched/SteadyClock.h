#pragma once
#include <chrono>

namespace Veltro {

/// While one lives, the thread that made it reads this clock for std::chrono::steady_clock, and
/// the reads are counted. (The test program defines steady_clock::now itself.)
struct FakeSteadyClock {
  FakeSteadyClock();
  ~FakeSteadyClock();
  FakeSteadyClock(FakeSteadyClock const&) = delete;
  FakeSteadyClock& operator=(FakeSteadyClock const&) = delete;

  std::chrono::steady_clock::time_point now{std::chrono::hours(1000)};
  unsigned reads = 0;
};

/// Calls of operator new since the program began.
unsigned long allocations();

}  // namespace Veltro
