#pragma once
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Frames.h"
#include "HashPlugin.h"
#include "Veltro/TaskSchedulerCpp.h"

namespace Indexer {

/// Reads and hashes files, a slice at a time: it yields when its quantum is used up and goes on
/// in its next run, in the middle of a file if need be.
class HashTask final : public Veltro::Task {
 public:
  using OnResult = std::function<void(FileResult const&)>;
  HashTask(std::shared_ptr<Veltro::TaskScheduler> scheduler, HashPlugin const& hash,
           OnResult onResult);
  ~HashTask() override;

  void add(std::string path);

 private:
  void taskExecute() override;
  bool _open();
  bool _slice();
  void _finish(int errnum);

  HashPlugin const& hash_;
  OnResult const onResult_;
  std::deque<std::string> paths_;
  int fd_ = -1;
  FileResult result_;
};

/// The worker thread: a loop, a root scheduler and, in it, a group for the hashing with a
/// quantum of its own. Reads paths from the channel and answers each with a result; ends when
/// the other end closes.
class HasherThread final {
 public:
  /// Takes over `channelFd`, borrows the hash: loaded by the thread that starts this one, for each
  /// thread has a registry of its own.
  HasherThread(int channelFd, HashPlugin const& hash);
  /// Joins; close the channel's other end first.
  ~HasherThread();

 private:
  static void _run(int channelFd, HashPlugin const& hash);
  std::thread thread_;
};

}  // namespace Indexer
