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

TEST_F(SchedTest, theReportIsOfQueuesLiveTasksDeadOnesAndTheHistory) {
  auto const worker = make("worker", TaskPriority::high, taking(63ms));  // 63 / 1e9 is not exact
  auto const idle = make("idle");
  auto mortal = make("mortal", TaskPriority::low);
  mortal->work = [&](DoTask&) { mortal.reset(); };
  mortal->taskRunFromTest();
  worker->scheduleTask();
  outside.nowNs += 12345678;
  root->runUntilIdle();
  for (U64 const count : {15u, 15u, 15u, 15u, 21u}) worker->taskWorkCountInc(count);
  for (U32 const pending : {1000u, 4u}) worker->taskWorkPendingIs(pending);
  auto const queued = make("queued");
  queued->scheduleTask();
  std::string const whole =
      "Priority RunnableCount     IdleCount DeadCount   TotalRunCount\n"
      "--------------------------------------------------------------\n"
      "absolute             0             0         0               0\n"
      "high                 0             1         0               1\n"
      "normal               1             1         0               0\n"
      "low                  0             0         1               0\n"
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
      "MaxMs             = Maximum single run time in milliseconds\n"
      "Dead              = Number of times a task with this name has died\n"
      "TotalWorkCount    = Counter of total work units processed\n"
      "DecayAvgWorkCount =    exponential decaying average of work units processed\n"
      "MaxWorkCount      =    high watermark of work units processed in one run\n"
      "LastWorkPending   = Work units pending processing\n"
      "MaxWorkPending    =    high watermark of work units pending processing\n"
      "\n"
      "TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
      std::string(8 + 107, '-') +
      "\n"
      "worker    h          1         0.063  0.012   0.012    1    0    63 "
      "        81     15.6     21         4       1000\n"
      "Skipped 2 tasks with no runs\n"
      "\n"
      "TaskName (Dead tasks) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Dead "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
      std::string(21 + 112, '-') +
      "\n"
      "mortal                 l          1         0.000  0.000   0.000    0    0     0    1 "
      "         -        -      -         -          -\n"
      "\n";
  AwkwardStream os;
  root->printStats(os, false, false, kNoReportLimit, kNoReportLimit, 2);
  os.expectStateKept(AwkwardStream::kWidth);
  std::string const text = os.str();
  EXPECT_EQ(whole, text.substr(0, text.find("Last 2 scheduler events")));
  std::ostringstream live;
  root->printStats(live, false, false, kNoReportLimit, 0, 0);
  EXPECT_THAT(live.str(), testing::Not(testing::ContainsRegex("Dead |since boot")));
}

/// The line under the title, without what follows the names, and all but the figures behind it.
std::string table(std::vector<TaskStat> const& records, unsigned skipped, bool showKeys,
                  unsigned limit) {
  std::ostringstream os;
  taskSchedulerDisplay(os, records, "TaskName", skipped, false, showKeys, limit);
  std::string const text = os.str();
  return std::regex_replace(text.substr(text.find('\n') + 1), std::regex("-{107}\n|(  l .*\n)"),
                            "|");
}

TEST(ReportTest, tablesAreSortedLimitedAndAsWideAsTheirNames) {
  EXPECT_EQ("--------|Skipped 3 tasks with no runs\n\n", table({}, 3, true, 9));
  EXPECT_EQ("-----------------|a                |longer than title|Skipped 1 task with no runs\n\n",
            table({stat("longer than title", 1s), stat("a", 3s)}, 1, false, kNoReportLimit));
  EXPECT_EQ(
      "--------|c       |Skipped 2 tasks with no runs\nTruncated 1 task due to requested limit\n\n",
      table({stat("a name that is dropped", 1s), stat("c", 3s)}, 2, false, 1));
  EXPECT_EQ("--------|Truncated 2 tasks due to requested limit\n\n",
            table({stat("a", 1s), stat("b", 2s)}, 0, false, 0));
  EXPECT_EQ("-------------|longest(NULL)|%s(0xabcd1234)|\n",
            table({stat("longest", 2s), stat("%s", 1s, 0xabcd1234)}, 0, true, kNoReportLimit));
}
}  // namespace
}  // namespace Veltro
