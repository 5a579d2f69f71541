#pragma once
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "Fuzz.h"

namespace Veltro::fuzz {

/// Standard error into memory, for the life of the object.
class CapturedError {
 public:
  CapturedError() : kept_(::dup(STDERR_FILENO)) {
    FUZZ_CHECK(kept_ >= 0, "dup");
    FUZZ_CHECK(::ftruncate(_file(), 0) == 0 && ::lseek(_file(), 0, SEEK_SET) == 0, "rewind");
    ::dup2(_file(), STDERR_FILENO);
  }
  ~CapturedError() {
    ::dup2(kept_, STDERR_FILENO);
    ::close(kept_);
  }
  CapturedError(CapturedError const&) = delete;
  CapturedError& operator=(CapturedError const&) = delete;

  std::string text() const {
    std::string text(static_cast<std::size_t>(::lseek(_file(), 0, SEEK_END)), '\0');
    ::pread(_file(), text.data(), text.size(), 0);
    return text;
  }

 private:
  static int _file() {
    static int const file = ::memfd_create("stderr", MFD_CLOEXEC);
    return file;
  }
  int const kept_;
};

}  // namespace Veltro::fuzz
