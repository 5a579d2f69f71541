#pragma once
#include <chrono>
#include <iosfwd>
#include <string>

#include "Veltro/Export.h"

// Text forms used by trace lines, histories and reports. All of them print the same under every
// locale and every state of the stream, and leave the stream's flags, fill and precision alone.

namespace Veltro {

/// The text form of an address: "0x" and lower-case hexadecimal digits, zero-filled to ten
/// characters ("0x5655a1b0"), longer only where the address needs more digits; "NULL" for null.
/// Never dereferences the pointer.
class VELTRO_API DisplayPointer {
 public:
  /// Any address, null too; it is never dereferenced.
  explicit constexpr DisplayPointer(void const* pointer) : pointer_(pointer) {}
  /// As printed.
  std::string toString() const;

 private:
  void const* pointer_;
};

/// Unlike other inserters this one neither uses nor uses up the stream's width.
VELTRO_API std::ostream& operator<<(std::ostream& os, DisplayPointer const& pointer);

/// A duration in a unit that suits its size, truncated: below 1000 ns, and all that is negative,
/// in "ns"; then in "µs"; from 1 ms to under a minute in "ms"; from a minute to under an hour in
/// "s"; from an hour on in "min". No blank before the unit. The stream's width applies to the
/// whole text.
/// It lives here, not in std::chrono: other namespaces say `using Veltro::operator<<`.
VELTRO_API std::ostream& operator<<(std::ostream& os, std::chrono::nanoseconds const& duration);

/// A time stamp as seen from a reference time, normally now: "in 5ms" when it is still to come
/// or is now, "2000ms ago" when it has passed.
class VELTRO_API DisplayTaskTimeStamp {
 public:
  /// Of the clock that all scheduling is measured on.
  using TimePoint = std::chrono::steady_clock::time_point;
  /// Shows `stamp` and how long before `reference` it was.
  constexpr DisplayTaskTimeStamp(TimePoint reference, TimePoint stamp)
      : reference_(reference), stamp_(stamp) {}
  /// The two that it was made from.
  TimePoint reference() const { return reference_; }
  TimePoint stamp() const { return stamp_; }

 private:
  TimePoint reference_;
  TimePoint stamp_;
};

VELTRO_API std::ostream& operator<<(std::ostream& os, DisplayTaskTimeStamp const& display);

}  // namespace Veltro
