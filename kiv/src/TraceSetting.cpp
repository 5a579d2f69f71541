#include <charconv>
#include <ostream>
#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"

namespace Kiv {
namespace {

constexpr U32 kAllLevels = 0xffffffffu;

std::string_view trimmed(std::string_view text) {
  constexpr char const* kBlanks = " \t\r\n\v\f";
  std::size_t const first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

[[noreturn]] void malformed(std::string const& entry, std::string const& why) {
  throw RangeException("trace setting \"" + entry + "\": " + why);
}

unsigned level(std::string const& entry, std::string_view number) {
  number = trimmed(number);
  unsigned value = 0;
  auto const [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  bool const isNumber = !number.empty() && end == number.data() + number.size();
  if (!isNumber) malformed(entry, "\"" + std::string(number) + "\" is not a level");
  if (error != std::errc() || value > 31) {
    malformed(entry, "level " + std::string(number) + " is above 31");
  }
  return value;
}

U32 levelMask(std::string const& entry, std::string_view levels) {
  if (levels == "*") return kAllLevels;
  std::size_t const dash = levels.find('-');
  unsigned const first = level(entry, levels.substr(0, dash));
  if (dash == std::string_view::npos) return 1u << first;
  unsigned const last = level(entry, levels.substr(dash + 1));
  if (first > last) malformed(entry, "the levels run backwards");
  return (kAllLevels << first) & (kAllLevels >> (31 - last));
}

/// Whether `pattern`, in which "*" stands for any run of characters, is all of `text`.
bool globMatches(std::string_view pattern, std::string_view text) {
  std::size_t p = 0, t = 0, star = std::string_view::npos, mark = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;  // try the empty run first
      mark = t;
    } else if (p < pattern.size() && pattern[p] == text[t]) {
      ++p;
      ++t;
    } else if (star != std::string_view::npos) {
      p = star + 1;  // the last star takes one character more
      t = ++mark;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

}  // namespace

TraceSetting::TraceSetting(std::string const& text) : text_(trimmed(text)) {
  std::string_view rest = text_;
  on_ = rest.empty() || rest.front() != '-';
  if (!on_) rest.remove_prefix(1);
  std::size_t const slash = rest.rfind('/');  // the last, so that a name may hold one too
  pattern_ = trimmed(rest.substr(0, slash));
  if (pattern_.empty()) malformed(text_, "no name");
  bool const all = slash == std::string_view::npos;
  mask_ = all ? kAllLevels : levelMask(text_, trimmed(rest.substr(slash + 1)));
}

bool TraceSetting::matches(Name name) const { return globMatches(pattern_, name.stdString()); }

U32 TraceSetting::applied(U32 levels) const { return on_ ? levels | mask_ : levels & ~mask_; }

std::ostream& operator<<(std::ostream& os, TraceSetting const& setting) {
  return os << setting.text();
}

}  // namespace Kiv
