#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Veltro/ForkHandlerCpp.h"
#include "diag/FatalCheck.h"

namespace Veltro {
namespace {

std::atomic<bool> forkedChild{false};

[[maybe_unused]] bool const atLoad = (Platform::setupHandler(), true);

}  // namespace

// A library that cannot watch forks does not run.
void Platform::setupHandler() {
  int const result = ::pthread_atfork(nullptr, nullptr, &Platform::handleFork);
  if (result == 0) return;
  std::fprintf(stderr, "Veltro failed to register atfork handler, reason: %s\n",
               std::strerror(errno));
  VELTRO_FATAL_CHECK(false && "Failed to register Veltro atfork handler");
}

void Platform::handleFork() { forkedChild.store(true, std::memory_order_relaxed); }

bool Platform::isForkedChild() { return forkedChild.load(std::memory_order_relaxed); }

}  // namespace Veltro
