// The kernel's tables: titles and inodes as a reader made of regular expressions finds them, and
// a command line comes back from its file byte by byte.
#include <regex>

#include "ProcText.h"
#include "Veltro/Debug.h"
#include "Veltro/UtilCpp.h"
#include "fuzz/support/Fuzz.h"
#include "tests/support/TempDir.h"

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
  static std::regex const grammar("\\s*(?:[^\\s]+\\s+){5}[^\\s]+(?:\\s* )(\\d+) [^ ]*");
  std::smatch match;
  std::uint32_t expected = 0;
  if (std::regex_match(line, match, grammar)) {
    std::uint64_t number = 0;
    for (char const digit : match[1].str()) {
      number =
          std::min<std::uint64_t>(number * 10 + static_cast<unsigned>(digit - '0'), 1ull << 32);
    }
    expected = number >> 32 == 0 ? static_cast<std::uint32_t>(number) : 0;
  }
  auto const inode = util::socketInode(line);
  FUZZ_CHECK(inode.number == expected, inode.number << " of \"" << line << "\"");
}

void checkCommandLine(std::string const& text) {
  static TempDir const temp;
  static Platform::DebugHandler& handler = *Platform::getDebugHandler("Fuzz");
  Util::fileWrite(handler, temp.path("cmdline"), text, false);
  FUZZ_CHECK(Util::fileRead(handler, temp.path("cmdline"), true) == text, text);
  FUZZ_CHECK(Util::fileSize(handler, temp.path("cmdline")) == text.size(), text);
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  if (size > kLongest) return -1;
  checkTitle(Input(data, size).rest());
  for (Input lines(data, size); !lines.empty();) checkInode(lines.line());
  checkCommandLine(Input(data, size).rest());
  return 0;
}
