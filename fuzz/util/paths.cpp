// Making and trimming directories below a scratch folder: a path that the kernel can hold is there
// with its mode, what was made is trimmed away without a rest, nothing beside it is touched.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "Veltro/Exception.h"
#include "Veltro/UtilCpp.h"
#include "fuzz/support/Fuzz.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Veltro::fuzz {
namespace {

/// A folder that holds one file, "f", so that it is not empty.
struct Scratch {
  Scratch() { std::ofstream(temp.path("f")) << "kept"; }
  TempDir temp;

  bool holdsOnlyTheFile() const {
    auto entry = fs::directory_iterator(temp.path());
    return entry->path().filename() == "f" && entry->file_size() == 4 &&
           ++entry == fs::directory_iterator();
  }
  void clear() const {
    for (auto const& entry : fs::directory_iterator(temp.path())) {
      if (entry.path().filename() != "f") fs::remove_all(entry.path());
    }
  }
};

std::vector<std::string> components(std::string const& path) {
  std::vector<std::string> result{""};
  for (char const c : path) {
    if (c == '/') {
      result.emplace_back();
    } else {
      result.back() += c;
    }
  }
  return result;
}

enum class Kind { impossible, there, file, makes };

Kind kindOf(std::string const& path, std::size_t length) {
  if (length >= PATH_MAX) return Kind::impossible;
  bool file = false, beyondFile = false, any = false;
  for (auto const& part : components(path)) {
    if (part.size() > NAME_MAX) return Kind::impossible;
    if (part.empty()) continue;
    beyondFile |= file;
    file |= !any && part == "f";
    any |= part != ".";
  }
  if (beyondFile) return Kind::impossible;
  return file ? Kind::file : any ? Kind::makes : Kind::there;
}

// Several slashes in front would name the scratch folder itself; rmdir(2) refuses ".".
bool trims(std::string const& path) {
  if (path.substr(0, 2) == "//") return false;
  for (auto const& part : components(path)) {
    if (part == ".") return false;
  }
  return true;
}

void checkMade(Scratch const& scratch, std::string const& path, mode_t mode) {
  std::string const absolute = scratch.temp.path(path);
  Kind const kind = kindOf(path, absolute.size());
  int const result = Util::mkpath(absolute, mode);
  FUZZ_CHECK((result == 0) == (kind != Kind::impossible), absolute << ": " << std::strerror(errno));
  mode_t const umaskNow = ::umask(077);
  FUZZ_CHECK(umaskNow == 077, "umask " << umaskNow);
  if (kind != Kind::makes) return;

  struct stat info {};
  FUZZ_CHECK(::stat(absolute.c_str(), &info) == 0 && S_ISDIR(info.st_mode), absolute);
  FUZZ_CHECK((info.st_mode & 07777) == mode, absolute << " " << info.st_mode);
  if (!trims(path)) return;
  FUZZ_CHECK(Util::trimpath(absolute, path) == 0, absolute << ": " << std::strerror(errno));
  FUZZ_CHECK(scratch.holdsOnlyTheFile(), absolute);
}

void checkTrimmed(Scratch const& scratch, std::string const& path, std::string const& trailing) {
  std::string const absolute = scratch.temp.path(path);
  std::size_t const length = trailing.size();
  bool const allowed = length > 0 && length < absolute.size() &&
                       absolute.compare(absolute.size() - length, length, trailing) == 0;
  if (allowed && length > path.size()) return;  // would reach out of the scratch folder
  try {
    int const result = Util::trimpath(absolute, trailing);
    FUZZ_CHECK(allowed, absolute << " and " << trailing);
    FUZZ_CHECK(result != 0 || !fs::exists(absolute) || kindOf(path, 0) == Kind::there, absolute);
  } catch (AssertException const&) {
    FUZZ_CHECK(!allowed, absolute << " and " << trailing);
  }
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  static Scratch const scratch;
  static mode_t const umaskBefore = ::umask(077);
  (void)umaskBefore;
  static mode_t const modes[] = {0777, 0755, 0700};

  Input input(data, size);
  mode_t const mode = modes[input.below(3)];
  std::string const path = input.line();
  std::string const trailing = input.line();
  if ((path + trailing).find('\0') != std::string::npos) return -1;
  for (auto const& part : components(path)) {
    if (part == "..") return -1;  // leads out, and may
  }
  checkMade(scratch, path, mode);
  checkTrimmed(scratch, path, trailing);
  scratch.clear();
  return 0;
}
