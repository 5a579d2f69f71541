#include "src/sched/Report.h"

#include <sstream>

#include "SchedSupport.h"
#include "tests/support/AwkwardStream.h"

namespace Veltro {
namespace {

TaskImpl const* at(unsigned long address) { return reinterpret_cast<TaskImpl const*>(address); }

TaskStat stat(std::string const& name, std::chrono::nanoseconds runTime,
              unsigned long address = 0) {
  TaskStat record(name, at(address), TaskPriority::low);
  record.taskTotalRunTimeInc(runTime);
  return record;
}

// Every column at work, most of them full.
TaskStat fullStat() {
  TaskStat record("busiest", at(0x1000), TaskPriority::high);
  record.taskRunInc(4294967295u);
  record.taskTotalRunTimeInc(123456789123456789ns);
  record.taskLastSchedulingLatencyIs(1499999ns);
  record.taskSchedulingLatencyHighWaterMarkIs(62s);
  record.taskQuantumViolation200Inc(1234);
  record.taskQuantumViolation500Inc(5678);
  record.taskRunTimeHighWaterMarkIs(63ms);
  record.taskDeadCountIs(42);
  record.taskWorkCountTotalInc(9876543210ull);
  record.taskWorkCountDecayAvgIs(16.75f);
  record.taskWorkCountHighWaterMarkIs(4294967294u);
  record.taskLastWorkPendingIs(1000);
  record.taskWorkPendingHighWaterMarkIs(0);
  TaskStat::TaskStatus status;
  status.taskCurrentlyRunningIs(true);
  status.taskOnRunQueueIs(true);
  record.taskStatusIs(status);
  return record;
}

std::string table(std::vector<TaskStat> const& records, unsigned skipped, bool dead, bool showKeys,
                  unsigned limit) {
  std::ostringstream os;
  taskSchedulerDisplay(os, records, "TaskName", skipped, dead, showKeys, limit);
  return os.str();
}

TEST(ReportTest, wholeReport) {
  TaskSchedulerQueueStats queues;
  queues.priorityStatsInsert({TaskPriority::high, 1, 1234567, 3, 18446744073709551615ull});
  queues.priorityStatsInsert({TaskPriority::low, 4294967295u, 0, 4294967295u, 7});
  std::vector<TaskStat> const live{stat("idler", 0s), fullStat()};
  std::vector<TaskStat> const dead{stat("gone", 2500ms)};

  std::string const queueTable =
      "Priority RunnableCount     IdleCount DeadCount   TotalRunCount\n"
      "--------------------------------------------------------------\n"
      "absolute             0             0         0               0\n"
      "high                 1       1234567         3 18446744073709551615\n"
      "normal               0             0         0               0\n"
      "low         4294967295             0 4294967295               7\n"
      "scavenge             0             0         0               0\n"
      "Maximum scheduler slip 0.012346 seconds\n"
      "\n"
      "SP                = Task status and priority % two characters:\n"
      "   first            T/t for active/idle timers, * for running task or blank\n"
      "   second           priority and runnable status, upper case for runnable\n"
      "RunCount          = Number of times task has run\n"
      "TotalSec          = Total run time in seconds\n"
      "LastDelay         = Scheduling delay last time task ran, in seconds\n"
      "MaxDelay          = Maximum scheduling delay encountered, in seconds\n"
      "200% 500%         = Number of times task used this percentage of quantum\n"
      "MaxMs             = Maximum single run time in milliseconds\n";
  std::string const deadLegend =
      "Dead              = Number of times a task with this name has died\n";
  std::string const legend =
      "TotalWorkCount    = Counter of total work units processed\n"
      "DecayAvgWorkCount =    exponential decaying average of work units processed\n"
      "MaxWorkCount      =    high watermark of work units processed in one run\n"
      "LastWorkPending   = Work units pending processing\n"
      "MaxWorkPending    =    high watermark of work units pending processing\n"
      "\n";
  std::string const liveTable =
      "TaskName            SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
      std::string(19 + 107, '-') +
      "\n"
      "busiest(0x00001000) *H 4294967295 123456789.123  0.001  62.000 1234 5678    63 "
      "9876543210     16.8 4294967294      1000          0\n"
      "idler(NULL)          l          0         0.000  0.000   0.000    0    0     0 "
      "         -        -      -         -          -\n"
      "Skipped 3 tasks with no runs\n"
      "\n";
  std::string const deadTable =
      "TaskName (Dead tasks) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Dead "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
      std::string(21 + 112, '-') +
      "\n"
      "gone                   l          0         2.500  0.000   0.000    0    0     0    0 "
      "         -        -      -         -          -\n"
      "Skipped 1 task with no runs\n"
      "\n";

  auto const print = [&](std::ostream& os, std::vector<TaskStat> const* deadOrNone) {
    printStatsImpl(os, queues, 12345678ns, live, 3, deadOrNone, 1, true, kNoReportLimit,
                   kNoReportLimit);
  };
  std::ostringstream withoutDead;
  print(withoutDead, nullptr);
  EXPECT_EQ(queueTable + legend + liveTable, withoutDead.str());

  AwkwardStream withDead;
  print(withDead, &dead);
  EXPECT_EQ(queueTable + deadLegend + legend + liveTable + deadTable, withDead.str());
  withDead.expectStateKept(AwkwardStream::kWidth);
}

TEST(ReportTest, deadColumnAndFullRow) {
  std::string const text = table({fullStat()}, 0, true, false, kNoReportLimit);
  EXPECT_EQ(
      "TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Dead "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
          std::string(8 + 112, '-') +
          "\n"
          "busiest  *H 4294967295 123456789.123  0.001  62.000 1234 5678    63   42 "
          "9876543210     16.8 4294967294      1000          0\n"
          "\n",
      text);
}

struct ReportOfRootTest : SchedTest {
  std::string report(unsigned deadLimit, unsigned historyEvents) {
    std::ostringstream os;
    root->printStats(os, false, false, kNoReportLimit, deadLimit, historyEvents);
    return os.str();
  }
  void schedule(TaskImpl& task) {
    task.scheduleTask();
    clock.now += 5ms;
    while (root->turn()) {
    }
  }
};

TEST_F(ReportOfRootTest, showsLiveTasksThenDeadOnesThenTheHistory) {
  auto const worker = make("worker", TaskPriority::high, taking(45ms));
  auto const idle = make("idle");
  schedule(*make("mortal", TaskPriority::low, [&](DoTask& task) {
    clock.now += 1ms;
    task.taskWorkCountInc(7);
  }));
  schedule(*worker);

  std::string const text = report(kNoReportLimit, 2);
  EXPECT_EQ(
      "absolute             0             0         0               0\n"
      "high                 0             1         0               1\n"
      "normal               0             1         0               0\n"
      "low                  0             0         1               1\n"
      "scavenge             0             0         0               0\n"
      "Maximum scheduler slip 0.005000 seconds\n",
      text.substr(126, text.find("\n\nSP") + 1 - 126));
  EXPECT_EQ(
      "TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
          std::string(115, '-') +
          "\n"
          "worker    h          1         0.045  0.005   0.005    1    0    45 "
          "         -        -      -         -          -\n"
          "Skipped 1 task with no runs\n"
          "\n"
          "TaskName (Dead tasks) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Dead "
          "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
          std::string(133, '-') +
          "\n"
          "mortal                 l          1         0.001  0.005   0.005    0    0     1    1 "
          "         7      7.0      7         -          -\n"
          "\n"
          "Last 2 scheduler events, absolute timestamp and relative to last event\n" +
          std::string(70, '-') +
          "\n"
          "      3600000056000000 ns since boot          0 \xc2\xb5s schedulerIdle root\n"
          "      3600000056000000 ns since boot          0 \xc2\xb5s idle       worker\n"
          "Truncated due to requested limit\n"
          "\n",
      text.substr(text.find("TaskName ")));

  std::string const liveOnly = report(0, 0);
  EXPECT_EQ(std::string::npos, liveOnly.find("Dead "));
  EXPECT_EQ(std::string::npos, liveOnly.find("since boot"));
}

// What the tables differ in: order, names, widths, what was left out.
TEST(ReportTest, tables) {
  struct {
    char const* name;
    std::vector<TaskStat> records;
    unsigned skipped;
    bool showKeys;
    unsigned limit;
    std::size_t width;
    std::vector<std::string> names;
    std::string leftOut;
  } const cases[] = {
      {"no rows", {}, 3, false, kNoReportLimit, 8, {}, "Skipped 3 tasks with no runs\n"},
      {"one skipped", {}, 1, true, kNoReportLimit, 8, {}, "Skipped 1 task with no runs\n"},
      {"longest run first, last name longer than the title",
       {stat("b", 2s), stat("c", 1s), stat("a", 3s), stat("longer than title", 0s)},
       0,
       false,
       kNoReportLimit,
       17,
       {"a                ", "b                ", "c                ", "longer than title"},
       ""},
      {"limit keeps the busiest and their width",
       {stat("a name that is dropped", 1s), stat("b", 2s), stat("c", 3s)},
       2,
       false,
       2,
       8,
       {"c       ", "b       "},
       "Skipped 2 tasks with no runs\nTruncated 1 task due to requested limit\n"},
      {"limit 0",
       {stat("a", 1s), stat("b", 2s), stat("c", 3s), stat("d", 4s), stat("e", 5s)},
       0,
       false,
       0,
       8,
       {},
       "Truncated 5 tasks due to requested limit\n"},
      {"limit as many", {stat("a", 1s)}, 0, false, 1, 8, {"a       "}, ""},
      {"a shorter name with a longer key overflows",
       {stat("longest", 2s), stat("longer", 1s, 0xabcd1234)},
       0,
       true,
       kNoReportLimit,
       13,
       {"longest(NULL)", "longer(0xabcd1234)"},
       ""},
      {"percent signs are text", {stat("%s 100%", 1s)}, 0, false, 9, 8, {"%s 100% "}, ""},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    std::string expected = "TaskName" + std::string(c.width - 8, ' ') +
                           " SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
                           "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
                           std::string(c.width + 107, '-') + "\n";
    std::string const text = table(c.records, c.skipped, false, c.showKeys, c.limit);
    ASSERT_EQ(expected, text.substr(0, expected.size()));
    std::istringstream rows(text.substr(expected.size()));
    for (std::string const& name : c.names) {
      std::string row;
      std::getline(rows, row);
      EXPECT_EQ(name + "  l          0", row.substr(0, name.size() + 14));
    }
    std::string rest;
    std::getline(rows, rest, '\0');
    EXPECT_EQ(c.leftOut + "\n", rest);
  }
}

// 62 / 1e9 and 63 / 1e9 are not exact: the quotient decides whether a millisecond is lost.
TEST(ReportTest, wholeMillisecondsStayWhole) {
  for (unsigned ms = 0; ms <= 1000; ++ms) {
    TaskStat record = stat("", 0s);
    record.taskRunTimeHighWaterMarkIs(ms * 1ms);
    std::string const text = table({record}, 0, false, false, kNoReportLimit);
    std::size_t const row = text.find("-\n") + 2;
    ASSERT_EQ(ms, std::stoul(text.substr(row + 8 + 54, 5))) << text;
  }
}

}  // namespace
}  // namespace Veltro
