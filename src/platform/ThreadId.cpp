#include <sys/syscall.h>
#include <unistd.h>

#include "Veltro/Platform.h"

namespace Veltro {

// Asked of the kernel each time: a cached answer would be wrong in a forked child.
int gettid() { return static_cast<int>(::syscall(SYS_gettid)); }

bool isMainThread() { return gettid() == ::getpid(); }

}  // namespace Veltro
