#include "Veltro/DisplayPointer.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <ostream>

namespace Veltro {
namespace {

// Composed as text, so that neither the stream's base nor its locale gets at the number.
std::string durationText(std::chrono::nanoseconds duration) {
  struct Unit {
    std::int64_t from;
    std::int64_t divisor;
    char const* name;
  };
  static constexpr Unit kUnits[] = {
      {3600000000000, 60000000000, "min"},
      {60000000000, 1000000000, "s"},
      {1000000, 1000000, "ms"},
      {1000, 1000, "\u00b5s"},
  };
  std::int64_t const count = duration.count();
  for (Unit const& unit : kUnits) {
    if (count >= unit.from) return std::to_string(count / unit.divisor) + unit.name;
  }
  return std::to_string(count) + "ns";
}

}  // namespace

std::string DisplayPointer::toString() const {
  if (!pointer_) return "NULL";
  char text[2 + 2 * sizeof(void*) + 1];
  int const length =
      std::snprintf(text, sizeof text, "0x%08" PRIxPTR, reinterpret_cast<std::uintptr_t>(pointer_));
  return std::string(text, static_cast<std::size_t>(length));
}

std::ostream& operator<<(std::ostream& os, DisplayPointer const& pointer) {
  std::string const text = pointer.toString();
  return os.write(text.data(), static_cast<std::streamsize>(text.size()));
}

std::ostream& operator<<(std::ostream& os, std::chrono::nanoseconds const& duration) {
  return os << durationText(duration);
}

std::ostream& operator<<(std::ostream& os, DisplayTaskTimeStamp const& display) {
  if (display.reference() <= display.stamp()) {
    return os << "in " + durationText(display.stamp() - display.reference());
  }
  return os << durationText(display.reference() - display.stamp()) + " ago";
}

}  // namespace Veltro
