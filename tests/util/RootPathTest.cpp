#include "Veltro/RootPath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Kiv/Model.h"
#include "Mem/RootPath.h"
#include "Veltro/Exception.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Veltro {
namespace {

struct RootPathTest : testing::Test {
  TempDir temp;
  Kiv::Ptr<RootPathBase> make(Kiv::String const& dirName, bool create) {
    return rootPathBaseFactory(temp.path(), "shmem", dirName, create);
  }
};

TEST_F(RootPathTest, isReadyWhenThePathCanBeUsed) {
  std::ofstream(temp.path("file")) << "x";
  struct {
    char const* name;
    std::string root;
    char const* dirName;
    bool create, initialized, exists;
  } const cases[] = {
      {"missing, not to be made", temp.path(), "a/b", false, true, false},
      {"made with all its parents", temp.path("new"), "a/b", true, true, true},
      {"cannot be made", temp.path("file"), "a", true, false, false},
      {"leads out of the root", temp.path(), "a/../..", true, false, false},
      {"root not absolute", "relative", "a", false, false, false},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    auto const path = rootPathBaseFactory(c.root, "shmem", c.dirName, c.create);
    EXPECT_EQ(c.initialized, path->initialized());
    EXPECT_EQ(c.exists, path->exists());
    EXPECT_EQ(c.create, path->create());
    EXPECT_EQ(c.dirName, path->dirName().stdString());
  }
}

TEST_F(RootPathTest, worksOnTheDirectory) {
  auto const path = make("counters/base", false);
  EXPECT_EQ(temp.path("shmem/counters/base"), path->fullPath("").stdString());
  EXPECT_EQ(temp.path("shmem/counters/base/f"), path->fullPath("f").stdString());
  EXPECT_TRUE(path->doCreate());
  EXPECT_TRUE(path->exists());
  std::ofstream(path->fullPath("f").charPtr()) << "x";
  EXPECT_TRUE(path->removeFile("f"));
  EXPECT_FALSE(fs::exists(path->fullPath("f").stdString()));
  EXPECT_FALSE(path->removeFile("../base"));
  std::ofstream(path->fullPath("g").charPtr()) << "x";
  EXPECT_TRUE(path->cleanup());
  EXPECT_FALSE(path->exists());
}

TEST_F(RootPathTest, anInvalidOneIsTriedAgainAndAReadyOneIsNot) {
  struct Listener final : RootPathBase::Notifiee {
    using Notifiee::Notifiee;
    void onInitialized() override { ++calls; }
    int calls = 0;
  };
  std::ofstream(temp.path("shmem")) << "in the way";
  auto const path = make("a", true);
  auto const listener = Kiv::allocate<Listener>(path);
  EXPECT_FALSE(path->initialized());
  path->handleInitialized();
  EXPECT_FALSE(path->initialized());

  fs::remove(temp.path("shmem"));
  path->handleInitialized();
  EXPECT_TRUE(path->initialized() && path->exists());
  path->cleanup();
  path->handleInitialized();
  EXPECT_FALSE(path->exists()) << "another platform object made the directory again";
  EXPECT_EQ(1, listener->calls);
}

TEST_F(RootPathTest, isCalledByName) {
  auto const path = rootPathFactory("counters/no such base/mgr", false);
  Kiv::Reflection byName(*path);
  EXPECT_EQ("Veltro::RootPath", byName.model().typeName());
  EXPECT_EQ(Kiv::Value("/var/shmem"), byName.attribute("root"));
  EXPECT_EQ(Kiv::Value("shmem"), byName.attribute("prefix"));
  EXPECT_EQ(Kiv::Value("/var/shmem/shmem/counters/no such base/mgr/f"),
            byName.call("fullPath", {{"filename", "f"}}));
  EXPECT_EQ(Kiv::Value(false), byName.call("exists"));
  EXPECT_THROW(byName.call("fullPath", {{"name", "f"}}), Kiv::RangeException);
  EXPECT_THROW(byName.attributeIs("root", "/"), Kiv::RangeException);
  byName.call("handleDestruction");
  EXPECT_THROW(path->fullPath(""), AssertException);
}

}  // namespace
}  // namespace Veltro
