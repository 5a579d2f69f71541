#pragma once
#include <string>
#include <string_view>

#include "Kiv/Value.h"

namespace Kiv {

/// Reads values off a text that may be anything. Blanks count nowhere but in strings. Every
/// failure throws RangeException with the column, from 1.
class ValueParser final {
 public:
  explicit ValueParser(std::string_view text) : text_(text) {}

  Value value();
  /// Takes `token` if it comes next.
  bool accept(char token);
  void expect(char token);
  /// Nothing may be left.
  void end();

 private:
  [[noreturn]] void _fail(std::string const& what) const;
  void _skipBlanks();
  std::string_view _word();
  Value _number(std::string_view word) const;
  std::string _string();
  char _escaped();
  Value _table();
  Value _structure();

  std::string_view text_;
  std::size_t at_ = 0;
  unsigned depth_ = 0;
};

}  // namespace Kiv
