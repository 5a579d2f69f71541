#pragma once
#include <unistd.h>

#include <utility>

namespace Veltro::util {

/// Owns a file descriptor, or none when it is negative.
class Descriptor final {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(Descriptor const&) = delete;
  Descriptor& operator=(Descriptor const&) = delete;

  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  /// close(2)'s result. Never repeated: the kernel has let go of the number, also when it fails.
  int close() { return ::close(release()); }

 private:
  int fd_;
};

}  // namespace Veltro::util
