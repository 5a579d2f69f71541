#pragma once
#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

namespace Indexer {

/// Walks a directory tree one entry at a time, so that a caller can stop after any of them and
/// go on later. Follows no link; holds one open directory for each level it is in.
class DirectoryWalk final {
 public:
  struct Step {
    enum Kind {
      file,       // a regular file
      directory,  // entered
      passed,     // neither: a link, a socket, ...
      failed,     // `errnum` says why `path` could not be read; the walk goes on beside it
      end,        // nothing is left
    };
    Kind kind;
    std::string path;
    int errnum = 0;
  };

  explicit DirectoryWalk(std::string const& root);
  Step next();

 private:
  struct Close {
    void operator()(DIR* stream) const { ::closedir(stream); }
  };
  struct Level {
    std::string path;
    std::unique_ptr<DIR, Close> stream;
  };
  Step _enter(int at, char const* name, std::string path);
  Step _entry(Level const& level, char const* name);

  std::string const root_;
  bool started_ = false;
  std::vector<Level> levels_;
};

}  // namespace Indexer
