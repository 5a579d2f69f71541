#pragma once
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "Frames.h"

namespace Indexer {

/// The files found so far: by path what they hold, by hash who holds it.
class Index final {
 public:
  struct File {
    std::uint64_t bytes;
    std::uint64_t hash;
  };

  /// Takes up a file, or takes it up anew.
  void add(FileResult const& result);
  /// Forgets a file; a directory's name forgets all below it. Returns how many.
  std::size_t remove(std::string const& path);

  /// The paths of the files with that hash, in the order found.
  std::vector<std::string> find(std::uint64_t hash) const;
  std::size_t files() const { return files_.size(); }
  std::uint64_t bytes() const { return bytes_; }

 private:
  void _forget(std::string const& path, File const& file);

  std::unordered_map<std::string, File> files_;
  std::unordered_multimap<std::uint64_t, std::string> byHash_;
  std::uint64_t bytes_ = 0;
};

}  // namespace Indexer
