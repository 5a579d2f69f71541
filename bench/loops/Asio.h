#pragma once
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>

#include "bench/loops/Callback.h"

namespace bench {

/// Boost.Asio for one thread. "Again" is post(): with a descriptor or a timer in the context it
/// looks at descriptors between any two handlers.
struct AsioLoop {
  using Delay = std::chrono::nanoseconds;
  static constexpr bool kCachedClock = false;
  static Delay delay(double seconds) { return Delay(static_cast<Delay::rep>(seconds * 1e9)); }

  template <class Body>
  struct Again {
    explicit Again(AsioLoop& loop) : context_(loop.context) {}
    Again(Again const&) = delete;
    void again() {
      boost::asio::post(context_, [this] { static_cast<Body*>(this)->called(); });
    }
    boost::asio::io_context& context_;
  };
  template <class Body>
  struct Timer {
    explicit Timer(AsioLoop& loop) : timer_(loop.context) {}
    Timer(Timer const&) = delete;
    void arm(Delay delay) {
      timer_.expires_after(delay);
      timer_.async_wait([this](boost::system::error_code const& error) {
        if (!error) static_cast<Body*>(this)->called();
      });
    }
    void rearm(Delay delay) { arm(delay); }
    boost::asio::steady_timer timer_;
  };
  template <class Body>
  struct Watch {
    Watch(AsioLoop& loop, int fd) : descriptor_(loop.context, fd) { _wait(); }
    Watch(Watch const&) = delete;
    ~Watch() { descriptor_.release(); }
    void _wait() {
      descriptor_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                             [this](boost::system::error_code const& error) {
                               if (error) return;
                               static_cast<Body*>(this)->ready();
                               _wait();
                             });
    }
    boost::asio::posix::stream_descriptor descriptor_;
  };
  void run() {
    context.restart();
    context.run();
  }
  void stop() { context.stop(); }
  /// Timers that were moved are called once, as cancelled.
  void timersCatchUp() {
    context.restart();
    context.poll();
  }
  boost::asio::io_context context{1};
};

}  // namespace bench
