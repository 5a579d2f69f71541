#include "Veltro/UtilCpp.h"

#include <dlfcn.h>

#include <cstdlib>

#include "Veltro/Debug.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/UtilCpp";

void* heapCheckerSym(Platform::DebugHandler& handler, char const* name) {
  return std::getenv("HEAPCHECK") == nullptr ? nullptr : Util::resolveSym(handler, name);
}

}  // namespace

void* Util::resolveSym(Platform::DebugHandler& handler, char const* name) {
  void* const program = ::dlopen(nullptr, RTLD_LAZY);
  VELTRO_ASSERT(nullptr, program != nullptr, "Util::resolveSym() dlopen() failed: " << ::dlerror());
  ::dlerror();
  // A symbol may well be null: only dlerror tells it from none.
  void* const symbol = ::dlsym(program, name);
  if (char const* const fault = ::dlerror()) {
    VELTRO_TRACE(handler, 1,
                 "Util::resolveSym() symbolName: " << name << " unable to resolve: " << fault);
  } else {
    VELTRO_TRACE(handler, 5, "Util::resolveSym() sym: " << name << " found at " << symbol);
  }
  return symbol;
}

void* HeapChecker::resolveAllocSym(Platform::DebugHandler& handler) {
  return heapCheckerSym(handler, "HeapChecker_RecordClientAlloc");
}

void* HeapChecker::resolveFreeSym(Platform::DebugHandler& handler) {
  return heapCheckerSym(handler, "HeapChecker_RecordClientFree");
}

}  // namespace Veltro
