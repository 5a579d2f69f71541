#pragma once
#include <map>
#include <memory>
#include <string>

#include "Kiv/Ptr.h"
#include "Veltro/ShmemMan.h"

namespace Pulse {

using Kiv::U32;
using Kiv::U64;

/// The counters that this process publishes under one name, for other processes to read: in
/// /var/shmem/shmem/counters/pulse/NAME/ the blocks (`counters`), which key has which (`log`, an
/// attribute log) and who publishes them (`lock`, held while the process lives).
///
/// What cannot be published (a name that is no file's, a full disk, another publisher, no block
/// left) is counted in memory of this process alone; one line at level 0 of "PulseCounters" says
/// why. Never throws for it, and no address is ever taken back: sets are not destroyed.
class CounterSet final {
 public:
  explicit CounterSet(std::string const& name);
  CounterSet(CounterSet const&) = delete;
  CounterSet& operator=(CounterSet const&) = delete;

  /// The counter of that key, aligned to 8 bytes: the same address at every call, 0 at first.
  U64* counter(std::string const& key);

 private:
  struct alignas(8) Cell {
    U64 value = 0;
  };

  void _open();
  void _lock(std::string const& path);
  void _restore();
  U64* _published(std::string const& key);
  U64* _publish(std::string const& key);
  void _save();

  std::string const name_;
  std::string log_;
  int lock_ = -1;  // held while anything is published
  U32 genId_ = 0;
  Kiv::Ptr<Veltro::ShmemMan> blocks_;  // null when nothing is published
  std::map<std::string, U64*> counters_;
  std::map<std::string, std::unique_ptr<Cell>> cells_;  // of those not published
};

}  // namespace Pulse
