#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "Veltro/Debug.h"
#include "Veltro/ThreadCpp.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/ThreadCpp";
constexpr Platform::DebugHandler* kNoHandler = nullptr;

thread_local char name_[16] = "";  // the kernel's longest, with its terminator

}  // namespace

// Asked of the kernel each time: a cached answer would be wrong in a forked child.
int gettid() { return static_cast<int>(::syscall(SYS_gettid)); }

bool isMainThread() { return gettid() == ::getpid(); }

char const* threadName() {
  if (name_[0] != '\0') return name_;
  int const error = ::pthread_getname_np(::pthread_self(), name_, sizeof name_);
  VELTRO_ASSERT(kNoHandler, error == 0,
                "Veltro::threadName() pthread_getname_np() failed:" << error);
  return name_;
}

void threadNameIs(char const* name) {
  if (isMainThread()) return;
  int const error = ::pthread_setname_np(::pthread_self(), name);
  VELTRO_ASSERT(
      kNoHandler, error == 0,
      "Veltro::threadNameIs() pthread_setname_np() failed:" << error << " for name:" << name);
  std::strncpy(name_, name, sizeof name_);
  name_[sizeof name_ - 1] = '\0';
}

}  // namespace Veltro
