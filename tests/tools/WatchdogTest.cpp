#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <regex>

#include "Veltro/Exception.h"
#include "Veltro/StallWatchdog.h"
#include "Veltro/TaskSchedulerCpp.h"
#include "tests/support/VirtualTime.h"
#include "tests/tools/RunningAgent.h"

namespace Veltro {
namespace {

using testing::HasSubstr;

// From "the agent hangs" to the name of the function, of a real process while it hangs.
TEST(WatchdogTest, tellsOfAStuckTaskWhileItIsStuck) {
  for (char const* mode : {"computing", "waiting"}) {
    SCOPED_TRACE(mode);
    RunningAgent agent(mode);
    std::regex const line(
        "stall: task 'stuck' has run for ([0-9.]+) s, (\\w+) \\(.* stack: [^\n]*\n");
    std::string errors;
    std::smatch first;
    std::smatch second;
    while (!std::regex_search(errors, first, line) ||
           !std::regex_search(first[0].second, errors.cend(), second, line)) {
      errors = agent.errors();
    }
    EXPECT_EQ(mode, first[2]);
    EXPECT_GE(std::stod(second[1]), 2 * std::stod(first[1]));
    if (first.str().find("not to be had") == std::string::npos) {
      EXPECT_THAT(veltro("stacks " + agent.errorsFile()).text, HasSubstr("Stuck::taskExecute()"));
    } else {
#if !defined(__SANITIZE_THREAD__)  // which holds signals back from a thread that computes
      ADD_FAILURE() << first.str();
#endif
    }
    EXPECT_EQ(7, agent.end());
  }
}

struct Sleeper final : Task {
  explicit Sleeper(TaskScheduler* scheduler) : Task(scheduler, TaskPriority::normal, "sleeper") {}
  void taskExecute() override {
    ::usleep(1000);
    if (++runs < 400) scheduleTask();
  }
  int runs = 0;
};

// Many short runs, twice the limit together, are no long one, and hours of virtual time are no
// time.
TEST(WatchdogTest, isSilentOnShortRunsAndInVirtualTime) {
  VirtualTime const time;
  auto const root = schedulerRootVeltro();
  std::atomic<int> reports{0};
  StallWatchdog const watchdog(*root, std::chrono::nanoseconds(0),
                               [&](StallWatchdog::Report const&) { ++reports; });
  auto const sleeper = std::make_shared<Sleeper>(root.get());
  sleeper->scheduleTask();
  Platform::doEventLoop(36000);
  EXPECT_EQ(400, sleeper->runs);
  EXPECT_EQ(0, reports);
  EXPECT_THROW(StallWatchdog(*root, std::chrono::microseconds(999)), AssertException);
}

}  // namespace
}  // namespace Veltro
