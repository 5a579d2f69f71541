#pragma once
#include "Veltro/Platform.h"

namespace Veltro {

/// Fast-forward of the type system's loop, for the life of the object.
struct VirtualTime {
  VirtualTime() { Platform::setFastForward(true); }
  ~VirtualTime() { Platform::setFastForward(false); }
  VirtualTime(VirtualTime const&) = delete;
  VirtualTime& operator=(VirtualTime const&) = delete;
};

}  // namespace Veltro
