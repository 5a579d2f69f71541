#pragma once
#include <optional>
#include <string>

#include "CounterBlocks.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/Counters.h"

namespace Indexer {

/// What the agent counts since its start. Each counter is one place in memory, and the facade is
/// asked which: the plugin's, where "PulseCountersPlugin" is installed; else a block of the
/// agent's own counter file, which is the facade's fallback. Counting code sees no difference.
class AgentCounters final {
 public:
  /// Publishes under that name; an empty one publishes nothing and touches no file.
  explicit AgentCounters(std::string const& name);

  Veltro::BlockCounter& files() { return files_; }      // hashed; a changed file counts again
  Veltro::BlockCounter& bytes() { return bytes_; }      // hashed
  Veltro::BlockCounter& queries() { return queries_; }  // answered
  Veltro::BlockCounter& errors() { return errors_; }    // unreadable or unwatchable
  /// Where an operator finds them, for a line to the user; empty when nowhere.
  std::string const& place() const { return place_; }

 private:
  struct Unpublished {
    alignas(8) Veltro::U64 files = 0, bytes = 0, queries = 0, errors = 0;
  };
  Veltro::BlockCounter _counter(char const* key);

  std::string place_;
  Unpublished unpublished_;
  std::optional<Veltro::Counters> facade_;
  std::optional<CounterBlocks> blocks_;
  Veltro::BlockCounter files_;
  Veltro::BlockCounter bytes_;
  Veltro::BlockCounter queries_;
  Veltro::BlockCounter errors_;
};

}  // namespace Indexer
