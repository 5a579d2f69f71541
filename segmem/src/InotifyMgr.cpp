#include "Mem/InotifyMgr.h"

#include <cxxabi.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "InotifyEvents.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDescriptor.h"
#include "Mem/WatchDescriptor.h"
#include "OwnedFd.h"

namespace Mem {
namespace {

constexpr char const* kSourceFile = "Mem/InotifyMgr";

// What every watcher of a file is told, asked for or not.
constexpr unsigned kAlwaysTold = IN_IGNORED | IN_UNMOUNT | IN_Q_OVERFLOW;

// Bits that say how to join the kernel's watch; how watchers share one is this manager's business.
constexpr unsigned kSharing = IN_MASK_ADD | IN_MASK_CREATE | IN_ONESHOT;

}  // namespace

/// The inotify descriptor of one process, read through the loop of the thread that made it.
class InotifyMgr::Source final : public Kiv::FileDescriptor::Notifiee {
 public:
  Source(InotifyMgr& manager, OwnedFd fd)
      : Notifiee(Kiv::allocate<Kiv::FileDescriptor>("InotifyMgr")),
        manager_(manager),
        fd_(std::move(fd)),
        pid_(::getpid()) {
    notifier().descriptorIs(fd_.fd());
  }
  ~Source() override { notifier().descriptorIs(-1); }

  int fd() const { return fd_.fd(); }
  // A forked child holds its parent's inotify descriptor: to read from it, or to change it,
  // would rob the parent.
  bool ofThisProcess() const { return pid_ == ::getpid(); }

  void onReadableCount() override {
    if (!ofThisProcess()) {
      manager_._ownSource();
      return;
    }
    alignas(inotify_event) char events[16384];
    ssize_t const bytes = ::read(fd(), events, sizeof events);
    // Nothing, or interrupted: the loop asks again while there is something.
    if (bytes > 0) manager_._dispatch(events, static_cast<std::size_t>(bytes));
  }

 private:
  InotifyMgr& manager_;
  OwnedFd const fd_;
  int const pid_;
};

InotifyMgr::InotifyMgr() = default;

InotifyMgr::Watcher::~Watcher() = default;

bool InotifyMgr::Watcher::remountTimeouts() const { return false; }

InotifyMgr& InotifyMgr::getInotifyMgr() {
  static auto* const manager = new InotifyMgr;
  return *manager;
}

bool InotifyMgr::_add(Watch& watch) {
  bool const live = _ownSource() && _watch(watch);
  if (!live) {
    int const reason = errno;
    VELTRO_TRACE(watch.handler_, 1,
                 "Failed to watch " << watch.path_ << ": " << std::strerror(reason));
    return false;
  }
  VELTRO_TRACE(watch.handler_, 5, "Watching " << watch.path_ << " wd: " << watch.wd_);
  return true;
}

// The kernel adds the bits to those of the watch that the file may have already.
bool InotifyMgr::_watch(Watch& watch) {
  if ((watch.mask_ & IN_ALL_EVENTS) == 0) {
    errno = EINVAL;
    return false;
  }
  int const wd = ::inotify_add_watch(source_->fd(), watch.path_.c_str(),
                                     (watch.mask_ & ~kSharing) | IN_MASK_ADD);
  if (wd < 0) return false;
  watch.wd_ = wd;
  table_.emplace(wd, &watch);
  try {
    source_->notifier().notifyOnReadableIs(true);
  } catch (Kiv::ErrnoException const& refused) {
    _del(watch);
    errno = refused.errnum();
    return false;
  }
  return true;
}

void InotifyMgr::_del(Watch& watch) {
  int const wd = watch.wd_;
  _forget(watch);
  if (wd < 0 || !source_->ofThisProcess()) return;
  if (table_.count(wd) == 0) {
    ::inotify_rm_watch(source_->fd(), wd);
  } else {
    _reduceMask(wd);
  }
}

// Takes the watch out of the table and from among those about to be told, where it may be even
// when it is not live any more.
void InotifyMgr::_forget(Watch& watch) {
  for (auto [entry, end] = table_.equal_range(watch.wd_); entry != end; ++entry) {
    if (entry->second != &watch) continue;
    table_.erase(entry);
    break;
  }
  for (Watch*& recipient : recipients_) {
    if (recipient == &watch) recipient = nullptr;
  }
  watch.wd_ = -1;
  if (table_.empty() && source_) source_->notifier().notifyOnReadableIs(false);
}

// Makes sure that the source is this process's own. In a forked child that means a new inotify
// descriptor, and all watches that were inherited taken up anew under new numbers.
bool InotifyMgr::_ownSource() {
  if (source_ != nullptr && source_->ofThisProcess()) return true;
  OwnedFd fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (fd.fd() < 0) return false;
  try {
    source_ = Kiv::Ptr<Source>(new Source(*this, std::move(fd)));
  } catch (Kiv::ErrnoException const& refused) {  // the loop has no descriptor left for its own
    errno = refused.errnum();
    return false;
  }
  for (auto const& inherited : std::exchange(table_, Table())) {
    Watch& watch = *inherited.second;
    watch.wd_ = -1;
    if (_watch(watch)) continue;
    int const reason = errno;
    VELTRO_TRACE(watch.handler_, 1,
                 "Lost the watch on " << watch.path_ << ": " << std::strerror(reason));
  }
  return true;
}

// One of several watchers of a file has gone: the kernel need no longer report what only that one
// asked for. The path may name another file by now; then the kernel's mask stays too wide, which
// costs wake-ups and nothing else.
void InotifyMgr::_reduceMask(int wd) const {
  auto const [first, last] = table_.equal_range(wd);
  unsigned mask = 0;
  for (auto entry = first; entry != last; ++entry) mask |= entry->second->mask_ & ~kSharing;
  char const* const path = first->second->path_.c_str();
  int const found = ::inotify_add_watch(source_->fd(), path, mask | IN_MASK_ADD);
  if (found == wd) {
    ::inotify_add_watch(source_->fd(), path, mask);  // without IN_MASK_ADD it replaces
  } else if (found >= 0 && table_.count(found) == 0) {
    ::inotify_rm_watch(source_->fd(), found);
  }
}

void InotifyMgr::_dispatch(char const* events, std::size_t bytes) {
  std::exception_ptr first;
  InotifyEvents parsed({events, bytes});
  while (std::optional<InotifyEvent> const event = parsed.next()) {
    try {
      _deliver(event->wd, event->mask, event->name);
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      if (first == nullptr) first = std::current_exception();
    }
  }
  if (first != nullptr) std::rethrow_exception(first);
}

void InotifyMgr::_deliver(int wd, unsigned mask, std::string const& name) {
  auto const [begin, end] = (mask & IN_Q_OVERFLOW) != 0
                                ? std::make_pair(table_.begin(), table_.end())
                                : table_.equal_range(wd);
  std::vector<Watch*> recipients;
  for (auto entry = begin; entry != end; ++entry) recipients.push_back(entry->second);
  if ((mask & IN_IGNORED) != 0) {
    // The kernel has dropped the number; told of it, a watcher may initialize() anew.
    for (Watch* const watch : recipients) _forget(*watch);
  }
  recipients_ = std::move(recipients);
  std::exception_ptr first;
  for (std::size_t i = 0; i < recipients_.size(); ++i) {
    Watch* const watch = std::exchange(recipients_[i], nullptr);
    if (watch == nullptr || (mask & ((watch->mask_ & IN_ALL_EVENTS) | kAlwaysTold)) == 0) continue;
    if ((watch->mask_ & IN_ONESHOT) != 0) _del(*watch);
    try {
      watch->watcher_->notify(name, mask);
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      if (first == nullptr) first = std::current_exception();
    }
  }
  recipients_.clear();
  if (first != nullptr) std::rethrow_exception(first);
}

}  // namespace Mem
