#include "Requests.h"

#include <algorithm>
#include <sstream>

#include "Kiv/Exception.h"
#include "Veltro/LoopHealth.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "platform/BackgroundFd.h"

namespace Veltro {
namespace {

namespace Format = IntrospectionFormat;
using Format::Kind;

U64 nanoseconds(std::chrono::nanoseconds time) { return static_cast<U64>(time.count()); }

U32 statusBits(TaskStat::TaskStatus status) {
  return (status.taskTimer() ? 1u : 0) | (status.taskTimerRunning() ? 2u : 0) |
         (status.taskOnRunQueue() ? 4u : 0) | (status.taskCurrentlyRunning() ? 8u : 0) |
         (status.taskSuspendedForTest() ? 16u : 0);
}

Format::Task recordOf(TaskStat const& stat, TaskScheduler const& scheduler, Answer& answer) {
  Format::Task record{};
  record.key = reinterpret_cast<std::uintptr_t>(stat.task());
  record.name = answer.string(stat.name());
  record.scheduler = answer.string(scheduler.schedulerName());
  record.priority = stat.taskPriority().value();
  record.status = statusBits(stat.taskStatus());
  record.runs = stat.taskRunCount();
  record.dead = stat.taskDeadCount();
  record.violations200 = stat.taskQuantumViolation200();
  record.violations500 = stat.taskQuantumViolation500();
  record.runTime = nanoseconds(stat.taskTotalRunTime());
  record.maxRunTime = nanoseconds(stat.taskRunTimeHighWaterMark());
  record.lastWait = nanoseconds(stat.taskLastSchedulingLatency());
  record.maxWait = nanoseconds(stat.taskSchedulingLatencyHighWaterMark());
  record.work = stat.taskWorkCountTotal();
  record.maxWork = stat.taskWorkCountHighWaterMark();
  record.pending = stat.taskLastWorkPending();
  record.maxPending = stat.taskWorkPendingHighWaterMark();
  return record;
}

Format::Scheduler recordOf(TaskScheduler const& scheduler, bool isGroup, Answer& answer) {
  return {answer.string(scheduler.schedulerName()), isGroup ? 1u : 0u,
          scheduler.registeredTaskCount(), static_cast<U32>(scheduler.runnableTaskCount()),
          nanoseconds(scheduler.maxSchedulerLatency())};
}

}  // namespace

void Requests::answer(std::string const& request, Answer& answer) {
  std::istringstream words(request);
  words.imbue(std::locale::classic());
  std::string word;
  std::string action;
  double seconds = 0;
  std::size_t limit = 0;
  words >> word;
  try {
    if (word == "tasks" && words >> seconds) {
      _tasks(answer);
      _loop(answer, seconds);
    } else if (word == "history" && words >> limit) {
      _tasks(answer);
      _history(answer, limit);
    } else if (word == "log") {
      words >> action;
      if (action == "set" && words >> word) _logSet(word);
      if (action == "reset") _logReset();
      _log(answer);
    } else {
      answer.errorIs("the agent does not understand '" + request + "'");
    }
  } catch (Kiv::Exception const& fault) {
    answer.errorIs(fault.what());
  }
}

void Requests::_tasks(Answer& answer) const {
  std::vector<Format::Scheduler> schedulers;
  std::vector<Format::Task> tasks;
  std::vector<Format::Task> dead;
  for (TaskScheduler const* scheduler : root_.schedulers()) {
    schedulers.push_back(recordOf(*scheduler, scheduler != &root_, answer));
    std::vector<TaskStat> stats;
    scheduler->getTaskStats(&stats, true);
    for (TaskStat const& stat : stats) {
      tasks.push_back(recordOf(stat, *scheduler, answer));
      tasks.back().quantum = nanoseconds(stat.task()->taskQuantum());  // alive: just told of
    }
    stats.clear();
    scheduler->getDeadTaskStats(&stats, true);
    for (TaskStat const& stat : stats) dead.push_back(recordOf(stat, *scheduler, answer));
  }
  std::vector<Format::Priority> priorities;
  TaskSchedulerQueueStats const queues = root_.queueStatsRoot();
  for (auto const& entry : queues.priorityStats()) {
    TaskSchedulerPriorityStats const& stats = entry.second;
    priorities.push_back({entry.first.value(), stats.runnableCount(), stats.idleCount(),
                          stats.deadCount(), stats.totalRunCount()});
  }
  answer.sectionIs(Kind::schedulers, schedulers);
  answer.sectionIs(Kind::priorities, priorities);
  answer.sectionIs(Kind::tasks, tasks);
  answer.sectionIs(Kind::deadTasks, dead);
}

void Requests::_loop(Answer& answer, double seconds) const {
  if (!onTypeSystemLoop()) return;
  auto const time = std::chrono::duration<double>(std::clamp(seconds, 0.0, 3600.0));
  LoopHealth& health = LoopHealth::instance();
  health.measureFor(std::chrono::duration_cast<std::chrono::nanoseconds>(time));
  answer.sectionIs<Format::Loop>(Kind::loop, {health.current(), health.last()});
}

void Requests::_history(Answer& answer, std::size_t limit) const {
  TaskSchedulerHistory const& history = *root_.schedulerHistory();
  std::vector<Format::Event> events;
  for (std::size_t age = 0; age < std::min(limit, history.eventCount()); ++age) {
    auto const& event = history.event(age);
    events.push_back({nanoseconds(event.time().time_since_epoch()), static_cast<U32>(event.type()),
                      answer.string(event.subject().string())});
  }
  answer.sectionIs(Kind::events, events);
}

void Requests::_log(Answer& answer) const {
  std::vector<Format::Trace> traces;
  for (auto const& [facility, levels] : Kiv::TraceFacilityManager::instance().state().levels) {
    traces.push_back({answer.string(facility->name().stdString()), levels});
  }
  answer.sectionIs(Kind::traces, traces);
}

void Requests::_logSet(std::string const& entry) {
  auto& manager = Kiv::TraceFacilityManager::instance();
  Kiv::TraceSetting const setting(entry);  // malformed, it throws before anything is changed
  if (!tracesBefore_) tracesBefore_ = manager.state();
  manager.settingAdd(setting);
}

void Requests::_logReset() {
  if (!tracesBefore_) return;
  Kiv::TraceFacilityManager::instance().stateIs(*tracesBefore_);
  tracesBefore_.reset();
}

}  // namespace Veltro
