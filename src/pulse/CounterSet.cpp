#include "CounterSet.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <set>

#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/Debug.h"

namespace Pulse {
namespace {

constexpr char const* kSourceFile = "Veltro/PulseCountersPlugin";
constexpr U32 kBlockSize = 64;  // one cache line a counter
constexpr U32 kMaxCounters = 1024;

Veltro::Platform::DebugHandler& debug() {
  static auto* const handler = [] {
    Veltro::Platform::setupVeltroDebug("PulseCounters/0");  // failures show without any setting
    return Veltro::Platform::getDebugHandler("PulseCounters");
  }();
  return *handler;
}

bool isFileName(std::string const& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

Kiv::Ptr<Veltro::ShmemMan> noBlocksYet(std::string const& set) {
  return Kiv::allocate<Veltro::ShmemMan>("counters", "pulse/" + set, kMaxCounters);
}

/// A log is a file that anybody may have written: it must tell of this set, and no two of its keys
/// of one block.
bool suits(Veltro::ShmemMan const& restored, Veltro::ShmemMan const& fresh) {
  std::set<U32> seen;
  for (auto const& [key, block] : restored.counterKeyToMemBlock()) {
    if (block == 0 || block > kMaxCounters || !seen.insert(block).second) return false;
  }
  return restored.name() == fresh.name() && restored.baseName() == fresh.baseName() &&
         restored.maxCounters() == kMaxCounters;
}

}  // namespace

CounterSet::CounterSet(std::string const& name) : name_(name) {
  try {
    _open();
  } catch (std::exception const& fault) {
    blocks_ = nullptr;
    if (lock_ >= 0) ::close(lock_);  // another process may publish them
    VELTRO_TRACE(debug(), 0, "counters of " << name_ << " are not published: " << fault.what());
  }
}

void CounterSet::_open() {
  if (!isFileName(name_)) throw Kiv::RangeException("the name is not one of a directory");
  auto const directory = Veltro::rootPathFactory("counters/pulse/" + name_, true);
  if (!directory->initialized()) {
    throw Kiv::ErrnoException(directory->fullPath("").stdString(), errno);
  }
  _lock(directory->fullPath("lock").stdString());
  log_ = directory->fullPath("log").stdString();
  _restore();
  blocks_->mmapFile(U64{kBlockSize} * kMaxCounters);
  genId_ = static_cast<U32>(::time(nullptr));
}

/// Two publishers would lose each other's counts. The descriptor of one that publishes stays open:
/// the lock is the process's, and goes with it however it ends.
void CounterSet::_lock(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) throw Kiv::ErrnoException(path, errno);
  struct stat status {};
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  bool const regular = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  if (regular && ::fcntl(fd, F_SETLK, &whole) == 0) {
    lock_ = fd;
    return;
  }
  int const reason = regular ? errno : EINVAL;
  ::close(fd);
  if (reason == EACCES || reason == EAGAIN) {
    throw Kiv::RangeException("another process publishes them");
  }
  throw Kiv::ErrnoException(path, reason);
}

void CounterSet::_restore() {
  blocks_ = noBlocksYet(name_);
  std::string fault = "it is not of this set";
  try {
    auto const restored = noBlocksYet(name_);
    Kiv::AttributeLog::load(restored, log_);
    if (suits(*restored, *blocks_)) {
      blocks_ = restored;
      return;
    }
  } catch (Kiv::ErrnoException const& unread) {
    if (unread.errnum() == ENOENT) return;
    throw;
  } catch (Kiv::RangeException const& damaged) {
    fault = damaged.what();
  }
  std::string const aside = log_ + ".damaged";
  if (::rename(log_.c_str(), aside.c_str()) != 0) throw Kiv::ErrnoException(log_, errno);
  VELTRO_TRACE(
      debug(), 0,
      "counters of " << name_ << " start afresh, the log is now " << aside << ": " << fault);
}

U64* CounterSet::counter(std::string const& key) {
  U64*& counter = counters_[key];
  if (counter == nullptr && blocks_) counter = _published(key);
  if (counter == nullptr) counter = &(cells_[key] = std::make_unique<Cell>())->value;
  return counter;
}

/// Null, and said why, when the counter cannot be published.
U64* CounterSet::_published(std::string const& key) {
  try {
    return _publish(key);
  } catch (std::exception const& fault) {
    VELTRO_TRACE(debug(), 0,
                 "counter " << key << " of " << name_ << " is not published: " << fault.what());
    return nullptr;
  }
}

U64* CounterSet::_publish(std::string const& key) {
  bool const isNew = blocks_->counterKeyToMemBlock(key) == 0;
  if (isNew && blocks_->counterKeyToMemBlock().size() >= kMaxCounters) {
    throw Kiv::RangeException("all " + std::to_string(kMaxCounters) + " blocks are taken");
  }
  U64 const block = blocks_->counterAddr(key, kBlockSize, false);
  // The run's own generation; another one where the run before it began in the same second.
  U32 const last = *reinterpret_cast<U32 const*>(static_cast<std::uintptr_t>(block));
  U32 genId = genId_ == last ? last + 1 : genId_;
  if (genId == 0) genId = 1;
  blocks_->shmemGenIdIs(key, kBlockSize, genId);
  if (isNew) _save();
  return reinterpret_cast<U64*>(static_cast<std::uintptr_t>(block + Veltro::BlockCounter::kOffset));
}

/// Without the log the counters are live all the same, only nobody can tell their names.
void CounterSet::_save() {
  try {
    Kiv::AttributeLog::save(*blocks_, log_);
  } catch (Kiv::Exception const& fault) {
    VELTRO_TRACE(debug(), 0, "counters of " << name_ << " have no log: " << fault.what());
  }
}

}  // namespace Pulse
