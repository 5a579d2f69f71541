#pragma once
#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstdlib>

#include "bench/loops/Callback.h"

namespace bench {

/// libevent without locks; a bound of 100 callbacks, after which it looks at descriptors and
/// timers, keeps an event that activates itself from holding up everything else.
struct LibeventLoop {
  using Delay = timeval;
  static constexpr bool kCachedClock = false;
  static Delay delay(double seconds) {
    timeval time{};
    time.tv_sec = static_cast<time_t>(seconds);
    time.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(time.tv_sec)) * 1e6);
    return time;
  }

  LibeventLoop() {
    event_config* const config = event_config_new();
    event_config_set_max_dispatch_interval(config, nullptr, 100, 0);
    event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
    base = event_base_new_with_config(config);
    event_config_free(config);
    if (base == nullptr) std::abort();
  }
  LibeventLoop(LibeventLoop const&) = delete;
  ~LibeventLoop() { event_base_free(base); }

  template <class Body>
  struct Timer {
    explicit Timer(LibeventLoop& loop) {
      auto const call = [](evutil_socket_t, short, void* self) {
        static_cast<Body*>(static_cast<Timer*>(self))->called();
      };
      event_assign(&event_, loop.base, -1, 0, call, this);
    }
    Timer(Timer const&) = delete;
    ~Timer() { event_del(&event_); }
    void again() {
      timeval const zero{};
      event_add(&event_, &zero);
    }
    void arm(Delay const& delay) { event_add(&event_, &delay); }
    void rearm(Delay const& delay) { arm(delay); }
    event event_;
  };
  template <class Body>
  using Again = Timer<Body>;
  template <class Body>
  struct Watch {
    Watch(LibeventLoop& loop, int fd) {
      auto const call = [](evutil_socket_t, short, void* self) {
        static_cast<Body*>(static_cast<Watch*>(self))->ready();
      };
      event_assign(&event_, loop.base, fd, EV_READ | EV_PERSIST, call, this);
      event_add(&event_, nullptr);
    }
    Watch(Watch const&) = delete;
    ~Watch() { event_del(&event_); }
    event event_;
  };
  void run() { event_base_loop(base, 0); }
  void stop() { event_base_loopbreak(base); }
  void timersCatchUp() {}
  event_base* base;
};

/// "Again" by an event that is made active by hand.
struct LibeventActiveLoop : LibeventLoop {
  template <class Body>
  struct Again : Timer<Body> {
    explicit Again(LibeventLoop& loop) : Timer<Body>(loop) {}
    void again() { event_active(&this->event_, EV_TIMEOUT, 1); }
  };
};

/// "Again" by a timer whose event is assigned anew each time.
struct LibeventReassignedLoop : LibeventLoop {
  template <class Body>
  struct Again : Timer<Body> {
    explicit Again(LibeventLoop& loop) : Timer<Body>(loop), base_(loop.base) {}
    void again() {
      event_assign(&this->event_, base_, -1, 0,
                   this->event_.ev_evcallback.evcb_cb_union.evcb_callback,
                   this->event_.ev_evcallback.evcb_arg);
      Timer<Body>::again();
    }
    event_base* const base_;
  };
};

}  // namespace bench
