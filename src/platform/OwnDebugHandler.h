#pragma once
#include "Veltro/Debug.h"

namespace Veltro {

/// The library's own handler, "KivVeltro". Made at load, never freed.
Platform::DebugHandler& ownDebugHandler();

}  // namespace Veltro
