#include "ReadFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <stdexcept>

#include "CPath.h"
#include "Descriptor.h"
#include "Veltro/Platform.h"

namespace Veltro::util {
namespace {

// One allocation for a regular file, and none at all for one that cannot fit: growing by doubling
// would take all memory first. Other files (pipes, /proc) have no size to go by.
bool reserveFor(int fd, std::string& text) {
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size <= 0) return true;
  if (static_cast<U64>(info.st_size) > text.max_size()) return false;
  text.reserve(static_cast<std::size_t>(info.st_size));
  return true;
}

bool readToEnd(int fd, std::string& text) {
  char buffer[16384];
  for (;;) {
    ssize_t const count = ::read(fd, buffer, sizeof buffer);
    if (count == 0) return true;
    if (count > 0) {
      text.append(buffer, static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      return false;
    }
  }
}

bool readFitting(int fd, std::string& text) {
  try {
    return reserveFor(fd, text) && readToEnd(fd, text);
  } catch (std::bad_alloc const&) {
    return false;
  } catch (std::length_error const&) {
    return false;
  }
}

int openToRead(std::string const& path) {
  int fd = -1;
  do {
    fd = ::open(cPath(path), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);  // waiting for a FIFO's writer
  return fd;
}

}  // namespace

FileText readFile(std::string const& path) {
  FileText result;
  Descriptor const fd(openToRead(path));
  result.opened = fd.get() >= 0;
  result.complete = result.opened && readFitting(fd.get(), result.text);
  return result;
}

}  // namespace Veltro::util
