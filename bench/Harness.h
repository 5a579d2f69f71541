#pragma once
#include <ctime>
#include <functional>
#include <iosfwd>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// A small harness for comparisons: the variants of a row do the same work, are measured in turn,
/// round by round and in alternating order, and what counts are the ratios within a round.
namespace bench {

/// Sets up, warms up, measures once, tears down; returns the row's unit an operation. Throws
/// LostWork when what was asked for was not done.
using Measure = std::function<double()>;

struct Variant {
  std::string name;
  Measure measure;
};

/// What a goal is measured against: the sum, or the least, of weighted variants of the same row
/// (the one without a name is 1); without any, the plain unit.
struct Reference {
  enum class Of { sum, least };
  std::vector<std::pair<double, std::string>> terms;
  Of of = Of::sum;
};

/// `variant` is to cost at most `factor` times the reference.
struct Goal {
  std::string variant;
  double factor;
  std::string reads;  // the goal in words, behind the factor
  Reference reference;
};

struct Row {
  std::string name;
  std::string unit;
  std::vector<Variant> variants;
  std::vector<Goal> goals;
  bool exact = false;  // counts, the same in every round
};

/// How a quantity grows: one row a size, the same variants in all, no goals.
struct Curve {
  std::string name;
  std::string along;  // what the sizes count
  std::vector<long> sizes;
  std::vector<std::pair<std::string, std::function<double(long)>>> variants;
};

/// A factor that differs between 32 and 64 bits.
constexpr double byWidth(double at32, double at64) { return sizeof(void*) == 4 ? at32 : at64; }

inline Goal atMost(double factor, std::string const& variant, std::string const& reference) {
  return {variant, factor, "x " + reference, {{{1, reference}}, Reference::Of::sum}};
}
inline Goal atMost(double limit, std::string const& variant) { return {variant, limit, "", {}}; }
inline Goal atMostBest(double factor, std::string const& variant,
                       std::vector<std::string> const& peers) {
  Goal goal{variant, factor, "x the best peer", {{}, Reference::Of::least}};
  for (auto const& peer : peers) goal.reference.terms.emplace_back(1, peer);
  return goal;
}

struct LostWork : std::runtime_error {
  using std::runtime_error::runtime_error;
};
inline void check(bool done, char const* what) {
  if (!done) throw LostWork(what);
}

/// Nanoseconds of processor time that the calling thread has used.
inline double processorTime() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

template <class Work>
double nanosecondsEach(long operations, Work&& work) {
  double const start = processorTime();
  work();
  return (processorTime() - start) / static_cast<double>(operations);
}

/// Keeps the compiler from dropping what makes `value`.
template <class T>
void keep(T const& value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

/// The rows and curves of one source file.
struct Suite {
  std::vector<Row> rows;
  std::vector<Curve> curves;
};
Suite taskRows();
Suite timerRows();
Suite descriptorRows();
Suite seenRows();
Suite partRows();

}  // namespace bench
