#include "Kiv/UmaskGuard.h"

#include <pthread.h>
#include <sys/stat.h>

namespace Kiv {
namespace {

// A plain mutex beside a depth of each thread, not a recursive one: that records its owner's
// thread id, which is another one in a forked child, and the child could never unlock it.
pthread_mutex_t windowMutex = PTHREAD_MUTEX_INITIALIZER;
thread_local unsigned depth = 0;

void lockUnlessInside() {
  if (depth == 0) pthread_mutex_lock(&windowMutex);
}

void unlockUnlessInside() {
  if (depth == 0) pthread_mutex_unlock(&windowMutex);
}

[[maybe_unused]] int const atLoad =
    pthread_atfork(lockUnlessInside, unlockUnlessInside, unlockUnlessInside);

unsigned enter(unsigned mask) {
  lockUnlessInside();
  ++depth;
  return ::umask(mask);
}

}  // namespace

UmaskGuard::UmaskGuard(unsigned mask) noexcept : previous_(enter(mask)) {}

UmaskGuard::~UmaskGuard() {
  ::umask(previous_);
  --depth;
  unlockUnlessInside();
}

}  // namespace Kiv
