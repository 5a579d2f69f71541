#include "SchedDebug.h"

namespace Veltro {

Platform::DebugHandler& schedDebug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("TaskScheduler");
  return *handler;
}

namespace {
[[maybe_unused]] Platform::DebugHandler& atLoad = schedDebug();
}  // namespace

}  // namespace Veltro
