// veltro: what an operator wants to know of a running agent, one subcommand a question.

#include <chrono>
#include <cmath>
#include <iostream>
#include <thread>

#include "Command.h"

namespace Operator {

void Follow::addTo(CLI::App& command) {
  auto* const follow = command.add_option_function<double>(
      "-f,--follow", [this](double seconds) { period = seconds; },
      "Read again every so many SECONDS (1 unless given)");
  follow->expected(0, 1)->default_str("1")->type_name("SECONDS")->check(
      [](std::string const& text) -> std::string {
        double seconds = 0;
        bool const number = CLI::detail::lexical_cast(text, seconds);
        return number && seconds >= 1e-3 && seconds <= 1e6 ? "" : "cannot be '" + text + "'";
      });
  command.add_option("--times", times, "With --follow: end after N readings")
      ->type_name("N")
      ->check(CLI::PositiveNumber)
      ->needs(follow);
}

void flushReport() {
  if (!std::cout.flush()) throw std::runtime_error("standard output does not take the report");
}

void Follow::run(std::function<void(double)> const& reading) const {
  using Clock = std::chrono::steady_clock;
  auto const interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(period));
  auto before = Clock::now();
  auto next = before;
  for (std::uint64_t number = 1;; ++number) {
    auto const now = Clock::now();
    reading(number == 1 ? 0 : std::chrono::duration<double>(now - before).count());
    flushReport();
    if (period == 0 || number == times) return;
    before = now;
    next += interval;
    std::this_thread::sleep_until(next);
  }
}

namespace {

int failed(int status, char const* why) {
  std::cerr << "veltro: " << why << '\n';
  return status;
}

int run(int argc, char* argv[]) {
  CLI::App program("Looks into running agents: one subcommand a question.", "veltro");
  program.require_subcommand(1);
  program.footer(
      "Exit status: 0 done, 1 something could not be read or written, 2 the command line is\n"
      "wrong, 3 there is no such agent or it does not answer.");
  addCounters(program);
  addTop(program);
  addAdvise(program);
  addTrace(program);
  addLog(program);
  addStacks(program);
  addAgents(program);
  addCompletion(program);
  try {
    program.parse(argc, argv);
    return 0;
  } catch (CLI::CallForHelp const& help) {
    program.exit(help);  // prints it
    return std::cout.flush() ? 0 : failed(1, "standard output does not take the text");
  } catch (CLI::ParseError const& fault) {
    return failed(2, (std::string(fault.what()) + " (--help says more)").c_str());
  }
}

}  // namespace
}  // namespace Operator

int main(int argc, char* argv[]) {
  try {
    return Operator::run(argc, argv);
  } catch (Operator::NoAgent const& failure) {
    return Operator::failed(3, failure.what());
  } catch (std::exception const& failure) {
    return Operator::failed(1, failure.what());
  }
}
