#pragma once
#include "Kiv/ModelOf.h"
#include "Veltro/ShmemMan.h"

// The table of the counter block manager, from which reflection and the attribute log come.
// The log keeps what holds in the next process too: no addresses, no sizes of mappings, no queue,
// no flag that says that something of those is there.
// Included by ShmemMan.cpp alone.

namespace Veltro {

Kiv::Model const& ShmemMan::table() {
  static Kiv::Model const& made =
      Kiv::ModelOf<ShmemMan>("Veltro::ShmemMan")
          .attribute("name", &ShmemMan::name_, Kiv::kLogged)
          .attribute("baseName", &ShmemMan::baseName_, Kiv::kLogged)
          .attribute("maxCounters", &ShmemMan::maxCounters_, Kiv::kLogged)
          .attribute("rootPath", &ShmemMan::rootPath_)
          .attribute("fileName", &ShmemMan::fileName)
          .attribute("fileSize", &ShmemMan::fileSize_)
          .collection("counterKeyToMemBlock", &ShmemMan::counterKeyToMemBlock_,
                      Kiv::kWritable | Kiv::kLogged)
          .attribute("mmapStartAddr", &ShmemMan::mmapStartAddr_)
          .attribute("newBlockForbidden", &ShmemMan::newBlockForbidden_,
                     Kiv::kWritable | Kiv::kLogged)
          .attribute("memBlocksAvailInitialized", &ShmemMan::memBlocksAvailInitialized_)
          .queue("memBlocksAvail", &ShmemMan::memBlocksAvail_, Kiv::kWritable)
          .attribute("initialized", &ShmemMan::initialized_, Kiv::kWritable)
          .operation("handleInitialized", &ShmemMan::handleInitialized)
          .operation("rootPathIs", &ShmemMan::rootPathIs, {"dirName", "create"})
          .operation("rootPathDel", &ShmemMan::rootPathDel)
          .operation("counterAddr", &ShmemMan::counterAddr,
                     {"counterKey", "counterSize", "readFlag"})
          .operation("newCounterBlock", &ShmemMan::newCounterBlock, {"counterKey"})
          .operation("shmemGenIdIs", &ShmemMan::shmemGenIdIs,
                     {"counterKey", "counterSize", "genId"})
          .operation("mmapFile", &ShmemMan::mmapFile, {"fileSize"})
          .operation("munmapFile", &ShmemMan::munmapFile, {"unlinkFile"})
          .operation("handleDestruction", &ShmemMan::handleDestruction)
          .made();
  return made;
}

}  // namespace Veltro
