#include "Veltro/UtilCpp.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "CPath.h"
#include "Descriptor.h"
#include "Kiv/UmaskGuard.h"
#include "ReadFile.h"
#include "Veltro/Debug.h"
#include "Veltro/Exception.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/UtilCpp";

int openForAll(std::string const& path, int flags) {
  Kiv::UmaskGuard const window;
  return ::open(util::cPath(path), flags | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666);
}

ssize_t writeOnce(int fd, std::string const& content) {
  ssize_t count = -1;
  do {
    count = ::write(fd, content.data(), content.size());
  } while (count < 0 && errno == EINTR);  // nothing was written yet
  return count;
}

std::string reasonOf(int error) { return std::string(" reason:") + std::strerror(error); }

void throwUnless(bool quiet, std::string const& fault) {
  if (!quiet) RuntimeException::throwException(fault);
}

}  // namespace

void Util::fileWrite(Platform::DebugHandler& handler, std::string const& path,
                     std::string const& content, bool quiet) {
  util::Descriptor fd(openForAll(path, O_RDWR | O_TRUNC));
  if (fd.get() < 0) {
    std::string const fault = "Util::fileWrite() unable to open " + path + reasonOf(errno);
    VELTRO_TRACE(handler, 0, fault);
    return throwUnless(quiet, fault);
  }
  ssize_t const count = writeOnce(fd.get(), content);
  if (count < 0) {
    std::string const fault = "Util::fileWrite() unable to write to " + path + reasonOf(errno);
    VELTRO_TRACE(handler, 0, fault);
    return throwUnless(quiet, fault);
  }
  if (static_cast<std::size_t>(count) != content.size()) {
    VELTRO_TRACE(handler, 0,
                 "Util::fileWrite() wrote:" << count << " bytes to file:" << path
                                            << " but wanted to write:" << content.size());
  }
  int const number = fd.get();
  if (fd.close() != 0) {
    std::string const fault =
        "Util::fileWrite() unable to close fd:" + std::to_string(number) + reasonOf(errno);
    VELTRO_TRACE(handler, 0, fault);
    throwUnless(quiet, fault);
  }
}

std::string Util::fileRead(Platform::DebugHandler& handler, std::string const& path,
                           bool reportOpenFailure) {
  util::FileText file = util::readFile(path);
  if (!file.opened) {
    if (reportOpenFailure)
      VELTRO_TRACE(handler, 5, "Util::fileRead() unable to open file " << path);
  } else if (!file.complete) {
    VELTRO_TRACE(handler, 1, "Util::fileRead() failed to read from " << path);
  } else {
    VELTRO_TRACE(handler, 5, "Util::fileRead() read '" << file.text << "'");
  }
  return std::move(file.text);
}

bool Util::fileExists(Platform::DebugHandler& handler, std::string const& path) {
  struct stat info {};
  int const result = ::stat(util::cPath(path), &info);
  VELTRO_TRACE(handler, 5,
               "Util::fileExists() checking if " << path << " exists, stat result:" << result);
  return result == 0;
}

bool Util::fileRemove(Platform::DebugHandler& handler, std::string const& path) {
  if (::unlink(util::cPath(path)) == 0) {
    VELTRO_TRACE(handler, 5, "Util::fileRemove() removed file " << path);
    return true;
  }
  int const error = errno;
  if (error == ENOENT) return true;
  VELTRO_TRACE(handler, 0,
               "Util::fileRemove() unlink() error " << path << ": " << std::strerror(error));
  return false;
}

U64 Util::fileSize(Platform::DebugHandler& handler, std::string const& path) {
  struct stat info {};
  if (::stat(util::cPath(path), &info) == 0) return static_cast<U64>(info.st_size);
  int const error = errno;
  VELTRO_TRACE(handler, 5,
               "Util::fileSize() unable to stat file " << path << ": " << std::strerror(error));
  return 0;
}

U64 Util::fileSize(Platform::DebugHandler& handler, int fd) {
  struct stat info {};
  if (::fstat(fd, &info) == 0) return static_cast<U64>(info.st_size);
  int const error = errno;
  VELTRO_TRACE(handler, 5,
               "Util::fileSize() unable to fstat fd " << fd << ": " << std::strerror(error));
  return 0;
}

int Util::truncate(Platform::DebugHandler& handler, std::string const& /*path*/, int fd,
                   unsigned length) {
  int const result = ::ftruncate(fd, static_cast<off_t>(length));
  if (result == -1) {
    int const error = errno;
    VELTRO_TRACE(
        handler, 0,
        "Util::truncate() ftruncate() size:" << length << " error:" << std::strerror(error));
    errno = error;
  }
  return result;
}

// Read-only and not blocking: a FIFO is not waited for, and a file that may only be read will do.
void Util::touch(Platform::DebugHandler& handler, std::string const& path) {
  util::Descriptor fd(openForAll(path, O_RDONLY | O_NONBLOCK));
  if (fd.get() < 0) {
    std::string const reason = reasonOf(errno);
    VELTRO_TRACE(handler, 0, "Util::touch() unable to open " << path << reason);
    return;
  }
  int const number = fd.get();
  if (fd.close() != 0) {
    std::string const reason = reasonOf(errno);
    VELTRO_TRACE(handler, 0, "Util::touch() unable to close fd:" << number << reason);
  }
}

}  // namespace Veltro
