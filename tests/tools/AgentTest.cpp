#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "Veltro/LoopHealth.h"
#include "tests/platform/Backends.h"
#include "tests/tools/RunningAgent.h"

namespace Veltro {
namespace {

using rapidjson::Document;
using rapidjson::Value;
using testing::HasSubstr;

Document parsed(Outcome const& outcome) {
  EXPECT_EQ(0, outcome.status) << outcome.text;
  Document document;
  document.Parse(outcome.text.c_str());
  EXPECT_FALSE(document.HasParseError()) << outcome.text;
  return document;
}

Value const& taskOf(Document const& top, std::string const& name) {
  for (auto const& task : top["tasks"].GetArray()) {
    if (task["name"].GetString() == name) return task;
  }
  throw std::runtime_error("there is no task " + name);
}

struct AgentTest : testing::Test {
  RunningAgent agent;
};

TEST_F(AgentTest, topShowsItsTasksQueuesAndLoop) {
  Document const top = parsed(agent.ask("top agent --once --interval 0.2 --json"));
  struct {
    char const* task;
    char const* priority;
    char const* scheduler;  // how it begins
    bool runs, works;
  } const cases[] = {
      {"poller", "low", "thread:", true, true},          {"member", "low", "inner", true, true},
      {"TaskGroup;inner", "low", "thread:", true, true}, {"ticker", "high", "thread:", true, false},
      {"input:read", "normal", "thread:", false, false},
  };
  double share = 0;
  for (auto const& c : cases) {
    SCOPED_TRACE(c.task);
    Value const& task = taskOf(top, c.task);
    EXPECT_STREQ(c.priority, task["priority"].GetString());
    EXPECT_EQ(0u, std::string(task["scheduler"].GetString()).find(c.scheduler));
    EXPECT_EQ(c.runs, task["runsPerSecond"].GetDouble() > 0);
    EXPECT_EQ(c.works, task["work"].GetUint64() > 0);
    // What a group's task runs is its turn's too.
    if (std::string(c.task) != "member") share += task["share"].GetDouble();
  }
  EXPECT_GT(share, 0.1);
  EXPECT_LT(share, 1.01);
  EXPECT_EQ(5u, top["queues"].Size());
  EXPECT_GT(top["loop"]["passesPerSecond"].GetDouble(), 1);
  for (char const* name : {"lagNs", "passNs", "events"}) {
    Value const& figures = top["loop"][name];
    EXPECT_LE(figures["median"].GetUint64(), figures["p99"].GetUint64()) << name;
    EXPECT_LE(figures["p99"].GetUint64(), figures["max"].GetUint64()) << name;
    EXPECT_GT(figures["max"].GetUint64(), 0u) << name;
  }
  Outcome const table = agent.ask("top agent --once --interval 0.05 --limit 2");
  EXPECT_EQ(5, std::count(table.text.begin(), table.text.end(), '\n')) << table.text;

  Document const agents = parsed(agent.ask("agents --json"));
  for (auto const& thread : agents.GetArray()) {
    if (thread["thread"].GetUint() == thread["process"].GetUint()) continue;
    std::string const name = thread["agent"].GetString();
    Document const worker = parsed(agent.ask("top " + name + " --once --interval 0.05 --json"));
    EXPECT_GT(taskOf(worker, "worker")["runs"].GetUint(), 0u);
    EXPECT_TRUE(worker["loop"].IsNull());
  }
}

// Line by line as a collector reads it: a family's head, then samples of that family.
TEST_F(AgentTest, topSpeaksToCollectors) {
  std::istringstream lines(agent.ask("top agent --once --interval 0.05 --metrics").text);
  std::regex const type("# TYPE (veltro_[a-z_]+) (counter|gauge)");
  std::regex const sample(R"((veltro_[a-z_]+)\{([a-z]+="[^"]*",?)+\} [0-9.]+)");
  std::string family;
  std::set<std::string> seen;
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, 7, "# HELP ") == 0) continue;
    if (std::regex_match(line, match, type)) {
      family = match[1];
    } else {
      ASSERT_TRUE(std::regex_match(line, match, sample)) << line;
      EXPECT_EQ(family, match[1]);
      EXPECT_TRUE(seen.insert(line.substr(0, line.rfind(' '))).second) << line;
    }
  }
  EXPECT_LT(20u, seen.size());
}

// Each event of the format by its phase, as a viewer would read it.
TEST_F(AgentTest, traceIsATimeline) {
  while (taskOf(parsed(agent.ask("top agent --once --interval 0.05 --json")), "ticker")["runs"]
             .GetUint() < 2) {
  }
  Document const trace = parsed(agent.ask("trace agent"));
  std::map<std::string, int> phases, runs;
  double lastEnd = 0;
  for (auto const& event : trace["traceEvents"].GetArray()) {
    std::string const phase = event["ph"].GetString(), name = event["name"].GetString();
    ++phases[phase];
    EXPECT_EQ(agent.process(), std::to_string(event["pid"].GetUint()));
    if (phase != "X") continue;
    ++runs[name];
    EXPECT_GE(event["dur"].GetDouble(), 0);
    if (name == "member" || name == "TaskGroup;inner") continue;  // those nest
    EXPECT_GE(event["ts"].GetDouble(), lastEnd - 0.002) << name;
    lastEnd = event["ts"].GetDouble() + event["dur"].GetDouble();
  }
  EXPECT_EQ(2, phases["M"]);
  EXPECT_GT(phases["i"], 0);
  EXPECT_GT(phases["C"], 0);
  EXPECT_EQ(4u, phases.size()) << "a phase that is not of the format";
  for (char const* task : {"poller", "member", "TaskGroup;inner"}) EXPECT_GT(runs[task], 0) << task;
  EXPECT_THAT(agent.ask("trace agent -o /dev/full").text, HasSubstr("cannot write /dev/full"));
}

TEST_F(AgentTest, logReadsSetsAndResetsLevels) {
  auto const levels = [](Outcome const& outcome) {
    return std::string(parsed(outcome)["TaskScheduler"].GetString());
  };
  EXPECT_EQ("0", levels(agent.ask("log agent --json")));
  EXPECT_EQ("0,7-8", levels(agent.ask("log agent --json --set 'Task*/7-8'")));
  // Read no further: it may be written faster than it is read.
  while (shell("grep -qm1 'Ran poller' " + agent.errorsFile()).status != 0) {
    std::this_thread::yield();
  }
  EXPECT_EQ("7-8", levels(agent.ask("log agent --json --set -TaskScheduler/0")));
  EXPECT_EQ("0", levels(agent.ask("log agent --json --reset")));
}

TEST_F(AgentTest, saysWhoDoesNotAnswer) {
  auto const says = [this](std::string const& command, int status, char const* text) {
    Outcome const outcome = agent.ask(command);
    EXPECT_EQ(status, outcome.status) << command;
    EXPECT_THAT(outcome.text, HasSubstr(text));
  };
  says("top nobody", 3, "there is no agent 'nobody'");
  says("top --once --interval 0", 2, "--interval");
  says("log " + agent.process(), 0, "TaskScheduler");
  says("log agent --set Task/x", 1, "\"x\" is not a level");
  agent.signal(SIGSTOP);
  says("log agent --timeout 0.2", 3, "does not answer");
  agent.signal(SIGCONT);
  says("log agent", 0, "TaskScheduler");
  agent.signal(SIGKILL);
  agent.end();
  EXPECT_EQ(0, agent.agents());
}

// The watch on the control file must not keep either loop running.
TEST_F(AgentTest, endsByItselfAndLeavesNothing) {
  EXPECT_EQ(7, agent.end());
  EXPECT_THAT(agent.ask("top").text, HasSubstr("no agent lets itself be seen"));
}

TEST(LoopHealthTest, quantilesComeFromLog2Buckets) {
  LoopHealth::Histogram histogram{};
  histogram.buckets[0] = 50;  // zeros
  histogram.buckets[4] = 48;  // 8 to 15
  histogram.buckets[11] = 2;  // 1024 to 2047
  histogram.max = 1500;
  struct {
    double share;
    U64 value;
  } const cases[] = {{0.5, 0}, {0.51, 15}, {0.98, 15}, {0.99, 1500}, {1, 1500}};
  for (auto const& c : cases)
    EXPECT_EQ(c.value, LoopHealth::quantile(histogram, c.share)) << c.share;
  EXPECT_EQ(0u, LoopHealth::quantile(LoopHealth::Histogram{}, 0.99));
}

TEST(LoopHealthTest, countsPassesWhileItIsAskedTo) {
  LoopHealth& health = LoopHealth::instance();
  health.measureFor(std::chrono::hours(1));
  Timeout handler;
  auto const timer = Platform::getTimerControl(&handler);
  handler.onTimeout = [&] {
    if (handler.calls < 5) timer->setTimeout(0.001);
  };
  timer->setTimeout(0.001);
  Platform::doEventLoop();
  LoopHealth::Window const window = health.current();
  EXPECT_GE(window.passes, 4u);  // the last one ends the run
  EXPECT_GE(window.waited.sum, 4 * 900000u);
  EXPECT_LE(window.waited.sum + window.worked.sum, window.end - window.start);
  std::ostringstream report;
  health.print(report);
  EXPECT_THAT(report.str(), HasSubstr("Loop: " + std::to_string(window.passes) + " passes in"));
}

}  // namespace
}  // namespace Veltro
