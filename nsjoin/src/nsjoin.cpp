#include "nsjoin.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr char const* kFolder = "/var/run/netns/";
constexpr char const* kFirstProcess = "/proc/1/ns/net";

thread_local char traceBuffer[512] = "";

int fail(char const* name, char const* step, int reason) {
  std::snprintf(traceBuffer, sizeof traceBuffer, "setnsByName(%s): %s: %s", name, step,
                std::strerror(reason));
  errno = reason;
  return -1;
}

// Not blocking: a FIFO under that name is refused by setns, not waited for.
int openReference(char const* path) {
  return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

int join(char const* name, char const* path, int fd, int nstype) {
  if (fd < 0) return fail(name, (std::string("open ") + path).c_str(), errno);
  int const result = ::setns(fd, nstype);
  int const reason = errno;
  ::close(fd);
  return result == 0 ? 0 : fail(name, "setns", reason);
}

}  // namespace

int setnsByName(char const* name, int nstype) {
  if (name == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr) {
    return fail(name == nullptr ? "" : name, "name", EINVAL);
  }
  std::string const path = std::string(kFolder) + name;
  int const fd = openReference(path.c_str());
  if (fd < 0 && errno == ENOENT && std::strcmp(name, DEFAULT_NS) == 0) {
    return join(name, kFirstProcess, openReference(kFirstProcess), nstype);
  }
  return join(name, path.c_str(), fd, nstype);
}

char const* netnsGetTracebuffer() { return traceBuffer; }
