#pragma once
#include "Veltro/Debug.h"

namespace Veltro {

/// The library's own handler, "KivVeltro". Made at load, never freed.
inline Platform::DebugHandler& ownDebugHandler() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("KivVeltro");
  return *handler;
}

}  // namespace Veltro
