#include "Table.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <ostream>

namespace Operator {

std::ostream& operator<<(std::ostream& out, Table const& table) {
  std::vector<std::size_t> widths(table.rows_[0].size());
  for (auto const& row : table.rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (auto const& row : table.rows_) {
    out << std::left << std::setw(static_cast<int>(widths[0])) << row[0] << std::right;
    for (std::size_t i = 1; i < row.size(); ++i) {
      out << "  " << std::setw(static_cast<int>(widths[i])) << row[i];
    }
    out << '\n';
  }
  return out;
}

std::string decimal(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

}  // namespace Operator
