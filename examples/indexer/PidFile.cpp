#include "PidFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "Debug.h"
#include "Veltro/UtilCpp.h"

namespace Indexer {
namespace {

int locked(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "cannot open " + path);
  if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
  ::close(fd);
  std::string const holder = Veltro::Util::fileRead(debug(), path, true);
  std::string const title = Veltro::Util::readProcTitle(debug(), std::atoi(holder.c_str()));
  throw std::runtime_error(path + " is held by process " + holder + " (" + title + ")");
}

}  // namespace

PidFile::PidFile(std::string const& path) : fd_(locked(path)) {
  Veltro::Util::fileWrite(debug(), path, std::to_string(::getpid()), false);
}

PidFile::~PidFile() { ::close(fd_); }

}  // namespace Indexer
