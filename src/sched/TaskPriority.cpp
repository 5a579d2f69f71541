#include "Veltro/TaskPriority.h"

#include <ostream>

#include "SchedDebug.h"

namespace Veltro {
namespace {

constexpr unsigned kNamed = TaskPriority::oneBeyondLast + 1;
constexpr char const* kNames[kNamed] = {"absolute", "high",     "normal",
                                        "low",      "scavenge", "oneBeyondLast"};
constexpr char kLetters[kNamed] = {'A', 'H', 'N', 'L', 'S', '-'};

// One byte would print as a character.
unsigned number(TaskPriority priority) { return priority.value(); }

}  // namespace

std::string TaskPriority::toStrep() const {
  VELTRO_ASSERT(schedDebug(), value_ < kNamed, "unexpected priority value " << number(*this));
  return kNames[value_];
}

std::string TaskPriority::oneCharString() const {
  VELTRO_ASSERT(schedDebug(), value_ < kNamed, "unexpected priority " << number(*this));
  return std::string(1, kLetters[value_]);
}

std::ostream& operator<<(std::ostream& os, TaskPriority priority) {
  if (number(priority) < kNamed) return os << kNames[number(priority)];
  return os << "invalidPriority=" + std::to_string(number(priority));
}

}  // namespace Veltro
