// Runs the rows whose names match a regular expression and prints a table, and JSON to a file.
//   loops_bench [--rounds N] [--json FILE] [--growth] [FILTER]
#include <alloca.h>
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

#include "bench/Harness.h"

namespace bench {
namespace {

using Samples = std::map<std::string, std::vector<double>>;

double median(std::vector<double> values) {
  auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double reference(Goal const& goal, Samples const& samples, std::size_t round) {
  if (goal.reference.terms.empty()) return 1;
  double sum = 0;
  double least = 1e300;
  for (auto const& [weight, variant] : goal.reference.terms) {
    double const value = weight * (variant.empty() ? 1 : samples.at(variant).at(round));
    sum += value;
    least = std::min(least, value);
  }
  return goal.reference.of == Reference::Of::sum ? sum : least;
}

std::vector<double> ratios(Goal const& goal, Samples const& samples) {
  auto const& values = samples.at(goal.variant);
  std::vector<double> result;
  for (std::size_t round = 0; round < values.size(); ++round) {
    result.push_back(values[round] / reference(goal, samples, round));
  }
  return result;
}

/// Each round at another place of the stack: which of its addresses alias with others decides
/// about a few nanoseconds, and would do so for a whole process.
double measured(Variant const& variant, std::size_t round) {
  keep(alloca(16 + round * 336 % 4096));
  try {
    return variant.measure();
  } catch (LostWork const& failure) {
    throw LostWork(variant.name + ": " + failure.what());
  }
}

/// Even rounds forward, odd ones backward: what drifts hits all alike.
Samples measure(Row const& row, std::size_t rounds) {
  Samples samples;
  for (std::size_t round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < row.variants.size(); ++i) {
      auto const& variant = row.variants[round % 2 == 0 ? i : row.variants.size() - 1 - i];
      samples[variant.name].push_back(measured(variant, round));
    }
  }
  return samples;
}

std::string quoted(std::string const& text) { return '"' + text + '"'; }  // names need no escapes

class Report {
 public:
  void row(Row const& row, Samples const& samples) {
    std::printf("\n%s (%s)\n", row.name.c_str(), row.unit.c_str());
    std::ostringstream variants;
    for (auto const& variant : row.variants) {
      auto const& values = samples.at(variant.name);
      auto const [low, high] = std::minmax_element(values.begin(), values.end());
      double const middle = median(values);
      std::printf("  %-34s %10.1f   (%.1f to %.1f)\n", variant.name.c_str(), middle, *low, *high);
      if (variants.tellp() > 0) variants << ", ";
      variants << "{\"name\": " << quoted(variant.name) << ", \"median\": " << middle
               << ", \"low\": " << *low << ", \"high\": " << *high << "}";
    }
    std::ostringstream goals;
    for (auto const& goal : row.goals) {
      double const ratio = median(ratios(goal, samples));
      bool const met = ratio <= goal.factor;
      std::printf("  %s %s: %.3g, at most %.3g %s\n", met ? "met   " : "MISSED",
                  goal.variant.c_str(), ratio, goal.factor,
                  (goal.reads.empty() ? row.unit : goal.reads).c_str());
      if (goals.tellp() > 0) goals << ", ";
      goals << "{\"variant\": " << quoted(goal.variant) << ", \"ratio\": " << ratio
            << ", \"limit\": " << goal.factor << ", \"reads\": " << quoted(goal.reads)
            << ", \"met\": " << (met ? "true" : "false") << "}";
    }
    std::fflush(stdout);
    rows_ << (rows_.tellp() > 0 ? ",\n" : "") << "  {\"name\": " << quoted(row.name)
          << ", \"unit\": " << quoted(row.unit) << ", \"variants\": [" << variants.str()
          << "], \"goals\": [" << goals.str() << "]}";
  }

  void curve(Curve const& curve, std::map<std::string, std::vector<double>> const& values) {
    std::printf("\n%s, ns by %s\n  %-20s", curve.name.c_str(), curve.along.c_str(), "");
    std::ostringstream sizes;
    for (long size : curve.sizes) {
      std::printf("%10ld", size);
      sizes << (sizes.tellp() > 0 ? ", " : "") << size;
    }
    std::ostringstream lines;
    for (auto const& variant : curve.variants) {
      std::printf("\n  %-20s", variant.first.c_str());
      std::ostringstream line;
      for (double value : values.at(variant.first)) {
        std::printf("%10.1f", value);
        line << (line.tellp() > 0 ? ", " : "") << value;
      }
      lines << (lines.tellp() > 0 ? ", " : "") << "{\"name\": " << quoted(variant.first)
            << ", \"values\": [" << line.str() << "]}";
    }
    std::printf("\n");
    std::fflush(stdout);
    curves_ << (curves_.tellp() > 0 ? ",\n" : "") << "  {\"name\": " << quoted(curve.name)
            << ", \"along\": " << quoted(curve.along) << ", \"sizes\": [" << sizes.str()
            << "], \"lines\": [" << lines.str() << "]}";
  }

  void save(std::string const& path) const {
    std::ofstream(path) << "{\"bits\": " << 8 * sizeof(void*)
                        << ", \"compiler\": " << quoted("g++ " __VERSION__) << ",\n\"rows\": [\n"
                        << rows_.str() << "],\n\"curves\": [\n"
                        << curves_.str() << "]}\n";
  }

 private:
  std::ostringstream rows_;
  std::ostringstream curves_;
};

void stayOnOneProcessor() {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(sched_getcpu(), &set);
  sched_setaffinity(0, sizeof set, &set);
}

void allowManyDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

struct Options {
  std::size_t rounds = 11;
  bool growth = false;
  std::string json;
  std::regex filter{"."};
};

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string const argument = argv[i];
    if (argument == "--growth") {
      options.growth = true;
    } else if (argument == "--rounds" && i + 1 < argc) {
      options.rounds = std::stoul(argv[++i]);
    } else if (argument == "--json" && i + 1 < argc) {
      options.json = argv[++i];
    } else {
      options.filter = argument;
    }
  }
  return options;
}

std::map<std::string, std::vector<double>> grow(Curve const& curve) {
  std::map<std::string, std::vector<double>> values;
  for (long size : curve.sizes) {
    Row row{curve.name, "ns", {}, {}};
    for (auto const& [name, measureAt] : curve.variants) {
      row.variants.push_back({name, [&measureAt = measureAt, size] { return measureAt(size); }});
    }
    for (auto const& [name, samples] : measure(row, 3)) values[name].push_back(median(samples));
  }
  return values;
}

int run(Options const& options) {
  stayOnOneProcessor();
  allowManyDescriptors();
  Report report;
  int lost = 0;
  auto const guarded = [&](std::string const& name, auto&& work) {
    if (!std::regex_search(name, options.filter)) return;
    try {
      work();
    } catch (std::exception const& failure) {
      std::printf("\n%s\n  FAILED %s\n", name.c_str(), failure.what());
      ++lost;
    }
  };
  for (auto* const suite : {&taskRows, &timerRows, &descriptorRows, &partRows, &seenRows}) {
    Suite const all = suite();
    for (auto const& row : all.rows) {
      if (options.growth) break;
      guarded(row.name, [&] { report.row(row, measure(row, row.exact ? 1 : options.rounds)); });
    }
    for (auto const& curve : all.curves) {
      if (!options.growth) break;
      guarded(curve.name, [&] { report.curve(curve, grow(curve)); });
    }
  }
  if (!options.json.empty()) report.save(options.json);
  return lost == 0 ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::run(bench::parse(argc, argv)); }
