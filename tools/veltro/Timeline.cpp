// veltro trace: the scheduler's history as a timeline, in the trace event format that browsers'
// viewers open.

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>

#include "Agent.h"
#include "Json.h"
#include "Veltro/TaskSchedulerHistory.h"

namespace Operator {
namespace {

namespace Format = Veltro::IntrospectionFormat;
using Type = Veltro::TaskSchedulerEventType;
using Veltro::U64;

char const* nameOf(Type type) {
  constexpr char const* kNames[] = {"schedule",       "unschedule",      "run start",
                                    "run end",        "timer start",     "timer stop",
                                    "suspend on",     "suspend off",     "schedule suspended",
                                    "force yield on", "force yield off", "idle",
                                    "busy",           "create",          "delete",
                                    "scheduler idle", "runnable",        "suspended",
                                    "unsuspended",    "run ignored"};
  auto const index = static_cast<std::size_t>(type);
  return index < sizeof kNames / sizeof *kNames ? kNames[index] : "unknown";
}

/// What one event adds to the number of queued tasks.
std::int64_t queueChange(Type type) {
  if (type == Type::schedule) return 1;
  return type == Type::unschedule || type == Type::runStart ? -1 : 0;
}

class Timeline final {
 public:
  explicit Timeline(Reply const& reply)
      : reply_(reply), events_(reply.records<Format::Event>(Reply::Kind::events)) {
    std::reverse(events_.begin(), events_.end());  // oldest first
  }

  Json const& json() {
    json_.object().name("displayTimeUnit").string("ns").name("traceEvents").array();
    _names();
    _countQueued();
    for (Format::Event const& event : events_) _event(event);
    // What runs now has no end yet: it is told of up to the moment of the answer.
    while (!running_.empty()) _endRun(reply_.header().takenAt);
    return json_.endArray().endObject();
  }

 private:
  Json& _open(std::string const& name, char const* phase) {
    json_.object().name("name").string(name).name("ph").string(phase);
    json_.name("pid").number(reply_.header().processId);
    return json_.name("tid").number(reply_.header().threadId);
  }
  Json& _time(char const* name, U64 nanoseconds) {
    return json_.name(name).real(static_cast<double>(nanoseconds) / 1e3, 3);  // microseconds
  }
  void _names() {
    std::pair<char const*, char const*> const names[] = {{"process_name", reply_.header().program},
                                                         {"thread_name", reply_.header().thread}};
    for (auto const& [kind, name] : names) {
      _open(kind, "M").name("args").object().name("name").string(name).endObject().endObject();
    }
  }

  /// The length of the queue is known at the end: from there back to the oldest event.
  void _countQueued() {
    std::int64_t queued = 0;
    for (auto const& priority : reply_.records<Format::Priority>(Reply::Kind::priorities)) {
      queued += std::int64_t{priority.runnable};
    }
    for (auto event = events_.rbegin(); event != events_.rend(); ++event) {
      queued -= queueChange(static_cast<Type>(event->type));
    }
    queued_ = queued;
  }

  void _event(Format::Event const& event) {
    auto const type = static_cast<Type>(event.type);
    std::string const subject = reply_.string(event.subject);
    if (type == Type::runStart) {
      running_.push_back({subject, event.time});
    } else if (type == Type::runEnd) {
      _runEnd(subject, event.time);
    } else {
      _open(std::string(nameOf(type)) + " " + subject, "i").name("s").string("t");
      _time("ts", event.time).endObject();
    }
    if (std::int64_t const change = queueChange(type); change != 0) {
      queued_ += change;
      _open("queued tasks", "C");
      _time("ts", event.time).name("args").object().name("tasks");
      json_.number(static_cast<U64>(std::max<std::int64_t>(queued_, 0))).endObject().endObject();
    }
  }

  /// Runs nest: a group's turn holds those of its tasks. A run that an exception left has no end
  /// of its own, and ends with the one around it or at the next.
  void _runEnd(std::string const& subject, U64 time) {
    bool const known = std::any_of(running_.begin(), running_.end(),
                                   [&](Run const& run) { return run.task == subject; });
    if (!known) running_.insert(running_.begin(), {subject, events_.front().time});
    while (running_.back().task != subject) _endRun(time);
    _endRun(time);
  }

  void _endRun(U64 time) {
    Run const run = running_.back();
    running_.pop_back();
    _open(run.task, "X").name("cat").string("run");
    _time("ts", run.start);
    _time("dur", time - run.start).endObject();
  }

  struct Run {
    std::string task;
    U64 start;
  };

  Reply const& reply_;
  std::vector<Format::Event> events_;
  std::vector<Run> running_;
  std::int64_t queued_ = 0;
  Json json_;
};

struct Options {
  AgentChoice choice;
  std::string output = "-";
  unsigned events = 10000;
};

void run(Options const& options) {
  Reply const reply = options.choice.ask("history " + std::to_string(options.events));
  Timeline timeline(reply);
  if (options.output == "-") {
    std::cout << timeline.json() << std::flush;
    if (!std::cout) throw std::runtime_error("standard output does not take the timeline");
    return;
  }
  std::ofstream file(options.output);
  file << timeline.json();
  file.close();
  if (!file) throw std::runtime_error("cannot write " + options.output);
}

}  // namespace

void addTrace(CLI::App& program) {
  auto const options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand(
      "trace",
      "Write the scheduler's history as a timeline, which the trace viewers of browsers\n"
      "open: runs of tasks, what else happened to them, and how many were queued");
  options->choice.addTo(*command);
  command->add_option("-o,--output", options->output, "Where to write it; - for standard output")
      ->type_name("FILE");
  command->add_option("--events", options->events, "How many of the newest events")
      ->type_name("N")
      ->check(CLI::Range(1u, 10000u));
  command->callback([options] { run(*options); });
}

}  // namespace Operator
