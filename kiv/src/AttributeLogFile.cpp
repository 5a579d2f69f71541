#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"

namespace Kiv {
namespace {

class Descriptor {
 public:
  Descriptor(std::string const& path, int flags) : path_(path) {
    fd_ = ::open(path.c_str(), flags | O_CLOEXEC, 0666);
    if (fd_ < 0) fail("open");
  }
  ~Descriptor() { ::close(fd_); }
  Descriptor(Descriptor const&) = delete;
  int operator()() const { return fd_; }
  [[noreturn]] void fail(char const* what) const {
    throw ErrnoException(std::string(what) + " " + path_, errno);
  }

 private:
  std::string const path_;
  int fd_;
};

void writeWhole(Descriptor const& file, std::string const& text) {
  for (std::size_t done = 0; done < text.size();) {
    ssize_t const bytes = ::write(file(), text.data() + done, text.size() - done);
    if (bytes < 0 && errno != EINTR) file.fail("write");
    if (bytes > 0) done += std::size_t(bytes);
  }
}

std::string readWhole(std::string const& path) {
  // Non-blocking, for somebody may have planted a pipe; it is refused once it is open.
  Descriptor const file(path, O_RDONLY | O_NONBLOCK);
  struct stat status {};
  if (::fstat(file(), &status) != 0) file.fail("stat");
  if (!S_ISREG(status.st_mode)) {
    throw ErrnoException("read " + path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  }
  std::string text;
  char buffer[16384];
  for (;;) {
    ssize_t const bytes = ::read(file(), buffer, sizeof buffer);
    if (bytes == 0) return text;
    if (bytes > 0) {
      text.append(buffer, std::size_t(bytes));
    } else if (errno != EINTR) {
      file.fail("read");
    }
  }
}

void replaceFile(std::string const& path, std::string const& text, std::string const& beside) {
  {
    Descriptor const file(beside, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);
    writeWhole(file, text);
    if (::fsync(file()) != 0) file.fail("fsync");
  }
  if (::rename(beside.c_str(), path.c_str()) != 0) throw ErrnoException("rename " + path, errno);
  std::size_t const slash = path.rfind('/');
  Descriptor const directory(slash == std::string::npos ? "." : path.substr(0, slash + 1),
                             O_RDONLY | O_DIRECTORY);
  ::fsync(directory());  // some file systems cannot; the rename stands all the same
}

}  // namespace

void AttributeLog::save(Entity const& entity, std::string const& path) {
  std::string const log = text(entity);
  std::string const beside = path + "." + std::to_string(::getpid()) + ".new";
  ::unlink(beside.c_str());  // of a process that had this number and died while it saved
  try {
    replaceFile(path, log, beside);
  } catch (...) {
    ::unlink(beside.c_str());
    throw;
  }
}

void AttributeLog::load(Ptr<Entity> const& entity, std::string const& path) {
  restore(entity, readWhole(path));
}

}  // namespace Kiv
