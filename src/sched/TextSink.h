#pragma once
#include <ostream>
#include <string>

namespace Veltro {

/// Collects text and hands it to a stream in large blocks, unformatted: a listing of 10,000 lines
/// needs neither one buffer for all of it nor, on standard error, a system call a line; and the
/// stream's width, flags and locale stay out of it. What is not flushed is lost.
class TextSink {
 public:
  explicit TextSink(std::ostream& os) : os_(os) {}
  TextSink(TextSink const&) = delete;
  TextSink& operator=(TextSink const&) = delete;

  TextSink& operator<<(std::string const& text) {
    text_ += text;
    if (text_.size() >= kBlock) flush();
    return *this;
  }
  void flush() {
    os_.write(text_.data(), static_cast<std::streamsize>(text_.size()));
    text_.clear();
  }

 private:
  static constexpr std::size_t kBlock = 1 << 16;

  std::ostream& os_;
  std::string text_;
};

}  // namespace Veltro
