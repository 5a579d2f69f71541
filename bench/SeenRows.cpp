// What a task run costs in an agent that lets itself be seen: while nobody looks, while the loop's
// health is measured, and under the stall watchdog; beside the same run in one that does not.
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "Kiv/System.h"
#include "Veltro/Introspection.h"
#include "Veltro/LoopHealth.h"
#include "Veltro/StallWatchdog.h"
#include "Veltro/TaskSchedulerCpp.h"
#include "bench/Harness.h"

namespace bench {
namespace {

constexpr long kRuns = 50000;

class Runner final : public Veltro::Task {
 public:
  Runner(Veltro::TaskScheduler* scheduler, long& left)
      : Task(scheduler, Veltro::TaskPriority::normal, "runner"), left_(left) {}

 private:
  void taskExecute() override {
    if (--left_ > 0) scheduleTask();
  }
  long& left_;
};

/// Runs of a task with `Company`, made from the root, beside it.
template <class Company>
double runsWith() {
  auto const root = Veltro::schedulerRootVeltroNonShared("bench");
  Company const company(*root);
  long left = 1000;
  auto const task = std::make_shared<Runner>(root.get(), left);
  task->scheduleTask();
  Veltro::Platform::doEventLoop();  // warm
  left = kRuns;
  task->scheduleTask();
  double const cost = nanosecondsEach(kRuns, [] { Veltro::Platform::doEventLoop(); });
  check(left == 0, "runs were lost");
  return cost;
}

struct Nobody {
  explicit Nobody(Veltro::TaskSchedulerRoot&) {}
};

struct Seen {
  explicit Seen(Veltro::TaskSchedulerRoot& root) : introspection(root, directory) {}
  ~Seen() { std::filesystem::remove_all(directory); }
  std::string const directory = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "veltroXXXXXX").string();
    check(::mkdtemp(pattern.data()) != nullptr, "no directory");
    return pattern;
  }();
  Veltro::Introspection const introspection;
};

struct Measured {
  explicit Measured(Veltro::TaskSchedulerRoot&) {
    Veltro::LoopHealth::instance().measureFor(std::chrono::hours(1));
  }
  ~Measured() { Kiv::ActivityManager::instance().config().passObserverIs(nullptr); }
};

struct Watched {
  explicit Watched(Veltro::TaskSchedulerRoot& root) : watchdog(root) {}
  Veltro::StallWatchdog const watchdog;
};

}  // namespace

Suite seenRows() {
  return {{{"task run, being seen",
            "ns/run",
            {{"unseen", runsWith<Nobody>},
             {"seen, nobody looks", runsWith<Seen>},
             {"its loop measured", runsWith<Measured>},
             {"under the watchdog", runsWith<Watched>}},
            {atMost(1.01, "seen, nobody looks", "unseen")}}},
          {}};
}

}  // namespace bench
