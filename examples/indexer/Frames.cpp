#include "Frames.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace Indexer {
namespace {

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

void FrameWriter::add(std::string const& message) {
  auto const length = static_cast<std::uint32_t>(message.size());
  bytes_.append(reinterpret_cast<char const*>(&length), sizeof length);
  bytes_ += message;
}

void FrameWriter::flush(int fd) {
  while (!empty()) {
    ssize_t const wrote = ::send(fd, bytes_.data() + sent_, waiting(), MSG_NOSIGNAL);
    if (wrote < 0 && wouldBlock()) break;
    if (wrote < 0) throw std::system_error(errno, std::generic_category(), "send");
    sent_ += static_cast<std::size_t>(wrote);
  }
  if (sent_ >= bytes_.size() / 2) {  // seldom enough that moving costs little
    bytes_.erase(0, sent_);
    sent_ = 0;
  }
}

bool FrameReader::fill(int fd) {
  bytes_.erase(0, taken_);
  taken_ = 0;
  char buffer[65536];
  ssize_t const got = ::recv(fd, buffer, sizeof buffer, 0);
  if (got < 0 && wouldBlock()) return true;
  if (got < 0) throw std::system_error(errno, std::generic_category(), "recv");
  bytes_.append(buffer, static_cast<std::size_t>(got));
  return got > 0;
}

bool FrameReader::next(std::string& message) {
  std::uint32_t length;
  if (bytes_.size() - taken_ < sizeof length) return false;
  std::memcpy(&length, bytes_.data() + taken_, sizeof length);
  if (bytes_.size() - taken_ - sizeof length < length) return false;
  message.assign(bytes_, taken_ + sizeof length, length);
  taken_ += sizeof length + length;
  return true;
}

std::string FileResult::message() const {
  std::string text(sizeof bytes + sizeof hash + sizeof errnum, '\0');
  std::memcpy(&text[0], &bytes, sizeof bytes);
  std::memcpy(&text[sizeof bytes], &hash, sizeof hash);
  std::memcpy(&text[sizeof bytes + sizeof hash], &errnum, sizeof errnum);
  return text + path;
}

FileResult FileResult::fromMessage(std::string const& message) {
  FileResult result;
  std::size_t const fixed = sizeof bytes + sizeof hash + sizeof errnum;
  if (message.size() < fixed) throw std::length_error("a file result is cut short");
  std::memcpy(&result.bytes, &message[0], sizeof bytes);
  std::memcpy(&result.hash, &message[sizeof bytes], sizeof hash);
  std::memcpy(&result.errnum, &message[sizeof bytes + sizeof hash], sizeof errnum);
  result.path = message.substr(fixed);
  return result;
}

}  // namespace Indexer
