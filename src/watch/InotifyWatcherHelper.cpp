#include "Veltro/InotifyWatcherHelper.h"

#include "Veltro/Exception.h"
#include "Veltro/InotifyMgr.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/InotifyWatcherHelper";

}  // namespace

InotifyWatcherHelper::InotifyWatcherHelper(Platform::DebugHandler& debugHandler,
                                           Kiv::String const& path, U32 mask, InotifyWatcher* owner)
    : Watcher(debugHandler), watchDescriptor_(debugHandler, mask, path, this), owner_(owner) {
  if (!watchDescriptor_.initialize()) {
    InvalidInitializeException::throwException(
        "InotifyWatcherHelper: failed to initialize watcher for " + path.stdString());
  }
}

InotifyWatcherHelper::~InotifyWatcherHelper() = default;

void InotifyWatcherHelper::notify(std::string const& name, unsigned int mask) {
  VELTRO_TRACE(debugHandler(), 7, "Notified of " << name << " changing");
  // Held until all is told: a reaction may drop every other pointer to the owner. This object
  // may be gone with it on return.
  Kiv::Ptr<InotifyWatcher> const owner(owner_);
  owner->eventIs(name);
  owner->eventMaskIs(mask);
  owner->eventCountInc(1);  // last: who reacts to the count reads this event's name and mask
}

}  // namespace Veltro
