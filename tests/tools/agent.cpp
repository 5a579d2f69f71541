// An agent to look at: tasks whose figures are known, until its standard input ends.
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "Veltro/LibeventFactoryCpp.h"
#include "Veltro/Platform.h"
#include "Veltro/TaskSchedulerCpp.h"

namespace {

using Veltro::TaskPriority;
using Scheduler = std::shared_ptr<Veltro::TaskScheduler>;

/// Queues itself again in each of its runs.
struct Poller final : Veltro::Task {
  Poller(Scheduler const& scheduler, char const* name) : Task(scheduler, TaskPriority::low, name) {}
  void taskExecute() override {
    ::usleep(100);
    taskWorkCountInc(1);
    if (!stopped) scheduleTask();
  }
  bool stopped = false;
};

struct Ticker final : Veltro::TimerTask {
  explicit Ticker(Scheduler const& scheduler)
      : TimerTask(scheduler, TaskPriority::high, "ticker") {}
  void taskExecute() override { scheduleTaskDelay(std::chrono::milliseconds(5)); }
};

/// Leaves what it is told of unread, until the end of the input.
struct Input final : Veltro::FileDescriptorTask {
  Input(Scheduler const& scheduler, std::function<void()> onEnd)
      : FileDescriptorTask(scheduler, TaskPriority::normal, "input"), end(std::move(onEnd)) {}
  void taskExecuteReadable() override {
    char byte;
    if (::read(STDIN_FILENO, &byte, 1) > 0) return;
    taskWatchFdDel();
    end();
  }
  void taskExecuteWritable() override {}
  std::function<void()> end;
};

/// Runs for as long as it is told to.
struct Until final : Veltro::Task {
  Until(Scheduler const& scheduler, std::function<bool()> again)
      : Task(scheduler, TaskPriority::low, "until"), again_(std::move(again)) {}
  void taskExecute() override {
    if (again_()) scheduleTask();
  }
  std::function<bool()> const again_;
};

std::atomic<bool> over{false};

/// A thread with a loop of its own, which ends when nothing is left to run.
void work() {
  {
    auto const poller = std::make_shared<Poller>(Veltro::schedulerRootVeltro(), "worker");
    poller->scheduleTask();
    auto const done = std::make_shared<Until>(poller->taskScheduler(), [&] {
      if (over) poller->stopped = true;
      return !over;
    });
    done->scheduleTask();
    Veltro::Platform::doEventLoop();
  }
  Veltro::leFree();
}

}  // namespace

int main() {
  Veltro::useThreadLocalSingletons();
  std::thread worker(work);
  auto const root = Veltro::schedulerRootVeltro();
  auto const group = Veltro::TaskGroup::TaskGroupIs("inner", TaskPriority::low, false, root);
  auto const poller = std::make_shared<Poller>(root, "poller");
  auto const member = std::make_shared<Poller>(group, "member");
  auto const ticker = std::make_shared<Ticker>(root);
  auto const input = std::make_shared<Input>(root, [&] {
    poller->stopped = member->stopped = true;
    ticker->stopTimerTask();
  });
  poller->scheduleTask();
  member->scheduleTask();
  ticker->scheduleTask();
  input->taskWatchFdIs(STDIN_FILENO);
  input->taskWatchReadableIs(true);
  Veltro::Platform::doEventLoop();  // ends by itself, watched or not
  over = true;
  worker.join();
  return 7;
}
