// Everything that keeps files under a name which others can guess, against what others may do.
#include "tests/support/HostileDirectory.h"

#include <gtest/gtest.h>

#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"
#include "Mem/Shared.h"
#include "Veltro/ShmemMan.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {

constexpr int kDamaged = -1;  // read, and refused for what it says

int attach(HostileDirectory const& directory, std::string const& name) {
  Mem::Shared segment(directory.inside(), name, true, Mem::Shared::SHARED_DEFAULT_FLAGS, false);
  return segment.attach(4096, Mem::Mode::shared, true, "") != nullptr ? 0 : errno;
}

bool makeBelow(HostileDirectory const& directory, std::string const& name) {
  auto const below = rootPathBaseFactory(directory.inside(), "", name + "/below", true);
  bool const made = below->initialized() && below->exists();
  auto const own = rootPathBaseFactory(directory.inside(), "", name, false);
  if (own->initialized()) own->removeFile("victim");
  if (own->initialized()) own->cleanup();
  return made;
}

int reasonOf(std::function<void(Kiv::Ptr<ShmemMan> const&)> const& work) {
  try {
    work(Kiv::allocate<ShmemMan>("mgr", "base", 4u));
    return 0;
  } catch (Kiv::ErrnoException const& failure) {
    return failure.errnum();
  } catch (Kiv::RangeException const&) {
    return kDamaged;
  }
}

int load(HostileDirectory const& directory) {
  return reasonOf([&](auto const& man) { Kiv::AttributeLog::load(man, directory.path()); });
}

bool save(HostileDirectory const& directory) {
  return reasonOf([&](auto const& man) { Kiv::AttributeLog::save(*man, directory.path()); }) == 0;
}

TEST(HostileDirectoryTest, nothingIsFollowedWaitedForOrSpoilt) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to make devices";
  struct {
    char const* row;
    Plant plant;
    std::string name;
    int attached;  // errno; 0 is done
    int loaded;
    bool below, saved;
  } const cases[] = {
      {"link", Plant::link, "name", ELOOP, kDamaged, false, true},
      {"dangling link", Plant::danglingLink, "name", ELOOP, ENOENT, false, true},
      {"link to a directory", Plant::directoryLink, "name", ELOOP, EISDIR, false, true},
      {"hard link", Plant::hardLink, "name", EMLINK, kDamaged, false, true},
      {"directory", Plant::directory, "name", EISDIR, EISDIR, true, false},
      {"pipe", Plant::pipe, "name", EINVAL, EINVAL, false, true},
      {"socket", Plant::socket, "name", EINVAL, ENXIO, false, true},
      {"device", Plant::device, "name", EINVAL, EINVAL, false, true},
      {"another's", Plant::closedFile, "name", EACCES, EACCES, false, false},
      {"cut short", Plant::shortFile, "name", 0, kDamaged, false, true},
      {"above", Plant::nothing, "..", EISDIR, EISDIR, false, false},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.row);
    auto const with = [&](auto const& work) {
      HostileDirectory const directory(c.plant, c.name);
      inChild([&] {
        if (c.plant == Plant::closedFile) {
          ASSERT_EQ(0, ::setuid(65534));
        }
        int const descriptors = openDescriptors();
        work(directory);
        EXPECT_EQ(descriptors, openDescriptors());
      });
      EXPECT_TRUE(directory.outsideUntouched());
    };
    with([&](auto const& directory) { EXPECT_EQ(c.attached, attach(directory, c.name)); });
    with([&](auto const& directory) { EXPECT_EQ(c.below, makeBelow(directory, c.name)); });
    with([&](auto const& directory) { EXPECT_EQ(c.loaded, load(directory)); });
    with([&](auto const& directory) { EXPECT_EQ(c.saved, save(directory)); });
  }
}

}  // namespace
}  // namespace Veltro
