#include "Veltro/TaskStat.h"

#include <gmock/gmock.h>

#include <sstream>

#include "tests/support/Asserts.h"

namespace Veltro {
namespace {

using namespace std::chrono_literals;

constexpr char const* kFile = "Veltro/TaskSchedulerCpp";
constexpr U32 kNone = TaskStat::kNoSample;

TaskStat stat(std::string const& name = "name") {
  return TaskStat(name, nullptr, TaskPriority::normal);
}

TEST(TaskPriorityTest, forms) {
  struct {
    TaskPriority priority;
    char const* strep;
    char const* letter;
  } const cases[] = {
      {TaskPriority::absolute, "absolute", "A"},
      {TaskPriority::high, "high", "H"},
      {TaskPriority::normal, "normal", "N"},
      {TaskPriority::low, "low", "L"},
      {TaskPriority::scavenge, "scavenge", "S"},
      {TaskPriority::oneBeyondLast, "oneBeyondLast", "-"},
  };
  unsigned value = 0;
  for (auto const& c : cases) {
    std::ostringstream os;
    os << TaskPriority(value);
    EXPECT_EQ(c.strep, os.str());
    EXPECT_EQ(c.strep, c.priority.toStrep());
    EXPECT_EQ(c.letter, c.priority.oneCharString());
    EXPECT_EQ(TaskPriority(value++), c.priority);
  }
  for (unsigned const bad : {6u, 255u, 256u}) {
    std::string const number = std::to_string(bad > 255 ? 255 : bad);
    TaskPriority const priority(bad);
    std::ostringstream os;
    os << std::hex << priority;
    EXPECT_EQ("invalidPriority=" + number, os.str());
    EXPECT_THAT([&] { priority.toStrep(); },
                asserts(kFile, "toStrep", "unexpected priority value " + number));
    EXPECT_THAT([&] { priority.oneCharString(); },
                asserts(kFile, "oneCharString", "unexpected priority " + number));
  }
}

TEST(TaskKeyTest, isTheAddressInParentheses) {
  EXPECT_EQ("(NULL)", TaskKey(nullptr).toStrep());
  EXPECT_EQ("(0x0000beef)", TaskKey(reinterpret_cast<void const*>(0xbeef)).toStrep());
}

TEST(TaskStatTest, statusString) {
  using Status = TaskStat::TaskStatus;
  using Setter = void (Status::*)(bool);
  struct {
    char const* text;
    std::initializer_list<Setter> flags;
  } const cases[] = {
      {" n", {}},
      {" N", {&Status::taskOnRunQueueIs}},
      {"tn", {&Status::taskTimerIs}},
      {"Tn", {&Status::taskTimerIs, &Status::taskTimerRunningIs}},
      {" n", {&Status::taskTimerRunningIs}},
      {"Sn", {&Status::taskSuspendedForTestIs, &Status::taskTimerIs}},
      {"*n", {&Status::taskCurrentlyRunningIs, &Status::taskSuspendedForTestIs}},
      {"*N", {&Status::taskCurrentlyRunningIs, &Status::taskTimerIs, &Status::taskOnRunQueueIs}},
  };
  for (auto const& c : cases) {
    Status status;
    for (Setter const setter : c.flags) (status.*setter)(true);
    TaskStat record = stat();
    record.taskStatusIs(status);
    EXPECT_EQ(c.text, record.taskStatusString());
    for (Setter const setter : c.flags) (status.*setter)(false);
    EXPECT_FALSE(status.bitmaskHasBitSet(0xff));
  }
}

TEST(TaskStatTest, foldingAddsCountsAndReplacesWhatIsLast) {
  TaskStat mine = stat();
  TaskStat other = stat();
  auto const fillIn = [](TaskStat& record, unsigned n) {
    record.taskRunInc(n);
    record.taskTotalRunTimeInc(n * 1s);
    record.taskWorkCountTotalInc(n * 5000000000ull);
    record.taskWorkCountDecayAvgIs(static_cast<float>(n));
    record.taskLastWorkPendingIs(n);
    record.taskQuantumViolation200Inc(n);
    record.taskQuantumViolation500Inc(10 * n);
    record.taskRunTimeHighWaterMarkIs(n * 1ms);
    record.taskLastSchedulingLatencyIs(n * 1us);
    record.taskSchedulingLatencyHighWaterMarkIs(n * 1ns);
    record.taskDeadCountIs(5);
  };
  fillIn(mine, 7);
  fillIn(other, 3);
  TaskStat::TaskStatus timer;
  timer.taskTimerIs(true);
  other.taskStatusIs(timer);

  mine += other;
  EXPECT_EQ(10u, mine.taskRunCount());
  EXPECT_EQ(10s, mine.taskTotalRunTime());
  EXPECT_EQ(50000000000ull, mine.taskWorkCountTotal());
  EXPECT_EQ(3.0f, mine.taskWorkCountDecayAvg());
  EXPECT_EQ(3u, mine.taskLastWorkPending());
  EXPECT_EQ(10u, mine.taskQuantumViolation200());
  EXPECT_EQ(100u, mine.taskQuantumViolation500());
  EXPECT_EQ(7ms, mine.taskRunTimeHighWaterMark());
  EXPECT_EQ(3us, mine.taskLastSchedulingLatency());
  EXPECT_EQ(7ns, mine.taskSchedulingLatencyHighWaterMark());
  EXPECT_EQ(6u, mine.taskDeadCount());
  EXPECT_TRUE(mine.taskStatus().taskTimer());

  other += mine;
  EXPECT_EQ(7ms, other.taskRunTimeHighWaterMark());
  EXPECT_EQ(7ns, other.taskSchedulingLatencyHighWaterMark());
}

TEST(TaskStatTest, foldedMarksTakeTheLarger) {
  struct {
    U32 mine, other, folded;
  } const cases[] = {
      {kNone, kNone, kNone},
      {kNone, 7, 7},
      {kNone, 0, kNone},
      {7, kNone, 7},
      {7, 8, 8},
      {8, 7, 8},
      {0, kNone - 1, kNone - 1},
  };
  for (auto const& c : cases) {
    TaskStat mine = stat();
    TaskStat other = stat();
    mine.taskWorkCountHighWaterMarkIs(c.mine);
    other.taskWorkCountHighWaterMarkIs(c.other);
    mine.taskWorkPendingHighWaterMarkIs(c.mine);
    other.taskWorkPendingHighWaterMarkIs(c.other);
    mine += other;
    EXPECT_EQ(c.folded, mine.taskWorkCountHighWaterMark()) << c.mine << " with " << c.other;
    EXPECT_EQ(c.folded, mine.taskWorkPendingHighWaterMark()) << c.mine << " with " << c.other;
  }
}

TEST(TaskStatTest, strangersAreNotFolded) {
  TaskStat mine = stat("mine");
  EXPECT_THAT([&] { mine += stat("other"); }, asserts(kFile, "operator+=", "mine != other"));
  EXPECT_EQ(0u, mine.taskDeadCount());

  TaskSchedulerPriorityStats high(TaskPriority::high, 1, 1, 1, 1);
  TaskSchedulerPriorityStats const low(TaskPriority::low, 1, 1, 1, 1);
  EXPECT_THAT([&] { high += low; }, asserts(kFile, "operator+=", "high != low"));
  EXPECT_EQ(1u, high.runnableCount());
}

TEST(TaskSchedulerQueueStatsTest, addsPriorityByPriority) {
  TaskSchedulerQueueStats mine;
  TaskSchedulerQueueStats other;
  EXPECT_TRUE(mine.priorityStatsInsert({TaskPriority::low, 1, 2, 3, 0xffffffffull}));
  EXPECT_FALSE(mine.priorityStatsInsert({TaskPriority::low, 9, 9, 9, 9}));
  EXPECT_TRUE(other.priorityStatsInsert({TaskPriority::low, 10, 20, 30, 1}));
  EXPECT_TRUE(other.priorityStatsInsert({TaskPriority::absolute, 5, 6, 7, 8}));
  mine += other;

  std::ostringstream os;
  for (auto const& [priority, stats] : mine.priorityStats()) {
    os << priority << ' ' << stats.runnableCount() << ' ' << stats.idleCount() << ' '
       << stats.deadCount() << ' ' << stats.totalRunCount() << ';';
  }
  EXPECT_EQ("absolute 5 6 7 8;low 11 22 33 4294967296;", os.str());
}

}  // namespace
}  // namespace Veltro
