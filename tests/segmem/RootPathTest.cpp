#include "Mem/RootPath.h"

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Mem/Shared.h"
#include "tests/support/Child.h"
#include "tests/support/RecordingHandler.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace Mem {
namespace {

struct RootPathTest : testing::Test {
  Veltro::TempDir temp;
  Veltro::RecordingHandler handler;

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

TEST_F(RootPathTest, makesAllParentsOpenToAllAndCleansUpItsOwnOnly) {
  mode_t const before = ::umask(077);
  RootPath path(handler, temp.path("root/of/it"), "p", "a/b/c", true);
  EXPECT_EQ(077u, ::umask(before));
  ASSERT_TRUE(path.valid());
  for (char const* made : {"root", "root/of/it/p", "root/of/it/p/a/b/c"}) {
    EXPECT_EQ(fs::perms::all, fs::status(temp.path(made)).permissions()) << made;
  }
  file("kept");
  file("root/of/it/p/a/sibling");
  fs::create_directory(path.fullPath("sub"));
  for (char const* name : {"one", "two", "sub/deep"}) std::ofstream(path.fullPath(name)) << "x";
  fs::create_directory_symlink(temp.path(), path.fullPath("link"));
  struct {
    std::string name;
    bool removed;
  } const cases[] = {{"one\0x"s, false},    {"one", true}, {"missing", true}, {"", false},
                     {"../sibling", false}, {"..", false}, {"sub", false},    {".", false}};
  for (auto const& c : cases) EXPECT_EQ(c.removed, path.removeFile(c.name)) << c.name;
  EXPECT_FALSE(fs::exists(path.fullPath("one")));

  EXPECT_TRUE(path.cleanup());
  EXPECT_FALSE(fs::exists(temp.path("root/of/it/p/a/b"))) << "it held nothing else";
  EXPECT_TRUE(fs::exists(temp.path("root/of/it/p/a/sibling")) && fs::exists(temp.path("kept")));
  EXPECT_TRUE(path.cleanup() && path.removeFile("x")) << "gone already";
  EXPECT_TRUE(RootPath(handler, temp.path("root"), "p", "x/y", true).cleanup());
  EXPECT_TRUE(fs::exists(temp.path("root/p"))) << "the prefix stays";
  EXPECT_FALSE(RootPath(handler, temp.path("root"), "p", "", true).cleanup());
}

TEST_F(RootPathTest, isMadeWhileAnotherCleansUp) {
  std::atomic<bool> done{false};
  std::thread other([&] {
    Veltro::RecordingHandler own;
    while (!done) RootPath(own, temp.path(), "p", "a/b/other", true).cleanup();
  });
  for (int i = 0; i < 100; ++i) {
    RootPath path(handler, temp.path(), "p", "a/b/own", true);
    EXPECT_TRUE(path.valid());
    path.cleanup();
    RootPath segments(handler, temp.path(), "p", "a/b/segments", false);
    Shared segment(segments.fullPath(), "file", true, Shared::SHARED_DEFAULT_FLAGS, false);
    EXPECT_NE(nullptr, segment.attach(1, Mode::shared, true, "")) << std::strerror(errno);
    segments.cleanup();
  }
  done = true;
  other.join();
}

TEST_F(RootPathTest, directoriesAboveNeedNotBeListed) {
  ASSERT_EQ(0, ::chmod(temp.path().c_str(), 0333));
  Veltro::inChild([this] {
    ::setfsuid(65534);  // nobody's leave, not root's
    RootPath path(handler, temp.path(), "p", "d", true);
    EXPECT_TRUE(path.valid() && path.exists() && path.removeFile("x") && path.cleanup());
  });
  ::chmod(temp.path().c_str(), 0700);
}

}  // namespace
}  // namespace Mem
