#include "ProcText.h"

#include <charconv>
#include <sstream>

namespace Veltro::util {
namespace {

unsigned fieldCount(std::string const& text) {
  std::istringstream fields(text);
  std::string field;
  unsigned count = 0;
  while (fields >> field) ++count;
  return count;
}

U32 numberIn(std::string const& text) {
  U32 number = 0;
  char const* const end = text.data() + text.size();
  auto const [at, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && at == end ? number : 0;
}

}  // namespace

std::optional<std::string> valueAfterTag(std::string const& table, std::string const& tag) {
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, tag.size(), tag) != 0) continue;
    std::size_t const begin = line.find_first_not_of(" \t", tag.size());  // the kernel puts a tab
    return begin == std::string::npos ? std::string() : line.substr(begin);
  }
  return std::nullopt;
}

// The field between the last two blanks: the inode, where a path without blanks follows it.
SocketInode socketInode(std::string const& line) {
  std::size_t const last = line.rfind(' ');
  if (last == std::string::npos || last == 0) return {};
  std::size_t const before = line.rfind(' ', last - 1);
  if (before == std::string::npos) return {};
  SocketInode result{line.substr(before + 1, last - before - 1)};
  // The kernel prints six fields before it. Elsewhere it is a piece of the path, which its maker
  // chose, or another number: in any case somebody else's inode.
  if (fieldCount(line.substr(0, before)) == 6) result.number = numberIn(result.text);
  return result;
}

}  // namespace Veltro::util
