#pragma once
#include <cstdlib>

#include "bench/loops/Callback.h"

// libevent has macros of the same names. Its own macros cast between watchers by the C rules.
#pragma push_macro("EV_TIMEOUT")
#pragma push_macro("EV_READ")
#pragma push_macro("EV_WRITE")
#pragma push_macro("EV_SIGNAL")
#undef EV_TIMEOUT
#undef EV_READ
#undef EV_WRITE
#undef EV_SIGNAL
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wconversion"
#include <ev.h>
#pragma GCC diagnostic pop
namespace bench {
constexpr int kLibevReadable = EV_READ;
}
#pragma pop_macro("EV_TIMEOUT")
#pragma pop_macro("EV_READ")
#pragma pop_macro("EV_WRITE")
#pragma pop_macro("EV_SIGNAL")

namespace bench {

/// libev. "Again" is an idle watcher, stopped when nobody asked again.
struct LibevLoop {
  using Delay = double;
  static constexpr bool kCachedClock = true;
  static Delay delay(double seconds) { return seconds; }

  LibevLoop() {
    if (loop == nullptr) std::abort();
  }
  LibevLoop(LibevLoop const&) = delete;
  ~LibevLoop() { ev_loop_destroy(loop); }

  template <class Body>
  struct Again {
    explicit Again(LibevLoop& l) : loop_(l.loop) {
      ev_idle_init(&idle_, &_idle);
      idle_.data = this;
    }
    Again(Again const&) = delete;
    ~Again() { ev_idle_stop(loop_, &idle_); }
    void again() {
      wanted_ = true;
      ev_idle_start(loop_, &idle_);
    }
    static void _idle(struct ev_loop*, ev_idle* idle, int) {
      auto* const self = static_cast<Again*>(idle->data);
      self->wanted_ = false;
      static_cast<Body*>(self)->called();
      if (!self->wanted_) ev_idle_stop(self->loop_, idle);
    }
    struct ev_loop* const loop_;
    ev_idle idle_;
    bool wanted_ = false;
  };
  template <class Body>
  struct Timer {
    explicit Timer(LibevLoop& l) : loop_(l.loop) {
      auto const call = [](struct ev_loop*, ev_timer* timer, int) {
        static_cast<Body*>(static_cast<Timer*>(timer->data))->called();
      };
      ev_timer_init(&timer_, call, 0, 0);
      timer_.data = this;
    }
    Timer(Timer const&) = delete;
    ~Timer() { ev_timer_stop(loop_, &timer_); }
    void arm(Delay seconds) {
      ev_timer_stop(loop_, &timer_);
      ev_timer_set(&timer_, seconds, 0);
      ev_timer_start(loop_, &timer_);
    }
    void rearm(Delay seconds) { arm(seconds); }
    struct ev_loop* const loop_;
    ev_timer timer_;
  };
  template <class Body>
  struct Watch {
    Watch(LibevLoop& l, int fd) : loop_(l.loop) {
      auto const call = [](struct ev_loop*, ev_io* io, int) {
        static_cast<Body*>(static_cast<Watch*>(io->data))->ready();
      };
      ev_io_init(&io_, call, fd, kLibevReadable);
      io_.data = this;
      ev_io_start(loop_, &io_);
    }
    Watch(Watch const&) = delete;
    ~Watch() { ev_io_stop(loop_, &io_); }
    struct ev_loop* const loop_;
    ev_io io_;
  };
  void run() { ev_run(loop, 0); }
  void stop() { ev_break(loop, EVBREAK_ALL); }
  void timersCatchUp() { ev_now_update(loop); }
  struct ev_loop* const loop = ev_loop_new(EVBACKEND_EPOLL);
};

/// Timers that repeat unless stopped, and are moved in one step.
struct LibevAgainLoop : LibevLoop {
  template <class Body>
  struct Timer : LibevLoop::Timer<Body> {
    explicit Timer(LibevLoop& l) : LibevLoop::Timer<Body>(l) {}
    void rearm(Delay seconds) {
      this->timer_.repeat = seconds;
      ev_timer_again(this->loop_, &this->timer_);
    }
  };
};

}  // namespace bench
