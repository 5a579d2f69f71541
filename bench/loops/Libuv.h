#pragma once
#include <uv.h>

#include <cstdlib>

#include "bench/loops/Callback.h"

namespace bench {

/// libuv. "Again" is an idle handle, stopped when nobody asked again.
struct LibuvLoop {
  using Delay = std::uint64_t;  // milliseconds
  static constexpr bool kCachedClock = true;
  static Delay delay(double seconds) { return static_cast<Delay>(seconds * 1e3); }

  LibuvLoop() {
    if (uv_loop_init(&loop) != 0) std::abort();
  }
  LibuvLoop(LibuvLoop const&) = delete;
  ~LibuvLoop() {
    uv_run(&loop, UV_RUN_DEFAULT);  // handles are freed once they are closed
    if (uv_loop_close(&loop) != 0) std::abort();
  }

  template <class Handle>
  static void close(Handle* handle) {
    uv_close(reinterpret_cast<uv_handle_t*>(handle),
             [](uv_handle_t* closed) { delete reinterpret_cast<Handle*>(closed); });
  }

  template <class Body>
  struct Again {
    explicit Again(LibuvLoop& l) {
      uv_idle_init(&l.loop, idle_);
      idle_->data = this;
    }
    Again(Again const&) = delete;
    ~Again() { close(idle_); }
    void again() {
      wanted_ = true;
      uv_idle_start(idle_, [](uv_idle_t* idle) { static_cast<Again*>(idle->data)->_idle(); });
    }
    void _idle() {
      wanted_ = false;
      static_cast<Body*>(this)->called();
      if (!wanted_) uv_idle_stop(idle_);
    }
    uv_idle_t* const idle_ = new uv_idle_t;
    bool wanted_ = false;
  };
  template <class Body>
  struct Timer {
    explicit Timer(LibuvLoop& l) {
      uv_timer_init(&l.loop, timer_);
      timer_->data = this;
    }
    Timer(Timer const&) = delete;
    ~Timer() { close(timer_); }
    void arm(Delay milliseconds) {
      auto const call = [](uv_timer_t* timer) {
        static_cast<Body*>(static_cast<Timer*>(timer->data))->called();
      };
      uv_timer_start(timer_, call, milliseconds, 0);
    }
    void rearm(Delay milliseconds) { arm(milliseconds); }
    uv_timer_t* const timer_ = new uv_timer_t;
  };
  template <class Body>
  struct Watch {
    Watch(LibuvLoop& l, int fd) {
      if (uv_poll_init(&l.loop, poll_, fd) != 0) std::abort();
      poll_->data = this;
      uv_poll_start(poll_, UV_READABLE, [](uv_poll_t* poll, int, int) {
        static_cast<Body*>(static_cast<Watch*>(poll->data))->ready();
      });
    }
    Watch(Watch const&) = delete;
    ~Watch() { close(poll_); }
    uv_poll_t* const poll_ = new uv_poll_t;
  };
  void run() { uv_run(&loop, UV_RUN_DEFAULT); }
  void stop() { uv_stop(&loop); }
  void timersCatchUp() { uv_update_time(&loop); }
  uv_loop_t loop;
};

}  // namespace bench
