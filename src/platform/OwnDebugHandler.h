#pragma once
#include "Veltro/Debug.h"

namespace Veltro {

/// Set when the library is loaded: the controls' traces need no guard before them.
extern Platform::DebugHandler* const ownHandler;

/// The library's own handler, "KivVeltro". Never freed.
inline Platform::DebugHandler& ownDebugHandler() { return *ownHandler; }

}  // namespace Veltro
