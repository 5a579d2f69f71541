#pragma once
#include <event2/event.h>
#include <event2/event_struct.h>

#include <memory>

#include "Veltro/Export.h"
#include "Veltro/Platform.h"

namespace Veltro {

// The facade's controls on libevent: one event_base a thread, one event a timer or a direction of
// a descriptor. Agents use Platform; this header is for those who bring a base of their own or
// end a thread that had one. It is the only one that needs libevent's headers.
//
// Everything belongs to the calling thread. In a forked child the inherited base is made the
// child's own before its first use (event_reinit), so that the parent's events are left alone.

/// Makes the calling thread's base unless it has one. No memory for it: MemoryResourceException; no
/// descriptors: AssertException, for libevent calls that a fatal error.
VELTRO_API void leInit();
/// Takes `base` as the calling thread's. The same again is harmless; a second one raises an
/// assertion. leFree() frees it, whoever made it.
VELTRO_API void leRegisterBase(event_base* base);
/// Frees the thread's base, if any. A thread that had one calls this at its end, outside of its
/// loop; controls that are left are dead from then on, but may still be destroyed.
VELTRO_API void leFree();
/// Whether the calling thread has a base.
VELTRO_API bool leInitialized();

/// The facade's factories on this back end, whatever the thread.
VELTRO_API std::shared_ptr<Platform::TimerControl> getLeTimerControl(
    Platform::TimeoutHandler* handler);
VELTRO_API std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);
VELTRO_API std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler);

/// Runs the thread's base: 1 when no event is left, 0 when it was told to end, -1 from inside a
/// run. An exception that a handler lets pass leaves it; what was due and not yet called is
/// called by the next run.
VELTRO_API int doLeEventLoop();
/// The same for `seconds` at most; without memory for the end of it MemoryResourceException.
VELTRO_API int doLeEventLoop(double seconds);

/// Crude virtual time: the next loop run of the main thread finds all its timers due, in the
/// order of their deadlines; timers armed during the run wait in real time. Only the main thread,
/// once it has a base, may switch it; others raise an assertion.
VELTRO_API void setLeFastForward(bool on);
VELTRO_API bool leFastForward();

/// libevent's log: severities debug, msg, warn, err at levels 9, 5, 1, 0 of "VeltroLibevent".
/// An unknown severity raises an assertion.
VELTRO_API void le_debug_cb(int severity, char const* msg);
/// libevent's fatal errors raise an assertion instead of ending the process.
[[noreturn]] VELTRO_API void le_fatal_cb(int err);

struct LibeventThread;  // private to the library

/// A one-shot timer on the thread's base.
class VELTRO_API LibeventTimerControl : public Platform::TimerControl {
 public:
  /// Borrows the handler; makes the thread's base if there is none.
  explicit LibeventTimerControl(Platform::TimeoutHandler* handler);
  ~LibeventTimerControl() override;
  LibeventTimerControl(LibeventTimerControl const&) = delete;
  LibeventTimerControl& operator=(LibeventTimerControl const&) = delete;

  /// Delays beyond what 32 bits of wall-clock seconds hold are waited for in parts.
  void setTimeout(double seconds) override;
  void delTimeout() override;
  /// To one tick of libevent's coarse clock.
  double remainingTimeout() const override;

 protected:
  /// During timeout(): where it shows that this object is destroyed. Null outside of it.
  bool const* goneFlag() const { return gone_; }
  /// Whether timeout() is still to come.
  bool armed() const;

 private:
  static void handleTimeout(evutil_socket_t fd, short what, void* control);
  void handler(LibeventThread const& thread);
  void _assign(LibeventThread& thread);
  int _add(LibeventThread& thread, double seconds);

  Platform::TimeoutHandler* const handler_;
  event timerEvent_;
  U64 baseSerial_ = 0;    // which base timerEvent_ is assigned to
  double beyond_ = 0;     // seconds still to wait when this part of the delay is over
  bool* gone_ = nullptr;  // set when destroyed inside its own call
};

/// A watch on one descriptor by the thread's base; reads are on at first.
class VELTRO_API LibeventFdControl : public Platform::FdControl {
 public:
  /// Borrows the handler; makes the thread's base if there is none.
  explicit LibeventFdControl(Platform::FdEventHandler* handler);
  ~LibeventFdControl() override;
  LibeventFdControl(LibeventFdControl const&) = delete;
  LibeventFdControl& operator=(LibeventFdControl const&) = delete;

  void setReads(bool on) override;
  void setWrites(bool on) override;
  /// A number that is not open ends the process; what libevent cannot watch (a regular file)
  /// throws RuntimeException and leaves the control with none.
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void clearEvents() override;
  /// A background control is served like any other, but does not keep the loop running. Set it
  /// before setFd().
  void backgroundIs(bool background) { background_ = background; }

 private:
  static void handleFdRead(evutil_socket_t fd, short what, void* control);
  static void handleFdWrite(evutil_socket_t fd, short what, void* control);
  void _call(short what);
  void _arm(event& event, short what, event_callback_fn callback);
  void _disarm(event& event);

  Platform::FdEventHandler* const handler_;
  int fd_ = -1;
  bool reads_ = true;
  bool writes_ = false;
  event readEvent_;
  event writeEvent_;
  bool background_ = false;
  U64 baseSerial_ = 0;
  bool* gone_ = nullptr;
};

/// A callback: a timer of delay 0 on the thread's base.
class VELTRO_API LibeventCallbackControl final : public Platform::CallbackControl,
                                                 private Platform::TimeoutHandler,
                                                 private LibeventTimerControl {
 public:
  /// Borrows the handler; makes the thread's base if there is none.
  explicit LibeventCallbackControl(Platform::CallbackHandler* handler);
  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;
  /// The timer's side of it: calls the handler.
  void timeout() override;

 private:
  Platform::CallbackHandler* const handler_;
};

}  // namespace Veltro
