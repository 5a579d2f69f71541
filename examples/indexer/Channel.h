#pragma once
#include <functional>
#include <memory>
#include <string>

#include "Frames.h"
#include "Veltro/TaskSchedulerCpp.h"

namespace Indexer {

/// One end of the stream between the two threads: a descriptor task that takes messages in and
/// sends messages out. Owns its descriptor. Belongs to the thread of its scheduler.
class Channel final : public Veltro::FileDescriptorTask {
 public:
  using OnMessage = std::function<void(std::string const&)>;
  using OnEnd = std::function<void()>;

  /// Starts to listen at once. `onMessage` runs in this task's runs, once a message; `onEnd`
  /// once, when the other end has closed or is broken.
  static std::shared_ptr<Channel> make(std::shared_ptr<Veltro::TaskScheduler> scheduler,
                                       Veltro::TaskPriority priority, std::string const& name,
                                       int fd, OnMessage onMessage, OnEnd onEnd);
  Channel(std::shared_ptr<Veltro::TaskScheduler> scheduler, Veltro::TaskPriority priority,
          std::string const& name, int fd, OnMessage onMessage, OnEnd onEnd);
  ~Channel() override;

  void send(std::string const& message);
  /// Bytes that the other end has not taken yet.
  std::size_t waiting() const { return writer_.waiting(); }
  /// Called when waiting() has come down to nothing.
  void onDrainedIs(std::function<void()> onDrained) { onDrained_ = std::move(onDrained); }
  /// Closes this end; the other end sees it.
  void close();

 private:
  void taskExecuteReadable() override;
  void taskExecuteWritable() override;
  void _flush();
  void _end();

  int fd_;
  OnMessage const onMessage_;
  OnEnd const onEnd_;
  std::function<void()> onDrained_;
  FrameReader reader_;
  FrameWriter writer_;
};

}  // namespace Indexer
