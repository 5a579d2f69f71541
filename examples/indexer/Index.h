#pragma once
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
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
  /// Forgets a file; a directory's name forgets all below it.
  void remove(std::string const& path);

  /// What is known of a file; null when nothing is. Valid until the next change.
  File const* file(std::string const& path) const;
  /// The paths of the files with that hash, in order.
  std::vector<std::string> find(std::uint64_t hash) const;
  std::set<std::string> paths() const;
  std::size_t files() const { return files_.size(); }
  std::uint64_t bytes() const { return bytes_; }

 private:
  using Files = std::map<std::string, File>;
  Files::iterator _erase(Files::iterator file);

  Files files_;
  std::set<std::pair<std::uint64_t, std::string>> byHash_;
  std::uint64_t bytes_ = 0;
};

}  // namespace Indexer
