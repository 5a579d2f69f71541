// What an operator's look at a busy thread costs it, and what recording costs each task run.
// The report and the history's print are to grow with the number of lines and no faster; an
// insert stands beside the plain copy of an event of that size (BM_PlainRing).
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <memory>
#include <sstream>

#include "Veltro/TaskSchedulerHistory.h"
#include "src/sched/Report.h"

namespace Veltro {
namespace {

using namespace std::chrono_literals;
using TimePoint = TaskSchedulerHistory::TimePoint;

std::string taskName(std::size_t n) { return "subsystem/worker-" + std::to_string(n); }

void BM_Report(benchmark::State& state) {
  std::vector<TaskStat> records;
  for (std::size_t n = 0; n < static_cast<std::size_t>(state.range(0)); ++n) {
    TaskStat record(taskName(n), nullptr, TaskPriority::normal);
    record.taskRunInc(static_cast<unsigned>(n));
    record.taskTotalRunTimeInc(std::chrono::nanoseconds(n * 7919 % 100003));
    record.taskWorkCountTotalInc(n);
    record.taskWorkCountHighWaterMarkIs(17);
    records.push_back(record);
  }
  TaskSchedulerQueueStats queues;
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::ostringstream os;
    printStatsImpl(os, queues, 1ms, records, 0, nullptr, 0, true, kNoReportLimit, 0);
    bytes = os.str().size();
  }
  if (bytes < records.size() * 107) state.SkipWithError("rows were lost");
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Report)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// Events of 64 tasks in turn, as a busy thread makes them.
struct NamedTasks {
  explicit NamedTasks(ConstStringCache& cache) {
    for (std::size_t n = 0; n < names.size(); ++n) names[n] = cache.lookup(taskName(n));
  }
  std::array<ConstStringRef, 64> names;
};

void fill(TaskSchedulerHistory& history, NamedTasks const& tasks) {
  for (unsigned n = 0; n < TaskSchedulerHistory::kCapacity; ++n) {
    history.insert(TimePoint(n * 1us), TaskSchedulerEventType::runStart,
                   tasks.names[n % tasks.names.size()]);
  }
}

void BM_HistoryPrint(benchmark::State& state) {
  TaskSchedulerHistory history;
  NamedTasks const tasks(history.cache());
  fill(history, tasks);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::ostringstream os;
    history.print(os, static_cast<unsigned>(state.range(0)));
    bytes = os.str().size();
  }
  if (bytes < static_cast<std::size_t>(state.range(0)) * 60) state.SkipWithError("lines were lost");
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_HistoryPrint)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_HistoryInsert(benchmark::State& state) {
  TaskSchedulerHistory history;
  NamedTasks const tasks(history.cache());
  fill(history, tasks);
  unsigned n = 0;
  for (auto _ : state) {
    ++n;
    history.insert(TimePoint(std::chrono::nanoseconds(n)), TaskSchedulerEventType::runEnd,
                   tasks.names[n % tasks.names.size()]);
  }
  if (history.event(0).time() != TimePoint(std::chrono::nanoseconds(n))) {
    state.SkipWithError("events were lost");
  }
}
BENCHMARK(BM_HistoryInsert);

void BM_PlainRing(benchmark::State& state) {
  struct Event {
    unsigned char type;
    TimePoint time;
    void const* subject;
  };
  auto const ring = std::make_unique<Event[]>(TaskSchedulerHistory::kCapacity);
  std::size_t newest = 0;
  unsigned n = 0;
  for (auto _ : state) {
    ++n;
    newest = (newest == 0 ? TaskSchedulerHistory::kCapacity : newest) - 1;
    ring[newest] = Event{3, TimePoint(std::chrono::nanoseconds(n)), &n};
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(ring[newest]);
}
BENCHMARK(BM_PlainRing);

}  // namespace
}  // namespace Veltro
