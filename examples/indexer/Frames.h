#pragma once
#include <cstdint>
#include <string>

namespace Indexer {

/// Messages over a stream socket inside one process: a length, then so many bytes.
/// Neither end blocks: what the socket does not take now is kept for the next writable moment.

/// The sending end.
class FrameWriter final {
 public:
  void add(std::string const& message);
  /// Writes what the socket takes; throws std::system_error when the other end is gone.
  void flush(int fd);
  bool empty() const { return sent_ == bytes_.size(); }
  /// Bytes waiting, so that a producer can hold back.
  std::size_t waiting() const { return bytes_.size() - sent_; }

 private:
  std::string bytes_;
  std::size_t sent_ = 0;
};

/// The receiving end.
class FrameReader final {
 public:
  /// Takes in what the socket has, up to 64 KiB. False at the end of the stream; a broken
  /// stream throws std::system_error.
  bool fill(int fd);
  /// The next whole message, if there is one.
  bool next(std::string& message);

 private:
  std::string bytes_;
  std::size_t taken_ = 0;
};

/// What the worker found out about one file.
struct FileResult {
  std::string path;
  std::uint64_t bytes = 0;
  std::uint64_t hash = 0;
  int errnum = 0;  // 0 when it was read whole

  std::string message() const;
  static FileResult fromMessage(std::string const& message);
};

}  // namespace Indexer
