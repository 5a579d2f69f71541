#pragma once
#include <optional>
#include <string>
#include <vector>

#include "Kiv/Types.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/CounterDescriptions.h"

namespace Operator {

struct Counter {
  std::string key;
  Kiv::U32 block = 0;  // 0: the log gives it none
  /// Nothing while its block was never started.
  std::optional<Veltro::BlockCounter::Sample> sample;
  Veltro::CounterDescription description;
};

/// What a counter file held, in the order of the keys. Each value is whole; they are read one
/// after the other, not at one instant.
struct Snapshot {
  std::string file;
  Kiv::U32 maxCounters = 0;
  Kiv::U32 blockSize = 0;
  std::vector<Counter> counters;
};

/// Reads through a read-only mapping. `file` "": the one that the log names; `blockSize` 0: the
/// file's size divided by the number of blocks. Whatever cannot be read, or does not fit together,
/// throws Kiv::Exception, which says what and where.
Snapshot snapshotOf(std::string const& log, std::string const& file, Kiv::U32 blockSize);

}  // namespace Operator
