// Timers: moving one of many, and firing many that are due.
#include <chrono>
#include <deque>
#include <random>
#include <utility>
#include <vector>

#include "bench/Child.h"
#include "bench/Harness.h"
#include "bench/Rearming.h"
#include "bench/loops/Asio.h"
#include "bench/loops/Glib.h"
#include "bench/loops/Libev.h"
#include "bench/loops/Libevent.h"
#include "bench/loops/Libuv.h"
#include "bench/loops/Ours.h"

namespace bench {
namespace {
constexpr long kSteps = 1 << 15;

template <class Loop>
double rearm(long count) {
  Loop loop;
  Rearming<Loop> work(loop, count);
  auto const once = [&] {
    work.stepAll();
    loop.timersCatchUp();
  };
  work.draw(kSteps);
  once();
  work.draw(kSteps);  // afresh: a timer that is given the delay it has hardly moves
  return nanosecondsEach(kSteps, once);
}

template <class Loop>
struct Due : Loop::template Timer<Due<Loop>> {
  struct Order {
    Loop& loop;
    long left = 0;
    double latest = 0;
    long late = 0;
  };
  Due(Loop& l, Order& o) : Loop::template Timer<Due<Loop>>(l), order(o) {}
  void called() {
    // Some clocks tick every millisecond, the coarse one of the kernel every 4 ms.
    if (due == kUnknown) return _done();
    if (due < order.latest - 5e-3) ++order.late;
    order.latest = due;
    _done();
  }
  void _done() {
    if (--order.left == 0) order.loop.stop();
  }
  static constexpr double kUnknown = 0;
  Order& order;
  double due = kUnknown;
};

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// `count` timers that are all due when the loop gets to run.
template <class Loop>
double fire(long count) {
  Loop loop;
  std::mt19937 random(1);
  typename Due<Loop>::Order order{loop};
  std::deque<Due<Loop>> timers;
  for (long i = 0; i < count; ++i) timers.emplace_back(loop, order);
  order.left = count;
  loop.timersCatchUp();
  double const start = now();
  double latest = 0;
  for (auto& timer : timers) {
    double const delay = 1e-3 + randomSeconds(random, 0.02);
    double const before = now();
    timer.arm(Loop::delay(delay));
    double const after = now();
    bool const interrupted = after - before > 1e-3;
    if (!interrupted) timer.due = (Loop::kCachedClock ? start : after) + delay;
    latest = std::max(latest, after + delay);
  }
  while (now() < latest + 2e-3) {
  }
  double const cost = nanosecondsEach(count, [&] { loop.run(); });
  check(order.left == 0, "timers were lost");
  check(order.late == 0, "timers fired out of order");
  return cost;
}

template <class Loop>
Variant rearming(char const* name, long count) {
  return {name, [count] { return rearm<Loop>(count); }};
}
template <class Loop>
Variant firing(char const* name, long count) {
  return {name, [count] { return fire<Loop>(count); }};
}

std::vector<Variant> rearmingOnAll(long count) {
  return {rearming<KivLoop>("our loop, clock read", count),
          rearming<KivLoopCachedClock>("our loop, caller's reading", count),
          rearming<LibevLoop>("libev, cached clock", count),
          rearming<LibevAgainLoop>("libev, repeating timer moved", count),
          rearming<AsioLoop>("Asio", count),
          rearming<LibeventLoop>("libevent", count),
          rearming<LibuvLoop>("libuv, cached clock", count)};
}

Row rearmOneOf1k() {
  auto variants = rearmingOnAll(1000);
  variants.push_back(rearming<FacadeLoop>("our facade, clock read", 1000));
  variants.push_back(rearming<GlibLoop>("GLib", 1000));
  return {"re-arm one of 1,000",
          "ns",
          std::move(variants),
          {atMost(2.0, "our loop, clock read", "libev, cached clock"),
           atMost(1.1, "our loop, caller's reading", "libev, cached clock")}};
}

Row rearmOneOf100k() {
  return {"re-arm one of 100,000",
          "ns",
          rearmingOnAll(100000),
          {atMost(0.6, "our loop, clock read", "Asio"),
           atMost(1.0, "our loop, clock read", "libevent")}};
}

Row rearmInstructions() {
  return {
      "re-arm one of 100,000, instructions",
      "instructions",
      {{"our loop, caller's reading", [] { return instructionsEach("hot_road", "re-arm-100000"); }},
       {"libev, cached clock", [] { return instructionsEach("peer_road", "re-arm-100000"); }},
       {"libev, repeating timer moved",
        [] { return instructionsEach("peer_road", "move-100000"); }}},
      {atMost(1.0, "our loop, caller's reading", "libev, cached clock")},
      true};
}

Row fire100k() {
  return {"fire 100,000 due timers",
          "ns",
          {firing<KivLoop>("our loop", 100000), firing<LibevLoop>("libev", 100000),
           firing<LibeventLoop>("libevent", 100000), firing<LibuvLoop>("libuv", 100000),
           firing<AsioLoop>("Asio", 100000)},
          {atMost(1.2, "our loop", "libev"), atMost(0.75, "our loop", "libevent")}};
}

std::vector<long> const kTimerCounts{10, 100, 1000, 10000, 100000, 1000000};
}  // namespace

Suite timerRows() {
  return {{rearmOneOf1k(), rearmOneOf100k(), rearmInstructions(), fire100k()},
          {{"re-arm a timer",
            "armed timers",
            kTimerCounts,
            {{"our loop", &rearm<KivLoop>},
             {"libev", &rearm<LibevLoop>},
             {"libevent", &rearm<LibeventLoop>},
             {"libuv", &rearm<LibuvLoop>},
             {"Asio", &rearm<AsioLoop>}}},
           {"fire a due timer",
            "due timers",
            kTimerCounts,
            {{"our loop", &fire<KivLoop>},
             {"libev", &fire<LibevLoop>},
             {"libevent", &fire<LibeventLoop>},
             {"libuv", &fire<LibuvLoop>},
             {"Asio", &fire<AsioLoop>}}}}};
}

}  // namespace bench
