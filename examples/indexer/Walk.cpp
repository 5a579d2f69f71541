#include "Walk.h"

#include <utility>

namespace Indexer {

Walk::Walk(std::shared_ptr<Veltro::TaskScheduler> scheduler, Veltro::TaskPriority priority,
           std::string const& name, OnStep onStep)
    : Task(std::move(scheduler), priority, name), onStep_(std::move(onStep)) {}

void Walk::add(std::string path) {
  waiting_.push_back(std::move(path));
  scheduleTask();
}

void Walk::taskExecute() {
  std::uint64_t steps = 0;
  bool wanted = true;
  while (wanted && !idle() && !taskShouldYield()) {
    wanted = onStep_(_next());
    ++steps;
  }
  taskWorkCountInc(steps);
  if (wanted && !idle()) scheduleTask();
}

DirectoryWalk::Step Walk::_next() {
  for (;;) {
    if (!walk_) {
      walk_.emplace(waiting_.front());
      waiting_.pop_front();
    }
    DirectoryWalk::Step step = walk_->next();
    if (step.kind != DirectoryWalk::Step::end) return step;
    walk_.reset();
    if (waiting_.empty()) return step;
  }
}

}  // namespace Indexer
