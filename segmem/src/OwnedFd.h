#pragma once
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Mem {

/// A descriptor that is closed with its owner; negative is none. Closing keeps errno.
class OwnedFd final {
 public:
  explicit OwnedFd(int fd = -1) : fd_(fd) {}
  OwnedFd(OwnedFd&& other) noexcept : fd_(other.release()) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~OwnedFd() {
    if (fd_ < 0) return;
    int const kept = errno;
    ::close(fd_);
    errno = kept;
  }

  int fd() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace Mem
