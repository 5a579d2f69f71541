#pragma once
#include <glib.h>

#include "bench/loops/Callback.h"

namespace bench {

/// GLib. "Again" is a source that is always ready, taken away when nobody asked again; a timer is
/// a source with a ready time.
struct GlibLoop {
  using Delay = gint64;  // microseconds
  static constexpr bool kCachedClock = false;
  static Delay delay(double seconds) { return static_cast<Delay>(seconds * 1e6); }

  GlibLoop() = default;
  GlibLoop(GlibLoop const&) = delete;
  ~GlibLoop() {
    g_main_loop_unref(loop);
    g_main_context_unref(context);
  }

  template <class Body>
  struct Timer {
    struct Source {
      GSource source;
      Timer* self;
    };
    explicit Timer(GlibLoop& l) {
      static GSourceFuncs functions{nullptr, nullptr, &_dispatch, nullptr, nullptr, nullptr};
      source_ = g_source_new(&functions, sizeof(Source));
      reinterpret_cast<Source*>(source_)->self = this;
      g_source_attach(source_, l.context);
    }
    Timer(Timer const&) = delete;
    ~Timer() {
      g_source_destroy(source_);
      g_source_unref(source_);
    }
    void again() { g_source_set_ready_time(source_, 0); }
    void arm(Delay microseconds) {
      g_source_set_ready_time(source_, g_get_monotonic_time() + microseconds);
    }
    void rearm(Delay microseconds) { arm(microseconds); }
    static gboolean _dispatch(GSource* source, GSourceFunc, gpointer) {
      g_source_set_ready_time(source, -1);
      static_cast<Body*>(reinterpret_cast<Source*>(source)->self)->called();
      return G_SOURCE_CONTINUE;
    }
    GSource* source_;
  };
  template <class Body>
  using Again = Timer<Body>;
  template <class Body>
  struct Watch {
    struct Source {
      GSource source;
      Watch* self;
    };
    Watch(GlibLoop& l, int fd) {
      static GSourceFuncs functions{nullptr, nullptr, &_dispatch, nullptr, nullptr, nullptr};
      source_ = g_source_new(&functions, sizeof(Source));
      reinterpret_cast<Source*>(source_)->self = this;
      g_source_add_unix_fd(source_, fd, G_IO_IN);
      g_source_attach(source_, l.context);
    }
    Watch(Watch const&) = delete;
    ~Watch() {
      g_source_destroy(source_);
      g_source_unref(source_);
    }
    static gboolean _dispatch(GSource* source, GSourceFunc, gpointer) {
      static_cast<Body*>(reinterpret_cast<Source*>(source)->self)->ready();
      return G_SOURCE_CONTINUE;
    }
    GSource* source_;
  };
  void run() { g_main_loop_run(loop); }
  void stop() { g_main_loop_quit(loop); }
  void timersCatchUp() {}
  GMainContext* const context = g_main_context_new();
  GMainLoop* const loop = g_main_loop_new(context, 0);
};

}  // namespace bench
