#pragma once
#include <iosfwd>
#include <string>
#include <vector>

namespace Operator {

/// Rows of text in columns: the first to the left, the others to the right, two blanks between.
class Table final {
 public:
  using Row = std::vector<std::string>;

  explicit Table(Row titles) : rows_{std::move(titles)} {}
  /// As many cells as there are titles.
  void rowIs(Row row) { rows_.push_back(std::move(row)); }
  friend std::ostream& operator<<(std::ostream& out, Table const& table);

 private:
  std::vector<Row> rows_;
};

/// The number with that many digits behind the point.
std::string decimal(double value, int decimals);

}  // namespace Operator
