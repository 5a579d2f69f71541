#include "SchedDebug.h"

namespace Veltro {
namespace {
[[maybe_unused]] Platform::DebugHandler& atLoad = schedDebug();
}  // namespace
}  // namespace Veltro
