// TRACE: whatever it holds, the settings in force and the level words are what the grammar says,
// and each malformed entry is noted once.
#include <optional>
#include <regex>
#include <set>
#include <sstream>

#include "Kiv/Trace.h"
#include "fuzz/support/Fuzz.h"
#include "fuzz/support/StandardError.h"

namespace Veltro::fuzz {
namespace {

constexpr std::size_t kLongest = 300;  // std::regex recurses by the character
char const* const kNames[] = {"TaskScheduler", "a", "aab", "x/y", "-", "\xc3\xbc"};

std::string trimmed(std::string const& text) {
  static std::regex const blanks("^\\s+|\\s+$");
  return std::regex_replace(text, blanks, "");
}

std::optional<std::uint32_t> levels(std::string const& text) {
  static std::regex const grammar("\\s*(?:\\*|0*(\\d{1,2})\\s*(?:-\\s*0*(\\d{1,2}))?)\\s*");
  std::smatch match;
  if (!std::regex_match(text, match, grammar)) return std::nullopt;
  if (!match[1].matched) return ~0u;
  unsigned long const first = std::stoul(match[1]);
  unsigned long const last = match[2].matched ? std::stoul(match[2]) : first;
  if (first > last || last > 31) return std::nullopt;
  return static_cast<std::uint32_t>((2ull << last) - (1ull << first));
}

struct Setting {
  bool on;
  std::string pattern;
  std::uint32_t mask;
};

std::optional<Setting> setting(std::string const& trimmedEntry) {
  static std::regex const grammar("(-?)([^]*?)(?:/([^/]*))?");
  std::smatch match;
  if (!std::regex_match(trimmedEntry, match, grammar)) return std::nullopt;
  std::string const pattern = trimmed(match[2]);
  auto const mask = match[3].matched ? levels(match[3]) : ~0u;
  if (pattern.empty() || !mask) return std::nullopt;
  return Setting{match[1].length() == 0, pattern, *mask};
}

bool matches(char const* pattern, char const* name) {
  if (*pattern == '*')
    return matches(pattern + 1, name) || (*name != 0 && matches(pattern, name + 1));
  return *pattern == *name && (*name == 0 || matches(pattern + 1, name + 1));
}

/// A category's word as it shall be.
struct Category {
  Kiv::TraceFacility* facility;
  std::uint32_t expected;

  void begin(std::size_t remainder) {
    for (unsigned level = 0; level < 32; ++level) {
      facility->levelEnabledIs(level, level % 3 == remainder);
    }
    expected = *facility->levelsEnabledPtr();
  }
  void apply(Setting const& setting) {
    if (!matches(setting.pattern.c_str(), facility->name().stdString().c_str())) return;
    expected = setting.on ? expected | setting.mask : expected & ~setting.mask;
  }
};

}  // namespace

int run(Input& input) {
  if (input.size() > kLongest) return -1;
  std::string const trace = input.until('\0');
  // A star costs its reference a branch for each character.
  if (std::count(trace.begin(), trace.end(), '*') > 12) return -1;

  static auto& noted = *new std::set<std::string>;
  std::vector<Category> categories;
  for (char const* const name : kNames) {
    categories.push_back({Kiv::TraceHandle(name, 0).facility(), 0});
    categories.back().begin(trace.size() % 3);
  }
  bool note = false;
  std::string expected;
  for (std::string const& entry : split(trace, ',')) {
    std::string const text = trimmed(entry);
    if (auto const parsed = setting(text)) {
      expected += text + "\n";
      for (Category& category : categories) category.apply(*parsed);
    } else if (!text.empty() && text != "-") {
      note |= noted.insert(text).second;
    }
  }
  auto& manager = Kiv::TraceFacilityManager::instance();
  manager.environmentIs("TRACE", trace);
  std::string const notes = standardError([&] { manager.doReadEnvironment(); });
  FUZZ_CHECK(notes.empty() != note, "notes: " << notes);
  std::ostringstream settings;
  for (auto const& each : manager.settings()) settings << each << "\n";
  FUZZ_CHECK(settings.str() == expected, settings.str());
  for (Category const& category : categories) {
    FUZZ_CHECK(*category.facility->levelsEnabledPtr() == category.expected,
               category.facility->name());
  }
  return 0;
}

}  // namespace Veltro::fuzz
