#include "Walk.h"

#include <utility>

namespace Indexer {

Walk::Walk(std::shared_ptr<Veltro::TaskScheduler> scheduler, std::string const& root, OnStep onStep)
    : Task(std::move(scheduler), Veltro::TaskPriority::low, "walk"),
      walk_(root),
      onStep_(std::move(onStep)) {}

void Walk::taskExecute() {
  std::uint64_t steps = 0;
  bool wanted = true;
  while (wanted && !taskShouldYield()) {
    DirectoryWalk::Step const step = walk_.next();
    ++steps;
    wanted = onStep_(step) && step.kind != DirectoryWalk::Step::end;
  }
  taskWorkCountInc(steps);
  if (wanted) scheduleTask();
}

}  // namespace Indexer
