#pragma once
#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>

namespace Operator {

// Each adds its subcommand to the program. What it does runs as the subcommand's callback, and
// throws what main() turns into the exit status.
void addCounters(CLI::App& program);
void addTop(CLI::App& program);
void addAdvise(CLI::App& program);
void addTrace(CLI::App& program);
void addLog(CLI::App& program);
void addStacks(CLI::App& program);
void addAgents(CLI::App& program);
void addCompletion(CLI::App& program);

/// Exit status 3: there is no such agent, or it does not answer.
class NoAgent final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Ends a report on standard output, or a reading of one that goes on; throws when it was not
/// taken.
void flushReport();

/// Readings one after the other: `--follow[=SECONDS]` and `--times`.
struct Follow {
  double period = 0;        // seconds between readings; 0: one reading only
  std::uint64_t times = 0;  // readings when following; 0: no end

  void addTo(CLI::App& command);
  /// Calls `reading` as often as was asked for, with the seconds since the call before it (0 at
  /// the first), and flushes standard output; one that takes nothing ends it by an exception.
  void run(std::function<void(double)> const& reading) const;
};

}  // namespace Operator
