#pragma once
#include "Kiv/ModelOf.h"
#include "Veltro/InotifyMgr.h"

// The tables of this room's entities and values, from which reflection and the text forms come.
// Included by InotifyMgr.cpp alone.

namespace Veltro {

Kiv::Model const& InotifyWatcher::table() {
  static Kiv::Model const& made =
      Kiv::ModelOf<InotifyWatcher>("Veltro::InotifyWatcher")
          .attribute("path", &InotifyWatcher::path_)
          .attribute("mask", &InotifyWatcher::mask_)
          .attribute("event", &InotifyWatcher::event_)
          .attribute("eventMask", &InotifyWatcher::eventMask_)
          .attribute("inotifyWatcherHelper", &InotifyWatcher::inotifyWatcherHelper_)
          .attribute("eventCount", &InotifyWatcher::eventCount_)
          .attribute("initialized", &InotifyWatcher::initialized_)
          .operation("eventCountInc", &InotifyWatcher::eventCountInc, {"n"})
          .operation("handleInitialized", &InotifyWatcher::handleInitialized)
          .operation("handleDestruction", &InotifyWatcher::handleDestruction)
          .made();
  return made;
}

Kiv::Model const& Watcher::model() {
  static Kiv::Model const& made = Kiv::ModelOf<Watcher>("Veltro::Watcher")
                                      .attribute("type", &Watcher::type, &Watcher::typeIs)
                                      .attribute("mask", &Watcher::mask, &Watcher::maskIs)
                                      .made();
  return made;
}

Kiv::Model const& WatchDescriptor::model() {
  static Kiv::Model const& made =
      Kiv::ModelOf<WatchDescriptor>("Veltro::WatchDescriptor")
          .attribute("name", &WatchDescriptor::name, &WatchDescriptor::nameIs)
          .attribute("wd", &WatchDescriptor::wd, &WatchDescriptor::wdIs)
          .collection("watcher", &WatchDescriptor::watchers)
          .made();
  return made;
}

Kiv::Model const& InotifyMgr::table() {
  static Kiv::Model const& made = Kiv::ModelOf<InotifyMgr>("Veltro::InotifyMgr")
                                      .collection("descriptor", &InotifyMgr::_descriptors)
                                      .made();
  return made;
}

}  // namespace Veltro
