#pragma once
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "DirectoryWalk.h"
#include "Veltro/TaskSchedulerCpp.h"

namespace Indexer {

/// Walks trees, one after the other, as a task: in each run it goes on until its quantum is used
/// up or whoever takes the files has enough.
class Walk final : public Veltro::Task {
 public:
  /// Takes one step; false asks the walk to rest until scheduleTask() is called again. The end is
  /// told once the last tree that was asked for is through.
  using OnStep = std::function<bool(DirectoryWalk::Step const&)>;
  Walk(std::shared_ptr<Veltro::TaskScheduler> scheduler, Veltro::TaskPriority priority,
       std::string const& name, OnStep onStep);

  /// One more tree to walk.
  void add(std::string path);
  bool idle() const { return !walk_ && waiting_.empty(); }

 private:
  void taskExecute() override;
  DirectoryWalk::Step _next();

  std::optional<DirectoryWalk> walk_;
  std::deque<std::string> waiting_;
  OnStep const onStep_;
};

}  // namespace Indexer
