#pragma once
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <random>
#include <vector>

namespace bench {

inline double randomSeconds(std::mt19937& random, double span) {
  return span * static_cast<double>(random() % 1000000) * 1e-6;
}

/// Many armed timers, of which one after another is armed anew, in random order, to anywhere in
/// the next 1000 s. The same row of random numbers every time.
template <class Loop>
class Rearming {
 public:
  Rearming(Loop& loop, long count) {
    for (long i = 0; i < count; ++i) timers_.emplace_back(loop).rearm(_delay());
  }
  void draw(long steps) {
    steps_.clear();
    for (long i = 0; i < steps; ++i) {
      Timer& timer = timers_[random_() % timers_.size()];
      steps_.push_back({&timer, _delay()});
    }
  }
  void stepAll() { step(static_cast<long>(steps_.size())); }
  /// The first of those that were drawn.
  void step(long count) {
    for (auto const *step = steps_.data(), *const end = step + count; step != end; ++step) {
      step->timer->rearm(step->delay);
    }
  }

 private:
  struct Timer : Loop::template Timer<Timer> {
    explicit Timer(Loop& loop) : Loop::template Timer<Timer>(loop) {}
    void called() { std::abort(); }
  };
  struct Step {
    Timer* timer;
    typename Loop::Delay delay;
  };
  typename Loop::Delay _delay() { return Loop::delay(10 + randomSeconds(random_, 1000)); }

  std::mt19937 random_{1};
  std::deque<Timer> timers_;
  std::vector<Step> steps_;
};

}  // namespace bench
