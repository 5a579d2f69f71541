// Random operations on a scheduler against a model that shares no code with it.
#include <algorithm>
#include <array>
#include <deque>
#include <numeric>
#include <optional>
#include <random>

#include "SchedSupport.h"

namespace Veltro {
namespace {

// The rules of picking, in plain containers and wide arithmetic.
struct Model {
  std::array<std::deque<unsigned>, 5> queues;  // task numbers
  std::array<std::uint64_t, 5> picks{}, runs{};

  std::optional<unsigned> pick(unsigned from = 0) {
    for (unsigned q = from; q < 5; ++q) {
      if (queues[q].empty()) {
        picks[q] = 0;
        continue;
      }
      std::uint64_t const highShare = 64 * queues[1].size();
      std::uint64_t const normalShare = 8 * queues[2].size();
      std::uint64_t const lowShare = queues[3].size();
      bool const bump = (q == 1 && (normalShare + lowShare) * picks[1] > highShare) ||
                        (q == 2 && lowShare * picks[2] > normalShare);
      if (bump) {
        // Nothing below but scavenge tasks does not count as waiting.
        if (auto const lower = pick(q + 1)) {
          picks[q] = 0;
          return lower;
        }
      }
      unsigned const task = queues[q].front();
      queues[q].pop_front();
      ++picks[q];
      ++runs[q];
      return task;
    }
    return std::nullopt;
  }
};

class PickerModelTest : public SchedTest, public testing::WithParamInterface<unsigned> {};

TEST_P(PickerModelTest, agreesOverRandomOperations) {
  auto random = [engine = std::mt19937(GetParam())]() mutable {
    return static_cast<unsigned>(engine());
  };
  Model model;
  unsigned const count = 3 + random() % 40;
  std::vector<std::shared_ptr<DoTask>> tasks(count);
  std::vector<bool> keepsGoing(count);
  std::vector<unsigned> ran;
  std::array<unsigned, 5> dead{};
  auto const create = [&](unsigned i) {
    keepsGoing[i] = random() % 3 == 0;
    tasks[i] = make("t" + std::to_string(i % 7), TaskPriority(random() % 5u), [&, i](DoTask& task) {
      ran.push_back(i);
      if (keepsGoing[i]) task.scheduleTask();
    });
  };
  for (unsigned i = 0; i < count; ++i) create(i);
  for (int step = 0; step < 4000; ++step) {
    SCOPED_TRACE(step);
    unsigned const i = random() % count;
    unsigned const priority = tasks[i]->taskPriority().value();
    std::deque<unsigned>& queue = model.queues[priority];
    auto const place = std::find(queue.begin(), queue.end(), i);
    switch (random() % 12) {
      case 0:
        tasks[i]->unscheduleTask();
        if (place != queue.end()) queue.erase(place);
        break;
      case 1:
        if (place != queue.end()) {
          ++model.runs[priority];  // dying counts as leaving to run
          queue.erase(place);
        }
        ++dead[priority];
        create(i);  // the new one first, then the old one dies
        break;
      case 2:
        if (step % 50 == 0) {
          root->clearStats();
          model.runs = {};
          dead = {};
        }
        break;
      case 3:
      case 4:
      case 5:
        tasks[i]->scheduleTask();
        if (place == queue.end()) queue.push_back(i);
        break;
      default: {
        ran.clear();
        turn();
        auto const expected = model.pick();
        ASSERT_EQ(expected ? std::vector<unsigned>{*expected} : std::vector<unsigned>{}, ran);
        if (expected && keepsGoing[*expected]) {
          model.queues[tasks[*expected]->taskPriority().value()].push_back(*expected);
        }
      }
    }
    std::uint64_t queued = 0;
    TaskSchedulerQueueStats const stats = root->queueStats();
    for (auto const& [p, figures] : stats.priorityStats()) {
      std::uint64_t const length = model.queues[p.value()].size();
      queued += length;
      ASSERT_EQ(length, root->runnableTaskCount(p));
      ASSERT_EQ(model.runs[p.value()], figures.totalRunCount());
      ASSERT_EQ(dead[p.value()], figures.deadCount());
      ASSERT_EQ(root->tasksPerPriority(p) - length, figures.idleCount());
    }
    ASSERT_EQ(queued, root->runnableTaskCount());
    std::vector<TaskStat> deadStats;
    root->getDeadTaskStats(&deadStats, true);
    unsigned folded = 0;
    for (TaskStat const& stat : deadStats) folded += stat.taskDeadCount();
    ASSERT_EQ(std::accumulate(dead.begin(), dead.end(), 0u), folded);
    ASSERT_EQ(count, root->registeredTaskCount());
  }
}
INSTANTIATE_TEST_SUITE_P(Seeds, PickerModelTest, testing::Range(1u, 41u));

TEST_F(SchedTest, theBumpCountsIn32Bits) {
  struct Open : TaskScheduler {
    using TaskScheduler::attemptLowerPriorityBump;
  };
  auto const bumps = [&](U32 picks) {
    return (*root.*&Open::attemptLowerPriorityBump)(TaskPriority::high, picks);
  };
  auto const high = make("h", TaskPriority::high), normal = make("n");
  high->scheduleTask();
  normal->scheduleTask();
  EXPECT_TRUE(bumps(536870911));
  EXPECT_FALSE(bumps(536870912));  // 8 n is 2^32
}
}  // namespace
}  // namespace Veltro
