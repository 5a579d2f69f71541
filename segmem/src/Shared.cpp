#include "Mem/Shared.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

#include "Kiv/Trace.h"
#include "Kiv/UmaskGuard.h"
#include "OwnedFd.h"

namespace Mem {
namespace {

Kiv::TraceHandle& trace() {
  static auto* const handle = new Kiv::TraceHandle("SegMem", 0);
  return *handle;
}

bool tracing(unsigned level) {
  Kiv::U32 const* const levels = trace().facility()->levelsEnabledPtr();
  return (__atomic_load_n(levels, __ATOMIC_RELAXED) & (1u << level)) != 0;
}

void makeDirectories(std::string const& directory) {
  for (std::size_t end = 0; end != std::string::npos;) {
    end = directory.find('/', end + 1);
    ::mkdir(directory.substr(0, end).c_str(), 0777);  // the open that follows tells of failures
  }
}

int lockFile(int fd) {
  int result;
  do {
    result = ::flock(fd, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  return result;
}

// Whether the open file is one that may be shared by its name; errno says why not.
bool acceptable(struct stat const& status) {
  if (S_ISDIR(status.st_mode)) {
    errno = EISDIR;
  } else if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
  } else if (status.st_nlink > 1) {
    errno = EMLINK;  // a planted name for somebody else's file
  } else {
    return true;
  }
  return false;
}

// Writes zeros behind the end: reserves where the file system knows no fallocate. Bytes that
// another process may be using are never written.
bool appendZeros(int fd, off_t size, off_t length) {
  static char const zeros[4096] = {};
  while (size < length) {
    auto const want = static_cast<std::size_t>(std::min<off_t>(length - size, sizeof zeros));
    ssize_t const wrote = ::pwrite(fd, zeros, want, size);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return false;
    size += wrote;
  }
  return true;
}

bool reserve(int fd, off_t size, off_t length) {
  if (length == 0) return true;
  int result;
  do {
    result = ::fallocate(fd, 0, 0, length);  // fills holes too, grows, never shrinks
  } while (result != 0 && errno == EINTR);
  if (result == 0) return true;
  return errno == EOPNOTSUPP && appendZeros(fd, size, length);
}

}  // namespace

Shared::Shared(std::string directory, std::string name, bool create, unsigned flags, bool keep)
    : directory_(std::move(directory)),
      name_(std::move(name)),
      path_(directory_ + "/" + name_),
      create_(create),
      flags_(flags),
      keep_(keep) {}

Shared::~Shared() {
  if (address_ != nullptr && !keep_) ::munmap(address_, mapped_);
}

void* Shared::attach(Kiv::U32 length, Mode mode, bool writable, std::string const& tag) {
  if (address_ != nullptr) {
    errno = EALREADY;
    return nullptr;
  }
  OwnedFd const fd(_openLocked(writable));
  void* const address = fd.fd() < 0 ? nullptr : _map(fd.fd(), length, mode, writable);
  int const reason = errno;
  // Closing would not do: the mapping keeps the open file, and so its lock, alive.
  if (fd.fd() >= 0) ::flock(fd.fd(), LOCK_UN);
  unsigned const level = address != nullptr ? 5 : 1;
  if (tracing(level)) {
    std::ostringstream text;
    text << (address != nullptr ? "Attached " : "Failed to attach ") << path_ << " length "
         << length << " tag '" << tag << "'";
    if (address == nullptr) text << ": " << std::strerror(reason);
    Kiv::traceHelper(trace(), level, 1, "Mem/Shared", __LINE__, __func__, text.str().c_str());
  }
  errno = reason;
  return address;
}

int Shared::_open(bool writable) const {
  // A zero byte would end the name for the kernel: two names, one file.
  if (name_.empty() || name_.find_first_of("/\0", 0, 2) != std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  // Non-blocking, for somebody may have planted a FIFO; it is refused once it is open.
  int const flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (writable ? O_RDWR : O_RDONLY);
  if (!create_) return ::open(path_.c_str(), flags);
  // Once more when a directory has gone before the file was in it: RootPath::cleanup() elsewhere
  // takes parents while they are empty.
  constexpr int kTries = 100;  // a link to nowhere on the way is never there
  Kiv::UmaskGuard const guard(0);
  for (int tries = 1;; ++tries) {
    makeDirectories(directory_);
    int const fd = ::open(path_.c_str(), flags | O_CREAT, 0666);
    if (fd >= 0 || errno != ENOENT || tries == kTries) return fd;
  }
}

int Shared::_openLocked(bool writable) const {
  for (;;) {
    OwnedFd fd(_open(writable));
    struct stat status;
    if (fd.fd() < 0 && errno == ENXIO) errno = EINVAL;  // a socket, or a device without a driver
    if (fd.fd() < 0 || ::fstat(fd.fd(), &status) != 0 || !acceptable(status)) return -1;
    if ((flags_ & SHARED_LOCK) == 0) return fd.release();
    if (lockFile(fd.fd()) != 0 || ::fstat(fd.fd(), &status) != 0) return -1;
    // Removed while this process waited: whoever comes next would find another file.
    if (status.st_nlink > 0) return fd.release();
  }
}

void* Shared::_map(int fd, Kiv::U32 length, Mode mode, bool writable) {
  struct stat status;
  if (::fstat(fd, &status) != 0) return nullptr;
  if (writable) {
    if ((flags_ & SHARED_RESERVE) != 0 ? !reserve(fd, status.st_size, length)
                                       : status.st_size < length && ::ftruncate(fd, length) != 0) {
      return nullptr;
    }
  } else if (status.st_size < length) {
    errno = ENODATA;
    return nullptr;
  }
  auto const page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  std::size_t const size = std::max<std::size_t>(length, page);
  void* const address = ::mmap(nullptr, size, PROT_READ | (writable ? PROT_WRITE : 0),
                               mode == Mode::shared ? MAP_SHARED : MAP_PRIVATE, fd, 0);
  if (address == MAP_FAILED) return nullptr;
  address_ = address;
  mapped_ = size;
  return address;
}

}  // namespace Mem
