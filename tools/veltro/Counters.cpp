// veltro counters: lists and follows the counters of a counter file.

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>

#include "Command.h"
#include "CounterFile.h"
#include "Json.h"
#include "Kiv/Value.h"
#include "Table.h"

namespace Operator {
namespace {

/// The counter's figure of before, where the two can be compared: one generation of one block.
std::optional<Kiv::U64> valueBefore(Counter const& now, Snapshot const& before) {
  auto const was =
      std::lower_bound(before.counters.begin(), before.counters.end(), now,
                       [](Counter const& a, Counter const& b) { return a.key < b.key; });
  if (was == before.counters.end() || was->key != now.key || !was->sample || !now.sample ||
      was->sample->genId != now.sample->genId || was->block != now.block) {
    return std::nullopt;
  }
  return was->sample->value;
}

std::string rateOf(Counter const& now, Snapshot const& before, double seconds) {
  auto const was = valueBefore(now, before);
  if (!was) return "-";
  return decimal(static_cast<double>(static_cast<std::int64_t>(now.sample->value - *was)) / seconds,
                 1);
}

void printTable(Snapshot const& now, Snapshot const* before, double seconds) {
  bool const described = std::any_of(now.counters.begin(), now.counters.end(),
                                     [](Counter const& c) { return !c.description.empty(); });
  Table::Row titles{"COUNTER", "BLOCK", "GENERATION", "VALUE"};
  if (before != nullptr) titles.push_back("PER SECOND");
  if (described) titles.insert(titles.end(), {"KIND", "UNIT", "HELP"});
  Table table(titles);
  for (Counter const& counter : now.counters) {
    Table::Row row{Kiv::Value(counter.key).text(), std::to_string(counter.block), "-", "-"};
    if (counter.sample) {
      row[2] = std::to_string(counter.sample->genId);
      row[3] = std::to_string(counter.sample->value);
    }
    if (before != nullptr) row.push_back(rateOf(counter, *before, seconds));
    if (described) {
      auto const& about = counter.description;
      row.insert(row.end(), {about.kind, about.unit, about.help});
    }
    table.rowIs(std::move(row));
  }
  std::cout << table;
}

void printJson(Snapshot const& now) {
  Json json;
  json.object().name("file").string(now.file).name("maxCounters").number(now.maxCounters);
  json.name("blockSize").number(now.blockSize).name("counters").array();
  for (auto const& counter : now.counters) {
    json.object().name("key").string(counter.key).name("block").number(counter.block);
    if (counter.sample) {
      json.name("generation").number(counter.sample->genId);
      json.name("value").number(counter.sample->value);
    } else {
      json.name("generation").null().name("value").null();
    }
    if (!counter.description.empty()) {
      json.name("kind").string(counter.description.kind);
      json.name("unit").string(counter.description.unit);
      json.name("help").string(counter.description.help);
    }
    json.endObject();
  }
  std::cout << json.endArray().endObject();
}

/// A name that the text exposition format allows: [a-zA-Z_:][a-zA-Z0-9_:]*.
std::string metricName(Counter const& counter) {
  std::string name;
  for (char const c : counter.key) {
    bool const letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
    bool const digit = c >= '0' && c <= '9';
    if (digit && name.empty()) name = "_";
    name += letter || digit ? c : '_';
  }
  return name.empty() ? "_" : name;
}

/// The text exposition format: keys of one metric name form one family, told apart by their label.
void printMetrics(Snapshot const& now) {
  std::map<std::string, std::vector<Counter const*>> families;
  for (auto const& counter : now.counters) {
    if (counter.sample) families[metricName(counter)].push_back(&counter);
  }
  for (auto const& [name, counters] : families) {
    auto const& about = counters.front()->description;
    std::string help = about.help;
    if (!about.unit.empty()) help += (help.empty() ? "Unit: " : " Unit: ") + about.unit;
    if (!help.empty()) std::cout << "# HELP " << name << ' ' << metricText(help) << '\n';
    std::cout << "# TYPE " << name << ' ' << (about.kind.empty() ? "untyped" : about.kind) << '\n';
    for (Counter const* counter : counters) {
      std::cout << name << "{key=\"" << metricLabel(counter->key) << "\"} "
                << counter->sample->value << '\n';
    }
  }
}

struct Options {
  std::string log;
  std::string file;
  Kiv::U32 blockSize = 0;
  bool json = false;
  bool metrics = false;
  Follow follow;
};

void report(Options const& options) {
  std::optional<Snapshot> before;
  options.follow.run([&](double seconds) {
    auto snapshot = snapshotOf(options.log, options.file, options.blockSize);
    if (options.json) {
      printJson(snapshot);
    } else if (options.metrics) {
      printMetrics(snapshot);
    } else {
      if (before) std::cout << '\n';
      printTable(snapshot, before ? &*before : nullptr, seconds);
    }
    before = std::move(snapshot);
  });
}

}  // namespace

void addCounters(CLI::App& program) {
  auto const options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand(
      "counters",
      "List and follow the counters of a counter file: for each key in the attribute log LOG its\n"
      "block, the block's generation (it changes when the agent restarts) and the 64-bit value;\n"
      "kind, unit and help text where the agent has put them into LOG.about. Changes nothing.");
  command->add_option("LOG", options->log, "The attribute log of the counters")->required();
  command->add_option("--file", options->file, "The counter file, when it is not where LOG says")
      ->type_name("FILE");
  command
      ->add_option("--block-size", options->blockSize,
                   "Size of a block, when the file has grown past its blocks")
      ->type_name("BYTES")
      ->check([](std::string const& text) -> std::string {
        Kiv::U32 size = 0;
        bool const number = CLI::detail::lexical_cast(text, size);
        return number && size >= 16 && size % 8 == 0 ? "" : "cannot be '" + text + "'";
      });
  auto* const json = command->add_flag("--json", options->json, "One line of JSON a reading");
  command->add_flag("--metrics", options->metrics, "The text exposition format of collectors")
      ->excludes(json);
  options->follow.addTo(*command);
  command->callback([options] { report(*options); });
}

}  // namespace Operator
