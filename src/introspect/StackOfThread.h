#pragma once
#include <pthread.h>

#include <string>

namespace Veltro {

class TaskSchedulerRoot;

/// What a thread was found at by a signal.
struct FoundAt {
  std::string task;   // of the root; "" when none runs
  std::string stack;  // frames of Backtrace::pretty(), a blank between
};

/// Interrupts the thread, which is that of `root`, for its stack. Both are "" when it does not
/// answer within a tenth of a second. For any other thread; callers take turns.
FoundAt foundAt(pthread_t thread, TaskSchedulerRoot const& root);

}  // namespace Veltro
