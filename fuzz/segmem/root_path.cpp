// Root paths: joined and judged as a reference does, and never out of their root, whatever lies in
// the way.
#include <filesystem>
#include <fstream>

#include "Mem/RootPath.h"
#include "fuzz/support/Fuzz.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Veltro::fuzz {
namespace {

Platform::DebugHandler& handler = *Platform::getDebugHandler("Fuzz");

/// A root with a file and a link that leads out of it, to a folder that nobody may touch.
struct Scratch {
  Scratch() {
    fs::create_directory(temp.path("outside"));
    std::ofstream(temp.path("outside/precious")) << "kept";
  }
  void begin() const {
    fs::remove_all(root);
    fs::create_directory(root);
    fs::create_directory_symlink(temp.path("outside"), root + "/link");
    std::ofstream(root + "/file") << "kept";
  }
  bool nothingOutsideHasChanged() const {
    return entries(temp.path()) == 2 && entries(temp.path("outside")) == 1 &&
           fs::file_size(temp.path("outside/precious")) == 4;
  }
  static long entries(std::string const& directory) {
    return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
  }
  TempDir temp;
  std::string const root = temp.path("root");
};

struct Reference {
  explicit Reference(std::string const& path) {
    for (std::string const& part : split(path, '/')) {
      valid &= part != ".." && part.find('\0') == std::string::npos;
      if (!part.empty() && part != ".") joined += "/" + part;
    }
  }
  std::string joined;
  bool valid = true;
};

void checkJoined(std::string const& root, std::string const& prefix, std::string const& directory,
                 std::string const& name) {
  Reference const reference(root + "/" + prefix + "/" + directory);
  std::string const joined = reference.joined.empty() ? "/" : reference.joined;
  Mem::RootPath const path(handler, root, prefix, directory, false);
  FUZZ_CHECK(path.valid() == (reference.valid && root.substr(0, 1) == "/"), joined);
  FUZZ_CHECK(path.fullPath() == joined, path.fullPath() << " is not " << joined);
  FUZZ_CHECK(path.fullPath("") == joined, path.fullPath(""));
  FUZZ_CHECK(name.empty() || path.fullPath(name) == reference.joined + "/" + name, name);
}

void checkOnDisk(Scratch const& scratch, std::string const& prefix, std::string const& directory,
                 std::string const& name) {
  scratch.begin();
  Mem::RootPath path(handler, scratch.root, prefix, directory, true);
  bool const made = path.valid();
  FUZZ_CHECK(path.exists() == made, path.fullPath());
  FUZZ_CHECK(!made || fs::is_directory(path.fullPath()), path.fullPath());
  bool const refused = name.empty() || name.find_first_of("/\0", 0, 2) != std::string::npos;
  if (made && !refused && name.size() <= 255) std::ofstream(path.fullPath(name)) << "x";
  bool const removed = path.removeFile(name);
  FUZZ_CHECK(!removed || (!refused && !fs::exists(path.fullPath(name))), path.fullPath(name));
  FUZZ_CHECK(scratch.nothingOutsideHasChanged(), path.fullPath(name));

  bool const cleaned = path.cleanup();
  FUZZ_CHECK(!cleaned || !path.exists(), path.fullPath());
  FUZZ_CHECK(cleaned == (made && !Reference(directory).joined.empty()), path.fullPath());
  FUZZ_CHECK(scratch.nothingOutsideHasChanged(), path.fullPath());
}

}  // namespace

int run(Input& input) {
  static Scratch const scratch;
  std::string const root = input.line();
  std::string const prefix = input.line();
  std::string const directory = input.line();
  std::string const name = input.line();
  checkJoined(root, prefix, directory, name);
  checkOnDisk(scratch, prefix, directory, name);
  return 0;
}

}  // namespace Veltro::fuzz
