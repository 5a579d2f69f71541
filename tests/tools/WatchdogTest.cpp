#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <regex>
#include <thread>

#include "Veltro/Exception.h"
#include "Veltro/StallWatchdog.h"
#include "Veltro/TaskSchedulerCpp.h"
#include "tests/support/VirtualTime.h"
#include "tests/tools/RunningAgent.h"

namespace Veltro {
namespace {

using testing::HasSubstr;

/// How long the task was said to run in the last report; 0 before the first.
double lastReport(RunningAgent const& agent) {
  static std::regex const line("stall: task 'stuck' has run for ([0-9.]+) s, (computing|waiting) ");
  std::string const errors = agent.errors();
  double seconds = 0;
  for (std::sregex_iterator at(errors.begin(), errors.end(), line), end; at != end; ++at) {
    seconds = std::stod((*at)[1]);
  }
  return seconds;
}

// Of a real process while it hangs.
TEST(WatchdogTest, tellsOfAStuckTaskWhileItIsStuck) {
  RunningAgent agent("waiting");
  while (lastReport(agent) == 0) std::this_thread::yield();
  double const first = lastReport(agent);
  while (lastReport(agent) == first) std::this_thread::yield();
  EXPECT_GE(lastReport(agent), 2 * first);
  EXPECT_THAT(agent.errors(), HasSubstr(" s, waiting ("));
  EXPECT_EQ(7, agent.end());
}

// While it is attached there is no report, however long the stall; there is one as soon as it
// leaves.
TEST(WatchdogTest, isSilentWhileADebuggerIsAttached) {
  RunningAgent agent("computing");
  pid_t const process = std::stoi(agent.process());
  auto const processorTimeReaches = [&](double seconds) {
    clockid_t clock{};
    timespec used{};
    ::clock_getcpuclockid(process, &clock);
    while (::clock_gettime(clock, &used) == 0 &&
           static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9 < seconds) {
      // The signal of a report under way stops it for us.
      int status = 0;
      if (::waitpid(process, &status, __WALL | WNOHANG) == process && WIFSTOPPED(status)) {
        ::ptrace(PTRACE_CONT, process, nullptr, WSTOPSIG(status));
      }
      std::this_thread::yield();
    }
  };
  ASSERT_EQ(0, ::ptrace(PTRACE_SEIZE, process, nullptr, nullptr)) << std::strerror(errno);
  processorTimeReaches(0.1);  // a report that was under way is out
  double const before = lastReport(agent);
  processorTimeReaches(4 * before + 0.5);
  EXPECT_EQ(before, lastReport(agent));
  ::ptrace(PTRACE_INTERRUPT, process, nullptr, nullptr);
  int status = 0;
  ::waitpid(process, &status, __WALL);
  int const signal = status >> 16 == PTRACE_EVENT_STOP ? 0 : WSTOPSIG(status);
  ASSERT_EQ(0, ::ptrace(PTRACE_DETACH, process, nullptr, signal)) << std::strerror(errno);
  while (lastReport(agent) == before) std::this_thread::yield();
  EXPECT_GT(lastReport(agent), 2 * before);
  EXPECT_EQ(7, agent.end());
}

// A clock that went on while nothing ran, as over a sleep of the machine, makes no stall.
TEST(WatchdogTest, isSilentWhenTheProcessWasStopped) {
  static constexpr std::chrono::milliseconds kLimit(200);
  pid_t const child = ::fork();
  if (child == 0) {
    std::atomic<int> reports{0};
    auto const root = schedulerRootVeltro();
    StallWatchdog const watchdog(*root, kLimit, [&](StallWatchdog::Report const&) { ++reports; });
    struct Stopped final : Task {
      using Task::Task;
      void taskExecute() override {
        std::this_thread::sleep_for(kLimit * 3 / 10);  // the watchdog has a look
        ::raise(SIGSTOP);
        std::this_thread::sleep_for(kLimit * 3 / 10);  // and another
      }
    };
    auto const task = std::make_shared<Stopped>(root.get(), TaskPriority::normal, "stopped");
    task->scheduleTask();
    Platform::doEventLoop();
    ::_exit(reports);
  }
  int status = -1;
  ::waitpid(child, &status, WUNTRACED);
  ASSERT_TRUE(WIFSTOPPED(status));
  std::this_thread::sleep_for(5 * kLimit);
  ::kill(child, SIGCONT);
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
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
