#include "platform/OwnDebugHandler.h"

namespace Veltro {

Platform::DebugHandler& ownDebugHandler() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("KivVeltro");
  return *handler;
}

namespace {
[[maybe_unused]] Platform::DebugHandler& atLoad = ownDebugHandler();
}  // namespace

}  // namespace Veltro
