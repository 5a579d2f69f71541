#pragma once
#include "Veltro/Debug.h"

namespace Veltro {

constexpr char const* kSourceFile = "Veltro/TaskSchedulerCpp";  // shown in messages

/// The trace category "TaskScheduler", for all of this room. Never freed: tasks of ending threads
/// and static objects still trace. Inline, for a task run asks several times.
inline Platform::DebugHandler& schedDebug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("TaskScheduler");
  return *handler;
}

}  // namespace Veltro
