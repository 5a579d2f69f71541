// An agent to look at: tasks whose figures are known, until its standard input ends.
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

#include "Veltro/LibeventFactoryCpp.h"
#include "Veltro/Platform.h"
#include "Veltro/TaskSchedulerCpp.h"

namespace {

using Veltro::TaskPriority;
using Scheduler = std::shared_ptr<Veltro::TaskScheduler>;

std::atomic<bool> over{false};

/// Queues itself again in each of its runs.
struct Poller final : Veltro::Task {
  Poller(Scheduler const& scheduler, char const* name) : Task(scheduler, TaskPriority::low, name) {}
  void taskExecute() override {
    ::usleep(100);
    taskWorkCountInc(1);
    if (!over) scheduleTask();
  }
};

struct Ticker final : Veltro::TimerTask {
  explicit Ticker(Scheduler const& scheduler)
      : TimerTask(scheduler, TaskPriority::high, "ticker") {}
  void taskExecute() override {
    if (!over) scheduleTaskDelay(std::chrono::milliseconds(5));
  }
};

/// Leaves what it is told of unread, until the end of the input.
struct Input final : Veltro::FileDescriptorTask {
  explicit Input(Scheduler const& scheduler)
      : FileDescriptorTask(scheduler, TaskPriority::normal, "input") {}
  void taskExecuteReadable() override {
    char byte;
    if (::read(STDIN_FILENO, &byte, 1) > 0) return;
    taskWatchFdDel();
    over = true;
  }
  void taskExecuteWritable() override {}
};

/// Does not return before its input ends, which it waits for, or asks for again and again; or ends
/// the process.
struct Stuck final : Veltro::Task {
  Stuck(Scheduler const& scheduler, std::string mode)
      : Task(scheduler, TaskPriority::absolute, "stuck"), mode_(std::move(mode)) {}
  void taskExecute() override {
    if (mode_ == "aborting") std::abort();
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (::poll(&input, 1, mode_ == "computing" ? 0 : -1) <= 0) {
    }
  }
  std::string const mode_;
};

/// A thread with a loop of its own, which ends when nothing is left to run.
void work() {
  {
    auto const poller = std::make_shared<Poller>(Veltro::schedulerRootVeltro(), "worker");
    poller->scheduleTask();
    Veltro::Platform::doEventLoop();
  }
  Veltro::leFree();
}

}  // namespace

// "agent"; or "agent computing", "agent waiting", "agent aborting", with a task that does so.
int main(int argc, char* argv[]) {
  Veltro::useThreadLocalSingletons();
  std::thread worker(work);
  auto const root = Veltro::schedulerRootVeltro();
  auto const group = Veltro::TaskGroup::TaskGroupIs("inner", TaskPriority::low, false, root);
  auto const poller = std::make_shared<Poller>(root, "poller");
  auto const member = std::make_shared<Poller>(group, "member");
  auto const ticker = std::make_shared<Ticker>(root);
  auto const input = std::make_shared<Input>(root);
  auto const stuck = std::make_shared<Stuck>(root, argv[argc - 1]);
  if (argc > 1) stuck->scheduleTask();
  poller->scheduleTask();
  member->scheduleTask();
  ticker->scheduleTask();
  // A debugger may have given it one that cannot be watched.
  if (argc == 1 || std::string(argv[1]) != "aborting") input->taskWatchFdIs(STDIN_FILENO);
  input->taskWatchReadableIs(true);
  Veltro::Platform::doEventLoop();  // ends by itself, watched or not
  worker.join();
  return 7;
}
