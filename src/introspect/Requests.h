#pragma once
#include <optional>
#include <string>
#include <vector>

#include "Answer.h"
#include "Kiv/Trace.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

/// What can be asked of a thread. A request is a line of words:
///
///     tasks SECONDS      schedulers, priorities, tasks, and the loop, which is measured from now
///                        on for so long
///     history N          the newest N events, and the tasks
///     log                the trace categories
///     log set ENTRY      the same, after one entry in the form of TRACE was applied
///     log reset          the same, with all levels as they were before the first "log set"
class Requests final {
 public:
  explicit Requests(TaskSchedulerRoot& root) : root_(root) {}
  /// A request that is not understood is answered by an error.
  void answer(std::string const& request, Answer& answer);

 private:
  void _tasks(Answer& answer) const;
  void _loop(Answer& answer, double seconds) const;
  void _history(Answer& answer, std::size_t limit) const;
  void _log(Answer& answer) const;
  void _logSet(std::string const& entry);
  void _logReset();

  TaskSchedulerRoot& root_;
  std::optional<Kiv::TraceFacilityManager::State> tracesBefore_;  // the first "log set"
};

}  // namespace Veltro
