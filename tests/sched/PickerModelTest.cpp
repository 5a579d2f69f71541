// Random operations on a scheduler against a model that shares no code with it.
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
  std::array<std::uint64_t, 5> picks{};
  std::array<std::uint64_t, 5> runs{};

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
    TaskPriority const priority(random() % 5u);
    tasks[i] = make("t" + std::to_string(i % 7), priority, [&ran, &keepsGoing, i](DoTask& task) {
      ran.push_back(i);
      if (keepsGoing[i]) task.scheduleTask();
    });
    keepsGoing[i] = random() % 3 == 0;
  };
  auto const queueOf = [&](unsigned i) -> std::deque<unsigned>& {
    return model.queues[tasks[i]->taskPriority().value()];
  };
  for (unsigned i = 0; i < count; ++i) create(i);

  for (int step = 0; step < 4000; ++step) {
    SCOPED_TRACE(step);
    unsigned const i = random() % count;
    std::deque<unsigned>& queue = queueOf(i);
    auto const place = std::find(queue.begin(), queue.end(), i);
    switch (random() % 12) {
      case 0:
        tasks[i]->unscheduleTask();
        if (place != queue.end()) queue.erase(place);
        break;
      case 1:
        if (place != queue.end()) {
          ++model.runs[tasks[i]->taskPriority().value()];  // dying counts as leaving to run
          queue.erase(place);
        }
        ++dead[tasks[i]->taskPriority().value()];
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
        auto const expected = root->turn() ? model.pick() : std::nullopt;
        if (!expected) {
          ASSERT_TRUE(ran.empty());
          break;
        }
        ASSERT_EQ(std::vector<unsigned>{*expected}, ran);
        if (keepsGoing[*expected]) queueOf(*expected).push_back(*expected);
      }
    }
    TaskSchedulerQueueStats const stats = root->queueStats();
    std::uint64_t queued = 0;
    for (auto const& [priority, figures] : stats.priorityStats()) {
      unsigned const p = priority.value();
      queued += model.queues[p].size();
      ASSERT_EQ(model.queues[p].size(), root->runnableTaskCount(priority));
      ASSERT_EQ(model.runs[p], figures.totalRunCount());
      ASSERT_EQ(dead[p], figures.deadCount());
      ASSERT_EQ(root->tasksPerPriority(priority) - model.queues[p].size(), figures.idleCount());
    }
    ASSERT_EQ(queued, root->runnableTaskCount());
    std::vector<TaskStat> deadStats;
    root->getDeadTaskStats(&deadStats, true);
    unsigned folded = 0;
    for (TaskStat const& stat : deadStats) folded += stat.taskDeadCount();
    ASSERT_EQ(std::accumulate(dead.begin(), dead.end(), 0u), folded);
    ASSERT_EQ(count, root->registeredTaskCount());
    // What must never be: work, and nobody asked to do it.
    ASSERT_TRUE(queued == 0 || root->requests > 0);
  }
}
INSTANTIATE_TEST_SUITE_P(Seeds, PickerModelTest, testing::Range(1u, 41u));

TEST_F(SchedTest, prioritiesShareAsTheirWeightsSay) {
  struct {
    char const* name;
    char const* tasks;
    char const* order;  // of the first picks
  } const cases[] = {
      {"nine high to one normal", "HN", "HHHHHHHHHNHHHHHHHHHN"},
      {"one high against nine normal", "HNNNNNNNNN", "HNHNHN"},
      {"normal's count lives on while high runs", "HNL",
       "HHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHNHHHHHHHHN"
       "HHHHHHHHLHHHHHHHHN"},
      {"absolute before all", "AHN", "AAAAAAAAAAAAAAAAAAAA"},
      {"scavenge has no share", "HS", "HHHHHHHHHHHHHHHHHHHH"},
      {"low before scavenge", "LS", "LLLLLLLLLLLLLLLLLLLL"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    std::string order;
    std::vector<std::shared_ptr<DoTask>> tasks;
    for (char const* letter = c.tasks; *letter; ++letter) {
      TaskPriority const priority(static_cast<unsigned>(std::string("AHNLS").find(*letter)));
      tasks.push_back(make("t", priority, [&order, letter](DoTask& task) {
        order += *letter;
        task.scheduleTask();
      }));
      tasks.back()->scheduleTask();
    }
    while (order.size() < std::string(c.order).size()) ASSERT_TRUE(root->turn());
    EXPECT_EQ(c.order, order);
    tasks.clear();
    root->turn();
  }
}

TEST_F(SchedTest, theBumpCountsIn32Bits) {
  auto const high = make("h", TaskPriority::high);
  auto const normal = make("n", TaskPriority::normal);
  high->scheduleTask();
  normal->scheduleTask();
  EXPECT_FALSE(root->attemptLowerPriorityBump(TaskPriority::high, 8));
  EXPECT_TRUE(root->attemptLowerPriorityBump(TaskPriority::high, 9));
  EXPECT_TRUE(root->attemptLowerPriorityBump(TaskPriority::high, 536870911));
  EXPECT_FALSE(root->attemptLowerPriorityBump(TaskPriority::high, 536870912));  // 8 n is 2^32
  EXPECT_FALSE(root->attemptLowerPriorityBump(TaskPriority::absolute, 1000));
}
}  // namespace
}  // namespace Veltro
