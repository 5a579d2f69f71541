#include "Kiv/Value.h"

#include <charconv>
#include <cstdio>
#include <ostream>

#include "ValueParser.h"

namespace Kiv {
namespace {

void append(std::string& text, Value const& value);

void appendQuoted(std::string& text, std::string const& string) {
  text += '\'';
  for (char const c : string) {
    switch (c) {
      case '\'':
        text += "\\'";
        break;
      case '\\':
        text += "\\\\";
        break;
      case '\n':
        text += "\\n";
        break;
      case '\r':
        text += "\\r";
        break;
      case '\t':
        text += "\\t";
        break;
      default: {
        auto const byte = static_cast<unsigned char>(c);
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", unsigned(byte));
        bool const control = byte < 0x20 || byte == 0x7f;
        if (control) {
          text += escaped;
        } else {
          text += c;
        }
      }
    }
  }
  text += '\'';
}

// The shortest text that reads back as the same number, with a mark that it is a real one.
void appendReal(std::string& text, double real) {
  char digits[32];
  auto const end = std::to_chars(digits, digits + sizeof digits, real).ptr;
  std::string const shortest(digits, end);
  text += shortest;
  if (shortest.find_first_of(".en") == std::string::npos) text += ".0";
}

void appendTable(std::string& text, Value::Table const& table) {
  char const* separator = "{";
  for (auto const& [key, value] : table) {
    text += separator;
    separator = ", ";
    append(text, key);
    text += ": ";
    append(text, value);
  }
  text += '}';
}

void appendStructure(std::string& text, Value::Structure const& structure) {
  text += "Value(";
  appendQuoted(text, structure.type);
  text += ", ** {";
  char const* separator = "";
  for (auto const& [name, value] : structure.fields) {
    text += separator;
    separator = ", ";
    appendQuoted(text, name);
    text += ": ";
    append(text, value);
  }
  text += "})";
}

void append(std::string& text, Value const& value) {
  if (value.boolean() != nullptr) {
    text += *value.boolean() ? "True" : "False";
  } else if (value.natural() != nullptr) {
    text += std::to_string(*value.natural());
  } else if (value.negative() != nullptr) {
    text += std::to_string(*value.negative());
  } else if (value.real() != nullptr) {
    appendReal(text, *value.real());
  } else if (value.string() != nullptr) {
    appendQuoted(text, *value.string());
  } else if (value.structure() != nullptr) {
    appendStructure(text, *value.structure());
  } else if (value.table() != nullptr) {
    appendTable(text, *value.table());
  } else {
    text += "None";
  }
}

}  // namespace

Value::Value(Structure value) : data_(std::move(value)) {}

Value::Value(Table value) {
  if (!value.empty()) data_ = std::move(value);
}

std::string Value::text() const {
  std::string result;
  append(result, *this);
  return result;
}

Value Value::parsed(std::string const& text) {
  ValueParser parser(text);
  Value result = parser.value();
  parser.end();
  return result;
}

static bool operator==(Value::Structure const& a, Value::Structure const& b) {
  return a.type == b.type && a.fields == b.fields;
}

bool operator==(Value const& a, Value const& b) { return a.data_ == b.data_; }

std::ostream& operator<<(std::ostream& os, Value const& value) { return os << value.text(); }

}  // namespace Kiv
