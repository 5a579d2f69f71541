#include "SchedDebug.h"

namespace Veltro {

Platform::DebugHandler* const schedDebugHandler = Platform::getDebugHandler("TaskScheduler");

}  // namespace Veltro
