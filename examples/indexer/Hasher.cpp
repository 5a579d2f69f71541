#include "Hasher.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "Channel.h"
#include "Veltro/LibeventFactoryCpp.h"
#include "Veltro/ThreadCpp.h"

namespace Indexer {
HashTask::HashTask(std::shared_ptr<Veltro::TaskScheduler> scheduler, HashPlugin const& hash,
                   OnResult onResult)
    : Task(std::move(scheduler), Veltro::TaskPriority::normal, "hash"),
      hash_(hash),
      onResult_(std::move(onResult)) {}

HashTask::~HashTask() {
  if (fd_ >= 0) ::close(fd_);
}

void HashTask::add(std::string path) {
  paths_.push_back(std::move(path));
  scheduleTask();
}

void HashTask::taskExecute() {
  std::uint64_t slices = 0;
  while (fd_ >= 0 || !paths_.empty()) {
    if (fd_ >= 0 || _open()) _slice();
    ++slices;
    if (taskShouldYield()) {
      scheduleTask();
      break;
    }
  }
  taskWorkCountInc(slices);
  taskWorkPendingIs(static_cast<std::uint32_t>(paths_.size()));
}

bool HashTask::_open() {
  result_ = FileResult();
  result_.path = std::move(paths_.front());
  result_.hash = hash_.start();
  paths_.pop_front();
  // Non-blocking: the name may have become a FIFO's since it was found.
  fd_ = ::open(result_.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd_ < 0) _finish(errno);
  return fd_ >= 0;
}

bool HashTask::_slice() {
  unsigned char buffer[65536];
  ssize_t const got = ::read(fd_, buffer, sizeof buffer);
  if (got > 0) {
    result_.bytes += static_cast<std::uint64_t>(got);
    result_.hash = hash_.hashOn(result_.hash, buffer, static_cast<std::size_t>(got));
    return true;
  }
  if (got < 0 && errno == EINTR) return true;
  _finish(got < 0 ? errno : 0);
  return false;
}

void HashTask::_finish(int errnum) {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  result_.errnum = errnum;
  onResult_(result_);
}

HasherThread::HasherThread(int channelFd, HashPlugin const& hash)
    : thread_(&HasherThread::_run, channelFd, std::cref(hash)) {}

HasherThread::~HasherThread() { thread_.join(); }

void HasherThread::_run(int channelFd, HashPlugin const& function) {
  using namespace std::chrono_literals;
  Veltro::threadNameIs("hasher");
  {
    auto const root = Veltro::schedulerRootVeltro();
    auto const group =
        Veltro::TaskGroup::TaskGroupIs("hashing", Veltro::TaskPriority::normal, false, root);
    group->taskGroupQuantumIs(10ms);
    std::shared_ptr<Channel> channel;
    auto const hash = std::make_shared<HashTask>(
        group, function, [&channel](FileResult const& result) { channel->send(result.message()); });
    hash->taskQuantumIs(5ms);
    channel = Channel::make(
        root, Veltro::TaskPriority::high, "paths", channelFd,
        [&hash](std::string const& path) { hash->add(path); }, [&hash] { hash->unscheduleTask(); });
    Veltro::Platform::doEventLoop();
  }
  Veltro::leFree();
}

}  // namespace Indexer
