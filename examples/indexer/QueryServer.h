#pragma once
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "Veltro/TaskSchedulerCpp.h"

namespace Indexer {

/// Answers questions over a Unix-domain stream socket: a question is a line, an answer some
/// lines and then a line with a single dot. Its tasks are of high priority, so that an answer
/// waits for one task's slice at most, however busy the thread is.
class QueryServer final : public Veltro::FileDescriptorTask {
 public:
  /// Gets a question without its line end; returns the answer's lines, each with its end.
  using Answer = std::function<std::string(std::string const& question)>;

  /// Listens at `path`; a socket file that nobody listens on any more is replaced. Any other
  /// obstacle (in use, no such directory, too long) throws std::system_error.
  static std::shared_ptr<QueryServer> make(std::shared_ptr<Veltro::TaskScheduler> scheduler,
                                           std::string const& path, Answer answer);
  QueryServer(std::shared_ptr<Veltro::TaskScheduler> scheduler, int fd, std::string path,
              Answer answer);
  ~QueryServer() override;

  std::string const& path() const { return path_; }
  /// Ends all conversations and stops listening; removes the socket file.
  void close();

 private:
  class Client;
  class Pause;
  void taskExecuteReadable() override;
  void taskExecuteWritable() override {}
  void _drop(int fd);
  void _keepSpare();
  void _turnAway();

  std::shared_ptr<Veltro::TaskScheduler> const scheduler_;
  int fd_;
  std::string const path_;
  Answer const answer_;
  int spare_ = -1;  // a descriptor in reserve for _turnAway
  std::shared_ptr<Pause> const pause_;
  std::unordered_map<int, std::shared_ptr<Client>> clients_;
};

}  // namespace Indexer
