// veltro advise: what an engineer would say who looked at the figures and the history.

#include <iostream>
#include <map>
#include <memory>

#include "Advice.h"
#include "Agent.h"
#include "Json.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TaskStat.h"

namespace Operator {
namespace {

namespace Format = Veltro::IntrospectionFormat;
using Type = Veltro::TaskSchedulerEventType;
using Kiv::U64;

/// Ready again within this time of a run's end: nobody else had a hand in it.
constexpr U64 kAtOnce = 100000;

struct Seen {
  U64 runs = 0;
  U64 runTime = 0;
  U64 requeues = 0;
  U64 readyAgain = 0;
  bool running = false;
  bool requeued = false;
  U64 since = 0;  // start of its run, or end of its last one
};

void note(Seen& task, Type type, U64 time) {
  if (type == Type::runStart) {
    task.running = true;
    task.requeued = false;
    task.since = time;
  } else if (type == Type::schedule && task.running) {
    task.requeued = true;
  } else if (type == Type::schedule) {
    if (task.runs != 0 && time - task.since < kAtOnce) ++task.readyAgain;
  } else if (type == Type::runEnd && task.running) {
    task.running = false;
    ++task.runs;
    task.runTime += time - task.since;
    if (task.requeued) ++task.requeues;
    task.since = time;
  }
}

ThreadFigures figuresOf(Reply const& reply) {
  std::map<std::string, Seen> seen;
  auto const events = reply.records<Format::Event>(Reply::Kind::events);
  for (auto event = events.rbegin(); event != events.rend(); ++event) {
    note(seen[reply.string(event->subject)], static_cast<Type>(event->type), event->time);
  }
  ThreadFigures thread;
  U64 allRunTime = 0;
  for (auto const& record : reply.records<Format::Task>(Reply::Kind::tasks)) {
    allRunTime += record.runTime;
    thread.quantum = std::max(thread.quantum, record.quantum);
    TaskFigures task;
    task.name = reply.string(record.name);
    task.runs = record.runs;
    task.runTime = record.runTime;
    task.maxRun = record.maxRunTime;
    task.quantum = record.quantum;
    task.maxWait = record.maxWait;
    task.violations500 = record.violations500;
    task.work = record.work;
    task.pending = record.pending;
    bool const sampled = record.maxPending != Veltro::TaskStat::kNoSample;
    task.maxPending = sampled ? record.maxPending : 0;
    Seen const& figures = seen[task.name];
    task.seenRuns = figures.runs;
    task.seenRunTime = figures.runTime;
    task.seenRequeues = figures.requeues;
    task.seenReadyAgain = figures.readyAgain;
    thread.tasks.push_back(task);
  }
  for (TaskFigures& task : thread.tasks) task.othersRunTime = allRunTime - task.runTime;
  for (auto const& scheduler : reply.records<Format::Scheduler>(Reply::Kind::schedulers)) {
    if (scheduler.isGroup == 0) thread.maxSlip = scheduler.maxSlip;
  }
  return thread;
}

void run(AgentChoice const& choice, bool asJson) {
  auto const sentences = adviceOn(figuresOf(choice.ask("history 10000")));
  if (asJson) {
    Json json;
    json.array();
    for (auto const& sentence : sentences) json.string(sentence);
    std::cout << json.endArray();
  } else {
    for (auto const& sentence : sentences) std::cout << sentence << '\n';
    if (sentences.empty()) std::cout << "nothing to advise\n";
  }
  flushReport();
}

}  // namespace

void addAdvise(CLI::App& program) {
  struct Options {
    AgentChoice choice;
    bool json = false;
  };
  auto const options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand(
      "advise", "Say in words what the figures and the history of an agent suggest");
  options->choice.addTo(*command);
  command->add_flag("--json", options->json, "One line of JSON: a list of sentences");
  command->callback([options] { run(options->choice, options->json); });
}

}  // namespace Operator
