#pragma once
#include <csignal>
#include <functional>
#include <memory>

#include "Veltro/TaskSchedulerCpp.h"

namespace Indexer {

/// SIGINT and SIGTERM as a readable descriptor: they arrive as a task of high priority, between
/// two other tasks, and interrupt nothing.
class Signals final : public Veltro::FileDescriptorTask {
 public:
  /// Blocks both for the calling thread and those that it will start: call it before any.
  static void block();

  static std::shared_ptr<Signals> make(std::shared_ptr<Veltro::TaskScheduler> scheduler,
                                       std::function<void(int signal)> onSignal);
  Signals(std::shared_ptr<Veltro::TaskScheduler> scheduler, int fd,
          std::function<void(int signal)> onSignal);
  ~Signals() override;
  void close();

 private:
  void taskExecuteReadable() override;
  void taskExecuteWritable() override {}

  int fd_;
  std::function<void(int signal)> const onSignal_;
};

}  // namespace Indexer
