#include "Veltro/UtilCpp.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Descriptor.h"
#include "Veltro/Debug.h"
#include "Veltro/Exception.h"
#include "nsjoin.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/UtilCpp";
// Of the thread: /proc/self is the first thread's, which may be in another namespace.
constexpr char const* kOwnNamespace = "/proc/thread-self/ns/net";

int withErrno(int result, int error) {
  errno = error;
  return result;
}

}  // namespace

int Util::socket(Platform::DebugHandler& handler, int domain, int type, int protocol) {
  util::Descriptor home(::open(kOwnNamespace, O_RDONLY | O_CLOEXEC));
  if (home.get() < 0) {
    int const fd = ::socket(domain, type, protocol);
    int const error = errno;
    if (fd >= 0) {
      VELTRO_TRACE(handler, 2, "Util::socket() success opening local socket, sd:" << fd);
    } else {
      VELTRO_TRACE(handler, 2,
                   "Util::socket() failed to open local socket, sd:" << fd << " reason: "
                                                                     << std::strerror(error));
    }
    return withErrno(fd, error);
  }

  VELTRO_TRACE(handler, 2, "Util::socket() setnsByName() to " << DEFAULT_NS);
  bool const away = setnsByName(DEFAULT_NS, CLONE_NEWNET) == 0;
  if (!away) {
    VELTRO_TRACE(
        handler, 2,
        "Util::socket() setnsByName() to " << DEFAULT_NS << " failure: " << netnsGetTracebuffer());
  }
  errno = 0;
  util::Descriptor made(::socket(domain, type, protocol));
  int const error = errno;
  // Back before anything else: a handler is foreign code and must not run in the wrong namespace.
  bool const back = !away || ::setns(home.get(), CLONE_NEWNET) == 0;
  int const backError = errno;

  char const* const where = away ? DEFAULT_NS : "local";
  if (made.get() >= 0) {
    VELTRO_TRACE(handler, 2,
                 "Util::socket() success opening " << where << " socket: " << made.get());
  } else {
    VELTRO_TRACE(handler, 2,
                 "Util::socket() failed to open " << where << " socket: " << made.get()
                                                  << " reason: " << std::strerror(error));
  }
  if (!back) {
    RuntimeException::throwException(
        std::string("Util::socket() failed to switch back to caller's namespace: ") +
        std::strerror(backError));
  }
  if (home.close() != 0) {
    int const closeError = errno;
    VELTRO_TRACE(handler, 2,
                 "Util::socket() failed to close( localNsFd ): " << std::strerror(closeError));
  }
  return withErrno(made.release(), error);
}

}  // namespace Veltro
