#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Veltro/UtilCpp.h"
#include "tests/support/Asserts.h"
#include "tests/support/Child.h"
#include "tests/support/RecordingHandler.h"
#include "tests/support/TempDir.h"

namespace Veltro {
namespace {

/// Standard error while "VeltroUtil" is on, as lines of "level text".
template <typename Body>
std::string tracedBy(Body body) {
  Platform::setTraceFormat("%l %m");
  Platform::setupVeltroDebug("VeltroUtil");
  testing::internal::CaptureStderr();
  body();
  std::string text = testing::internal::GetCapturedStderr();
  Platform::clearVeltroDebug("VeltroUtil");
  Platform::clearTraceFormat();
  return text;
}

/// Mode bits, 0 when there is nothing.
unsigned mode(std::string const& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777u : 0;
}

struct PathsTest : testing::Test {
  PathsTest() { ::umask(027); }
  ~PathsTest() override { EXPECT_EQ(027u, ::umask(022)) << "the umask was lost"; }
  TempDir folder;
  RecordingHandler handler;
};

TEST_F(PathsTest, mkpathMakesWhatIsMissing) {
  Util::touch(handler, folder.path("file"));
  ASSERT_EQ(0, ::symlink("/nowhere/at/all", folder.path("dangling").c_str()));
  ASSERT_EQ(0, ::mkdir(folder.path("old").c_str(), 0700));
  struct {
    char const* name;
    std::string path;
    unsigned wanted;
    int error;  // 0 for success
    unsigned mode;
    char const* parent;
    unsigned parentMode;
  } const cases[] = {
      {"one level", folder.path("one"), 0775, 0, 0775, ".", 0700},
      {"three levels", folder.path("a/b/c"), 0751, 0, 0751, "a/b", 0751},
      {"set-id where parents were missing", folder.path("s/t/u"), 02775, 0, 02775, "s/t", 02775},
      {"slash at the end", folder.path("d/e/"), 0770, 0, 0770, "d", 0770},
      {"there already, not chmodded", folder.path("old"), 0777, 0, 0700, ".", 0700},
      {"there already, no folder", folder.path("file"), 0777, 0, 0666, ".", 0700},
      {"below a file", folder.path("file/x/y"), 0777, ENOTDIR, 0, "file", 0666},
      {"below a dangling link", folder.path("dangling/x"), 0777, ENOENT, 0, "dangling", 0},
      {"too long", folder.path(std::string(300, 'n')), 0777, ENAMETOOLONG, 0, ".", 0700},
      {"empty", "", 0777, ENOENT, 0, ".", 0700},
      {"root", "/", 0777, 0, mode("/"), ".", 0700},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    errno = 0;
    int const result = Util::mkpath(c.path, c.wanted);
    EXPECT_EQ(c.error, result == 0 ? 0 : errno);
    EXPECT_EQ(c.mode, mode(c.path));
    EXPECT_EQ(c.parentMode, mode(folder.path(c.parent)));
    EXPECT_EQ(027u, ::umask(027));
  }
}

TEST_F(PathsTest, aRemovedWorkingDirectoryIsNoEndlessLoop) {
  inChild([this] {
    std::string const gone = folder.path("gone");
    ASSERT_EQ(0, Util::mkpath(gone, 0777));
    ASSERT_EQ(0, ::chdir(gone.c_str()));
    ASSERT_EQ(0, Util::trimpath(gone, "gone"));
    EXPECT_EQ(-1, Util::mkpath("x", 0777));
    EXPECT_EQ(-1, Util::mkpath("x/y/z", 0777));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("", Util::getCwd(handler));
    EXPECT_THAT(
        handler.records,
        testing::ElementsAre("0 Util::getCwd() getcwd()  failed: No such file or directory"));
  });
}

TEST_F(PathsTest, getCwdKnowsPathsOfAnyLength) {
  inChild([this] {
    std::string expected = folder.path();
    std::string const name(200, 'n');
    ASSERT_EQ(0, ::chdir(expected.c_str()));
    for (int i = 0; i < 30; ++i) {
      ASSERT_EQ(0, Util::mkpath(name, 0700));
      ASSERT_EQ(0, ::chdir(name.c_str()));
      expected += "/" + name;
    }
    EXPECT_EQ(expected, Util::getCwd(handler));
    EXPECT_THAT(handler.records, testing::IsEmpty());
  });
}

TEST_F(PathsTest, trimpathRemovesTheEmptyEnd) {
  struct {
    char const* name;
    char const* made;
    char const* stem;
    char const* trailing;
    int error;
    char const* left;
    char const* gone;
  } const cases[] = {
      {"two of three", "x/y/z", "x/", "y/z", 0, "x", "x/y"},
      {"from its slash on", "x/y/z", "x", "/y/z", 0, "x", "x/y"},
      {"slash at the end", "x/y/z", "x/", "y/z/", 0, "x", "x/y"},
      {"half a name stays", "x/yy/z", "x/y", "y/z", 0, "x", "x/yy"},
      {"the deepest is missing", "x/y", "x/", "y/z", 0, "x", "x/y"},
      {"all but the first", "x", "", "x", 0, ".", "x"},
      {"not empty", "x/y/z/more", "x/", "y/z", ENOTEMPTY, "x/y/z/more", "none"},
      {"a file", "x/y", "x/", "file", ENOTDIR, "x/file", "none"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir own;
    ASSERT_EQ(0, Util::mkpath(own.path(c.made), 0777));
    Util::touch(handler, own.path("x/file"));
    if (c.error == 0) ::unlink(own.path("x/file").c_str());
    int const result = Util::trimpath(own.path(c.stem) + c.trailing, c.trailing);
    EXPECT_EQ(c.error, result == 0 ? 0 : errno);
    EXPECT_NE(0u, mode(own.path(c.left)));
    EXPECT_EQ(0u, mode(own.path(c.gone)));
  }
}

TEST_F(PathsTest, trimpathRefusesInThisOrder) {
  struct {
    char const* absolute;
    char const* trailing;
    char const* text;
  } const cases[] = {
      {"", "", "absolute path is empty"},
      {"x/y", "", "absolute path is not absolute"},
      {"/x/y", "", "trailing path is empty"},
      {"/x/y", "/x/y", "trailing path longer than absolute path"},
      {"/x/y", "/longer", "trailing path longer than absolute path"},
      {"/x/y", "x", "trailing path is not a terminal substring of absolute path"},
  };
  for (auto const& c : cases) {
    EXPECT_THAT([&c] { Util::trimpath(c.absolute, c.trailing); },
                asserts("Veltro/UtilCpp", "trimpath", c.text));
  }
}

TEST_F(PathsTest, stepsAreTracedUnderVeltroUtil) {
  std::string const root = folder.path();
  EXPECT_EQ("9 Util::::mkpath() creating path: " + root + "/x/y mode: 750\n" +
                "9 Util::::mkpath() creating path: " + root + "/x mode: 750\n",
            tracedBy([&root] { Util::mkpath(root + "/x/y", 0750); }));
  EXPECT_EQ("9 Util::::mkpath() creating path: /dev/null/x/y mode: 750\n",
            tracedBy([] { Util::mkpath("/dev/null/x/y", 0750); }));
  EXPECT_EQ("9 Util::trimpath() removing dir " + root + "/x\n" +
                "5 Util::trimpath() rmdir() error " + root + "/x reason: Directory not empty\n",
            tracedBy([&root] { Util::trimpath(root + "/x", "x"); }));
  EXPECT_EQ("9 Util::trimpath() removing dir " + root + "/x/y\n" +
                "9 Util::trimpath() removing dir " + root + "/x\n" +
                "5 Util::trimpath() removed sub-tree x/y from absolute path " + root + "/x/y\n",
            tracedBy([&root] { Util::trimpath(root + "/x/y", "x/y"); }));
}

}  // namespace
}  // namespace Veltro
