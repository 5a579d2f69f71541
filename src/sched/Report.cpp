#include "Report.h"

#include <algorithm>
#include <boost/format.hpp>
#include <locale>

#include "TextSink.h"

namespace Veltro {
namespace {

// Widths of the columns after the name, with the blanks that part them.
constexpr std::size_t kFixedWidth = 107;
constexpr std::size_t kDeadColumnWidth = 5;
constexpr std::size_t kPriorityTableWidth = 62;

constexpr char const* kDeadHeader = "%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s\n";
constexpr char const* kLiveHeader = "%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s\n";
constexpr char const* kDeadRow =
    "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s %9s %10s\n";
constexpr char const* kLiveRow =
    "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s\n";

// A program's global locale, which may group digits, stays out of the report.
boost::format classic(char const* layout) { return boost::format(layout, std::locale::classic()); }

double seconds(std::chrono::nanoseconds time) { return static_cast<double>(time.count()) / 1e9; }

unsigned milliseconds(std::chrono::nanoseconds time) {
  return static_cast<unsigned>(seconds(time) * 1000);
}

std::string dashes(std::size_t width) { return std::string(width, '-') + "\n"; }

// A name may be wider than its column: only one key counts toward the width.
std::string fill(std::size_t width, std::string const& text) {
  return std::string(width - std::min(width, text.size()), ' ');
}

void printPriorities(TextSink& out, TaskSchedulerQueueStats const& queueStats) {
  out << str(classic("%-8s %13s %13s %9s %15s\n") % "Priority" % "RunnableCount" % "IdleCount" %
             "DeadCount" % "TotalRunCount");
  out << dashes(kPriorityTableWidth);
  boost::format row = classic("%-8s %13u %13u %9u %15llu\n");
  for (unsigned value = 0; value < TaskPriority::oneBeyondLast; ++value) {
    TaskPriority const priority(value);
    auto const found = queueStats.priorityStats().find(priority);
    TaskSchedulerPriorityStats const stats = found == queueStats.priorityStats().end()
                                                 ? TaskSchedulerPriorityStats(priority, 0, 0, 0, 0)
                                                 : found->second;
    out << str(row % priority.toStrep() % stats.runnableCount() % stats.idleCount() %
               stats.deadCount() % stats.totalRunCount());
  }
}

void printLegend(TextSink& out, bool dead) {
  struct Line {
    char const* label;
    char const* text;
    bool deadOnly;
  };
  static constexpr Line kLegend[] = {
      {"SP", "= Task status and priority % two characters:", false},
      {"   first", "  T/t for active/idle timers, * for running task or blank", false},
      {"   second", "  priority and runnable status, upper case for runnable", false},
      {"RunCount", "= Number of times task has run", false},
      {"TotalSec", "= Total run time in seconds", false},
      {"LastDelay", "= Scheduling delay last time task ran, in seconds", false},
      {"MaxDelay", "= Maximum scheduling delay encountered, in seconds", false},
      {"200% 500%", "= Number of times task used this percentage of quantum", false},
      {"MaxMs", "= Maximum single run time in milliseconds", false},
      {"Dead", "= Number of times a task with this name has died", true},
      {"TotalWorkCount", "= Counter of total work units processed", false},
      {"DecayAvgWorkCount", "=    exponential decaying average of work units processed", false},
      {"MaxWorkCount", "=    high watermark of work units processed in one run", false},
      {"LastWorkPending", "= Work units pending processing", false},
      {"MaxWorkPending", "=    high watermark of work units pending processing", false},
  };
  boost::format row = classic("%-17s %s\n");
  for (Line const& line : kLegend) {
    if (!line.deadOnly || dead) out << str(row % line.label % line.text);
  }
  out << "\n";
}

using Rows = std::vector<TaskStat const*>;

Rows sortedByRunTime(std::vector<TaskStat> const& records) {
  Rows rows;
  rows.reserve(records.size());
  for (TaskStat const& record : records) rows.push_back(&record);
  std::stable_sort(rows.begin(), rows.end(), [](TaskStat const* a, TaskStat const* b) {
    return a->taskTotalRunTime() > b->taskTotalRunTime();
  });
  return rows;
}

std::string shownName(TaskStat const& record, bool showKey) {
  return showKey ? record.name() + TaskKey(record.task()).toStrep() : record.name();
}

// Only the key of the longest name counts.
std::size_t nameWidth(Rows const& rows, bool showKeys, std::string const& title) {
  auto const longest = std::max_element(
      rows.begin(), rows.end(),
      [](TaskStat const* a, TaskStat const* b) { return a->name().size() < b->name().size(); });
  if (longest == rows.end()) return title.size();
  return std::max(shownName(**longest, showKeys).size(), title.size());
}

void printHeader(TextSink& out, std::string const& title, std::size_t width, bool dead) {
  boost::format header = classic(dead ? kDeadHeader : kLiveHeader);
  header % title % fill(width, title) % "SP" % "RunCount" % "TotalSec" % "Last/Max-Delay" % "200%" %
      "500%" % "MaxMs";
  if (dead) header % "Dead";
  out << str(header % "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending");
  out << dashes(width + kFixedWidth + (dead ? kDeadColumnWidth : 0));
}

void printRows(TextSink& out, Rows const& rows, std::size_t width, bool dead, bool showKeys) {
  // Parsing a layout costs as much as filling it: once a table, not once a row.
  boost::format row = classic(dead ? kDeadRow : kLiveRow);
  boost::format average = classic("%6.1f");
  for (TaskStat const* record : rows) {
    std::string const name = shownName(*record, showKeys);
    bool const counted = record->taskWorkCountHighWaterMark() != TaskStat::kNoSample;
    bool const pending = record->taskWorkPendingHighWaterMark() != TaskStat::kNoSample;
    auto const orDash = [](bool sampled, auto number) {
      return sampled ? std::to_string(number) : std::string("-");
    };
    row % name % fill(width, name) % record->taskStatusString() % record->taskRunCount() %
        seconds(record->taskTotalRunTime()) % seconds(record->taskLastSchedulingLatency()) %
        seconds(record->taskSchedulingLatencyHighWaterMark()) % record->taskQuantumViolation200() %
        record->taskQuantumViolation500() % milliseconds(record->taskRunTimeHighWaterMark());
    if (dead) row % record->taskDeadCount();
    row % orDash(counted, record->taskWorkCountTotal());
    row % (counted ? str(average % record->taskWorkCountDecayAvg()) : std::string("-"));
    row % orDash(counted, record->taskWorkCountHighWaterMark());
    row % orDash(pending, record->taskLastWorkPending());
    row % orDash(pending, record->taskWorkPendingHighWaterMark());
    out << str(row);
  }
}

void printLeftOut(TextSink& out, char const* layout, std::size_t tasks) {
  if (tasks != 0) out << str(classic(layout) % tasks % (tasks == 1 ? "" : "s"));
}

void printTable(TextSink& out, std::vector<TaskStat> const& records, std::string const& title,
                unsigned skipped, bool dead, bool showKeys, unsigned limit) {
  Rows rows = sortedByRunTime(records);
  std::size_t truncated = 0;
  if (limit != kNoReportLimit && limit < rows.size()) {
    truncated = rows.size() - limit;
    rows.resize(limit);
  }
  std::size_t const width = nameWidth(rows, showKeys, title);
  printHeader(out, title, width, dead);
  printRows(out, rows, width, dead, showKeys);
  printLeftOut(out, "Skipped %u task%s with no runs\n", skipped);
  printLeftOut(out, "Truncated %u task%s due to requested limit\n", truncated);
  out << "\n";
}

}  // namespace

void taskSchedulerDisplay(std::ostream& os, std::vector<TaskStat> const& records,
                          std::string const& title, unsigned skipped, bool dead, bool showKeys,
                          unsigned limit) {
  TextSink out(os);
  printTable(out, records, title, skipped, dead, showKeys, limit);
  out.flush();
}

void printStatsImpl(std::ostream& os, TaskSchedulerQueueStats const& queueStats,
                    std::chrono::nanoseconds maxSlip, std::vector<TaskStat> const& live,
                    unsigned liveSkipped, std::vector<TaskStat> const* dead, unsigned deadSkipped,
                    bool showKeys, unsigned limit, unsigned deadLimit) {
  TextSink out(os);
  printPriorities(out, queueStats);
  out << str(classic("Maximum scheduler slip %.6f seconds\n\n") % seconds(maxSlip));
  printLegend(out, dead != nullptr);
  printTable(out, live, "TaskName", liveSkipped, false, showKeys, limit);
  if (dead) {
    printTable(out, *dead, "TaskName (Dead tasks)", deadSkipped, true, false, deadLimit);
  }
  out.flush();
}

}  // namespace Veltro
