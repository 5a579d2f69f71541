#include "Mem/RootPath.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support/RecordingHandler.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace Mem {
namespace {

struct RootPathTest : testing::Test {
  Veltro::TempDir temp;
  Veltro::RecordingHandler handler;

  RootPath make(std::string const& prefix, std::string const& dirName, bool create = false) {
    return RootPath(handler, temp.path(), prefix, dirName, create);
  }
  void file(std::string const& name) { std::ofstream(temp.path(name)) << "content"; }
};

TEST_F(RootPathTest, joinsWithSingleSlashesAndJudgesValidity) {
  struct {
    std::string root, prefix, dirName, fullPath;
    bool valid;
  } const cases[] = {
      {"/nowhere/r/", "/p/", "//d//e/", "/nowhere/r/p/d/e", true},
      {"/", "p", "d", "/p/d", true},
      {"/", "", "", "/", true},
      {"/nowhere/r", "p", "a..b/...", "/nowhere/r/p/a..b/...", true},
      {"", "p", "d", "/p/d", false},
      {"relative", "p", "d", "/relative/p/d", false},
      {"/nowhere/r", "p", "a/../b", "/nowhere/r/p/a/../b", false},
      {"/nowhere/r", "..", "d", "/nowhere/r/../d", false},
      {"/nowhere/..", "p", "d", "/nowhere/../p/d", false},
      {"/nowhere/r", "p", "..\0x"s, "/nowhere/r/p/..\0x"s, false},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.fullPath);
    RootPath const path(handler, c.root, c.prefix, c.dirName, false);
    EXPECT_EQ(c.fullPath, path.fullPath());
    EXPECT_EQ(c.fullPath, path.fullPath(""));
    EXPECT_EQ(c.fullPath + (path.fullPath() == "/" ? "x" : "/x"), path.fullPath("x"));
    EXPECT_EQ(c.valid, path.valid());
    EXPECT_FALSE(c.valid && path.fullPath() != "/" && path.exists());
  }
}

TEST_F(RootPathTest, createsAllParentsOpenToAll) {
  mode_t const before = ::umask(077);
  RootPath const path(handler, temp.path("root/of/it"), "p", "a/b", true);
  EXPECT_EQ(077u, ::umask(before));
  ASSERT_TRUE(path.valid());
  for (char const* made : {"root", "root/of/it/p", "root/of/it/p/a/b"}) {
    EXPECT_EQ(fs::perms::all, fs::status(temp.path(made)).permissions()) << made;
  }
}

TEST_F(RootPathTest, removesOneFileInItself) {
  RootPath path = make("p", "d", true);
  file("p/d/one");
  file("p/outside");
  fs::create_directory(path.fullPath("sub"));
  struct {
    std::string name;
    bool removed;
  } const cases[] = {{"one\0x"s, false},    {"one", true}, {"missing", true}, {"", false},
                     {"../outside", false}, {"..", false}, {"sub", false},    {".", false}};
  for (auto const& c : cases) EXPECT_EQ(c.removed, path.removeFile(c.name)) << c.name;
  EXPECT_FALSE(fs::exists(path.fullPath("one")));
  EXPECT_TRUE(fs::exists(temp.path("p/outside")));
  EXPECT_TRUE(make("p", "not there").removeFile("x"));
}

TEST_F(RootPathTest, cleanupTakesItsOwnAndItsEmptyParents) {
  RootPath path = make("p", "a/b/c", true);
  file("p/a/sibling");
  file("p/a/b/c/file");
  fs::create_directory(path.fullPath("deep"));
  file("p/a/b/c/deep/file");
  fs::create_directory(temp.path("outside"));
  file("outside/kept");
  fs::create_directory_symlink(temp.path("outside"), path.fullPath("link"));

  EXPECT_TRUE(path.cleanup());
  EXPECT_FALSE(fs::exists(temp.path("p/a/b")));  // b had nothing else
  EXPECT_TRUE(fs::exists(temp.path("p/a/sibling")));
  EXPECT_TRUE(fs::exists(temp.path("outside/kept")));
  EXPECT_TRUE(path.cleanup()) << "nothing there: gone already";

  EXPECT_TRUE(make("p", "x/y", true).cleanup());
  EXPECT_TRUE(fs::exists(temp.path("p"))) << "the prefix stays";
  EXPECT_FALSE(make("p", "").cleanup());
  EXPECT_TRUE(fs::exists(temp.path("p/a/sibling")));
}

}  // namespace
}  // namespace Mem
