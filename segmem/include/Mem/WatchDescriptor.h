#pragma once
#include <string>

#include "Mem/Export.h"
#include "Mem/InotifyMgr.h"
#include "Veltro/Debug.h"

namespace Mem::WatchDescriptor {

/// One watcher's registration for one path. Withdrawn when it is destroyed, at any time, also
/// from inside a notification. Belongs to the thread that made the manager.
class MEM_API WatchDescriptor final {
 public:
  /// Remembers what to watch; nothing is watched yet. Borrows the handler and the watcher.
  /// `mask` holds the kernel's IN_ bits; with IN_ONESHOT the watch is withdrawn before its first
  /// notification.
  WatchDescriptor(Veltro::Platform::DebugHandler& handler, unsigned mask, std::string const& path,
                  InotifyMgr::Watcher* watcher);
  ~WatchDescriptor();
  WatchDescriptor(WatchDescriptor const&) = delete;
  WatchDescriptor& operator=(WatchDescriptor const&) = delete;

  /// Makes the watch live. False, with the reason at level 1 of the handler, when the kernel
  /// refuses (no such path, no permission, watches used up). True at once when live already.
  bool initialize();

  /// As given at construction.
  std::string const& path() const { return path_; }
  unsigned mask() const { return mask_; }
  /// The kernel's number, shared by all watchers of one file; -1 while not live.
  int wd() const { return wd_; }
  /// The watcher's class, readable.
  std::string type() const;

 private:
  friend class Mem::InotifyMgr;
  Veltro::Platform::DebugHandler& handler_;
  unsigned const mask_;
  std::string const path_;
  InotifyMgr::Watcher* const watcher_;
  int wd_ = -1;
};

}  // namespace Mem::WatchDescriptor
