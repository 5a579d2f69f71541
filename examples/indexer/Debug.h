#pragma once
#include "Veltro/Debug.h"

namespace Indexer {

/// The agent's own trace category, TRACE=Indexer/...: notes of the library's utilities go there.
/// Never freed: destructors at exit still trace.
inline Veltro::Platform::DebugHandler& debug() {
  static Veltro::Platform::DebugHandler* const handler =
      Veltro::Platform::getDebugHandler("Indexer");
  return *handler;
}

}  // namespace Indexer
