#pragma once
#include <optional>
#include <string>
#include <vector>

#include "Kiv/Ptr.h"
#include "PidFile.h"
#include "Veltro/ShmemMan.h"

namespace Indexer {

/// 64-bit counters that other processes read, and that keep their places from run to run.
/// In /var/shmem/shmem/counters/indexer, files of the NAME that the command line gives:
///
///     NAME      the counters, a block each (Veltro/ShmemMan.h, Veltro/BlockCounter.h)
///     NAME.log  which key has which block, an attribute log; `veltro counters NAME.log` lists them
///     NAME.log.about  what each key counts, for that listing
///     NAME.pid  whose they are; a second agent of that name is refused
///
/// A start, in this order, so that it may be killed at any point of it:
///   1. take NAME.pid;
///   2. restore the table from NAME.log. One that is damaged is put aside as NAME.log.damaged-N,
///      with a line on standard error, and the table begins empty: counters cost less than an
///      agent that does not run;
///   3. give the keys that are new their blocks, and save the log before anything is counted;
///   4. restart each block: zero, under a generation id greater than any in the file.
class CounterBlocks final {
 public:
  struct Key {
    char const* name;
    char const* unit;
    char const* help;  // one sentence
  };
  /// Failures of the world throw, with a line for the user.
  CounterBlocks(std::string const& name, std::vector<Key> const& keys);
  /// Unmaps; the files stay.
  ~CounterBlocks();

  /// The counter of one of the keys.
  Veltro::U64* counter(char const* name) const;
  std::string logPath() const;

 private:
  void _describe(std::vector<Key> const& keys) const;
  void _restore(std::string const& name);
  bool _usable(std::string const& name) const;
  void _putLogAside(std::string const& reason) const;
  Veltro::U32 _nextGeneration() const;

  Kiv::Ptr<Veltro::ShmemMan> blocks_;
  std::optional<PidFile> pidFile_;
};

}  // namespace Indexer
