#include "Handler.h"

namespace Veltro::util {

// Never freed: destructors at exit still trace. Function-local: the order of loading does not
// matter.
Platform::DebugHandler& debug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("VeltroUtil");
  return *handler;
}

namespace {
[[maybe_unused]] Platform::DebugHandler& atLoad = debug();
}

}  // namespace Veltro::util
