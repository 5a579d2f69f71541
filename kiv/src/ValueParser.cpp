#include "ValueParser.h"

#include <algorithm>
#include <charconv>

namespace Kiv {
namespace {

constexpr unsigned kDeepest = 64;  // a text of brackets only must not use up the stack
constexpr char const* kWordCharacters =
    "+-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz";

template <typename T>
bool reads(std::string_view word, T& result) {
  auto const [end, error] = std::from_chars(word.data(), word.data() + word.size(), result);
  return error == std::errc() && end == word.data() + word.size();
}

}  // namespace

Value ValueParser::value() {
  _skipBlanks();
  if (at_ == text_.size()) _fail("a value is missing");
  if (text_[at_] == '\'') return _string();
  if (++depth_ > kDeepest) _fail("values are nested too deeply");
  std::string_view const word = text_[at_] == '{' ? "{" : _word();
  Value result;
  if (word == "{") {
    result = _table();
  } else if (word == "Value") {
    result = _structure();
  } else if (word == "True" || word == "False") {
    result = word == "True";
  } else if (word != "None") {
    result = _number(word);
  }
  --depth_;
  return result;
}

bool ValueParser::accept(char token) {
  _skipBlanks();
  if (at_ == text_.size() || text_[at_] != token) return false;
  ++at_;
  return true;
}

void ValueParser::expect(char token) {
  if (!accept(token)) _fail(std::string("\"") + token + "\" is missing");
}

void ValueParser::end() {
  _skipBlanks();
  if (at_ != text_.size()) _fail("something follows the value");
}

void ValueParser::_fail(std::string const& what) const {
  throw RangeException("column " + std::to_string(at_ + 1) + ": " + what);
}

void ValueParser::_skipBlanks() {
  at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size());
}

std::string_view ValueParser::_word() {
  std::size_t const end = std::min(text_.find_first_not_of(kWordCharacters, at_), text_.size());
  if (end == at_) _fail("a value is missing");
  std::string_view const word = text_.substr(at_, end - at_);
  at_ = end;
  return word;
}

Value ValueParser::_number(std::string_view word) const {
  U64 natural;
  if (reads(word, natural)) return natural;
  S64 negative;
  if (reads(word, negative)) return negative;
  // An integer out of range is no real number: it would lose digits.
  bool const isInteger = word.find_first_not_of("-0123456789") == std::string_view::npos;
  double real;
  if (!isInteger && reads(word, real)) return real;
  _fail("\"" + std::string(word) + "\" is not a value");
}

std::string ValueParser::_string() {
  expect('\'');
  std::string result;
  for (;;) {
    if (at_ == text_.size()) _fail("a string does not end");
    char const c = text_[at_++];
    if (c == '\'') return result;
    result += c == '\\' ? _escaped() : c;
  }
}

char ValueParser::_escaped() {
  if (at_ == text_.size()) _fail("a string does not end");
  char const c = text_[at_++];
  switch (c) {
    case '\'':
    case '\\':
      return c;
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case 'x': {
      std::string_view const digits = text_.substr(at_, 2);
      unsigned byte = 0;
      auto const [end, error] =
          std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
      if (error == std::errc() && end == digits.data() + 2) {
        at_ += 2;
        return static_cast<char>(byte);
      }
    }
  }
  _fail("an unknown escape in a string");
}

Value ValueParser::_table() {
  expect('{');
  Value::Table table;
  if (accept('}')) return table;
  do {
    Value key = value();
    expect(':');
    table.emplace_back(std::move(key), value());
  } while (accept(','));
  expect('}');
  return table;
}

Value ValueParser::_structure() {
  expect('(');
  _skipBlanks();
  Value::Structure structure{_string(), {}};
  expect(',');
  expect('*');
  expect('*');
  expect('{');
  if (!accept('}')) {
    do {
      _skipBlanks();
      std::string name = _string();
      expect(':');
      structure.fields.emplace_back(std::move(name), value());
    } while (accept(','));
    expect('}');
  }
  expect(')');
  return structure;
}

}  // namespace Kiv
