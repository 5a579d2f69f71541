// veltro-counters: lists and follows the counters of a counter file, for operators.

#include <chrono>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <thread>

#include "Kiv/Exception.h"
#include "Options.h"
#include "Report.h"
#include "Snapshot.h"

namespace {

using Clock = std::chrono::steady_clock;

void report(Counters::Options const& options) {
  std::optional<Counters::Snapshot> before;
  Clock::time_point taken;
  auto const period =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.period));
  auto next = Clock::now();
  for (Kiv::U64 reading = 1;; ++reading) {
    auto const now = Clock::now();
    auto snapshot = Counters::snapshotOf(options.log, options.file, options.blockSize);
    if (options.json) {
      Counters::printJson(std::cout, snapshot);
    } else {
      if (before) std::cout << '\n';
      double const seconds = std::chrono::duration<double>(now - taken).count();
      Counters::printTable(std::cout, snapshot, before ? &*before : nullptr, seconds);
    }
    if (!std::cout.flush()) throw std::runtime_error("standard output does not take the report");
    if (options.period == 0 || reading == options.times) return;
    before = std::move(snapshot);
    taken = now;
    next += period;
    std::this_thread::sleep_until(next);
  }
}

int failed(int status, char const* why) {
  std::cerr << "veltro-counters: " << why << '\n';
  return status;
}

}  // namespace

int main(int argc, char* argv[]) {
  try {
    Counters::Options const options = Counters::parseOptions(argc, argv);
    if (options.help) {
      std::cout << Counters::usage() << std::flush;
      return std::cout ? 0 : failed(1, "standard output does not take the text");
    }
    report(options);
    return 0;
  } catch (std::invalid_argument const& fault) {
    return failed(2, (std::string(fault.what()) + " (--help says more)").c_str());
  } catch (std::exception const& failure) {
    return failed(1, failure.what());
  }
}
