#include "Channel.h"

#include <unistd.h>

#include <system_error>
#include <utility>

namespace Indexer {

std::shared_ptr<Channel> Channel::make(std::shared_ptr<Veltro::TaskScheduler> scheduler,
                                       Veltro::TaskPriority priority, std::string const& name,
                                       int fd, OnMessage onMessage, OnEnd onEnd) {
  auto channel = std::make_shared<Channel>(std::move(scheduler), priority, name, fd,
                                           std::move(onMessage), std::move(onEnd));
  channel->taskWatchFdIs(fd);
  channel->taskWatchReadableIs(true);
  return channel;
}

Channel::Channel(std::shared_ptr<Veltro::TaskScheduler> scheduler, Veltro::TaskPriority priority,
                 std::string const& name, int fd, OnMessage onMessage, OnEnd onEnd)
    : FileDescriptorTask(std::move(scheduler), priority, name),
      fd_(fd),
      onMessage_(std::move(onMessage)),
      onEnd_(std::move(onEnd)) {}

Channel::~Channel() { close(); }

void Channel::send(std::string const& message) {
  if (fd_ < 0) return;  // the end has been told already
  writer_.add(message);
  _flush();
}

void Channel::close() {
  if (fd_ < 0) return;
  taskWatchReadableIs(false);
  taskWatchWritableIs(false);
  taskWatchFdDel();
  ::close(std::exchange(fd_, -1));
}

void Channel::taskExecuteReadable() {
  std::uint64_t messages = 0;
  bool more = true;
  try {
    more = reader_.fill(fd_);
  } catch (std::system_error const&) {
    more = false;
  }
  for (std::string message; reader_.next(message); ++messages) onMessage_(message);
  taskWorkCountInc(messages);
  if (!more) _end();
}

void Channel::taskExecuteWritable() { _flush(); }

void Channel::_flush() {
  bool const hadToWait = !writer_.empty();
  try {
    writer_.flush(fd_);
  } catch (std::system_error const&) {
    _end();
    return;
  }
  taskWatchWritableIs(!writer_.empty());
  if (hadToWait && writer_.empty() && onDrained_) onDrained_();
}

void Channel::_end() {
  if (fd_ < 0) return;
  close();
  onEnd_();
}

}  // namespace Indexer
