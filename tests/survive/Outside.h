#pragma once
#include <array>
#include <cstdint>

namespace Veltro {

/// What comes to the libraries from outside, in the hands of the thread that makes one of these.
/// The test program itself defines the C library's functions for it.
///
/// - Clocks stand still but for waits: one that finds nothing ready ends at once, and its time has
///   gone by. One that would last for ever ends the test.
/// - System calls of epoll are counted and fail as asked; so do allocations by operator new and
///   by libevent.
class Outside final {
 public:
  enum Call { allocation, epollCreate, epollControl, epollWait, kCalls };

  Outside();
  ~Outside();
  Outside(Outside const&) = delete;
  Outside& operator=(Outside const&) = delete;

  std::int64_t nowNs;                         // of every monotonic clock; begins at a whole second
  std::int64_t wallNs = 1700000000000000000;  // what the wall clock is ahead of it
  /// Seconds since this one was made.
  double seconds() const { return static_cast<double>(nowNs - startNs_) / 1e9; }
  unsigned long clockReads = 0;

  std::array<unsigned long, kCalls> calls{};
  /// From now on the call of that number (0 is the next) fails, and only that or all after it too.
  /// Allocations fail with std::bad_alloc or null, system calls with `error`.
  void failIs(Call call, unsigned long number, bool forEver, int error);
  void failNone() { failing_ = kCalls; }
  /// How many calls have failed since failIs().
  unsigned failures() const { return failures_; }
  /// Allocations that were made while this one lived and are not given back.
  long liveAllocations = 0;

  bool fails(Call call);

 private:
  Outside* const outer_;
  std::int64_t const startNs_;
  Call failing_ = kCalls;
  unsigned long failAt_ = 0;
  bool failForEver_ = false;
  int error_ = 0;
  unsigned failures_ = 0;
};

}  // namespace Veltro
