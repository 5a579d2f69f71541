#include "QueryServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace Indexer {
namespace {

constexpr std::size_t kLongestQuestion = 4096;
constexpr std::size_t kMostWaiting = 1 << 20;  // an asker that does not read is not read either

[[noreturn]] void fail(std::string const& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un addressOf(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    errno = path.empty() ? EINVAL : ENAMETOOLONG;
    fail(path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

int newSocket() {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) fail("socket");
  return fd;
}

// A socket file whose listener is gone refuses connections; but so does any other file.
bool abandoned(sockaddr_un const& address) {
  struct stat status;
  if (::lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  int const fd = newSocket();
  bool const refused =
      ::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 &&
      errno == ECONNREFUSED;
  ::close(fd);
  return refused;
}

int listenAt(std::string const& path) {
  sockaddr_un const address = addressOf(path);
  auto const* const generic = reinterpret_cast<sockaddr const*>(&address);
  int const fd = newSocket();
  int result = ::bind(fd, generic, sizeof address);
  int reason = result == 0 ? 0 : errno;
  if (reason == EADDRINUSE && abandoned(address)) {
    ::unlink(path.c_str());
    result = ::bind(fd, generic, sizeof address);
    reason = result == 0 ? 0 : errno;
  }
  if (reason == 0 && ::listen(fd, 16) != 0) reason = errno;
  if (reason != 0) {
    ::close(fd);
    errno = reason;
    fail(path);
  }
  return fd;
}

}  // namespace

/// One conversation.
class QueryServer::Client final : public Veltro::FileDescriptorTask {
 public:
  Client(QueryServer& server, int fd)
      : FileDescriptorTask(server.scheduler_, Veltro::TaskPriority::high, "client"),
        server_(server),
        fd_(fd) {}
  ~Client() override {
    taskWatchFdDel();
    ::close(fd_);
  }

 private:
  void taskExecuteReadable() override {
    char buffer[4096];
    ssize_t const got = ::recv(fd_, buffer, sizeof buffer, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) {
      server_._drop(fd_);
      return;
    }
    asked_.append(buffer, static_cast<std::size_t>(got));
    _answerAll();
    taskExecuteWritable();
  }

  void taskExecuteWritable() override {
    while (!answer_.empty()) {
      ssize_t const sent = ::send(fd_, answer_.data(), answer_.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0 && errno == EAGAIN) break;
      if (sent < 0) {
        server_._drop(fd_);
        return;
      }
      answer_.erase(0, static_cast<std::size_t>(sent));
    }
    if (answer_.empty() && ending_) {
      server_._drop(fd_);
      return;
    }
    taskWatchWritableIs(!answer_.empty());
    taskWatchReadableIs(!ending_ && answer_.size() < kMostWaiting);
  }

  void _answerAll() {
    for (std::size_t end; !ending_ && (end = asked_.find('\n')) != std::string::npos;) {
      std::string question = asked_.substr(0, end);
      asked_.erase(0, end + 1);
      if (!question.empty() && question.back() == '\r') question.pop_back();
      answer_ += server_.answer_(question) + ".\n";
      taskWorkCountInc(1);
    }
    if (asked_.size() <= kLongestQuestion) return;
    answer_ += "error: a question is a line of at most 4096 bytes\n.\n";
    ending_ = true;
  }

  QueryServer& server_;
  int const fd_;
  std::string asked_;
  std::string answer_;
  bool ending_ = false;
};

/// Listens again after a while.
class QueryServer::Pause final : public Veltro::TimerTask {
 public:
  explicit Pause(QueryServer& server)
      : TimerTask(server.scheduler_, Veltro::TaskPriority::high, "pause"), server_(server) {}

 private:
  void taskExecute() override { server_.taskWatchReadableIs(true); }
  QueryServer& server_;
};

std::shared_ptr<QueryServer> QueryServer::make(std::shared_ptr<Veltro::TaskScheduler> scheduler,
                                               std::string const& path, Answer answer) {
  auto server =
      std::make_shared<QueryServer>(std::move(scheduler), listenAt(path), path, std::move(answer));
  server->taskWatchFdIs(server->fd_);
  server->taskWatchReadableIs(true);
  return server;
}

QueryServer::QueryServer(std::shared_ptr<Veltro::TaskScheduler> scheduler, int fd, std::string path,
                         Answer answer)
    : FileDescriptorTask(scheduler, Veltro::TaskPriority::high, "queries"),
      scheduler_(std::move(scheduler)),
      fd_(fd),
      path_(std::move(path)),
      answer_(std::move(answer)),
      pause_(std::make_shared<Pause>(*this)) {
  _keepSpare();
}

QueryServer::~QueryServer() {
  close();
  if (spare_ >= 0) ::close(spare_);
}

void QueryServer::close() {
  clients_.clear();
  if (fd_ < 0) return;
  taskWatchFdDel();
  pause_->stopTimerTask();
  ::close(std::exchange(fd_, -1));
  ::unlink(path_.c_str());
}

void QueryServer::taskExecuteReadable() {
  _keepSpare();
  int const fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    if (errno == EMFILE || errno == ENFILE) _turnAway();
    return;
  }
  auto const client = std::make_shared<Client>(*this, fd);
  clients_[fd] = client;
  client->taskWatchFdIs(fd);
  client->taskWatchReadableIs(true);
  taskWorkCountInc(1);
}

void QueryServer::_keepSpare() {
  if (spare_ < 0) spare_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// Out of descriptors: whoever waits is let in by the one kept spare and shown out, for a
// listening socket that stays readable would keep the loop busy. What let him in is the next spare:
// closed, it would be anybody's.
void QueryServer::_turnAway() {
  if (spare_ >= 0) ::close(spare_);
  spare_ = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (spare_ >= 0) {
    ::shutdown(spare_, SHUT_RDWR);
    return;
  }
  taskWatchReadableIs(false);
  pause_->scheduleTaskDelay(0.1);
}

void QueryServer::_drop(int fd) { clients_.erase(fd); }

}  // namespace Indexer
