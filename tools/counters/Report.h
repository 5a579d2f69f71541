#pragma once
#include <iosfwd>

#include "Snapshot.h"

namespace Counters {

/// A table, with a column of rates when there is a `before` of `seconds` ago. A rate is that of
/// one generation: none for a block that was restarted in between.
void printTable(std::ostream& out, Snapshot const& now, Snapshot const* before, double seconds);
/// One line: {"file":...,"maxCounters":...,"blockSize":...,"counters":[{"key":...,"block":...,
/// "generation":...,"value":...},...]}; generation and value are null before the first start.
void printJson(std::ostream& out, Snapshot const& now);

}  // namespace Counters
