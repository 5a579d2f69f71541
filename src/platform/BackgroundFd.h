#pragma once
#include <memory>

#include "Veltro/Platform.h"

namespace Veltro {

/// As Platform::getFdControl(), but what it watches does not keep the calling thread's loop
/// running: for those who watch the process, not for its work.
std::shared_ptr<Platform::FdControl> getBackgroundFdControl(Platform::FdEventHandler* handler);

/// Whether the calling thread's loop is the type system's.
bool onTypeSystemLoop();

}  // namespace Veltro
