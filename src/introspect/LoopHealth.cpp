#include "Veltro/LoopHealth.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <ostream>

namespace Veltro {
namespace {

constexpr U64 kForGood = std::numeric_limits<U64>::max();

U64 now() {
  return static_cast<U64>(std::chrono::steady_clock::now().time_since_epoch() /
                          std::chrono::nanoseconds(1));
}

void add(LoopHealth::Histogram& histogram, U64 sample) {
  constexpr unsigned kLast = sizeof histogram.buckets / sizeof histogram.buckets[0] - 1;
  unsigned const bucket = sample == 0 ? 0 : 64 - static_cast<unsigned>(__builtin_clzll(sample));
  ++histogram.buckets[std::min(bucket, kLast)];
  histogram.sum += sample;
  histogram.max = std::max(histogram.max, sample);
}

void printLine(std::ostream& stream, char const* name, LoopHealth::Histogram const& histogram,
               double unit, char const* format) {
  char text[128];
  auto const scaled = [unit](U64 value) { return static_cast<double>(value) / unit; };
  std::snprintf(text, sizeof text, format, name, scaled(LoopHealth::quantile(histogram, 0.5)),
                scaled(LoopHealth::quantile(histogram, 0.99)), scaled(histogram.max));
  stream << text;
}

}  // namespace

LoopHealth& LoopHealth::instance() {
  static LoopHealth* const health = new LoopHealth;
  return *health;
}

void LoopHealth::measureFor(std::chrono::nanoseconds time) {
  U64 const start = now();
  if (!measuring()) {
    current_ = last_ = Window{};
    current_.start = current_.end = start;
  }
  bool const forGood = time == std::chrono::nanoseconds::max();
  until_ = std::max(until_, forGood ? kForGood : start + static_cast<U64>(time.count()));
  Kiv::ActivityManager::instance().config().passObserverIs(this);
}

bool LoopHealth::measuring() const {
  return Kiv::ActivityManager::instance().config().passObserver() == this;
}

void LoopHealth::onPass(Kiv::Pass const& pass) {
  U64 const end = now();
  ++current_.passes;
  current_.end = end;
  add(current_.waited, pass.waited);
  add(current_.worked, pass.worked);
  add(current_.lag, pass.lag);
  add(current_.events, pass.calls);
  if (end - current_.start >= static_cast<U64>(std::chrono::nanoseconds(kWindow).count())) {
    last_ = current_;
    current_ = Window{};
    current_.start = current_.end = end;
  }
  if (end > until_) Kiv::ActivityManager::instance().config().passObserverIs(nullptr);
}

void LoopHealth::print(std::ostream& stream) const {
  Window const& window = last_.passes != 0 ? last_ : current_;
  double const total = static_cast<double>(window.waited.sum + window.worked.sum);
  double const idle = total > 0 ? static_cast<double>(window.waited.sum) / total * 100 : 0;
  char text[128];
  std::snprintf(text, sizeof text, "Loop: %llu passes in %.3f seconds, idle %.1f%%\n",
                static_cast<unsigned long long>(window.passes),
                static_cast<double>(window.end - window.start) / 1e9, idle);
  stream << text;
  stream << "            median      99%      max\n";
  constexpr char const* kTimes = "%-8s %8.3f %8.3f %8.3f ms\n";
  printLine(stream, "Lag", window.lag, 1e6, kTimes);
  printLine(stream, "Pass", window.worked, 1e6, kTimes);
  printLine(stream, "Events", window.events, 1, "%-8s %8.0f %8.0f %8.0f a pass\n");
}

U64 LoopHealth::quantile(Histogram const& histogram, double share) {
  U64 samples = 0;
  for (U32 const count : histogram.buckets) samples += count;
  U64 below = 0;
  U64 upper = 0;
  for (U32 const count : histogram.buckets) {
    below += count;
    if (static_cast<double>(below) >= share * static_cast<double>(samples)) break;
    upper = 2 * upper + 1;
  }
  return std::min(upper, histogram.max);
}

}  // namespace Veltro
