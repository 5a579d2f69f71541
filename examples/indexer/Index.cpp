#include "Index.h"

namespace Indexer {

void Index::add(FileResult const& result) {
  File const file{result.bytes, result.hash};
  auto const [entry, added] = files_.emplace(result.path, file);
  if (!added) {
    _forget(result.path, entry->second);
    entry->second = file;
  }
  byHash_.emplace(file.hash, result.path);
  bytes_ += file.bytes;
}

std::size_t Index::remove(std::string const& path) {
  std::size_t removed = 0;
  std::string const below = path + "/";
  for (auto entry = files_.begin(); entry != files_.end();) {
    if (entry->first != path && entry->first.compare(0, below.size(), below) != 0) {
      ++entry;
      continue;
    }
    _forget(entry->first, entry->second);
    entry = files_.erase(entry);
    ++removed;
  }
  return removed;
}

std::vector<std::string> Index::find(std::uint64_t hash) const {
  std::vector<std::string> paths;
  for (auto [entry, end] = byHash_.equal_range(hash); entry != end; ++entry) {
    paths.push_back(entry->second);
  }
  return paths;
}

void Index::_forget(std::string const& path, File const& file) {
  bytes_ -= file.bytes;
  for (auto [entry, end] = byHash_.equal_range(file.hash); entry != end; ++entry) {
    if (entry->second != path) continue;
    byHash_.erase(entry);
    return;
  }
}

}  // namespace Indexer
