#include "Index.h"

#include "PathRange.h"

namespace Indexer {

void Index::add(FileResult const& result) {
  if (auto const known = files_.find(result.path); known != files_.end()) _erase(known);
  files_.emplace(result.path, File{result.bytes, result.hash});
  byHash_.emplace(result.hash, result.path);
  bytes_ += result.bytes;
}

void Index::remove(std::string const& path) {
  if (auto const known = files_.find(path); known != files_.end()) _erase(known);
  auto [file, end] = rangeBelow(files_, path);
  while (file != end) file = _erase(file);
}

Index::File const* Index::file(std::string const& path) const {
  auto const known = files_.find(path);
  return known == files_.end() ? nullptr : &known->second;
}

std::vector<std::string> Index::find(std::uint64_t hash) const {
  std::vector<std::string> found;
  for (auto entry = byHash_.lower_bound({hash, ""}); entry != byHash_.end(); ++entry) {
    if (entry->first != hash) break;
    found.push_back(entry->second);
  }
  return found;
}

std::set<std::string> Index::paths() const {
  std::set<std::string> all;
  for (auto const& entry : files_) all.insert(all.end(), entry.first);
  return all;
}

Index::Files::iterator Index::_erase(Files::iterator file) {
  bytes_ -= file->second.bytes;
  byHash_.erase({file->second.hash, file->first});
  return files_.erase(file);
}

}  // namespace Indexer
