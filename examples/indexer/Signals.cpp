#include "Signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Indexer {
namespace {

sigset_t theTwo() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

void Signals::block() {
  sigset_t const set = theTwo();
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

std::shared_ptr<Signals> Signals::make(std::shared_ptr<Veltro::TaskScheduler> scheduler,
                                       std::function<void(int signal)> onSignal) {
  sigset_t const set = theTwo();
  int const fd = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  auto signals = std::make_shared<Signals>(std::move(scheduler), fd, std::move(onSignal));
  signals->taskWatchFdIs(fd);
  signals->taskWatchReadableIs(true);
  return signals;
}

Signals::Signals(std::shared_ptr<Veltro::TaskScheduler> scheduler, int fd,
                 std::function<void(int signal)> onSignal)
    : FileDescriptorTask(std::move(scheduler), Veltro::TaskPriority::high, "signals"),
      fd_(fd),
      onSignal_(std::move(onSignal)) {}

Signals::~Signals() { close(); }

void Signals::close() {
  if (fd_ < 0) return;
  taskWatchFdDel();
  ::close(std::exchange(fd_, -1));
}

void Signals::taskExecuteReadable() {
  signalfd_siginfo info;
  if (::read(fd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return;
  onSignal_(static_cast<int>(info.ssi_signo));
}

}  // namespace Indexer
