// Root paths: joined and judged as a reference does, and never out of their root, whatever lies in
// the way.
#include <filesystem>
#include <fstream>
#include <vector>

#include "Mem/RootPath.h"
#include "fuzz/support/Fuzz.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Veltro::fuzz {
namespace {

Platform::DebugHandler& handler() {
  static auto& made = *Platform::getDebugHandler("Fuzz");
  return made;
}

/// A root with a file and a link that leads out of it, to a folder that nobody may touch.
struct Scratch {
  Scratch() {
    fs::create_directory(root);
    fs::create_directory(temp.path("outside"));
    fs::create_directory_symlink(temp.path("outside"), root + "/link");
    std::ofstream(root + "/file") << "kept";
    std::ofstream(temp.path("outside/precious")) << "kept";
  }
  bool nothingOutsideHasChanged() const {
    return entries(temp.path()) == 2 && entries(temp.path("outside")) == 1 &&
           fs::file_size(temp.path("outside/precious")) == 4;
  }
  // The link and the file, if they were not the very thing to remove, are as they were.
  void clear() const {
    fs::remove_all(root);
    fs::create_directory(root);
    fs::create_directory_symlink(temp.path("outside"), root + "/link");
    std::ofstream(root + "/file") << "kept";
  }
  static long entries(std::string const& directory) {
    return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
  }
  TempDir temp;
  std::string const root = temp.path("root");
};

struct Reference {
  std::string joined;
  bool valid = true;

  Reference& operator/(std::string const& path) {
    for (Input parts(reinterpret_cast<std::uint8_t const*>(path.data()), path.size());
         !parts.empty();) {
      std::string const part = parts.until('/');
      valid &= part != ".." && part.find('\0') == std::string::npos;
      if (!part.empty() && part != ".") joined += "/" + part;
    }
    return *this;
  }
};

void checkJoined(std::string const& root, std::string const& prefix, std::string const& directory,
                 std::string const& name) {
  Reference reference;
  reference / root / prefix / directory;
  reference.valid &= root.substr(0, 1) == "/";
  std::string const joined = reference.joined.empty() ? "/" : reference.joined;
  Mem::RootPath const path(handler(), root, prefix, directory, false);
  FUZZ_CHECK(path.valid() == reference.valid, joined);
  FUZZ_CHECK(path.fullPath() == joined, path.fullPath() << " is not " << joined);
  FUZZ_CHECK(path.fullPath("") == joined, path.fullPath(""));
  if (name.empty()) return;
  FUZZ_CHECK(path.fullPath(name) == (joined == "/" ? "" : joined) + "/" + name, name);
}

void checkOnDisk(Scratch const& scratch, std::string const& prefix, std::string const& directory,
                 std::string const& name) {
  Mem::RootPath path(handler(), scratch.root, prefix, directory, true);
  bool const made = path.valid();
  FUZZ_CHECK(path.exists() == made, path.fullPath());
  FUZZ_CHECK(!made || fs::is_directory(path.fullPath()), path.fullPath());
  bool const refused =
      name.empty() || name.find('/') != std::string::npos || name.find('\0') != std::string::npos;
  if (made && !refused && name.size() <= 255) std::ofstream(path.fullPath(name)) << "x";
  bool const removed = path.removeFile(name);
  FUZZ_CHECK(!removed || (!refused && !fs::exists(path.fullPath(name))), path.fullPath(name));
  FUZZ_CHECK(scratch.nothingOutsideHasChanged(), path.fullPath(name));

  bool const cleaned = path.cleanup();
  FUZZ_CHECK(!cleaned || !path.exists(), path.fullPath());
  Reference own;
  own / directory;
  FUZZ_CHECK(cleaned == (made && !own.joined.empty()), path.fullPath());
  FUZZ_CHECK(scratch.nothingOutsideHasChanged(), path.fullPath());
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  static Scratch const scratch;
  Input input(data, size);
  std::string const root = input.line();
  std::string const prefix = input.line();
  std::string const directory = input.line();
  std::string const name = input.line();
  checkJoined(root, prefix, directory, name);
  checkOnDisk(scratch, prefix, directory, name);
  scratch.clear();
  return 0;
}
