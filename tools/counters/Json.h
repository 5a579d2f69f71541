#pragma once
#include <string>

namespace Counters {

/// A JSON string of any bytes, quotes and all: what is not UTF-8 becomes U+FFFD.
std::string jsonString(std::string const& bytes);

}  // namespace Counters
