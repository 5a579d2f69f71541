// veltro agents: who lets itself be seen.

#include <iostream>
#include <memory>

#include "Agent.h"
#include "Json.h"
#include "Table.h"

namespace Operator {
namespace {

void list(AgentChoice const& choice, bool asJson) {
  Table table({"AGENT", "PROCESS", "THREAD", "THREAD NAME"});
  Json json;
  json.array();
  for (Agent const& agent : choice.all()) {
    auto const& header = agent.header();
    table.rowIs({agent.name(), std::to_string(header.processId), std::to_string(header.threadId),
                 header.thread});
    json.object().name("agent").string(agent.name()).name("process").number(header.processId);
    json.name("thread").number(header.threadId).name("threadName").string(header.thread);
    json.endObject();
  }
  if (asJson) {
    std::cout << json.endArray();
  } else {
    std::cout << table;
  }
  flushReport();
}

}  // namespace

void addAgents(CLI::App& program) {
  struct Options {
    AgentChoice choice;
    bool json = false;
  };
  auto const options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand(
      "agents", "List the agents that let themselves be seen, a line for each thread of theirs");
  command->add_option("--dir", options->choice.directory, "Where agents let themselves be seen")
      ->type_name("DIRECTORY")
      ->envname("VELTRO_INTROSPECT");
  command->add_flag("--json", options->json, "One line of JSON");
  command->callback([options] { list(options->choice, options->json); });
}

}  // namespace Operator
