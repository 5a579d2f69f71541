#pragma once
#include "Veltro/Debug.h"

namespace Veltro::util {

/// The category "VeltroUtil", for functions that are given no handler.
Platform::DebugHandler& debug();

}  // namespace Veltro::util
