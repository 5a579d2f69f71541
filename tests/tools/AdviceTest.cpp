#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/veltro/Advice.h"

namespace Operator {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr Kiv::U64 kMs = 1000000;

TaskFigures healthy(char const* name) {
  TaskFigures task;
  task.name = name;
  task.runs = task.seenRuns = 1000;
  task.runTime = task.seenRunTime = 8000 * kMs;
  task.maxRun = 30 * kMs;
  task.maxWait = 100 * kMs;
  task.othersRunTime = 8000 * kMs;
  task.work = 1000;
  return task;
}

// Each rule on a sample that it is for, and on its healthy neighbour.
TEST(AdviceTest, speaksOfWhatIsBadAndOfNothingElse) {
  struct {
    char const* name;
    void (*change)(ThreadFigures& thread, TaskFigures& task);
    char const* advice;  // null: silence
  } const cases[] = {
      {"nothing is wrong", [](auto&, auto&) {}, nullptr},
      {"it polls", [](auto&, auto& t) { t.seenRequeues = 501, t.seenRunTime = 1000 * kMs; },
       "re-queues itself in more than half of its runs (501 of 1000), after 1.000 ms of a quantum"},
      {"half of its runs are not more",
       [](auto&, auto& t) { t.seenRequeues = 500, t.seenRunTime = 1000 * kMs; }, nullptr},
      {"long work in slices", [](auto&, auto& t) { t.seenRequeues = 1000; }, nullptr},
      {"too seldom seen",
       [](auto&, auto& t) { t.seenRequeues = t.seenRuns = 99, t.seenRunTime = kMs; }, nullptr},
      {"it starves", [](auto&, auto& t) { t.maxWait = 200 * kMs; },
       "waited 200.000 ms, 10 quanta, while others ran"},
      {"not ten quanta", [](auto&, auto& t) { t.maxWait = 200 * kMs - 1; }, nullptr},
      {"nobody else ran meanwhile",
       [](auto&, auto& t) { t.maxWait = 200 * kMs, t.othersRunTime = 99 * kMs; }, nullptr},
      {"no quantum", [](auto&, auto& t) { t.maxWait = 200 * kMs, t.quantum = 0; }, nullptr},
      {"left unread",
       [](auto&, auto& t) { t.seenReadyAgain = 950, t.seenRunTime = 2 * kMs, t.work = 0; },
       "its descriptor is ready but not read"},
      {"read, and soon ready again",
       [](auto&, auto& t) { t.seenReadyAgain = 950, t.seenRunTime = 9 * kMs, t.work = 0; },
       nullptr},
      {"it counts what it reads",
       [](auto&, auto& t) { t.seenReadyAgain = 950, t.seenRunTime = 2 * kMs; }, nullptr},
      {"no descriptor's task",
       [](auto&, auto& t) {
         t.seenReadyAgain = 950, t.seenRunTime = 2 * kMs, t.work = 0, t.name = "task:write";
       },
       nullptr},
      {"overlong runs", [](auto&, auto& t) { t.violations500 = 1, t.maxRun = 150 * kMs; },
       "ran 1 time for five quanta and more, at worst 150.000 ms"},
      {"it falls behind", [](auto&, auto& t) { t.pending = t.maxPending = 1000; },
       "has 1000 units of work waiting, more than ever before"},
      {"it catches up", [](auto&, auto& t) { t.pending = 1000, t.maxPending = 1001; }, nullptr},
      {"held from outside", [](auto& thread, auto&) { thread.maxSlip = 200 * kMs; },
       "the scheduler was called 200.000 ms late"},
      {"held by its own task",
       [](auto& thread, auto& t) { thread.maxSlip = 200 * kMs, t.maxRun = 100 * kMs; }, nullptr},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    TaskFigures task = healthy("task:read");
    ThreadFigures thread;
    c.change(thread, task);
    thread.tasks = {healthy("other"), task};
    if (c.advice == nullptr) {
      EXPECT_THAT(adviceOn(thread), IsEmpty());
    } else {
      EXPECT_THAT(adviceOn(thread), ElementsAre(HasSubstr(c.advice)));
    }
  }
}

TEST(AdviceTest, theWorstOfARuleComesFirst) {
  TaskFigures bad = healthy("bad");
  TaskFigures worse = healthy("worse");
  bad.maxWait = 300 * kMs;
  worse.maxWait = 400 * kMs;
  EXPECT_THAT(adviceOn({0, 20 * kMs, {bad, worse}}),
              ElementsAre(HasSubstr("worse waited"), HasSubstr("bad waited")));
}

}  // namespace
}  // namespace Operator
