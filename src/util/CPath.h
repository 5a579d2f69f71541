#pragma once
#include <string>

namespace Veltro::util {

/// `path` as the kernel takes it. One that holds a zero byte is the name of nothing: it becomes "",
/// which the kernel finds nowhere, and not the file that its beginning names.
inline char const* cPath(std::string const& path) {
  return path.find('\0') == std::string::npos ? path.c_str() : "";
}

}  // namespace Veltro::util
