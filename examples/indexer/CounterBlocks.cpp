#include "CounterBlocks.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <set>
#include <system_error>

#include "Debug.h"
#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/CounterDescriptions.h"
#include "Veltro/UtilCpp.h"

namespace Indexer {
namespace {

using Veltro::U32;
using Veltro::U64;

constexpr U32 kBlocks = 16;     // room for keys to come
constexpr U32 kBlockSize = 64;  // no two counters in one cache line

Kiv::Ptr<Veltro::ShmemMan> freshBlocks(std::string const& name) {
  return Kiv::allocate<Veltro::ShmemMan>(Kiv::Name(name), Kiv::String("indexer"), kBlocks);
}

void makeDirectoryOf(std::string const& file) {
  std::string const directory = file.substr(0, file.rfind('/'));
  if (Veltro::Util::mkpath(directory, 0777) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot make " + directory);
  }
}

}  // namespace

CounterBlocks::CounterBlocks(std::string const& name, std::vector<Key> const& keys)
    : blocks_(freshBlocks(name)) {
  std::string const file = blocks_->fileName().stdString();
  makeDirectoryOf(file);
  pidFile_.emplace(file + ".pid");
  _restore(name);
  for (Key const& key : keys) blocks_->counterAddr(key.name, kBlockSize, false);
  Kiv::AttributeLog::save(*blocks_, logPath());
  _describe(keys);
  U32 const generation = _nextGeneration();
  for (Key const& key : keys) blocks_->shmemGenIdIs(key.name, kBlockSize, generation);
}

CounterBlocks::~CounterBlocks() { blocks_->munmapFile(false); }

U64* CounterBlocks::counter(char const* name) const {
  U64 const block = blocks_->counterAddr(name, kBlockSize, true);
  return reinterpret_cast<U64*>(static_cast<std::uintptr_t>(block + Veltro::BlockCounter::kOffset));
}

std::string CounterBlocks::logPath() const { return blocks_->fileName().stdString() + ".log"; }

void CounterBlocks::_describe(std::vector<Key> const& keys) const {
  Veltro::CounterDescriptions about;
  for (Key const& key : keys) about.descriptionIs(key.name, {"counter", key.unit, key.help});
  about.save(Veltro::CounterDescriptions::pathOf(logPath()));
}

void CounterBlocks::_restore(std::string const& name) {
  try {
    Kiv::AttributeLog::load(Kiv::Ptr<Kiv::Entity>(blocks_), logPath());
    if (_usable(name)) return;
    blocks_ = freshBlocks(name);  // before its path is asked for: the log may have changed it
    _putLogAside("not a table of these counters");
  } catch (Kiv::ErrnoException const& error) {
    if (error.errnum() != ENOENT) throw;
  } catch (Kiv::RangeException const& error) {
    _putLogAside(error.what());
  }
}

// A log that reads well may still be another agent's, or edited by hand.
bool CounterBlocks::_usable(std::string const& name) const {
  if (blocks_->name() != Kiv::Name(name) || blocks_->baseName() != Kiv::String("indexer") ||
      blocks_->maxCounters() != kBlocks || blocks_->newBlockForbidden()) {
    return false;
  }
  std::set<U32> used;
  for (auto const& [key, block] : blocks_->counterKeyToMemBlock()) {
    if (block < 1 || block > kBlocks || !used.insert(block).second) return false;
  }
  return true;
}

void CounterBlocks::_putLogAside(std::string const& reason) const {
  std::string aside;
  int number = 1;
  do {
    aside = logPath() + ".damaged-" + std::to_string(number++);
  } while (Veltro::Util::fileExists(debug(), aside));
  if (std::rename(logPath().c_str(), aside.c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot put aside " + logPath());
  }
  std::fprintf(stderr, "indexer: %s: %s; begun afresh, the old log is %s\n", logPath().c_str(),
               reason.c_str(), aside.c_str());
}

U32 CounterBlocks::_nextGeneration() const {
  U32 last = 0;
  for (U32 block = 0; block < kBlocks; ++block) {
    auto const address = static_cast<std::uintptr_t>(blocks_->mmapStartAddr());
    auto const* const begin = reinterpret_cast<U32 const*>(address + block * kBlockSize);
    last = std::max(last, *begin);
  }
  return std::max<U32>(last + 1, 1);  // never 0, also when the numbers are used up
}

}  // namespace Indexer
