#include "Veltro/TaskSchedulerHistory.h"

#include <algorithm>

#include "SchedSupport.h"
#include "tests/support/AwkwardStream.h"

namespace Veltro {
namespace {
using Type = TaskSchedulerEventType;
using TimePoint = TaskSchedulerHistory::TimePoint;

struct HistoryTest : testing::Test {
  ~HistoryTest() noexcept override {}  // an open reference ends the test program

  TaskSchedulerHistory history;

  std::string printed(unsigned limit = 4294967295u) const {
    AwkwardStream os;
    history.print(os, limit);
    os.expectStateKept(AwkwardStream::kWidth);
    return os.str();
  }
  // Event n happens at n microseconds, after a day, and is named n.
  void insertNumbered(unsigned from, unsigned to) {
    for (unsigned n = from; n < to; ++n) {
      history.insert(TimePoint(24h + n * 1us), Type::busy,
                     history.cache().lookup(std::to_string(n)));
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

TEST_F(HistoryTest, printsTheNewestUpToALimit) {
  insertNumbered(0, 3);
  struct {
    unsigned limit;
    char const* shown;
    unsigned lines;
    char const* end;
  } const cases[] = {{0, "0", 0, ""},
                     {2, "2", 2, "Truncated due to requested limit\n"},
                     {3, "3", 3, "Truncated due to requested limit\n"},
                     {4, "4", 3, ""},
                     {20000, "10000", 3, ""},
                     {4294967295u, "10000", 3, ""}};
  for (auto const& c : cases) {
    std::string expected = "Last " + std::string(c.shown) +
                           " scheduler events, absolute timestamp and relative to last event\n";
    expected += std::string(expected.size() - 1, '-') + "\n";
    for (unsigned line = 0; line < c.lines; ++line) {
      expected += "        8640000000" + std::to_string(2 - line) + "000 ns since boot          " +
                  std::to_string(line) + " \xc2\xb5s busy       " + std::to_string(2 - line) + "\n";
    }
    EXPECT_EQ(expected + c.end + "\n", printed(c.limit));
  }
}

TEST_F(HistoryTest, keepsTheLastTenThousandAndTheirNames) {
  insertNumbered(0, 10000);
  expectHolds(9999, 10000);
  insertNumbered(10000, 25003);
  expectHolds(25002, 10000);
  std::string const all = printed();
  EXPECT_EQ(10003, std::count(all.begin(), all.end(), '\n'));
  EXPECT_NE(std::string::npos, printed(10000).find("Truncated"));
  history.clear();
  expectHolds(0, 0);
  insertNumbered(5, 8);
  expectHolds(7, 3);
}

TEST_F(HistoryTest, refusesTypesThatDoNotFitTheSubject) {
  TestKit const root;
  ConstStringRef const task = history.cache().lookup("task");
  for (unsigned const type : {15u, 20u, 255u}) {
    EXPECT_EQ("EventType: " + std::to_string(type),
              assertionOf([&] { history.insert({}, static_cast<Type>(type), task); }));
  }
  for (unsigned const type : {0u, 14u, 20u}) {
    EXPECT_EQ("EventType: " + std::to_string(type),
              assertionOf([&] { history.insert({}, static_cast<Type>(type), &root); }));
  }
  EXPECT_EQ(0u, history.eventCount());
}

TEST_F(HistoryTest, isAsBeforeWhenAnOldNameCannotBeReleased) {
  // An entry that the cache does not know: releasing its last reference is a fault.
  ConstStringRef::Elem const stranger(&history.cache(), "stranger");
  history.insert(TimePoint(), Type::idle, ConstStringRef(stranger));
  insertNumbered(1, 10000);
  EXPECT_THROW(insertNumbered(10000, 10001), AssertException);
  EXPECT_EQ("9999", history.event(0).subject().string());
  EXPECT_EQ("stranger", history.event(9999).subject().string());
  stranger.refCountInc();
  stranger.refCountInc();
  insertNumbered(10000, 10001);
  expectHolds(10000, 10000);
}
}  // namespace
}  // namespace Veltro
