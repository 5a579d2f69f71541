#pragma once
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace Veltro::fuzz {

/// What `body` writes to standard error, which is memory meanwhile.
template <typename Body>
std::string standardError(Body const& body) {
  static int const file = ::memfd_create("stderr", MFD_CLOEXEC);
  static int const kept = ::dup(STDERR_FILENO);
  off_t const none = ::lseek(file, 0, SEEK_SET);
  if (kept < 0 || none != 0 || ::ftruncate(file, 0) != 0) std::abort();
  ::dup2(file, STDERR_FILENO);
  body();
  ::dup2(kept, STDERR_FILENO);
  std::string text(static_cast<std::size_t>(::lseek(file, 0, SEEK_END)), '\0');
  ::pread(file, text.data(), text.size(), 0);
  return text;
}

}  // namespace Veltro::fuzz
