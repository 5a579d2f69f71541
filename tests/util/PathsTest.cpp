#include <unistd.h>

#include <cerrno>

#include "tests/support/Asserts.h"
#include "tests/support/StandardError.h"
#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

using testing::ElementsAre;
using PathsTest = UtilTest;

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
      {"three levels", folder.path("a/b/c"), 0751, 0, 0751, "a/b", 0751},
      {"set-id where parents were missing", folder.path("s/t/u"), 02775, 0, 02775, "s/t", 02775},
      {"slash at the end", folder.path("d/e/"), 0770, 0, 0770, "d", 0770},
      {"there already, not chmodded", folder.path("old"), 0777, 0, 0700, ".", 0700},
      {"below a file", folder.path("file/x/y"), 0777, ENOTDIR, 0, "file", 0666},
      {"below a dangling link", folder.path("dangling/x"), 0777, ENOENT, 0, "dangling", 0},
      {"too long", folder.path(std::string(300, 'n')), 0777, ENAMETOOLONG, 0, ".", 0700},
      {"empty", "", 0777, ENOENT, 0, ".", 0700},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    int const result = Util::mkpath(c.path, c.wanted);
    EXPECT_EQ(c.error, result == 0 ? 0 : errno);
    EXPECT_EQ(c.mode, mode(c.path));
    EXPECT_EQ(c.parentMode, mode(folder.path(c.parent)));
    EXPECT_EQ(027u, ::umask(027));
  }
}

TEST_F(PathsTest, theWorkingDirectoryMayBeDeepOrGone) {
  inChild([this] {
    std::string deep = folder.path();
    std::string const name(200, 'n');
    ASSERT_EQ(0, ::chdir(deep.c_str()));
    for (int i = 0; i < 30; ++i) {
      ASSERT_EQ(0, Util::mkpath(name, 0700));
      ASSERT_EQ(0, ::chdir(name.c_str()));
      deep += "/" + name;
    }
    EXPECT_EQ(deep, Util::getCwd(handler));
    ASSERT_EQ(0, ::rmdir(("../" + name).c_str()));
    EXPECT_EQ(-1, Util::mkpath("x/y", 0777)) << "which is no endless loop";
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("", Util::getCwd(handler));
    EXPECT_THAT(records(),
                ElementsAre("0 Util::getCwd() getcwd()  failed: No such file or directory"));
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
      {"not empty", "x/y/z/more", "x/", "y/z", ENOTEMPTY, "x/y/z/more", "none"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir own;
    ASSERT_EQ(0, Util::mkpath(own.path(c.made), 0777));
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
      {"/x/y", "x", "trailing path is not a terminal substring of absolute path"},
  };
  for (auto const& c : cases) {
    EXPECT_THAT([&c] { Util::trimpath(c.absolute, c.trailing); },
                asserts("Veltro/UtilCpp", "trimpath", c.text));
  }
}

TEST_F(PathsTest, stepsAreTracedUnderVeltroUtil) {
  std::string const x = folder.path("x");
  Platform::setTraceFormat("%l %m");
  Platform::setupVeltroDebug("VeltroUtil");
  EXPECT_THAT(
      standardError([&x] {
        Util::mkpath(x + "/y", 0750);
        Util::trimpath(x, "x");
        Util::trimpath(x + "/y", "x/y");
      }),
      ElementsAre("9 Util::::mkpath() creating path: " + x + "/y mode: 750",
                  "9 Util::::mkpath() creating path: " + x + " mode: 750",
                  "9 Util::trimpath() removing dir " + x,
                  "5 Util::trimpath() rmdir() error " + x + " reason: Directory not empty",
                  "9 Util::trimpath() removing dir " + x + "/y",
                  "9 Util::trimpath() removing dir " + x,
                  "5 Util::trimpath() removed sub-tree x/y from absolute path " + x + "/y"));
  Platform::clearVeltroDebug("VeltroUtil");
  Platform::clearTraceFormat();
}

}  // namespace
}  // namespace Veltro
