#include "Veltro/TaskSchedulerHistory.h"

#include <algorithm>
#include <chrono>
#include <sstream>

#include "SchedSupport.h"
#include "tests/support/Asserts.h"
#include "tests/support/AwkwardStream.h"

namespace Veltro {
namespace {

using namespace std::chrono_literals;
using Type = TaskSchedulerEventType;
using TimePoint = TaskSchedulerHistory::TimePoint;

constexpr char const* kFile = "Veltro/TaskSchedulerCpp";
constexpr unsigned kAll = 4294967295u;

std::string printed(TaskSchedulerHistory const& history, unsigned limit) {
  std::ostringstream os;
  history.print(os, limit);
  return os.str();
}

struct HistoryTest : testing::Test {
  ~HistoryTest() noexcept override {}  // an open reference ends the test program

  TaskSchedulerHistory history;

  // Event n happens at n microseconds and is named n.
  void insertNumbered(unsigned from, unsigned to) {
    for (unsigned n = from; n < to; ++n) {
      history.insert(TimePoint(n * 1us), Type::busy, history.cache().lookup(std::to_string(n)));
    }
  }
  void expectHolds(unsigned newest, std::size_t count) {
    ASSERT_EQ(count, history.eventCount());
    for (std::size_t age = 0; age < count; ++age) {
      ASSERT_EQ(std::to_string(newest - age), history.event(age).subject().string());
    }
    EXPECT_EQ(count, history.cache().size());
  }
};

TEST(SchedulerHistoryTest, printsLabelsTimesAndAges) {
  auto const root = std::make_shared<ManualRoot>();
  TaskSchedulerHistory& history = *root->schedulerHistory();
  history.clear();
  for (unsigned type = 0; type < 20; ++type) {
    TimePoint const time(12345678901234567ns + type * 1999ns);
    if (type < 15) {
      // Nobody but the events holds the task's name.
      history.insert(time, static_cast<Type>(type), history.cache().lookup("task"));
    } else {
      history.insert(time, static_cast<Type>(type), root.get());
    }
  }
  char const* const golden =
      "Last 10000 scheduler events, absolute timestamp and relative to last event\n"
      "--------------------------------------------------------------------------\n"
      "     12345678901272548 ns since boot          0 \xc2\xb5s schedulerRunIgnoredWhileSuspended "
      "root\n"
      "     12345678901270549 ns since boot          1 \xc2\xb5s schedulerUnsuspended root\n"
      "     12345678901268550 ns since boot          3 \xc2\xb5s schedulerSuspended root\n"
      "     12345678901266551 ns since boot          5 \xc2\xb5s schedulerRunnable root\n"
      "     12345678901264552 ns since boot          7 \xc2\xb5s schedulerIdle root\n"
      "     12345678901262553 ns since boot          9 \xc2\xb5s delete     task\n"
      "     12345678901260554 ns since boot         11 \xc2\xb5s create     task\n"
      "     12345678901258555 ns since boot         13 \xc2\xb5s busy       task\n"
      "     12345678901256556 ns since boot         15 \xc2\xb5s idle       task\n"
      "     12345678901254557 ns since boot         17 \xc2\xb5s frcYieldOfftask\n"
      "     12345678901252558 ns since boot         19 \xc2\xb5s frcYieldOn task\n"
      "     12345678901250559 ns since boot         21 \xc2\xb5s scheduleSustask\n"
      "     12345678901248560 ns since boot         23 \xc2\xb5s suspendOff task\n"
      "     12345678901246561 ns since boot         25 \xc2\xb5s suspendOn  task\n"
      "     12345678901244562 ns since boot         27 \xc2\xb5s timerStop  task\n"
      "     12345678901242563 ns since boot         29 \xc2\xb5s timerStart task\n"
      "     12345678901240564 ns since boot         31 \xc2\xb5s run end    task\n"
      "     12345678901238565 ns since boot         33 \xc2\xb5s run start  task\n"
      "     12345678901236566 ns since boot         35 \xc2\xb5s unschedule task\n"
      "     12345678901234567 ns since boot         37 \xc2\xb5s schedule   task\n"
      "\n";
  EXPECT_EQ(golden, printed(history, kAll));

  AwkwardStream os;
  history.print(os, kAll);
  EXPECT_EQ(golden, os.str());
  os.expectStateKept(AwkwardStream::kWidth);
}

TEST_F(HistoryTest, limits) {
  std::string const dashes = "-------------------------------------------------------------------";
  std::string const header =
      " scheduler events, absolute timestamp and relative to last event\n" + dashes;
  std::string const newest[] = {
      "                  2000 ns since boot          0 \xc2\xb5s busy       2\n",
      "                  1000 ns since boot          1 \xc2\xb5s busy       1\n",
      "                     0 ns since boot          2 \xc2\xb5s busy       0\n",
  };
  std::string const truncated = "Truncated due to requested limit\n";
  EXPECT_EQ("Last 10000" + header + "-------\n\n", printed(history, kAll));

  insertNumbered(0, 3);
  struct {
    unsigned limit;
    std::string text;
  } const cases[] = {
      {0, "Last 0" + header.substr(0, header.size() - 2) + "-----\n\n"},
      {2, "Last 2" + header + "---\n" + newest[0] + newest[1] + truncated + "\n"},
      {3, "Last 3" + header + "---\n" + newest[0] + newest[1] + newest[2] + truncated + "\n"},
      {4, "Last 4" + header + "---\n" + newest[0] + newest[1] + newest[2] + "\n"},
      {20000, "Last 10000" + header + "-------\n" + newest[0] + newest[1] + newest[2] + "\n"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.text, printed(history, c.limit)) << c.limit;
}

TEST_F(HistoryTest, keepsTheLastTenThousandAndTheirNames) {
  insertNumbered(0, 10000);
  expectHolds(9999, 10000);
  insertNumbered(10000, 10001);
  expectHolds(10000, 10000);
  insertNumbered(10001, 25003);
  expectHolds(25002, 10000);

  std::string const all = printed(history, kAll);
  EXPECT_EQ(10003, std::count(all.begin(), all.end(), '\n'));
  EXPECT_EQ(std::string::npos, all.find("Truncated"));
  EXPECT_NE(std::string::npos, printed(history, 10000).find("Truncated"));

  history.clear();
  expectHolds(0, 0);
  insertNumbered(5, 8);
  expectHolds(7, 3);
}

TEST_F(HistoryTest, refusesTypesThatDoNotFitTheSubject) {
  auto const root = std::make_shared<ManualRoot>();
  ConstStringRef const task = history.cache().lookup("task");
  TimePoint const now;
  for (unsigned const type : {15u, 20u, 255u}) {
    EXPECT_THAT([&] { history.insert(now, static_cast<Type>(type), task); },
                asserts(kFile, "Event", "EventType: " + std::to_string(type)));
  }
  for (unsigned const type : {0u, 14u, 20u}) {
    EXPECT_THAT([&] { history.insert(now, static_cast<Type>(type), root.get()); },
                asserts(kFile, "Event", "EventType: " + std::to_string(type)));
  }
  EXPECT_EQ(0u, history.eventCount());
  EXPECT_EQ(1u, task.elem()->refCount());
}

TEST_F(HistoryTest, isAsBeforeWhenAnOldNameCannotBeReleased) {
  // An entry that the cache does not know: releasing its last reference is a fault.
  ConstStringRef::Elem const stranger(&history.cache(), "stranger");
  history.insert(TimePoint(), Type::idle, ConstStringRef(stranger));
  insertNumbered(1, 10000);

  EXPECT_THROW(insertNumbered(10000, 10001), AssertException);
  EXPECT_EQ(10000u, history.eventCount());
  EXPECT_EQ("9999", history.event(0).subject().string());
  EXPECT_EQ("stranger", history.event(9999).subject().string());

  stranger.refCountInc();
  stranger.refCountInc();
  insertNumbered(10000, 10001);
  expectHolds(10000, 10000);
}

}  // namespace
}  // namespace Veltro
