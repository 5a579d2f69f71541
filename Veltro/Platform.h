#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "Veltro/Export.h"

namespace Veltro {

class TaskPriority;
class TaskScheduler;

using U32 = std::uint32_t;
using U64 = std::uint64_t;

/// The door to timers, descriptor watches, callbacks and the event loop: a class used as a
/// namespace, all static.
///
/// A client implements a handler, asks for the matching control, and steers through the control.
/// Which loop stands behind is decided once for each thread, at its first call for a control or
/// the loop:
///  - the type system's loop, for the main thread, and for all threads of a program that has not
///    called useThreadLocalSingletons();
///  - a libevent base of its own, for any other thread of a program that has.
/// The overloads that take a scheduler hand out controls that are tasks of it, on any thread.
///
/// Ownership: the client owns the control; the control points to the handler and never owns it,
/// so the handler must outlive it. Destroying a control cancels all that it had armed. A control
/// may be used, re-armed or destroyed inside any handler, its own too.
/// Thread: a control belongs to the thread that asked for it. Nothing is locked.
/// Exceptions: one that leaves a handler's event operation is offered to its handle...Exception():
/// true swallows it, false (the default) lets it leave doEventLoop(), which may be called again.
class VELTRO_API Platform {
 public:
  Platform() = delete;

  class DebugHandler;  // Veltro/Debug.h
  class DebugStream;
  class Plugin;  // Veltro/PluginCpp.h

  class TaskTimerControl;  // Veltro/TaskControls.h
  class TaskFdControl;
  class TaskCallbackControl;

  /// Told when a timer expires.
  class VELTRO_API TimeoutHandler {
   public:
    virtual ~TimeoutHandler() = default;
    /// The timer has expired; it is disarmed unless armed anew.
    virtual void timeout() = 0;
    /// True swallows the exception that timeout() has thrown; called while it is being handled.
    virtual bool handleTimeoutException() { return false; }
  };

  /// Told when a descriptor is ready.
  class VELTRO_API FdEventHandler {
   public:
    virtual ~FdEventHandler() = default;
    /// `fd` is ready and the interest is on. Called again as long as both hold.
    virtual void readFdEvent(int fd) = 0;
    virtual void writeFdEvent(int fd) = 0;
    /// True swallows the exception that one of the above has thrown.
    virtual bool handleFdException(int /*fd*/) { return false; }
  };

  /// Called back from the loop.
  class VELTRO_API CallbackHandler {
   public:
    virtual ~CallbackHandler() = default;
    /// The call that was asked for; asking again from here is for a later one.
    virtual void callback() = 0;
    /// True swallows the exception that callback() has thrown.
    virtual bool handleCallbackException() { return false; }
  };

  /// A one-shot timer.
  class VELTRO_API TimerControl {
   public:
    virtual ~TimerControl() = default;
    /// (Re)arms: timeout() is called once, `seconds` from now and never earlier; 0, negative and
    /// not-a-number mean as soon as possible. Positive infinity disarms.
    virtual void setTimeout(double seconds) = 0;
    /// Disarms.
    virtual void delTimeout() = 0;
    /// Seconds left; 0 when the deadline has passed and timeout() is still to come; positive
    /// infinity when not armed.
    virtual double remainingTimeout() const = 0;
  };

  /// A watch on one descriptor, level-triggered: the handler is called for as long as the
  /// descriptor is ready and the interest is on. The descriptor stays the client's: take it off
  /// (delFd) before closing it.
  class VELTRO_API FdControl {
   public:
    virtual ~FdControl() = default;
    /// Interest in readability and writability. On the type system's loop both are off at first;
    /// on libevent reads are on.
    virtual void setReads(bool on) = 0;
    virtual void setWrites(bool on) = 0;
    /// Binds to `fd`, puts it into non-blocking mode and carries the interests over. One that
    /// cannot be watched throws Kiv::ErrnoException on the type system's loop and ends the
    /// process on libevent.
    virtual void setFd(int fd) = 0;
    /// clearEvents(), then forgets the descriptor.
    virtual void delFd() = 0;
    /// The bound descriptor, -1 when none.
    virtual int getFd() const = 0;
    /// Drops both interests: no event comes until something arms again. On the type system's
    /// loop that is setReads or setWrites; on libevent also a later setFd, which takes up the
    /// interests as they were.
    virtual void clearEvents() = 0;
  };

  /// One call from the loop, as soon as possible.
  class VELTRO_API CallbackControl {
   public:
    virtual ~CallbackControl() = default;
    /// Asks for one call; a second request while one is pending adds none.
    virtual void requestCallback() = 0;
    /// Drops the request, if there is one.
    virtual void cancelCallback() = 0;
    /// Whether a call is still to come.
    virtual bool pendingCallback() const = 0;
  };

  /// Controls of the thread's loop. The handler is borrowed.
  static std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
  static std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);
  static std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);

  /// Controls that are tasks of `scheduler` (Veltro/TaskControls.h).
  static std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                       std::shared_ptr<TaskScheduler> scheduler,
                                                       TaskPriority priority,
                                                       std::string const& name);
  static std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                                 std::shared_ptr<TaskScheduler> scheduler,
                                                 TaskPriority priority, std::string const& name);
  static std::shared_ptr<CallbackControl> getCallbackControl(
      CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
      std::string const& name);

  /// Runs the calling thread's loop until it has nothing left to do or is stopped; returns what
  /// the loop returns: 0 for an ordered end, 1 where libevent ran out of events, -1 when called
  /// from inside a run.
  static int doEventLoop();
  /// The same for `seconds` of loop time at most; with nothing to do it waits them out.
  static int doEventLoop(double seconds);

  /// Virtual time of the type system's loop: deadlines are reached without waiting. A thread with
  /// a loop of its own raises an assertion.
  static void setFastForward(bool on);
  static bool fastForward();

  /// A new handler for the trace category `name`, the caller's to delete.
  static DebugHandler* getDebugHandler(std::string const& name);
  /// Appends `spec` to TRACE and applies it; null does nothing. Entries: ["-"]name["/"levels],
  /// separated by commas. Like the four below it edits the environment: for start-up, or for one
  /// thread that alone does so.
  static void setupVeltroDebug(char const* spec);
  /// Appends the negation of every entry of `spec`.
  static void clearVeltroDebug(char const* spec);
  /// Writes the settings in force to standard output, one a line.
  static void dumpVeltroDebugMap();
  /// Sets TRACEFORMAT; removes it.
  static void setTraceFormat(char const* format);
  static void clearTraceFormat();

  /// Registers handleFork for the children of this process; called once, at load.
  static void setupHandler();
  /// What happens in the child.
  static void handleFork();
  /// Whether this process is the child of a fork() made after the library was loaded.
  static bool isForkedChild();

  /// See Veltro/PluginCpp.h.
  static void registerPlugin(Plugin* plugin);
  static Plugin* loadPlugin(char const* name);
};

/// Gives every thread but the main one a loop of its own, for good. Call it at start-up, before
/// worker threads ask for anything.
VELTRO_API void useThreadLocalSingletons();
/// Whether that has been called.
VELTRO_API bool hasThreadLocalSingletons();

/// Whether the calling thread is the process's first: its kernel thread id is the process id.
VELTRO_API bool isMainThread();
/// The kernel's thread id. Qualify the call: the C library has one of the same name.
VELTRO_API int gettid();

}  // namespace Veltro
