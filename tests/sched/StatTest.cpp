// The records of figures, and the names of priorities.
#include "SchedSupport.h"
#include "tests/support/Asserts.h"

namespace Veltro {
namespace {
constexpr char const* kFile = "Veltro/TaskSchedulerCpp";
constexpr U32 kNone = TaskStat::kNoSample;

TEST(TaskPriorityTest, forms) {
  std::ostringstream forms;
  for (unsigned value = 0; value < 6; ++value) {
    TaskPriority const priority(value);
    EXPECT_EQ(priority.toStrep(), (std::ostringstream() << priority).str());
    forms << priority << ' ' << priority.oneCharString() << ' ';
  }
  EXPECT_EQ("absolute A high H normal N low L scavenge S oneBeyondLast - ", forms.str());
  for (auto const& [value, number] : {std::pair{6u, "6"}, {256u, "255"}}) {
    TaskPriority const priority(value);
    EXPECT_EQ(std::string("invalidPriority=") + number,
              (std::ostringstream() << std::hex << priority).str());
    EXPECT_THAT([&] { priority.toStrep(); },
                asserts(kFile, "toStrep", std::string("unexpected priority value ") + number));
    EXPECT_THAT([&] { priority.oneCharString(); },
                asserts(kFile, "oneCharString", std::string("unexpected priority ") + number));
  }
  EXPECT_EQ("(NULL)", TaskKey(nullptr).toStrep());
  EXPECT_EQ("(0x0000beef)", TaskKey(reinterpret_cast<void const*>(0xbeef)).toStrep());
}

TaskStat filled(unsigned n, U32 mark) {
  TaskStat stat("s ", nullptr, TaskPriority::normal);
  stat.taskRunInc(n);
  stat.taskTotalRunTimeInc(n * 1s);
  stat.taskWorkCountTotalInc(n * 5000000000ull);
  stat.taskWorkCountDecayAvgIs(static_cast<float>(n));
  stat.taskLastWorkPendingIs(n);
  stat.taskQuantumViolation200Inc(n);
  stat.taskQuantumViolation500Inc(10 * n);
  stat.taskRunTimeHighWaterMarkIs(n * 1ms);
  stat.taskLastSchedulingLatencyIs(n * 1us);
  stat.taskSchedulingLatencyHighWaterMarkIs(n * 1ns);
  stat.taskDeadCountIs(5);
  stat.taskWorkCountHighWaterMarkIs(mark);
  stat.taskWorkPendingHighWaterMarkIs(mark);
  TaskStat::TaskStatus timer;
  timer.taskTimerIs(n == 3);
  stat.taskStatusIs(timer);
  return stat;
}

TEST(TaskStatTest, foldingAddsCountsTakesTheLargerMarksAndReplacesWhatIsLast) {
  struct {
    U32 mine, other;
    std::string folded;
  } const cases[] = {{kNone, kNone, "none"},
                     {kNone, 7, "7"},
                     {kNone, 0, "none"},
                     {7, kNone, "7"},
                     {7, 8, "8"},
                     {8, 7, "8"},
                     {0, kNone - 1, "4294967294"}};
  for (auto const& c : cases) {
    TaskStat mine = filled(7, c.mine);
    mine += filled(3, c.other);
    EXPECT_EQ(
        "s tn dead 6 runs 10 time 10000 most 7 late 0.003 most 7e-06 over 10+100 work "
        "50000000000 average 3 mark " +
            c.folded + " pending 3 mark " + c.folded,
        figures(mine));
  }
  TaskStat mine = filled(3, 0);
  mine += filled(7, 0);
  EXPECT_EQ(7ms, mine.taskRunTimeHighWaterMark());
  EXPECT_EQ(7ns, mine.taskSchedulingLatencyHighWaterMark());
}

TEST(TaskStatTest, queuesAddPriorityByPriorityAndStrangersAreNotFolded) {
  TaskSchedulerQueueStats mine, other;
  EXPECT_TRUE(mine.priorityStatsInsert({TaskPriority::low, 1, 2, 3, 0xffffffffull}));
  EXPECT_FALSE(mine.priorityStatsInsert({TaskPriority::low, 9, 9, 9, 9}));
  EXPECT_TRUE(other.priorityStatsInsert({TaskPriority::low, 10, 20, 30, 1}));
  EXPECT_TRUE(other.priorityStatsInsert({TaskPriority::absolute, 5, 6, 7, 8}));
  mine += other;
  std::ostringstream text;
  for (auto const& [priority, stats] : mine.priorityStats()) {
    text << priority << ' ' << stats.runnableCount() << ' ' << stats.idleCount() << ' '
         << stats.deadCount() << ' ' << stats.totalRunCount() << ';';
  }
  EXPECT_EQ("absolute 5 6 7 8;low 11 22 33 4294967296;", text.str());

  TaskStat stat("mine", nullptr, TaskPriority::low);
  EXPECT_THAT([&] { stat += TaskStat("other", nullptr, TaskPriority::low); },
              asserts(kFile, "operator+=", "mine != other"));
  TaskSchedulerPriorityStats high(TaskPriority::high, 1, 1, 1, 1);
  TaskSchedulerPriorityStats const low(TaskPriority::low, 1, 1, 1, 1);
  EXPECT_THAT([&] { high += low; }, asserts(kFile, "operator+=", "high != low"));
}
}  // namespace
}  // namespace Veltro
