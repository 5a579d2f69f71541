#pragma once
#include <string>

#include "Kiv/String.h"
#include "Mem/InotifyMgr.h"
#include "Mem/WatchDescriptor.h"
#include "Veltro/Debug.h"

namespace Veltro {

class InotifyWatcher;

/// Between one InotifyWatcher and the process's inotify manager: registers the watch, and turns
/// each event into changes of its owner. Made and destroyed by that owner; agents use the entity.
///
/// Belongs to the thread that the manager dispatches on; takes no lock.
class VELTRO_API InotifyWatcherHelper : public Mem::InotifyMgr::Watcher {
 public:
  /// Watches `path` for the IN_ bits of `mask`. Borrows the handler and the owner. A path that
  /// cannot be watched throws InvalidInitializeException, and nothing stays registered.
  InotifyWatcherHelper(Platform::DebugHandler& debugHandler, Kiv::String const& path, U32 mask,
                       InotifyWatcher* owner);
  /// Withdraws the watch.
  ~InotifyWatcherHelper() override;

  /// One event: sets the owner's event and eventMask, then counts it. A reaction to the count may
  /// let the owner go, and this with it.
  void notify(std::string const& name, unsigned int mask) override;

 private:
  Mem::WatchDescriptor::WatchDescriptor watchDescriptor_;
  InotifyWatcher* owner_;
};

}  // namespace Veltro
