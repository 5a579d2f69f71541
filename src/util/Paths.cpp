#include "Veltro/UtilCpp.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "CPath.h"
#include "Handler.h"
#include "Kiv/UmaskGuard.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/UtilCpp";

bool endsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/// What is wrong with trimpath's arguments; null when nothing is. The order is part of the
/// contract.
char const* faultOf(std::string const& absolute, std::string const& trailing) {
  if (absolute.empty()) return "absolute path is empty";
  if (absolute[0] != '/') return "absolute path is not absolute";
  if (trailing.empty()) return "trailing path is empty";
  if (trailing.size() >= absolute.size()) return "trailing path longer than absolute path";
  if (!endsWith(absolute, trailing)) {
    return "trailing path is not a terminal substring of absolute path";
  }
  return nullptr;
}

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

int Util::mkpath(std::string const& path, unsigned mode) {
  VELTRO_TRACE(util::debug(), 9,
               "Util::::mkpath() creating path: " << path << " mode: " << std::oct << mode);
  Kiv::UmaskGuard const window;
  if (::mkdir(util::cPath(path), mode) == 0 || errno == EEXIST) return 0;
  if (errno != ENOENT) return -1;

  // Without a parent to make there is nothing left to try: the empty path, or a relative one in a
  // removed working directory.
  std::size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return fail(ENOENT);
  if (mkpath(path.substr(0, slash), mode) != 0) return -1;

  int const result = ::mkdir(util::cPath(path), mode);
  if (result != 0 && errno != EEXIST) return result;
  ::chmod(util::cPath(path), mode);
  return 0;
}

int Util::trimpath(std::string const& absolute, std::string const& trailing) {
  char const* const fault = faultOf(absolute, trailing);
  VELTRO_ASSERT(nullptr, fault == nullptr, fault);

  std::size_t const boundary = absolute.size() - trailing.size();
  std::string current = absolute;
  for (;;) {
    VELTRO_TRACE(util::debug(), 9, "Util::trimpath() removing dir " << current);
    if (::rmdir(util::cPath(current)) != 0 && errno != ENOENT) {
      int const error = errno;
      VELTRO_TRACE(
          util::debug(), 5,
          "Util::trimpath() rmdir() error " << current << " reason: " << std::strerror(error));
      return fail(error);
    }
    std::size_t const slash = current.rfind('/');
    if (slash == std::string::npos || slash <= boundary) break;
    current.resize(slash);
  }
  VELTRO_TRACE(
      util::debug(), 5,
      "Util::trimpath() removed sub-tree " << trailing << " from absolute path " << absolute);
  return 0;
}

std::string Util::getCwd(Platform::DebugHandler& handler) {
  std::unique_ptr<char, decltype(&std::free)> const path(::getcwd(nullptr, 0), &std::free);
  if (path) return path.get();
  int const error = errno;
  VELTRO_TRACE(handler, 0,
               "Util::getCwd() getcwd() "
                   << " failed: " << std::strerror(error));
  return {};
}

}  // namespace Veltro
