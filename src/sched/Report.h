#pragma once
#include <chrono>
#include <iosfwd>
#include <string>
#include <vector>

#include "Veltro/TaskStat.h"

// The scheduler's report, from figures already gathered. Its layout is read by people and by
// scripts: every width counts. Neither function follows or changes the stream's state or locale.

namespace Veltro {

/// No limit on the number of rows.
constexpr unsigned kNoReportLimit = 0xffffffff;

/// The whole report but the history: counts per priority, the worst slip, the legend, the table of
/// live tasks and, unless `dead` is null, that of dead ones. A `skipped` is the number of tasks
/// that were left out because they never ran.
void printStatsImpl(std::ostream& os, TaskSchedulerQueueStats const& queueStats,
                    std::chrono::nanoseconds maxSlip, std::vector<TaskStat> const& live,
                    unsigned liveSkipped, std::vector<TaskStat> const* dead, unsigned deadSkipped,
                    bool showKeys, unsigned limit, unsigned deadLimit);

/// One table, by total run time, largest first; rows over `limit` are dropped and counted. `dead`
/// adds the column of dead counts; `showKeys` the task's key after its name.
void taskSchedulerDisplay(std::ostream& os, std::vector<TaskStat> const& records,
                          std::string const& title, unsigned skipped, bool dead, bool showKeys,
                          unsigned limit);

}  // namespace Veltro
