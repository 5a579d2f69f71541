#include "Mem/InotifyMgr.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Kiv/ActivityManager.h"
#include "Kiv/System.h"
#include "Mem/WatchDescriptor.h"
#include "tests/support/Child.h"
#include "tests/support/RecordingHandler.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Mem {
namespace {

using Event = std::pair<std::string, unsigned>;
using Events = std::vector<Event>;

Veltro::Platform::DebugHandler& debug() {
  static auto* const handler = new Veltro::RecordingHandler;
  return *handler;
}

struct Recorder final : InotifyMgr::Watcher {
  Recorder(unsigned mask, std::string const& path)
      : Watcher(debug()), watch(debug(), mask, path, this) {
    live = watch.initialize();
  }
  void notify(std::string const& name, unsigned int mask) override {
    events.emplace_back(name, mask);
    if (reaction) reaction();
  }
  WatchDescriptor::WatchDescriptor watch;
  bool live;
  Events events;
  std::function<void()> reaction;
};

struct InotifyMgrTest : testing::Test {
  Veltro::TempDir temp;

  void write(std::string const& name) { std::ofstream(temp.path(name)) << "x"; }
  // Lets the loop deliver all that the kernel has queued.
  static void turn() {
    auto& config = Kiv::ActivityManager::instance().config();
    config.virtualTimeIs(true);
    config.executionTimeIs(1);
    Kiv::System::doRun();
    config.virtualTimeIs(false);
  }
};

TEST_F(InotifyMgrTest, watchersOfOneFileShareItsNumberAndGetTheirOwnEventsOnly) {
  auto deleted = std::make_unique<Recorder>(IN_DELETE | IN_ONLYDIR, temp.path());
  auto both = std::make_unique<Recorder>(IN_CREATE | IN_DELETE, temp.path("."));
  int const wd = both->watch.wd();
  EXPECT_EQ(2u, InotifyMgr::getInotifyMgr().watchDescriptors().count(wd));
  EXPECT_EQ("Mem::(anonymous namespace)::Recorder", both->watch.type());
  auto const comesAndGoes = [this] {
    write("file");
    fs::remove(temp.path("file"));
    turn();
  };
  comesAndGoes();
  EXPECT_EQ((Events{{"file", IN_DELETE}}), deleted->events);
  EXPECT_EQ((Events{{"file", IN_CREATE}, {"file", IN_DELETE}}), both->events);
  both.reset();
  comesAndGoes();
  EXPECT_EQ(2u, deleted->events.size());
  deleted.reset();
  EXPECT_TRUE(InotifyMgr::getInotifyMgr().watchDescriptors().empty());
  Recorder again(IN_CREATE, temp.path());
  EXPECT_NE(wd, again.watch.wd()) << "the kernel had kept the old watch";
}

TEST_F(InotifyMgrTest, whoLeavesDoesNotNarrowAnotherFilesWatch) {
  write("a");
  write("b");
  auto leaver = std::make_unique<Recorder>(IN_ATTRIB, temp.path("a"));
  Recorder moved(IN_MODIFY, temp.path("a"));
  Recorder other(IN_MODIFY | IN_ATTRIB, temp.path("b"));
  fs::rename(temp.path("b"), temp.path("a"));  // the path of `moved` names another's file now
  leaver.reset();
  turn();
  other.events.clear();
  fs::permissions(temp.path("a"), fs::perms::all);
  turn();
  EXPECT_EQ((Events{{"", IN_ATTRIB}}), other.events);
}

TEST_F(InotifyMgrTest, aDeletedFileEndsItsWatchAndMayBeWatchedAnew) {
  write("file");
  Recorder first(IN_DELETE_SELF, temp.path("file"));
  auto second = std::make_unique<Recorder>(IN_ATTRIB, temp.path("file"));
  first.reaction = [&] {
    if (first.events.back().second != IN_IGNORED) return;
    second.reset();  // told next, had it stayed
    write("file");
    EXPECT_TRUE(first.watch.initialize());
  };
  fs::remove(temp.path("file"));
  turn();
  EXPECT_EQ((Events{{"", IN_DELETE_SELF}, {"", IN_IGNORED}}), first.events);
  EXPECT_GE(first.watch.wd(), 0);
  fs::remove(temp.path("file"));
  first.reaction = nullptr;
  turn();
  EXPECT_EQ(4u, first.events.size());
  EXPECT_EQ(-1, first.watch.wd());
}

TEST_F(InotifyMgrTest, anExceptionLeavesTheLoopAndCostsNobodyAnEvent) {
  Recorder bad(IN_CREATE, temp.path());
  Recorder once(IN_CREATE | IN_ONESHOT, temp.path());
  Recorder good(IN_CREATE, temp.path());
  bad.reaction = [] { throw std::runtime_error("no"); };
  write("one");
  write("two");
  EXPECT_THROW(turn(), std::runtime_error);
  bad.reaction = nullptr;
  write("three");
  turn();
  EXPECT_EQ(3u, bad.events.size());
  EXPECT_EQ(3u, good.events.size());
  EXPECT_EQ((Events{{"one", IN_CREATE}}), once.events) << "its watch ends alone after one event";
}

TEST_F(InotifyMgrTest, whatCannotBeWatchedIsRefused) {
  write("file");
  std::pair<unsigned, char const*> const cases[] = {
      {IN_CREATE, "missing"}, {IN_CREATE | IN_ONLYDIR, "file"}, {0, "."}};
  for (auto const& [mask, name] : cases) {
    Recorder const recorder(mask, temp.path(name));
    EXPECT_FALSE(recorder.live) << name;
    EXPECT_EQ(-1, recorder.watch.wd());
  }
  // A child needs an inotify descriptor of its own, and one for its loop.
  for (int const spare : {0, 1}) {
    Veltro::inChild([&] {
      Veltro::limitIs(RLIMIT_NOFILE, static_cast<rlim_t>(Veltro::nextDescriptors()[0] + spare));
      EXPECT_FALSE(Recorder(IN_CREATE, temp.path()).live) << spare;
      Veltro::limitIs(RLIMIT_NOFILE, 1024);
      EXPECT_TRUE(Recorder(IN_CREATE, temp.path()).live) << spare;
    });
  }
  EXPECT_TRUE(InotifyMgr::getInotifyMgr().watchDescriptors().empty());
}

TEST_F(InotifyMgrTest, aForkedChildHasEventsOfItsOwnAndTakesNoneOfTheParents) {
  Recorder inherited(IN_CREATE, temp.path());
  Recorder leftAlone(IN_CREATE, temp.path());
  Veltro::inChild([&] {
    Recorder own(IN_CREATE, temp.path());  // from here on the child watches for itself
    write("childs");
    turn();
    EXPECT_EQ(1u, inherited.events.size());
    EXPECT_EQ(1u, own.events.size());
  });
  Veltro::inChild(turn);  // only looks
  turn();
  EXPECT_EQ((Events{{"childs", IN_CREATE}}), inherited.events);
  EXPECT_EQ(inherited.events, leftAlone.events);
}

}  // namespace
}  // namespace Mem
