#include "Veltro/RootPath.h"

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

TEST(RootPathTest, isReadyWhenThePathCanBeUsed) {
  TempDir temp;
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
  }
}

TEST(RootPathTest, worksOnTheDirectoryAndIsTriedAgainUntilItIsReady) {
  struct Listener final : RootPathBase::Notifiee {
    using Notifiee::Notifiee;
    void onInitialized() override { ++calls; }
    int calls = 0;
  };
  TempDir temp;
  std::ofstream(temp.path("shmem")) << "in the way";
  auto const path = rootPathBaseFactory(temp.path(), "shmem", "a", true);
  auto const listener = Kiv::allocate<Listener>(path);
  path->handleInitialized();
  EXPECT_FALSE(path->initialized());
  fs::remove(temp.path("shmem"));
  path->handleInitialized();
  EXPECT_TRUE(path->initialized() && path->exists());

  std::string const file = path->fullPath("f").stdString();
  EXPECT_EQ(temp.path("shmem/a/f"), file);
  std::ofstream(file) << "x";
  EXPECT_FALSE(path->removeFile("../a"));
  EXPECT_TRUE(path->removeFile("f"));
  EXPECT_FALSE(fs::exists(file));
  std::ofstream(file) << "x";
  EXPECT_TRUE(path->cleanup());
  path->handleInitialized();
  EXPECT_FALSE(path->exists()) << "another platform object made the directory again";
  EXPECT_TRUE(path->doCreate() && path->exists());
  EXPECT_EQ(1, listener->calls);
}

TEST(RootPathTest, isCalledByName) {
  auto const path = rootPathFactory("counters/no such base/mgr", false);
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
