#pragma once
#include <functional>
#include <iosfwd>
#include <string>

#include "Kiv/Export.h"
#include "Kiv/String.h"

namespace Kiv {

/// An interned name: as cheap to copy and compare as a pointer, equal exactly when the text is.
/// The table of names only grows (names are a program's vocabulary, not its data), is shared by
/// all threads, and is never destroyed.
class KIV_API Name final {
 public:
  /// The empty name.
  Name();
  /// The name of that text: equal texts are one name.
  Name(char const* text);
  Name(std::string const& text);
  Name(String const& text) : Name(text.stdString()) {}

  /// The text.
  std::string const& stdString() const { return *text_; }
  String string() const { return String(*text_); }
  bool empty() const { return text_->empty(); }

  friend bool operator==(Name a, Name b) { return a.text_ == b.text_; }
  friend bool operator!=(Name a, Name b) { return a.text_ != b.text_; }
  /// By text, so that listings do not depend on addresses.
  friend bool operator<(Name a, Name b) { return *a.text_ < *b.text_; }

 private:
  friend struct std::hash<Name>;
  std::string const* text_;  // in the table; never null
};

KIV_API std::ostream& operator<<(std::ostream& os, Name name);

}  // namespace Kiv

template <>
struct std::hash<Kiv::Name> {
  std::size_t operator()(Kiv::Name name) const { return std::hash<void const*>()(name.text_); }
};
