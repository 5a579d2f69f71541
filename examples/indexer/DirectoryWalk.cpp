#include "DirectoryWalk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Indexer {

DirectoryWalk::DirectoryWalk(std::string const& root) : root_(root) {}

DirectoryWalk::Step DirectoryWalk::next() {
  if (!started_) {
    started_ = true;
    return _enter(AT_FDCWD, root_.c_str(), root_);
  }
  while (!levels_.empty()) {
    errno = 0;
    dirent const* const entry = ::readdir(levels_.back().stream.get());
    if (entry == nullptr) {
      int const reason = errno;
      std::string path = std::move(levels_.back().path);
      levels_.pop_back();
      if (reason != 0) return {Step::failed, std::move(path), reason};
      continue;
    }
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    return _entry(levels_.back(), entry->d_name);
  }
  return {Step::end, {}, 0};
}

DirectoryWalk::Step DirectoryWalk::_entry(Level const& level, char const* name) {
  int const at = ::dirfd(level.stream.get());
  std::string path = level.path + "/" + name;
  struct stat status;
  if (::fstatat(at, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return {Step::failed, std::move(path), errno};
  }
  if (S_ISDIR(status.st_mode)) return _enter(at, name, std::move(path));
  return {S_ISREG(status.st_mode) ? Step::file : Step::passed, std::move(path), 0};
}

DirectoryWalk::Step DirectoryWalk::_enter(int at, char const* name, std::string path) {
  // The root may be given as a link; below it none is followed.
  int const flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (at == AT_FDCWD ? 0 : O_NOFOLLOW);
  int const fd = ::openat(at, name, flags);
  DIR* const stream = fd < 0 ? nullptr : ::fdopendir(fd);
  if (stream == nullptr) {
    int const reason = errno;
    if (fd >= 0) ::close(fd);
    return {Step::failed, std::move(path), reason};
  }
  levels_.push_back({path, std::unique_ptr<DIR, Close>(stream)});
  return {Step::directory, std::move(path), 0};
}

}  // namespace Indexer
