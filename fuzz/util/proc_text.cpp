// The kernel's tables: titles and inodes as a reader made of regular expressions finds them.
#include <regex>

#include "ProcText.h"
#include "fuzz/support/Fuzz.h"

namespace Veltro::fuzz {
namespace {

constexpr std::size_t kLongest = 400;  // std::regex recurses by the character

void checkTitle(std::string const& table) {
  static std::regex const grammar("(?:^|\n)Name:[ \t]*([^\n]*)");
  std::smatch match;
  bool const found = std::regex_search(table, match, grammar);
  auto const title = util::valueAfterTag(table, "Name:");
  FUZZ_CHECK(title.has_value() == found, table);
  FUZZ_CHECK(!found || *title == match[1], *title);
}

void checkInode(std::string const& line) {
  // Six fields, the inode, one blank, a path without blanks.
  static std::regex const grammar("\\s*(?:[^\\s]+\\s+){5}[^\\s]+(?:\\s* )0*(\\d{1,10}) [^ ]*");
  std::smatch match;
  unsigned long long number = std::regex_match(line, match, grammar) ? std::stoull(match[1]) : 0;
  if (number > 0xffffffffu) number = 0;
  auto const inode = util::socketInode(line);
  FUZZ_CHECK(inode.number == number, inode.number << " of \"" << line << "\"");
}

}  // namespace

int run(Input& input) {
  if (input.size() > kLongest) return -1;
  std::string const text = input.rest();
  checkTitle(text);
  for (std::string const& line : split(text, '\n')) checkInode(line);
  return 0;
}

}  // namespace Veltro::fuzz
