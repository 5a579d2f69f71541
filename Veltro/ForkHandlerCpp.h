#pragma once

// Platform::setupHandler(), handleFork() and isForkedChild() live in the facade's class: the
// library registers for forks when it is loaded, and remembers in every child that it is one.
// Only fork() counts; vfork() and posix_spawn() run no handlers.
#include "Veltro/Platform.h"
