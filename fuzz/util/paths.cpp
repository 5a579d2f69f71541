// Making and trimming directories below a scratch folder: a path that the kernel can hold is there
// with its mode, what was made is trimmed away without a rest, nothing beside it is touched.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "Veltro/Exception.h"
#include "Veltro/UtilCpp.h"
#include "fuzz/support/Fuzz.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Veltro::fuzz {
namespace {

/// A folder that holds one file, "f", so that it is not empty.
struct Scratch {
  void begin() const {
    fs::remove_all(path);
    fs::create_directory(path);
    std::ofstream(path + "/f") << "kept";
  }
  bool holdsOnlyTheFile() const {
    return std::distance(fs::directory_iterator(path), fs::directory_iterator()) == 1 &&
           fs::file_size(path + "/f") == 4;
  }
  TempDir temp;
  std::string const path = temp.path("s");
};

enum class Kind { impossible, there, makes };

Kind kindOf(std::string const& path) {
  bool file = false, beyondFile = false, any = false;
  for (auto const& part : split(path, '/')) {
    if (part.size() > NAME_MAX) return Kind::impossible;
    if (part.empty()) continue;
    beyondFile |= file;
    file |= !any && part == "f";
    any |= part != ".";
  }
  return beyondFile ? Kind::impossible : file || !any ? Kind::there : Kind::makes;
}

void checkMade(Scratch const& scratch, std::string const& path, mode_t mode) {
  std::string const absolute = scratch.path + "/" + path;
  Kind const kind = absolute.size() >= PATH_MAX ? Kind::impossible : kindOf(path);
  int const result = Util::mkpath(absolute, mode);
  FUZZ_CHECK((result == 0) == (kind != Kind::impossible), absolute << ": " << std::strerror(errno));
  mode_t const umaskNow = ::umask(077);
  FUZZ_CHECK(umaskNow == 077, "umask " << umaskNow);
  if (kind != Kind::makes) return;

  struct stat info {};
  FUZZ_CHECK(::stat(absolute.c_str(), &info) == 0 && S_ISDIR(info.st_mode), absolute);
  FUZZ_CHECK((info.st_mode & 07777) == mode, absolute << " " << info.st_mode);
  // Several slashes in front would name the scratch folder itself; rmdir(2) refuses ".".
  auto const parts = split(path, '/');
  if (path.substr(0, 2) == "//" || std::count(parts.begin(), parts.end(), ".") > 0) return;
  FUZZ_CHECK(Util::trimpath(absolute, path) == 0, absolute << ": " << std::strerror(errno));
  FUZZ_CHECK(scratch.holdsOnlyTheFile(), absolute);
}

void checkTrimmed(Scratch const& scratch, std::string const& path, std::string const& trailing) {
  std::string const absolute = scratch.path + "/" + path;
  std::size_t const length = trailing.size();
  bool const allowed = length > 0 && length < absolute.size() &&
                       absolute.compare(absolute.size() - length, length, trailing) == 0;
  if (allowed && length > path.size()) return;  // would reach out of the scratch folder
  try {
    int const result = Util::trimpath(absolute, trailing);
    FUZZ_CHECK(allowed, absolute << " and " << trailing);
    FUZZ_CHECK(result != 0 || !fs::exists(absolute) || kindOf(path) == Kind::there, absolute);
  } catch (AssertException const&) {
    FUZZ_CHECK(!allowed, absolute << " and " << trailing);
  }
}

}  // namespace

int run(Input& input) {
  static Scratch const scratch;
  static mode_t const modes[] = {0777, 0755, 0700};
  ::umask(077);
  mode_t const mode = modes[input.below(3)];
  std::string const path = input.line();
  std::string const trailing = input.line();
  if ((path + trailing).find('\0') != std::string::npos) return -1;
  auto const parts = split(path, '/');
  if (std::count(parts.begin(), parts.end(), "..") > 0) return -1;  // leads out, and may
  scratch.begin();
  checkMade(scratch, path, mode);
  checkTrimmed(scratch, path, trailing);
  return 0;
}

}  // namespace Veltro::fuzz
