#pragma once
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Veltro/Export.h"

namespace Veltro {

class TaskSchedulerRoot;

/// Tells of a task that runs on and on, while it still does: which, for how long, whether it
/// computes or waits, and where.
///
/// By one call for a thread, or by the environment: VELTRO_WATCHDOG=1, or a limit in milliseconds,
/// does it for every schedulerRootVeltro().
///
/// A thread of its own looks at the scheduler's turns four times a limit, and needs nothing else of
/// the watched thread than a mark at the beginning and the end of each (a few nanoseconds). When
/// one turn has lasted for a limit it sends that thread a signal, whose handler takes down the
/// stack: SIGRTMIN+5, unless the program has a handler for that one, and only then; a system call
/// of the stalled task may end with EINTR. Without the signal (blocked, or taken) there is no
/// stack. What counts is how often the watchdog itself woke up meanwhile, not the clock: so there
/// is no alarm for the time that the machine slept or the process was stopped, in a debugger or
/// else; and virtual time has no say in it. While a debugger is attached nothing is reported at
/// all.
///
/// For the thread of the root, which must outlive it; one at most for each root. A forked child is
/// not watched.
class VELTRO_API StallWatchdog final {
 public:
  /// All times are kept so.
  using Nanoseconds = std::chrono::nanoseconds;

  /// One report of a stall.
  struct VELTRO_API Report {
    std::string task;           ///< its name; a group's task goes by its group
    Nanoseconds running;        ///< so far
    Nanoseconds processorTime;  ///< of that
    Nanoseconds processorWait;  ///< of that: ready, while others had the processor
    std::string stack;          ///< frames of Backtrace::pretty(), a blank between; or ""
    /// Whether it used the processor, or wanted to, for most of the time; else it waits for
    /// something.
    bool computing() const { return (processorTime + processorWait) * 2 >= running; }
    /// One line: "stall: task 'walk' has run for 0.214 s, computing (0.213 s), stack: ...".
    std::string text() const;
  };
  /// Called on the watchdog's thread, at the limit and at each doubling of it within one stall.
  using Reporter = std::function<void(Report const&)>;

  /// Watches from now on. A limit of zero means ten default quanta of the root; one below a
  /// millisecond throws AssertException. Without a reporter text() goes to standard error.
  explicit StallWatchdog(TaskSchedulerRoot& root, Nanoseconds limit = Nanoseconds::zero(),
                         Reporter reporter = {});
  /// Waits for a report under way.
  ~StallWatchdog();
  StallWatchdog(StallWatchdog const&) = delete;
  StallWatchdog& operator=(StallWatchdog const&) = delete;

 private:
  class Impl;
  std::unique_ptr<Impl> const impl_;
};

}  // namespace Veltro
