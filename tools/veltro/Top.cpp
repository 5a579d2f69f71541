// veltro top: what the tasks of an agent do, and how well its loop turns.

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <thread>

#include "Agent.h"
#include "Json.h"
#include "Table.h"
#include "Veltro/LoopHealth.h"
#include "Veltro/TaskPriority.h"
#include "Veltro/TaskStat.h"

namespace Operator {
namespace {

namespace Format = Veltro::IntrospectionFormat;
using Veltro::LoopHealth;
using Veltro::U32;
using Veltro::U64;

double milliseconds(U64 time) { return static_cast<double>(time) / 1e6; }

struct Row {
  Format::Task task;
  std::string name;
  std::string scheduler;
  double runsPerSecond = 0;
  double share = 0;  // of the time between the readings
};

/// Two readings, and what lies between them.
class View final {
 public:
  View(Reply const& before, Reply const& now) : now_(now) {
    seconds_ = static_cast<double>(now.header().takenAt - before.header().takenAt) / 1e9;
    std::map<std::pair<U64, std::string>, Format::Task> was;
    for (auto const& task : before.records<Format::Task>(Reply::Kind::tasks)) {
      was[{task.key, before.string(task.name)}] = task;
    }
    for (auto const& task : now.records<Format::Task>(Reply::Kind::tasks)) {
      rows_.push_back({task, now.string(task.name), now.string(task.scheduler)});
      auto const old = was.find({task.key, rows_.back().name});
      // One that is new, or whose figures were reset, has run all of them since.
      bool const same = old != was.end() && old->second.runTime <= task.runTime;
      U64 const runTime = task.runTime - (same ? old->second.runTime : 0);
      U32 const runs = task.runs - (same ? old->second.runs : 0);
      rows_.back().runsPerSecond = runs / seconds_;
      rows_.back().share = static_cast<double>(runTime) / 1e9 / seconds_;
    }
    std::stable_sort(rows_.begin(), rows_.end(), [](Row const& a, Row const& b) {
      return std::pair(a.share, a.task.runTime) > std::pair(b.share, b.task.runTime);
    });
    for (auto const& scheduler : now.records<Format::Scheduler>(Reply::Kind::schedulers)) {
      if (scheduler.isGroup == 0) maxSlip_ = scheduler.maxSlip;
    }
    priorities_ = now.records<Format::Priority>(Reply::Kind::priorities);
    auto const windows = now.records<Format::Loop>(Reply::Kind::loop);
    for (Format::Loop const& window : windows) {
      if (window.passes != 0) loop_ = window;  // the last whole one before the one under way
    }
  }

  std::vector<Row> const& rows() const { return rows_; }
  std::vector<Format::Priority> const& priorities() const { return priorities_; }
  std::optional<Format::Loop> const& loop() const { return loop_; }
  double idle() const {
    double const all = static_cast<double>(loop_->waited.sum + loop_->worked.sum);
    return all > 0 ? static_cast<double>(loop_->waited.sum) / all : 0;
  }
  double passesPerSecond() const {
    double const time = static_cast<double>(loop_->end - loop_->start) / 1e9;
    return time > 0 ? static_cast<double>(loop_->passes) / time : 0;
  }
  U64 maxSlip() const { return maxSlip_; }
  double seconds() const { return seconds_; }
  Format::Header const& header() const { return now_.header(); }

 private:
  Reply const& now_;
  double seconds_ = 0;
  std::vector<Row> rows_;
  std::vector<Format::Priority> priorities_;
  std::optional<Format::Loop> loop_;
  U64 maxSlip_ = 0;
};

std::string priorityName(U32 value) {
  auto const bounded = std::min<U32>(value, Veltro::TaskPriority::oneBeyondLast);
  return Veltro::TaskPriority(static_cast<Veltro::TaskPriority::Value>(bounded)).toStrep();
}

std::string statusOf(Format::Task const& task) {
  std::string text;
  if ((task.status & 8) != 0) text += "running ";
  if ((task.status & 4) != 0) text += "queued ";
  if ((task.status & 16) != 0) text += "suspended ";
  if ((task.status & 2) != 0) text += "armed ";
  return text.empty() ? "-" : text.substr(0, text.size() - 1);
}

std::string quantiles(LoopHealth::Histogram const& histogram) {
  return decimal(milliseconds(LoopHealth::quantile(histogram, 0.5)), 3) + " / " +
         decimal(milliseconds(LoopHealth::quantile(histogram, 0.99)), 3) + " / " +
         decimal(milliseconds(histogram.max), 3) + " ms";
}

void printTable(View const& view, std::size_t limit) {
  auto const& header = view.header();
  std::cout << header.program << '.' << header.processId << '.' << header.threadId << " ("
            << header.thread << ")  queued";
  for (auto const& priority : view.priorities()) {
    std::cout << ' ' << priorityName(priority.priority) << ' ' << priority.runnable;
  }
  std::cout << "  worst slip " << decimal(milliseconds(view.maxSlip()), 3) << " ms\n";
  if (view.loop()) {
    std::cout << "loop: " << decimal(view.passesPerSecond(), 0) << " passes a second, idle "
              << decimal(view.idle() * 100, 1) << "%, median / 99% / worst: lag "
              << quantiles(view.loop()->lag) << ", pass " << quantiles(view.loop()->worked)
              << ", events a pass " << LoopHealth::quantile(view.loop()->events, 0.5) << " / "
              << LoopHealth::quantile(view.loop()->events, 0.99) << " / " << view.loop()->events.max
              << '\n';
  }
  Table table({"TASK", "PRIORITY", "STATE", "RUNS/S", "SHARE%", "WAIT MS", "WORST", "RUN MS WORST",
               "200%", "500%", "PENDING", "RUNS"});
  for (Row const& row : view.rows()) {
    if (limit-- == 0) break;
    auto const& task = row.task;
    bool const reports = task.maxPending != Veltro::TaskStat::kNoSample;
    table.rowIs({row.name, priorityName(task.priority), statusOf(task),
                 decimal(row.runsPerSecond, 1), decimal(row.share * 100, 1),
                 decimal(milliseconds(task.lastWait), 3), decimal(milliseconds(task.maxWait), 3),
                 decimal(milliseconds(task.maxRunTime), 3), std::to_string(task.violations200),
                 std::to_string(task.violations500), reports ? std::to_string(task.pending) : "-",
                 std::to_string(task.runs)});
  }
  std::cout << table;
}

void addHistogram(Json& json, char const* name, LoopHealth::Histogram const& histogram) {
  json.name(name).object().name("median").number(LoopHealth::quantile(histogram, 0.5));
  json.name("p99").number(LoopHealth::quantile(histogram, 0.99));
  json.name("max").number(histogram.max).name("sum").number(histogram.sum);
  json.name("log2").array();
  for (U32 const count : histogram.buckets) json.number(count);
  json.endArray().endObject();
}

void printJson(View const& view, std::size_t limit) {
  auto const& header = view.header();
  Json json;
  json.object().name("program").string(header.program).name("process").number(header.processId);
  json.name("thread").number(header.threadId).name("threadName").string(header.thread);
  json.name("takenAtNs").number(header.takenAt).name("seconds").real(view.seconds(), 6);
  json.name("worstSlipNs").number(view.maxSlip());
  json.name("queues").array();
  for (auto const& priority : view.priorities()) {
    json.object().name("priority").string(priorityName(priority.priority));
    json.name("queued").number(priority.runnable).name("idle").number(priority.idle);
    json.name("dead").number(priority.dead).name("runs").number(priority.runs).endObject();
  }
  json.endArray().name("loop");
  if (view.loop()) {
    json.object().name("passesPerSecond").real(view.passesPerSecond(), 1);
    json.name("idle").real(view.idle(), 4);
    addHistogram(json, "lagNs", view.loop()->lag);
    addHistogram(json, "passNs", view.loop()->worked);
    addHistogram(json, "events", view.loop()->events);
    json.endObject();
  } else {
    json.null();
  }
  json.name("tasks").array();
  for (Row const& row : view.rows()) {
    if (limit-- == 0) break;
    auto const& task = row.task;
    json.object().name("name").string(row.name).name("scheduler").string(row.scheduler);
    json.name("priority").string(priorityName(task.priority)).name("state").string(statusOf(task));
    json.name("runsPerSecond").real(row.runsPerSecond, 1).name("share").real(row.share, 4);
    json.name("runs").number(task.runs).name("runTimeNs").number(task.runTime);
    json.name("worstRunNs").number(task.maxRunTime).name("quantumNs").number(task.quantum);
    json.name("lastWaitNs").number(task.lastWait).name("worstWaitNs").number(task.maxWait);
    json.name("violations200").number(task.violations200);
    json.name("violations500").number(task.violations500);
    json.name("work").number(task.work).name("pending").number(task.pending).endObject();
  }
  std::cout << json.endArray().endObject();
}

/// A family of the text exposition format. What has the same labels is summed up, or the larger
/// counts, for a label may stand in it once.
class Family final {
 public:
  Family(char const* name, char const* kind, char const* help)
      : name_(std::string("veltro_") + name), kind_(kind), help_(help) {}
  void add(std::string const& labels, double value) { values_[labels] += value; }
  void atLeast(std::string const& labels, double value) {
    values_[labels] = std::max(values_[labels], value);
  }
  friend std::ostream& operator<<(std::ostream& out, Family const& family) {
    out << "# HELP " << family.name_ << ' ' << family.help_ << "\n# TYPE " << family.name_ << ' '
        << family.kind_ << '\n';
    for (auto const& [labels, value] : family.values_) {
      out << family.name_ << '{' << labels << "} " << decimal(value, 9) << '\n';
    }
    return out;
  }

 private:
  std::string const name_;
  char const* const kind_;
  char const* const help_;
  std::map<std::string, double> values_;
};

void printMetrics(View const& view) {
  auto const& header = view.header();
  std::string const agent = "program=\"" + metricLabel(header.program) + "\",thread=\"" +
                            std::to_string(header.threadId) + "\"";
  Family runs("task_runs_total", "counter", "Runs of tasks.");
  Family time("task_run_seconds_total", "counter", "Time that tasks ran.");
  Family overlong("task_overlong_runs_total", "counter", "Runs of two quanta and more.");
  Family wait("task_wait_seconds_max", "gauge", "The longest wait of a task for its run.");
  Family queued("queued_tasks", "gauge", "Tasks that wait for their run.");
  Family slip("scheduler_slip_seconds_max", "gauge", "The longest wait of the scheduler.");
  for (Row const& row : view.rows()) {
    auto const& task = row.task;
    std::string const labels = agent + ",scheduler=\"" + metricLabel(row.scheduler) + "\",task=\"" +
                               metricLabel(row.name) + "\"";
    runs.add(labels, task.runs);
    time.add(labels, static_cast<double>(task.runTime) / 1e9);
    overlong.add(labels, task.violations200 + task.violations500);
    wait.atLeast(labels, static_cast<double>(task.maxWait) / 1e9);
  }
  for (auto const& priority : view.priorities()) {
    queued.add(agent + ",priority=\"" + priorityName(priority.priority) + "\"", priority.runnable);
  }
  slip.add(agent, static_cast<double>(view.maxSlip()) / 1e9);
  std::cout << runs << time << overlong << wait << queued << slip;
  if (!view.loop()) return;
  Family idle("loop_idle_ratio", "gauge", "Share of the time that the loop waits.");
  Family lag("loop_lag_seconds", "gauge", "How late timers are, over some seconds.");
  Family pass("loop_pass_seconds", "gauge", "How long a pass works, over some seconds.");
  Family events("loop_pass_events", "gauge", "Events of a pass, over some seconds.");
  idle.add(agent, view.idle());
  for (auto const& [name, share] : {std::pair("0.5", 0.5), {"0.99", 0.99}, {"1", 1.0}}) {
    std::string const labels = agent + ",quantile=\"" + name + "\"";
    auto const value = [share = share](LoopHealth::Histogram const& histogram) {
      return static_cast<double>(LoopHealth::quantile(histogram, share));
    };
    lag.add(labels, value(view.loop()->lag) / 1e9);
    pass.add(labels, value(view.loop()->worked) / 1e9);
    events.add(labels, value(view.loop()->events));
  }
  std::cout << idle << lag << pass << events;
}

struct Options {
  AgentChoice choice;
  bool once = false;
  bool json = false;
  bool metrics = false;
  double interval = 1;
  U64 times = 0;
  std::size_t limit = 50;
};

void run(Options const& options) {
  Agent const agent = options.choice.chosen();
  // Long enough that the loop is measured without a break until the next reading.
  std::string const request = "tasks " + decimal(3 * options.interval + 1, 3);
  auto const pause = std::chrono::duration<double>(options.interval);
  bool const screen =
      ::isatty(STDOUT_FILENO) != 0 && !options.json && !options.metrics && !options.once;
  auto before = std::make_unique<Reply const>(agent.ask(request, options.choice.timeout));
  for (U64 reading = 1;; ++reading) {
    std::this_thread::sleep_for(pause);
    auto now = std::make_unique<Reply const>(agent.ask(request, options.choice.timeout));
    View const view(*before, *now);
    if (screen) std::cout << "\033[H\033[2J";
    if (options.json) {
      printJson(view, options.limit);
    } else if (options.metrics) {
      printMetrics(view);
    } else {
      if (reading != 1 && !screen) std::cout << '\n';
      printTable(view, options.limit);
    }
    flushReport();
    if (options.once || reading == options.times) return;
    before = std::move(now);
  }
}

}  // namespace

void addTop(CLI::App& program) {
  auto const options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand(
      "top",
      "Show the tasks of an agent: how often each runs, its share of the thread's time, how\n"
      "long it waited, its overlong runs; the queues, and how well the event loop turns");
  options->choice.addTo(*command);
  command->add_flag("--once", options->once, "One report, over one interval");
  command->add_option("--interval", options->interval, "Time between two readings")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.01, 3600.0));
  command->add_option("--times", options->times, "End after N reports")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  command->add_option("--limit", options->limit, "Show the N busiest tasks only")->type_name("N");
  auto* const json =
      command->add_flag("--json", options->json, "One line of JSON a report; times in nanoseconds");
  command->add_flag("--metrics", options->metrics, "The text exposition format of collectors")
      ->excludes(json);
  command->callback([options] { run(*options); });
}

}  // namespace Operator
