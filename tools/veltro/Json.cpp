#include "Json.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace Operator {
namespace {

/// Bytes of the UTF-8 sequence at `at`; 0 where there is none.
std::size_t sequenceAt(std::string const& bytes, std::size_t at) {
  auto const byte = [&](std::size_t i) -> unsigned {
    return at + i < bytes.size() ? static_cast<unsigned char>(bytes[at + i]) : 0;
  };
  unsigned const first = byte(0);
  if (first < 0x80) return 1;
  std::size_t const length = first < 0xc2   ? 0
                             : first < 0xe0 ? 2
                             : first < 0xf0 ? 3
                             : first < 0xf5 ? 4
                                            : 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  // Too long for what they say, surrogates, beyond the last code point.
  bool const refused = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f) ||
                       (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f);
  return refused ? 0 : length;
}

}  // namespace

std::string utf8Of(std::string const& bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size();) {
    std::size_t const length = sequenceAt(bytes, at);
    if (length == 0) {
      text += "\xef\xbf\xbd";
    } else {
      text.append(bytes, at, length);
    }
    at += std::max<std::size_t>(length, 1);
  }
  return text;
}

namespace {
std::string escaped(std::string const& bytes, bool quotes) {
  std::string text;
  for (char const c : utf8Of(bytes)) {
    if (c == '\\' || (quotes && c == '"')) text += '\\';
    text += c == '\n' ? "\\n" : std::string(1, c);
  }
  return text;
}
}  // namespace

std::string metricText(std::string const& bytes) { return escaped(bytes, false); }
std::string metricLabel(std::string const& bytes) { return escaped(bytes, true); }

Json& Json::string(std::string const& bytes) {
  std::string const text = utf8Of(bytes);
  writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  return *this;
}

// As text: the writer would print all digits of what was rounded.
Json& Json::real(double value, int decimals) {
  char text[64];
  int const length = std::snprintf(text, sizeof text, "%.*f", decimals, value);
  writer_.RawValue(text, static_cast<std::size_t>(length), rapidjson::kNumberType);
  return *this;
}

std::ostream& operator<<(std::ostream& out, Json const& json) {
  return out << json.buffer_.GetString() << '\n';
}

}  // namespace Operator
