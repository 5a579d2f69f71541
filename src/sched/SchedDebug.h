#pragma once
#include "Veltro/Debug.h"

namespace Veltro {

constexpr char const* kSourceFile = "Veltro/TaskSchedulerCpp";  // shown in messages

/// Set when the library is loaded; a task run asks often, so no guard stands before it.
extern Platform::DebugHandler* const schedDebugHandler;

/// The trace category "TaskScheduler", for all of this room. Never freed: tasks of ending threads
/// and static objects still trace.
inline Platform::DebugHandler& schedDebug() { return *schedDebugHandler; }

}  // namespace Veltro
