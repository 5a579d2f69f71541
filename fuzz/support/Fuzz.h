#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

/// An oracle's verdict: ends the process, so that the fuzzer keeps the input. `text` is a chain
/// of <<.
#define FUZZ_CHECK(condition, text)                                                          \
  do {                                                                                       \
    if (!(condition)) {                                                                      \
      std::cerr << __FILE__ << ":" << __LINE__ << ": " #condition ": " << text << std::endl; \
      std::abort();                                                                          \
    }                                                                                        \
  } while (0)

namespace Veltro::fuzz {

/// An input, taken from the front. Past its end bytes are 0 and texts are empty.
class Input {
 public:
  explicit Input(std::string const& text) : text_(text) {}

  std::size_t size() const { return text_.size(); }
  bool empty() const { return at_ == text_.size(); }
  unsigned byte() { return empty() ? 0 : static_cast<unsigned char>(text_[at_++]); }
  unsigned below(unsigned bound) { return byte() % bound; }
  /// Up to `end`, which is taken too and left out.
  std::string until(char end) {
    std::size_t const found = std::min(text_.find(end, at_), text_.size());
    std::string const result = text_.substr(at_, found - at_);
    at_ = std::min(found + 1, text_.size());
    return result;
  }
  std::string line() { return until('\n'); }
  std::string rest() {
    std::string const result = text_.substr(at_);
    at_ = text_.size();
    return result;
  }

 private:
  std::string const text_;
  std::size_t at_ = 0;
};

/// The pieces between separators; a separator at the end begins none.
inline std::vector<std::string> split(std::string const& text, char separator) {
  std::vector<std::string> result;
  for (Input input(text); !input.empty();) result.push_back(input.until(separator));
  return result;
}

/// The target. 0, or -1 for an input that shall not be kept.
int run(Input& input);

}  // namespace Veltro::fuzz
