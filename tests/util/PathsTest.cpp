#include <unistd.h>

#include <set>

#include "Kiv/Model.h"
#include "Veltro/DirNode.h"
#include "Veltro/Exception.h"
#include "Veltro/RootPath.h"
#include "tests/support/Asserts.h"
#include "tests/support/StandardError.h"
#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

using PathsTest = UtilTest;
using DirNodeTest = UtilTest;
using RootPathTest = UtilTest;

// The fuzz target `paths` holds both operations to a reference.
TEST_F(PathsTest, mkpathMakesWhatIsMissing) {
  EXPECT_EQ(0, Util::mkpath(folder.path("s/t/u"), 02775));
  EXPECT_EQ(02775u, mode(folder.path("s/t/u")));
  EXPECT_EQ(02775u, mode(folder.path("s/t"))) << "parents too";
  EXPECT_EQ(0, Util::mkpath(folder.path(), 0777));
  EXPECT_EQ(0700u, mode(folder.path())) << "there already, not chmodded";
  ASSERT_EQ(0, ::symlink("/nowhere/at/all", folder.path("dangling").c_str()));
  for (std::string const& path : {folder.path("dangling/x"), std::string()}) {
    EXPECT_EQ(-1, Util::mkpath(path, 0777));
    EXPECT_EQ(ENOENT, errno);
  }
}

TEST_F(PathsTest, theWorkingDirectoryMayBeGone) {
  inChild([this] {
    ASSERT_EQ(0, ::chdir(folder.path().c_str()));
    EXPECT_EQ(folder.path(), Util::getCwd(handler));
    ASSERT_EQ(0, ::rmdir(folder.path().c_str()));
    EXPECT_EQ(-1, Util::mkpath("x/y", 0777)) << "which is no endless loop";
    EXPECT_EQ("", Util::getCwd(handler));
    EXPECT_THAT(records(),
                ElementsAre("0 Util::getCwd() getcwd()  failed: No such file or directory"));
  });
}

TEST_F(PathsTest, trimpathRefusesInThisOrder) {
  char const* const cases[][3] = {
      {"", "", "absolute path is empty"},
      {"x/y", "", "absolute path is not absolute"},
      {"/x/y", "", "trailing path is empty"},
      {"/x/y", "/x/y", "trailing path longer than absolute path"},
      {"/x/y", "x", "trailing path is not a terminal substring of absolute path"},
  };
  for (auto const& c : cases) {
    EXPECT_THAT([&c] { Util::trimpath(c[0], c[1]); }, asserts("Veltro/UtilCpp", "trimpath", c[2]));
  }
}

TEST_F(PathsTest, trimpathRemovesTheEmptyEndAndTellsItsSteps) {
  std::string const x = folder.path("x");
  inChild([&x] {
    Platform::setTraceFormat("%l %m");
    Platform::setupVeltroDebug("VeltroUtil");
    EXPECT_THAT(
        standardError([&x] {
          Util::mkpath(x + "/yy", 0750);
          EXPECT_EQ(-1, Util::trimpath(x, "x"));
          EXPECT_EQ(ENOTEMPTY, errno);
          EXPECT_EQ(0, Util::trimpath(x + "/yy/z", "y/z"));
        }),
        ElementsAre("9 Util::::mkpath() creating path: " + x + "/yy mode: 750",
                    "9 Util::::mkpath() creating path: " + x + " mode: 750",
                    "9 Util::trimpath() removing dir " + x,
                    "5 Util::trimpath() rmdir() error " + x + " reason: Directory not empty",
                    "9 Util::trimpath() removing dir " + x + "/yy/z",
                    "9 Util::trimpath() removing dir " + x + "/yy",
                    "5 Util::trimpath() removed sub-tree y/z from absolute path " + x + "/yy/z"));
  });
  EXPECT_EQ(0u, mode(x + "/yy"));
  EXPECT_TRUE(Util::mkpath(x + "/y", 0750) == 0 && Util::trimpath(x + "/y", "/y") == 0);
  EXPECT_NE(0u, mode(x));
}

TEST_F(DirNodeTest, readsAllEntriesStartsOverAndSaysWhatFails) {
  std::string const path = folder.path("dir");
  Util::touch(handler, path);
  int const under = nextDescriptors()[0];
  {
    DirNode node(handler, path);
    EXPECT_FALSE(node.isOpen() || node.readEntry() != nullptr || node.openDir());
    EXPECT_THAT(records(),
                ElementsAre("5 DirNode::DirNode() path: " + path,
                            "1 DirNode::DirNode() failed to open " + path + " errno: 20",
                            "5 DirNode::readEntry() path: " + path,
                            "1 DirNode::readEntry() cannot read " + path +
                                " because the directory is not open",
                            "1 DirNode::openDir() failed to open " + path + " errno: 20"));
    handler.enabledIs(5, false);
    ::unlink(path.c_str());
    Util::mkpath(path + "/b\nc", 0777);
    for (int round = 0; round < 2; ++round) {
      EXPECT_TRUE(node.openDir());
      std::multiset<std::string> names;
      errno = EIO;  // of before: the end is no error
      while (dirent const* const entry = node.readEntry()) names.insert(entry->d_name);
      EXPECT_THAT(names, ElementsAre(".", "..", "b\nc"));
    }
    ::dup2(0, under);  // its descriptor becomes something else, and is taken away
    EXPECT_EQ(nullptr, node.readEntry());
    ::close(under);
    EXPECT_TRUE(node.openDir());
    ::close(under);
  }
  EXPECT_THAT(
      records(),
      ElementsAre("1 DirNode::readEntry() failed to read " + path + " errno: 20",
                  "1 DirNode::openDir() failed to close " + path + " before reopening. errno: 9",
                  "1 DirNode::~DirNode() failed to close " + path + " errno: 9"));
}

TEST_F(RootPathTest, worksOnTheDirectoryAndIsTriedAgainUntilItIsReady) {
  std::string const inTheWay = folder.path("shmem");
  Util::touch(handler, inTheWay);
  auto const path = rootPathBaseFactory(folder.path(), "shmem", "a", true);
  EXPECT_FALSE(path->initialized());
  EXPECT_TRUE(Util::fileRemove(handler, inTheWay));
  path->handleInitialized();
  EXPECT_TRUE(path->initialized() && path->exists());

  std::string const file = path->fullPath("f").stdString();
  EXPECT_EQ(inTheWay + "/a/f", file);
  Util::touch(handler, file);
  EXPECT_FALSE(path->removeFile("../a"));
  EXPECT_TRUE(path->removeFile("f"));
  EXPECT_FALSE(Util::fileExists(handler, file));
  EXPECT_TRUE(path->cleanup());
  path->handleInitialized();
  EXPECT_FALSE(path->exists()) << "another platform object made the directory again";
  EXPECT_TRUE(path->doCreate() && path->exists());
}

TEST_F(RootPathTest, isCalledByName) {
  auto const path = rootPathFactory("counters/no such base/mgr", false);
  EXPECT_TRUE(path->initialized()) << "missing, and not to be made";
  Kiv::Reflection byName(*path);
  EXPECT_EQ("Veltro::RootPath", byName.model().typeName());
  EXPECT_EQ(Kiv::Value("/var/shmem/shmem/counters/no such base/mgr/f"),
            byName.call("fullPath", {{"filename", "f"}}));
  EXPECT_THROW(byName.attributeIs("root", "/"), Kiv::RangeException);
  byName.call("handleDestruction");
  EXPECT_THROW(path->fullPath(""), AssertException);
}

}  // namespace
}  // namespace Veltro
