// TRACE: whatever it holds, the settings in force and the level words are what the grammar says,
// and each malformed entry is noted once.
#include <deque>
#include <optional>
#include <regex>
#include <set>
#include <vector>

#include "Kiv/Trace.h"
#include "fuzz/support/CapturedError.h"

namespace Veltro::fuzz {
namespace {

constexpr std::size_t kLongest = 300;  // std::regex recurses by the character
char const* const kNames[] = {"TaskScheduler", "a", "aab", "x/y", "-", "\xc3\xbc"};

// The grammar once more, as regular expressions.
struct Reference {
  std::string text;
  bool on = true;
  std::string pattern;
  std::uint32_t mask = ~0u;
};

std::string trimmed(std::string const& text) {
  static std::regex const blanks("^\\s+|\\s+$");
  return std::regex_replace(text, blanks, "");
}

std::optional<std::uint32_t> levels(std::string const& text) {
  static std::regex const grammar("\\s*(?:\\*|0*(\\d{1,2})\\s*(?:-\\s*0*(\\d{1,2}))?)\\s*");
  std::smatch match;
  if (!std::regex_match(text, match, grammar)) return std::nullopt;
  if (!match[1].matched) return ~0u;
  int const first = std::stoi(match[1]);
  int const last = match[2].matched ? std::stoi(match[2]) : first;
  if (first > last || last > 31) return std::nullopt;
  std::uint32_t mask = 0;
  for (int level = first; level <= last; ++level) mask |= 1u << level;
  return mask;
}

std::optional<Reference> reference(std::string const& entry) {
  static std::regex const grammar("(-?)([^]*?)(?:/([^/]*))?");
  Reference result;
  result.text = trimmed(entry);
  std::smatch match;
  if (!std::regex_match(result.text, match, grammar)) return std::nullopt;
  result.on = match[1].length() == 0;
  result.pattern = trimmed(match[2]);
  if (result.pattern.empty()) return std::nullopt;
  if (match[3].matched) {
    auto const mask = levels(match[3]);
    if (!mask) return std::nullopt;
    result.mask = *mask;
  }
  return result;
}

bool matches(char const* pattern, char const* name) {
  if (*pattern == '*')
    return matches(pattern + 1, name) || (*name != 0 && matches(pattern, name + 1));
  return *pattern == *name && (*name == 0 || matches(pattern + 1, name + 1));
}

void checkManager(std::string const& trace, std::vector<Reference> const& expected, bool note) {
  static auto const& handles =
      *new std::vector<Kiv::TraceHandle>{{kNames[0], 0}, {kNames[1], 0}, {kNames[2], 0},
                                         {kNames[3], 0}, {kNames[4], 0}, {kNames[5], 0}};
  auto& manager = Kiv::TraceFacilityManager::instance();
  for (auto const& handle : handles) {
    for (unsigned level = 0; level < 32; ++level) {
      handle.facility()->levelEnabledIs(level, level % 3 == trace.size() % 3);
    }
  }
  std::uint32_t const before = *handles[0].facility()->levelsEnabledPtr();
  manager.environmentIs("TRACE", trace);
  std::string notes;
  {
    CapturedError const error;
    manager.doReadEnvironment();
    notes = error.text();
  }
  FUZZ_CHECK(notes.empty() != note, "notes: " << notes);
  auto const settings = manager.settings();
  FUZZ_CHECK(settings.size() == expected.size(), settings.size() << " of " << expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    FUZZ_CHECK(settings[i].text() == expected[i].text, settings[i].text());
  }
  for (auto const& handle : handles) {
    std::uint32_t word = before;
    for (auto const& setting : expected) {
      char const* const name = handle.facility()->name().stdString().c_str();
      if (!matches(setting.pattern.c_str(), name)) continue;
      word = setting.on ? word | setting.mask : word & ~setting.mask;
    }
    FUZZ_CHECK(*handle.facility()->levelsEnabledPtr() == word, handle.facility()->name());
  }
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  if (size > kLongest) return -1;
  std::string const trace = Input(data, size).until('\0');
  // A star costs its reference a branch for each character.
  if (std::count(trace.begin(), trace.end(), '*') > 12) return -1;

  static auto& noted = *new std::set<std::string>;
  std::vector<Reference> expected;
  bool note = false;
  for (Input entries(data, trace.size()); !entries.empty();) {
    std::string const entry = entries.until(',');
    auto const setting = reference(entry);
    std::string const text = trimmed(entry);
    if (setting) {
      expected.push_back(*setting);
    } else if (!text.empty() && text != "-") {
      note |= noted.insert(text).second;
    }
  }
  checkManager(trace, expected, note);
  return 0;
}
