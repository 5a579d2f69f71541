#include "Kiv/TimeStampCounter.h"

#include <atomic>
#include <cstring>
#include <mutex>

namespace Kiv {
namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr nanoseconds kShortestBase = std::chrono::milliseconds(1);
constexpr U64 kPrecision = 64;  // the readings' own spread is at most this part of the base

/// The counter beside the clock; the clock was read somewhere within `spread` ticks.
struct Sample {
  U64 ticks;
  U64 spread;
  steady_clock::time_point time;
};

Sample takeSample() {
  U64 const before = TimeStampCounter::now();
  auto const time = steady_clock::now();
  return {before, TimeStampCounter::now() - before, time};
}

/// Ticks per nanosecond between two samples; 0 when they do not tell: too near, the counter
/// stood still or went back, or a reading was interrupted by something long.
double rateBetween(Sample const& first, Sample const& second) {
  nanoseconds const base = second.time - first.time;
  U64 const ticks = second.ticks - first.ticks;
  bool const forward = second.ticks > first.ticks;
  if (base < kShortestBase || !forward) return 0;
  if (first.spread > ticks / kPrecision || second.spread > ticks / kPrecision) return 0;
  return static_cast<double>(ticks) / static_cast<double>(base.count());
}

// A double's bits: of a double itself clang at 32 bits makes calls into a library we do not link.
std::atomic<U64> knownRateBits{0};

double knownRate() {
  U64 const bits = knownRateBits.load(std::memory_order_relaxed);
  double rate;
  std::memcpy(&rate, &bits, sizeof rate);
  return rate;
}

void knownRateIs(double rate) {
  U64 bits;
  std::memcpy(&bits, &rate, sizeof bits);
  knownRateBits.store(bits, std::memory_order_relaxed);
}

double learnRate() {
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  static Sample first = takeSample();
  Sample const second = takeSample();
  double const rate = rateBetween(first, second);
  if (rate > 0) {
    knownRateIs(rate);
  } else if (second.time - first.time >= kShortestBase) {
    first = second;  // one of the two was bad; the next pair will do
  }
  return rate;
}

}  // namespace

U64 TimeStampCounter::ticks(nanoseconds duration) {
  double rate = knownRate();
  if (rate == 0) rate = learnRate();
  double const ticks = rate * static_cast<double>(duration.count());
  constexpr double kBeyond = 18446744073709551616.0;  // 2^64
  if (ticks >= kBeyond) return ~U64{0};
  return ticks > 0 ? static_cast<U64>(ticks) : 0;
}

}  // namespace Kiv
