#include "CounterFile.h"

#include <libgen.h>
#include <sys/stat.h>

#include <cerrno>

#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"
#include "Kiv/Value.h"
#include "Mem/Shared.h"
#include "Veltro/ShmemMan.h"

namespace Operator {
namespace {

using Kiv::U32;
using Kiv::U64;
using Veltro::BlockCounter;

Kiv::Ptr<Veltro::ShmemMan> managerOf(std::string const& log) {
  auto const manager = Kiv::allocate<Veltro::ShmemMan>(Kiv::Name(), Kiv::String(), 0u);
  try {
    Kiv::AttributeLog::load(manager, log);
  } catch (Kiv::RangeException const& fault) {
    throw Kiv::RangeException(log + ": " + fault.what());
  }
  return manager;
}

U64 sizeOf(std::string const& file) {
  struct stat status;
  if (::stat(file.c_str(), &status) != 0) throw Kiv::ErrnoException(file, errno);
  return static_cast<U64>(status.st_size);
}

U32 blockSizeOf(std::string const& file, U64 size, U32 blocks, U32 given) {
  U64 const blockSize = given != 0 || blocks == 0 ? given : size / blocks;
  bool const fits = given != 0 ? U64{given} * blocks <= size : blockSize * blocks == size;
  if (!fits || blockSize < BlockCounter::kMinBlockSize || blockSize % 8 != 0 || size > ~U32{0}) {
    throw Kiv::RangeException(file + ": " + std::to_string(size) + " bytes are not " +
                              std::to_string(blocks) + " blocks with a counter each" +
                              (given != 0 ? " of " + std::to_string(given) + " bytes" : ""));
  }
  return static_cast<U32>(blockSize);
}

/// Kept while it lives.
class Mapping {
 public:
  Mapping(std::string const& file, U32 length)
      : segment_(_directory(file), _name(file), false, 0, false),
        start_(segment_.attach(length, Mem::Mode::shared, false, "veltro")) {
    if (start_ == nullptr) throw Kiv::ErrnoException(file, errno);
  }
  void const* at(U64 offset) const { return static_cast<char const*>(start_) + offset; }

 private:
  static std::string _directory(std::string file) { return ::dirname(file.data()); }
  static std::string _name(std::string file) { return ::basename(file.data()); }
  Mem::Shared segment_;
  void const* const start_;
};

// A block under restart is one again a moment later; one that was never started stays without.
std::optional<BlockCounter::Sample> sampleOf(void const* block) {
  for (int tries = 0; tries < 1000; ++tries) {
    if (auto const sample = BlockCounter::sample(block)) return sample;
  }
  return std::nullopt;
}

}  // namespace

Snapshot snapshotOf(std::string const& log, std::string const& file, U32 blockSize) {
  auto const manager = managerOf(log);
  auto const about = Veltro::CounterDescriptions::load(Veltro::CounterDescriptions::pathOf(log));
  Snapshot snapshot;
  snapshot.file = file.empty() ? manager->fileName().stdString() : file;
  snapshot.maxCounters = manager->maxCounters();
  U64 const size = sizeOf(snapshot.file);
  snapshot.blockSize = blockSizeOf(snapshot.file, size, snapshot.maxCounters, blockSize);
  Mapping const mapping(snapshot.file, static_cast<U32>(size));
  for (auto const& [key, block] : manager->counterKeyToMemBlock()) {
    if (block > snapshot.maxCounters) {
      throw Kiv::RangeException(log + ": key " + Kiv::Value(key).text() + " has block " +
                                std::to_string(block) + " of " +
                                std::to_string(snapshot.maxCounters));
    }
    Counter counter{key.stdString(), block, std::nullopt, about.description(key.stdString())};
    if (block > 0) counter.sample = sampleOf(mapping.at(U64{block - 1} * snapshot.blockSize));
    snapshot.counters.push_back(std::move(counter));
  }
  return snapshot;
}

}  // namespace Operator
