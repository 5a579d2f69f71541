#pragma once
#include <chrono>
#include <functional>
#include <string>

#include "Veltro/TaskSchedulerCpp.h"

namespace Indexer {

/// Says on standard error how far the work is: a bar that redraws itself on a terminal, a line
/// a second elsewhere. The moments are jittered, so that many agents do not beat together.
class Progress final : public Veltro::TimerTask {
 public:
  struct Figures {
    std::size_t done;
    std::size_t found;
    std::uint64_t bytes;
  };
  Progress(std::shared_ptr<Veltro::TaskScheduler> scheduler, std::function<Figures()> figures);

  void start();
  /// Draws the last state and falls silent.
  void finish();

 private:
  void taskExecute() override;
  void _draw();

  std::function<Figures()> const figures_;
  bool const terminal_;
};

}  // namespace Indexer
