// Random operations on a scheduler against a model that shares no code with it.
#include <algorithm>
#include <array>
#include <deque>
#include <random>

#include "SchedSupport.h"

namespace Veltro {
namespace {

// The rules of picking, in plain containers and wide arithmetic.
struct Model {
  std::array<std::deque<unsigned>, 5> queues;  // task numbers
  std::array<std::uint64_t, 5> picks{}, runs{};

  /// The number of the task whose turn it is, or -1.
  int pick(unsigned from = 0) {
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
        picks[q] = 0;
        return pick(q + 1);
      }
      unsigned const task = queues[q].front();
      queues[q].pop_front();
      ++picks[q];
      ++runs[q];
      return static_cast<int>(task);
    }
    return -1;
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
  int ran = -1;
  auto const create = [&](unsigned i) {
    tasks[i] = make("t", TaskPriority(random() % 5u), [&, i, again = random() % 3 == 0](auto& t) {
      EXPECT_EQ(-1, std::exchange(ran, static_cast<int>(i)));
      if (again) t.scheduleTask();
    });
  };
  for (unsigned i = 0; i < count; ++i) create(i);
  for (int step = 0; step < 4000 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    unsigned const i = random() % count;
    TaskPriority const priority = tasks[i]->taskPriority();
    std::deque<unsigned>& queue = model.queues[priority.value()];
    auto const place = std::find(queue.begin(), queue.end(), i);
    unsigned const operation = random() % 12;
    if (operation == 0) {
      tasks[i]->unscheduleTask();
      if (place != queue.end()) queue.erase(place);
    } else if (operation == 1) {
      if (place != queue.end()) {
        ++model.runs[priority.value()];  // dying counts as leaving to run
        queue.erase(place);
      }
      create(i);  // the new one first, then the old one dies
    } else if (operation < 5) {
      tasks[i]->scheduleTask();
      if (place == queue.end()) queue.push_back(i);
    } else {
      ran = -1;
      turn();
      ASSERT_EQ(model.pick(), ran);
      if (ran >= 0 && tasks[static_cast<unsigned>(ran)]->taskScheduled()) {
        auto const number = static_cast<unsigned>(ran);
        model.queues[tasks[number]->taskPriority().value()].push_back(number);
      }
    }
    ASSERT_EQ(model.queues[priority.value()].size(), root->runnableTaskCount(priority));
    ASSERT_EQ(model.runs[priority.value()], root->runTaskCount(priority));
  }
  EXPECT_EQ(count, root->registeredTaskCount());
}
INSTANTIATE_TEST_SUITE_P(Seeds, PickerModelTest, testing::Range(1u, 41u));
}  // namespace
}  // namespace Veltro
