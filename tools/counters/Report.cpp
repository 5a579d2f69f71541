#include "Report.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "Json.h"
#include "Kiv/Value.h"

namespace Counters {
namespace {

using Row = std::vector<std::string>;

std::string rateOf(Counter const& now, Snapshot const& before, double seconds) {
  auto const was =
      std::lower_bound(before.counters.begin(), before.counters.end(), now,
                       [](Counter const& a, Counter const& b) { return a.key < b.key; });
  if (was == before.counters.end() || was->key != now.key || !was->sample || !now.sample ||
      was->sample->genId != now.sample->genId || was->block != now.block) {
    return "-";
  }
  auto const change = static_cast<std::int64_t>(now.sample->value - was->sample->value);
  std::ostringstream text;
  text << std::fixed << std::setprecision(1) << static_cast<double>(change) / seconds;
  return text.str();
}

Row rowOf(Counter const& counter) {
  Row row{Kiv::Value(counter.key).text(), std::to_string(counter.block), "-", "-"};
  if (counter.sample) {
    row[2] = std::to_string(counter.sample->genId);
    row[3] = std::to_string(counter.sample->value);
  }
  return row;
}

}  // namespace

void printTable(std::ostream& out, Snapshot const& now, Snapshot const* before, double seconds) {
  std::vector<Row> rows{{"COUNTER", "BLOCK", "GENERATION", "VALUE"}};
  if (before != nullptr) rows[0].push_back("PER SECOND");
  for (auto const& counter : now.counters) {
    rows.push_back(rowOf(counter));
    if (before != nullptr) rows.back().push_back(rateOf(counter, *before, seconds));
  }
  std::vector<std::size_t> widths(rows[0].size());
  for (auto const& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (auto const& row : rows) {
    out << std::left << std::setw(static_cast<int>(widths[0])) << row[0] << std::right;
    for (std::size_t i = 1; i < row.size(); ++i) {
      out << "  " << std::setw(static_cast<int>(widths[i])) << row[i];
    }
    out << '\n';
  }
}

void printJson(std::ostream& out, Snapshot const& now) {
  out << "{\"file\":" << jsonString(now.file) << ",\"maxCounters\":" << now.maxCounters
      << ",\"blockSize\":" << now.blockSize << ",\"counters\":[";
  char const* separator = "";
  for (auto const& counter : now.counters) {
    out << separator << "{\"key\":" << jsonString(counter.key) << ",\"block\":" << counter.block;
    if (counter.sample) {
      out << ",\"generation\":" << counter.sample->genId << ",\"value\":" << counter.sample->value;
    } else {
      out << ",\"generation\":null,\"value\":null";
    }
    out << '}';
    separator = ",";
  }
  out << "]}\n";
}

}  // namespace Counters
