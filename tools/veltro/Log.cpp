// veltro log: the trace levels of a running agent.

#include <iostream>
#include <memory>

#include "Agent.h"
#include "Json.h"
#include "Table.h"

namespace Operator {
namespace {

/// "0-3,7"; "-" for none.
std::string levelsOf(Veltro::U32 word) {
  std::string text;
  for (unsigned level = 0; level < 32; ++level) {
    if ((word >> level & 1) == 0) continue;
    unsigned last = level;
    while (last < 31 && (word >> (last + 1) & 1) != 0) ++last;
    text += (text.empty() ? "" : ",") + std::to_string(level);
    if (last > level) text += "-" + std::to_string(last);
    level = last;
  }
  return text.empty() ? "-" : text;
}

struct Options {
  AgentChoice choice;
  std::vector<std::string> settings;
  bool reset = false;
  bool json = false;
};

void run(Options const& options) {
  Agent const agent = options.choice.chosen();
  if (options.reset) agent.ask("log reset", options.choice.timeout);
  for (std::string const& setting : options.settings) {
    agent.ask("log set " + setting, options.choice.timeout);
  }
  Reply const reply = agent.ask("log", options.choice.timeout);
  Table table({"CATEGORY", "LEVELS"});
  Json json;
  json.object();
  for (auto const& trace : reply.records<Veltro::IntrospectionFormat::Trace>(Reply::Kind::traces)) {
    table.rowIs({reply.string(trace.name), levelsOf(trace.levels)});
    json.name(utf8Of(reply.string(trace.name)).c_str()).string(levelsOf(trace.levels));
  }
  if (options.json) {
    std::cout << json.endObject();
  } else {
    std::cout << table;
  }
  flushReport();
}

}  // namespace

void addLog(CLI::App& program) {
  auto const options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand(
      "log",
      "Show, and change, the trace levels of a running agent; traces go to its standard\n"
      "error, as ever");
  options->choice.addTo(*command);
  command
      ->add_option("--set", options->settings,
                   "Apply an ENTRY in the form of TRACE: [-]NAME[/LEVELS]; may be given again")
      ->type_name("ENTRY")
      ->allow_extra_args(false);
  command->add_flag("--reset", options->reset, "First go back to what was before the first --set");
  command->add_flag("--json", options->json, "One line of JSON");
  command->callback([options] { run(*options); });
}

}  // namespace Operator
