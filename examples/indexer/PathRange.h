#pragma once
#include <string>
#include <utility>

namespace Indexer {

/// The part of a container ordered by path that lies below the directory `path`, itself not
/// included: from "path/" up to the first name that a character behind the slash would begin.
template <typename Container>
auto rangeBelow(Container& container, std::string const& path) {
  return std::pair(container.lower_bound(path + "/"),
                   container.lower_bound(path + static_cast<char>('/' + 1)));
}

/// Erases `path` and all below it; how many there were.
template <typename Container>
std::size_t eraseTree(Container& container, std::string const& path) {
  std::size_t const before = container.size();
  auto const [first, last] = rangeBelow(container, path);
  container.erase(first, last);
  container.erase(path);
  return before - container.size();
}

}  // namespace Indexer
