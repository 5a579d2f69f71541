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

  std::string printed(unsigned limit) const {
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
  insertNumbered(0, 2);
  std::string const lines[] = {
      "        86400000001000 ns since boot          0 \xc2\xb5s busy       1\n",
      "        86400000000000 ns since boot          1 \xc2\xb5s busy       0\n"};
  std::string const truncated = "Truncated due to requested limit\n";
  struct {
    unsigned limit;
    std::string shown, text;
  } const cases[] = {{0, "0", ""},
                     {1, "1", lines[0] + truncated},
                     {2, "2", lines[0] + lines[1] + truncated},
                     {3, "3", lines[0] + lines[1]},
                     {4294967295u, "10000", lines[0] + lines[1]}};
  for (auto const& c : cases) {
    std::string const header =
        "Last " + c.shown + " scheduler events, absolute timestamp and relative to last event";
    EXPECT_EQ(header + "\n" + std::string(header.size(), '-') + "\n" + c.text + "\n",
              printed(c.limit));
  }
}

TEST_F(HistoryTest, keepsTheLastTenThousandAndTheirNames) {
  // An entry that the cache does not know: releasing its last reference is a fault.
  ConstStringRef::Elem const stranger(&history.cache(), "stranger");
  history.insert(TimePoint(), Type::idle, ConstStringRef(stranger));
  insertNumbered(1, 10000);
  EXPECT_THROW(insertNumbered(10000, 10001), AssertException);
  EXPECT_EQ("9999", history.event(0).subject().string());
  EXPECT_EQ("stranger", history.event(9999).subject().string());
  stranger.refCountInc();
  stranger.refCountInc();
  insertNumbered(10000, 25003);
  expectHolds(25002, 10000);
  EXPECT_NE(std::string::npos, printed(10000).find("Truncated"));
  history.clear();
  insertNumbered(5, 8);
  expectHolds(7, 3);
}
}  // namespace
}  // namespace Veltro
