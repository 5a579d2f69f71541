#pragma once
#include <functional>
#include <iosfwd>
#include <string>

#include "Kiv/Export.h"

namespace Kiv {

/// A string value: copies, compares, orders by bytes, converts from and to the standard's.
/// May hold NUL characters. A null `char const*` makes the empty string.
class String final {
 public:
  String() = default;
  /// From and to the standard's.
  String(std::string text) : text_(std::move(text)) {}
  String(char const* text) : text_(text == nullptr ? "" : text) {}

  /// The text; charPtr() ends with a NUL, and is valid until the string changes.
  operator std::string const&() const { return text_; }
  std::string const& stdString() const { return text_; }
  char const* charPtr() const { return text_.c_str(); }
  std::size_t bytes() const { return text_.size(); }
  bool empty() const { return text_.empty(); }

  /// Appends.
  String& operator+=(String const& other) {
    text_ += other.text_;
    return *this;
  }
  friend String operator+(String a, String const& b) { return a += b; }
  friend bool operator==(String const& a, String const& b) { return a.text_ == b.text_; }
  friend bool operator!=(String const& a, String const& b) { return a.text_ != b.text_; }
  friend bool operator<(String const& a, String const& b) { return a.text_ < b.text_; }

 private:
  std::string text_;
};

KIV_API std::ostream& operator<<(std::ostream& os, String const& string);

}  // namespace Kiv

template <>
struct std::hash<Kiv::String> {
  std::size_t operator()(Kiv::String const& string) const {
    return std::hash<std::string>()(string.stdString());
  }
};
