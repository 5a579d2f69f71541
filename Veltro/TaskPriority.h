#pragma once
#include <cstdint>
#include <iosfwd>
#include <string>

#include "Veltro/Export.h"

namespace Veltro {

/// How urgent a task is: lower values run first. One byte, a value.
class VELTRO_API TaskPriority {
 public:
  /// The priorities, most urgent first.
  enum Value : std::uint8_t {
    absolute,  ///< before everything, whatever waits
    high,      ///< before normal and low, which still get a weighted share
    normal,    ///< before low, which still gets a weighted share
    low,
    scavenge,       ///< only while nothing else can run
    oneBeyondLast,  ///< bounds loops; no task has it
  };

  /// Implicit: a Value is a priority.
  constexpr TaskPriority(Value value) : value_(value) {}
  /// Any number is taken, so that a wrong one can be shown; what a byte cannot hold becomes 255.
  explicit constexpr TaskPriority(unsigned number)
      : value_(static_cast<Value>(number > 0xff ? 0xff : number)) {}

  /// For switches and tables.
  constexpr Value value() const { return value_; }

  /// "absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"; asserts on other values.
  std::string toStrep() const;
  /// "A", "H", "N", "L", "S", "-"; asserts on other values.
  std::string oneCharString() const;

  friend constexpr bool operator==(TaskPriority a, TaskPriority b) { return a.value_ == b.value_; }
  friend constexpr bool operator!=(TaskPriority a, TaskPriority b) { return a.value_ != b.value_; }
  friend constexpr bool operator<(TaskPriority a, TaskPriority b) { return a.value_ < b.value_; }

 private:
  Value value_;
};
static_assert(sizeof(TaskPriority) == 1, "kept by the thousand in statistics");

/// toStrep(), or "invalidPriority=" and the number: never asserts.
VELTRO_API std::ostream& operator<<(std::ostream& os, TaskPriority priority);

}  // namespace Veltro
