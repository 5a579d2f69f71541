#pragma once
#include <functional>
#include <string>

#include "DirectoryWalk.h"
#include "Veltro/TaskSchedulerCpp.h"

namespace Indexer {

/// Walks the tree as a task of low priority: in each run it goes on until its quantum is used up
/// or whoever takes the files has enough.
class Walk final : public Veltro::Task {
 public:
  /// Takes one step; false asks the walk to rest until scheduleTask() is called again.
  using OnStep = std::function<bool(DirectoryWalk::Step const&)>;
  Walk(std::shared_ptr<Veltro::TaskScheduler> scheduler, std::string const& root, OnStep onStep);

 private:
  void taskExecute() override;

  DirectoryWalk walk_;
  OnStep const onStep_;
};

}  // namespace Indexer
