#pragma once
#include "Veltro/Platform.h"

namespace Veltro {

/// The calling thread's name: 15 characters at most. Asks the kernel once and remembers the
/// answer; the text is the thread's own and changes only with threadNameIs. On the main thread
/// it is the process's name.
VELTRO_API char const* threadName();

/// Names the calling thread. Does nothing on the main thread, whose name is what process listings
/// show of the process. A name that the kernel refuses, one over 15 characters among them, raises
/// an assertion and changes nothing.
VELTRO_API void threadNameIs(char const* name);

}  // namespace Veltro
