#include "src/sched/Report.h"

#include "SchedSupport.h"
#include "tests/support/AwkwardStream.h"

namespace Veltro {
namespace {

TaskStat stat(std::string const& name, std::chrono::nanoseconds runTime,
              unsigned long address = 0) {
  TaskStat record(name, reinterpret_cast<TaskImpl const*>(address), TaskPriority::low);
  record.taskTotalRunTimeInc(runTime);
  return record;
}

// Every column at work, most of them full.
TaskStat fullStat() {
  TaskStat record("busiest", reinterpret_cast<TaskImpl const*>(0x1000), TaskPriority::high);
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
  return record;
}

std::string without(std::string text, std::string const& part) {
  return text.erase(text.find(part), part.size());
}

TEST(ReportTest, wholeReport) {
  TaskSchedulerQueueStats queues;
  queues.priorityStatsInsert({TaskPriority::high, 1, 1234567, 3, 18446744073709551615ull});
  queues.priorityStatsInsert({TaskPriority::low, 4294967295u, 0, 4294967295u, 7});
  std::string const deadLegend =
      "Dead              = Number of times a task with this name has died\n";
  std::string const deadTable =
      "TaskName (Dead tasks) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Dead "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
      std::string(21 + 112, '-') +
      "\n"
      "busiest                h 4294967295 123456789.123  0.001  62.000 1234 5678    63   42 "
      "9876543210     16.8 4294967294      1000          0\n"
      "gone                   l          0         2.500  0.000   0.000    0    0     0    0 "
      "         -        -      -         -          -\n"
      "Skipped 1 task with no runs\n"
      "\n";
  std::string const whole =
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
      "MaxMs             = Maximum single run time in milliseconds\n" +
      deadLegend +
      "TotalWorkCount    = Counter of total work units processed\n"
      "DecayAvgWorkCount =    exponential decaying average of work units processed\n"
      "MaxWorkCount      =    high watermark of work units processed in one run\n"
      "LastWorkPending   = Work units pending processing\n"
      "MaxWorkPending    =    high watermark of work units pending processing\n"
      "\n"
      "TaskName            SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
      std::string(19 + 107, '-') +
      "\n"
      "busiest(0x00001000)  h 4294967295 123456789.123  0.001  62.000 1234 5678    63 "
      "9876543210     16.8 4294967294      1000          0\n"
      "idler(NULL)          l          0         0.000  0.000   0.000    0    0     0 "
      "         -        -      -         -          -\n"
      "Skipped 3 tasks with no runs\n"
      "\n" +
      deadTable;
  std::vector<TaskStat> const dead{stat("gone", 2500ms), fullStat()};
  for (bool const withDead : {true, false}) {
    AwkwardStream os;
    printStatsImpl(os, queues, 12345678ns, {stat("idler", 0s), fullStat()}, 3,
                   withDead ? &dead : nullptr, 1, true, kNoReportLimit, kNoReportLimit);
    EXPECT_EQ(withDead ? whole : without(without(whole, deadLegend), deadTable), os.str());
    os.expectStateKept(AwkwardStream::kWidth);
  }
}

/// The width of the name column, each name with the blanks behind it, and what was left out.
std::string table(std::vector<TaskStat> const& records, unsigned skipped, bool showKeys,
                  unsigned limit) {
  std::ostringstream os;
  taskSchedulerDisplay(os, records, "TaskName", skipped, false, showKeys, limit);
  std::string text = os.str();
  std::size_t const width = text.find('\n', text.find('\n') + 1) - text.find('\n') - 1 - 107;
  EXPECT_EQ("TaskName" + std::string(width - 8, ' ') + " SP ", text.substr(0, width + 4));
  text.erase(0, text.find("-\n") + 2);
  for (std::size_t at; (at = text.find("  l ")) != std::string::npos;) {
    text.replace(at, text.find('\n', at) + 1 - at, "|");
  }
  return std::to_string(width) + ": " + text;
}

TEST(ReportTest, tablesAreSortedLimitedAndAsWideAsTheirNames) {
  EXPECT_EQ("8: Skipped 3 tasks with no runs\n\n", table({}, 3, true, 9));
  EXPECT_EQ(
      "17: a                |b                |longer than title|Skipped 1 task with no runs\n\n",
      table({stat("b", 2s), stat("a", 3s), stat("longer than title", 0s)}, 1, false,
            kNoReportLimit));
  EXPECT_EQ(
      "8: c       |b       |Skipped 2 tasks with no runs\n"
      "Truncated 1 task due to requested limit\n\n",
      table({stat("a name that is dropped", 1s), stat("b", 2s), stat("c", 3s)}, 2, false, 2));
  EXPECT_EQ("8: Truncated 2 tasks due to requested limit\n\n",
            table({stat("a", 1s), stat("b", 2s)}, 0, false, 0));
  EXPECT_EQ("8: %s 100% |\n", table({stat("%s 100%", 1s)}, 0, false, 1));
  EXPECT_EQ("13: longest(NULL)|longer(0xabcd1234)|\n",
            table({stat("longest", 2s), stat("longer", 1s, 0xabcd1234)}, 0, true, kNoReportLimit));
}

// 62 / 1e9 and 63 / 1e9 are not exact: the quotient decides whether a millisecond is lost.
TEST(ReportTest, wholeMillisecondsStayWhole) {
  for (unsigned ms = 0; ms <= 1000; ++ms) {
    TaskStat record = stat("", 0s);
    record.taskRunTimeHighWaterMarkIs(ms * 1ms);
    std::ostringstream os;
    taskSchedulerDisplay(os, {record}, "TaskName", 0, false, false, kNoReportLimit);
    ASSERT_EQ(ms, std::stoul(os.str().substr(os.str().find("-\n") + 2 + 8 + 54, 5))) << os.str();
  }
}

using ReportOfRootTest = SchedTest;
TEST_F(ReportOfRootTest, showsLiveTasksThenDeadOnesThenTheHistory) {
  auto const worker = make("worker", TaskPriority::high, taking(45ms));
  auto const idle = make("idle");
  make("mortal", TaskPriority::low)->taskRunFromTest();
  worker->scheduleTask();
  outside.nowNs += 5000000;
  root->runUntilIdle();
  auto const report = [&](unsigned deadLimit, unsigned historyEvents) {
    std::ostringstream os;
    root->printStats(os, false, false, kNoReportLimit, deadLimit, historyEvents);
    return os.str();
  };
  std::string const text = report(kNoReportLimit, 2);
  std::size_t from = 0;
  for (char const* const next :
       {"\nhigh                 0             1         0               1\n",
        "\nlow                  0             0         1               0\n",
        "\nMaximum scheduler slip 0.005000 seconds\n", "\nDead ", "\nTaskName SP ",
        "\nworker    h          1         0.045  0.005   0.005    1    0    45 ",
        "\nSkipped 1 task with no runs\n", "\nTaskName (Dead tasks) SP ",
        "\nmortal                 l          1 ", "\nLast 2 scheduler events",
        " schedulerIdle TestKit\n", " idle       worker\nTruncated "}) {
    from = text.find(next, from);
    ASSERT_NE(std::string::npos, from) << next << "\nin\n" << text;
  }
  std::string const liveOnly = report(0, 0);
  EXPECT_EQ(std::string::npos, liveOnly.find("Dead "));
  EXPECT_EQ(std::string::npos, liveOnly.find("since boot"));
}
}  // namespace
}  // namespace Veltro
