#include "Mem/RootPath.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <vector>

#include "Kiv/UmaskGuard.h"
#include "OwnedFd.h"

namespace Mem {
namespace {

constexpr char const* kSourceFile = "Mem/RootPath";

using Components = std::vector<std::string>;

Components components(std::string const& path) {
  Components result;
  std::istringstream stream(path);
  for (std::string part; std::getline(stream, part, '/');) {
    if (!part.empty() && part != ".") result.push_back(part);
  }
  return result;
}

Components operator+(Components left, Components const& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

std::string joined(Components const& parts) {
  std::string result;
  for (auto const& part : parts) result += (result.empty() ? "" : "/") + part;
  return result;
}

std::string under(std::string const& directory, std::string const& path) {
  if (path.empty()) return directory;
  return directory == "/" ? "/" + path : directory + "/" + path;
}

bool hasZero(std::string const& text) { return text.find('\0') != std::string::npos; }

// To the kernel a zero byte ends a name: what follows a ".." would hide it here.
bool staysBelow(std::string const& path) {
  for (auto const& part : components(path)) {
    if (part == ".." || hasZero(part)) return false;
  }
  return true;
}

// To pass through a directory takes no leave to list it.
constexpr int kPass = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int kList = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;

OwnedFd openRoot(std::string const& root) { return OwnedFd(::open(root.c_str(), kPass)); }

OwnedFd openBelow(int directory, std::string const& part) {
  return OwnedFd(::openat(directory, part.c_str(), kPass | O_NOFOLLOW));
}

// Opens root and then each of `parts` below it, following links for the root only. On failure
// the result is closed and errno says why.
OwnedFd descend(std::string const& root, Components const& parts) {
  OwnedFd fd = openRoot(root);
  for (auto const& part : parts) {
    if (fd.fd() < 0) break;
    fd = openBelow(fd.fd(), part);
  }
  return fd;
}

// The root itself is the machine's: made if missing, over links if need be.
bool makeRoot(std::string const& root) {
  std::string path;
  for (auto const& part : components(root)) {
    path += "/" + part;
    if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) return false;
  }
  return true;
}

bool makeBelow(OwnedFd fd, Components const& parts) {
  for (auto const& part : parts) {
    if (fd.fd() < 0) return false;
    if (::mkdirat(fd.fd(), part.c_str(), 0777) != 0 && errno != EEXIST) return false;
    fd = openBelow(fd.fd(), part);
  }
  return fd.fd() >= 0;
}

// Once more when a directory is gone between its making and its opening: cleanup() elsewhere takes
// parents while they are empty.
bool makeAll(std::string const& root, Components const& below) {
  constexpr int kTries = 100;  // a root over a link to nowhere is never there
  Kiv::UmaskGuard const window;
  for (int tries = 1;; ++tries) {
    if (makeRoot(root) && makeBelow(openRoot(root), below)) return true;
    if (errno != ENOENT || tries == kTries) return false;
  }
}

bool emptyDirectory(OwnedFd directory);

bool removeEntry(int directory, char const* name) {
  if (::unlinkat(directory, name, 0) == 0 || errno == ENOENT) return true;
  if (errno != EISDIR && errno != EPERM) return false;
  if (!emptyDirectory(OwnedFd(::openat(directory, name, kList)))) return false;
  return ::unlinkat(directory, name, AT_REMOVEDIR) == 0 || errno == ENOENT;
}

// Removes all entries, the rest also when one of them refuses; errno is of the last refusal.
bool emptyDirectory(OwnedFd directory) {
  int const fd = directory.fd();
  DIR* const stream = fd < 0 ? nullptr : ::fdopendir(fd);
  if (stream == nullptr) return false;
  directory.release();  // the stream's from here on
  int failure = 0;
  while (dirent const* const entry = ::readdir(stream)) {
    std::string const name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (!removeEntry(fd, name.c_str())) failure = errno;
  }
  ::closedir(stream);
  errno = failure;
  return failure == 0;
}

}  // namespace

RootPath::RootPath(Veltro::Platform::DebugHandler& handler, std::string const& root,
                   std::string const& prefix, std::string const& dirName, bool create)
    : handler_(handler),
      root_("/" + joined(components(root))),
      prefix_(joined(components(prefix))),
      dirName_(joined(components(dirName))),
      fullPath_(under(under(root_, prefix_), dirName_)),
      valid_(!root.empty() && root[0] == '/' && staysBelow(root) && staysBelow(prefix) &&
             staysBelow(dirName)) {
  if (!valid_) {
    VELTRO_TRACE(handler_, 1,
                 "Not a root path: root '" << root << "' prefix '" << prefix << "' dirName '"
                                           << dirName << "'");
  } else if (create) {
    valid_ = this->create();
  }
}

std::string RootPath::fullPath(std::string const& name) const { return under(fullPath_, name); }

bool RootPath::exists() const {
  return valid_ && descend(root_, components(prefix_) + components(dirName_)).fd() >= 0;
}

bool RootPath::create() {
  if (!valid_) return false;
  bool const made = makeAll(root_, components(prefix_) + components(dirName_));
  if (made) {
    VELTRO_TRACE(handler_, 5, "Created " << fullPath_);
  } else {
    int const reason = errno;
    VELTRO_TRACE(handler_, 1, "Failed to create " << fullPath_ << ": " << std::strerror(reason));
    errno = reason;
  }
  return made;
}

bool RootPath::removeFile(std::string const& name) {
  if (!valid_ || name.empty() || name.find('/') != std::string::npos || hasZero(name)) {
    VELTRO_TRACE(handler_, 1, "Refused to remove '" << name << "' in " << fullPath_);
    return false;
  }
  OwnedFd const directory = descend(root_, components(prefix_) + components(dirName_));
  bool const removed =
      (directory.fd() >= 0 && ::unlinkat(directory.fd(), name.c_str(), 0) == 0) || errno == ENOENT;
  if (removed) {
    VELTRO_TRACE(handler_, 5, "Removed " << fullPath(name));
  } else {
    int const reason = errno;
    VELTRO_TRACE(handler_, 1,
                 "Failed to remove " << fullPath(name) << ": " << std::strerror(reason));
  }
  return removed;
}

bool RootPath::cleanup() {
  Components below = components(dirName_);
  if (!valid_ || below.empty()) {
    VELTRO_TRACE(handler_, 1, "Refused to clean up " << fullPath_);
    return false;
  }
  OwnedFd const directory = descend(root_, components(prefix_) + below);
  bool gone = directory.fd() < 0 ? errno == ENOENT
                                 : emptyDirectory(OwnedFd(::openat(directory.fd(), ".", kList)));
  // The directory itself must go; of its parents those that are empty.
  for (bool own = true; gone && !below.empty(); own = false) {
    std::string const name = below.back();
    below.pop_back();
    OwnedFd const parent = descend(root_, components(prefix_) + below);
    if (parent.fd() >= 0 && ::unlinkat(parent.fd(), name.c_str(), AT_REMOVEDIR) == 0) continue;
    if (errno == ENOENT) continue;
    if (own) gone = false;
    break;
  }
  if (gone) {
    VELTRO_TRACE(handler_, 5, "Cleaned up " << fullPath_);
  } else {
    int const reason = errno;
    VELTRO_TRACE(handler_, 1, "Failed to clean up " << fullPath_ << ": " << std::strerror(reason));
  }
  return gone;
}

}  // namespace Mem
