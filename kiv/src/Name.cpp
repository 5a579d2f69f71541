#include "Kiv/Name.h"

#include <mutex>
#include <ostream>
#include <unordered_set>

namespace Kiv {
namespace {

// Never freed: names live in static objects and thread-local ones, which die late.
std::string const* interned(std::string const& text) {
  static auto& mutex = *new std::mutex;
  static auto& table = *new std::unordered_set<std::string>;  // node based: addresses stay
  std::lock_guard<std::mutex> lock(mutex);
  return &*table.insert(text).first;
}

}  // namespace

Name::Name() {
  static std::string const* const empty = interned("");
  text_ = empty;
}
Name::Name(char const* text) : text_(interned(text == nullptr ? "" : text)) {}
Name::Name(std::string const& text) : text_(interned(text)) {}

std::ostream& operator<<(std::ostream& os, Name name) { return os << name.stdString(); }

}  // namespace Kiv
