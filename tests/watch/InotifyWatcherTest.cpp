#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Kiv/ActivityManager.h"
#include "Kiv/Exception.h"
#include "Kiv/Model.h"
#include "Kiv/System.h"
#include "Veltro/Exception.h"
#include "Veltro/InotifyMgr.h"
#include "Veltro/InotifyWatcherHelper.h"
#include "tests/support/Child.h"
#include "tests/support/StandardError.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Veltro {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using WatcherPtr = Kiv::Ptr<InotifyWatcher>;

/// Notes each event as "count name mask", then reacts.
struct Recorder final : InotifyWatcher::Notifiee {
  using Notifiee::Notifiee;
  void onEventCount() override {
    std::ostringstream text;
    text << notifier().eventCount() << " " << notifier().event() << " " << notifier().eventMask();
    events.push_back(text.str());
    if (reaction) reaction();
  }
  std::vector<std::string> events;
  std::function<void()> reaction;
};

struct InotifyWatcherTest : testing::Test {
  TempDir temp;

  void write(std::string const& name) { std::ofstream(temp.path(name)) << "x"; }
  WatcherPtr watch(U32 mask, std::string const& name = "") {
    return inotifyWatcherFactory(temp.path(name), mask);
  }
  // Lets the loop deliver all that the kernel has queued.
  static void turn() {
    auto& config = Kiv::ActivityManager::instance().config();
    config.virtualTimeIs(true);
    config.executionTimeIs(1);
    Kiv::System::doRun();
    config.virtualTimeIs(false);
  }
  static int wdOf(WatcherPtr const& watcher) {
    auto const mgr = inotifyMgrFactory();
    for (auto it = mgr->descriptorIteratorConst(); it; ++it) {
      if ((*it).name() == watcher->path()) return it.key();
    }
    return -1;
  }
};

TEST_F(InotifyWatcherTest, countsEventsAndShowsTheLast) {
  auto const watcher = watch(IN_CREATE | IN_DELETE);
  auto* const helper = watcher->inotifyWatcherHelper();
  EXPECT_NE(nullptr, helper);
  watcher->handleInitialized();
  EXPECT_EQ(helper, watcher->inotifyWatcherHelper());

  auto const recorder = Kiv::allocate<Recorder>(watcher);
  write("a");
  fs::remove(temp.path("a"));
  write("a");
  turn();
  EXPECT_THAT(recorder->events, ElementsAre("1 a 256", "2 a 512", "3 a 256"));

  // The same name and mask again are one more event; the file's own have no name.
  helper->notify("a", IN_CREATE);
  helper->notify("", IN_DELETE_SELF);
  EXPECT_THAT(recorder->events, ElementsAre("1 a 256", "2 a 512", "3 a 256", "4 a 256", "5  1024"));
  EXPECT_EQ(5u, watcher->eventCountInc(0));
  EXPECT_EQ(4u, watcher->eventCountInc(0xffffffffu)) << "wraps at 32 bits";
  EXPECT_EQ(6u, recorder->events.size());
}

TEST_F(InotifyWatcherTest, aPathThatCannotBeWatchedMakesNoEntity) {
  EXPECT_THAT(
      [&] { watch(IN_CREATE, "missing"); },
      testing::Throws<InvalidInitializeException>(testing::Property(
          &InvalidInitializeException::message,
          "InotifyWatcherHelper: failed to initialize watcher for " + temp.path("missing"))));
  EXPECT_FALSE(inotifyMgrFactory()->descriptorIteratorConst());
}

TEST_F(InotifyWatcherTest, mayGoInsideItsOwnReaction) {
  for (bool const dropped : {true, false}) {  // all pointers to it; else only its watch ends
    SCOPED_TRACE(dropped);
    auto first = watch(IN_CREATE);
    auto const second = watch(IN_CREATE);
    auto recorder = Kiv::allocate<Recorder>(first);
    int calls = 0;
    recorder->reaction = [&] {
      ++calls;
      if (dropped) {
        first = nullptr;
        recorder = nullptr;
      } else {
        Kiv::Reflection(*first).call("handleDestruction");
        EXPECT_EQ(nullptr, first->inotifyWatcherHelper());
      }
    };
    write(dropped ? "a" : "b");
    write(dropped ? "c" : "d");
    turn();
    EXPECT_EQ(1, calls);
    EXPECT_EQ(2u, second->eventCount());
    EXPECT_EQ(1u, inotifyMgrFactory()->descriptor(wdOf(second)).watchers().size());
  }
}

TEST_F(InotifyWatcherTest, lostEventsAreToldToAll) {
  int limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  ASSERT_GT(limit, 0);
  fs::create_directory(temp.path("elsewhere"));
  write("a");
  write("b");
  auto const busy = watch(IN_ATTRIB);
  auto const quiet = watch(IN_CREATE, "elsewhere");
  for (int i = 0; i <= limit; ++i) {  // the kernel merges equal neighbours, so take turns
    fs::permissions(temp.path(i % 2 == 0 ? "a" : "b"), fs::perms::all);
  }
  write("elsewhere/lost");
  turn();
  EXPECT_EQ(U32{IN_Q_OVERFLOW}, quiet->eventMask());
  EXPECT_EQ(1u, quiet->eventCount());
  EXPECT_EQ(U32{IN_Q_OVERFLOW}, busy->eventMask());
  EXPECT_GE(busy->eventCount(), static_cast<U32>(limit));
  write("elsewhere/seen");
  turn();
  EXPECT_EQ("seen", quiet->event().stdString());
}

TEST_F(InotifyWatcherTest, aFileThatIsReplacedEndsTheWatchAndAReactionWatchesTheNewOne) {
  write("watched");
  write("new");
  auto watcher = watch(IN_DELETE_SELF | IN_MODIFY, "watched");
  auto recorder = Kiv::allocate<Recorder>(watcher);
  recorder->reaction = [&] {
    if (watcher->eventMask() == IN_IGNORED) watcher = watch(IN_MODIFY, "watched");
  };
  fs::rename(temp.path("new"), temp.path("watched"));
  turn();
  EXPECT_THAT(recorder->events, ElementsAre("1  1024", "2  32768"));
  write("watched");
  turn();
  EXPECT_EQ(U32{IN_MODIFY}, watcher->eventMask());
}

TEST_F(InotifyWatcherTest, limitsOfTheKernelAreARefusalAndTheOthersWatchOn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer's own thread forbids a new user namespace";
#endif
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to make namespaces";
  fs::create_directory(temp.path("more"));
  struct {
    char const* limit;
    int allowed;
  } const cases[] = {{"watches", 1}, {"watches", 0}, {"instances", 0}};
  for (auto const& c : cases) {
    SCOPED_TRACE(c.limit);
    inChild([&] {
      if (::unshare(CLONE_NEWUSER) != 0) return;  // in a chroot there is none
      std::ofstream file(std::string("/proc/sys/user/max_inotify_") + c.limit);
      if (!(file << c.allowed << std::flush)) return;  // a kernel that keeps it from us
      std::vector<WatcherPtr> watchers;
      if (c.allowed > 0) watchers.push_back(watch(IN_CREATE));
      EXPECT_THROW(watch(IN_CREATE, "more"), InvalidInitializeException);
      if (watchers.empty()) return;
      write("seen");
      turn();
      EXPECT_EQ("seen", watchers[0]->event().stdString());
      watchers.clear();
      EXPECT_NO_THROW(watch(IN_CREATE, "more")) << "the place was not given back";
    });
  }
}

TEST_F(InotifyWatcherTest, theProcessesWatchesAreListed) {
  fs::create_directory(temp.path("sub"));
  auto const mgr = inotifyMgrFactory();
  EXPECT_TRUE(!mgr->descriptor(12345));
  auto const one = watch(IN_CREATE);
  auto const two = watch(IN_DELETE | IN_MODIFY);
  auto const other = watch(IN_CREATE, "sub");
  int const shared = wdOf(one);
  int const own = wdOf(other);

  WatchDescriptor const descriptor = mgr->descriptor(shared);
  EXPECT_FALSE(!descriptor);
  EXPECT_EQ(shared, descriptor.wd());
  EXPECT_EQ(2u, descriptor.watchers().size());
  EXPECT_EQ(Watcher("Veltro::InotifyWatcherHelper", IN_CREATE), descriptor.watcher(0));
  EXPECT_EQ(Watcher("Veltro::InotifyWatcherHelper", IN_DELETE | IN_MODIFY), descriptor.watcher(1));

  auto const walked = [&](InotifyMgr::DescriptorIteratorConst it) {
    std::vector<int> numbers;
    for (; it; ++it) numbers.push_back(it.key());
    return numbers;
  };
  EXPECT_THAT(walked(mgr->descriptorIteratorConst()), ElementsAre(shared, own));
  EXPECT_THAT(walked(mgr->descriptorIteratorConst(shared + 1)), ElementsAre(own));
  EXPECT_THAT(walked(mgr->descriptorIteratorConst(own + 1)), ElementsAre());
  std::ostringstream expected;
  expected << "{" << shared << ": " << mgr->descriptor(shared) << ", " << own << ": "
           << mgr->descriptor(own) << "}";
  EXPECT_EQ(expected.str(), Kiv::Reflection(*mgr).attribute("descriptor").text());
}

TEST(WatchValuesTest, printedAndParsedBack) {
  Watcher const watcher("it's", 4294967295u);
  EXPECT_EQ("Value('Veltro::Watcher', ** {'type': 'it\\'s', 'mask': 4294967295})",
            watcher.text().stdString());
  EXPECT_EQ(watcher, Watcher(watcher.text()));
  for (char const* const text : {"Value('Veltro::Other', ** {'type': 'x', 'mask': 2})",
                                 "Value('Veltro::Watcher', ** {'type': 'x', 'mask': -2})"}) {
    EXPECT_THROW(Watcher{Kiv::String(text)}, Kiv::RangeException) << text;
  }
}

TEST(WatchValuesTest, aDescriptorHoldsWatchersAndIsNotParsed) {
  WatchDescriptor descriptor("/etc", 3);
  descriptor.newWatcher(1, Watcher("x", 2));
  EXPECT_EQ(
      "Value('Veltro::WatchDescriptor', ** {'name': '/etc', 'wd': 3, 'watcher': "
      "{1: Value('Veltro::Watcher', ** {'type': 'x', 'mask': 2})}})",
      descriptor.text().stdString());
  EXPECT_THROW(descriptor.newWatcher(1, Watcher()), Kiv::RangeException);
  descriptor.watcherIs(1, Watcher("y", 4));
  EXPECT_NE(WatchDescriptor("/etc", 3), descriptor);
  EXPECT_EQ(Watcher("y", 4), descriptor.watcherDel(1));
  EXPECT_EQ(WatchDescriptor("/etc", 3), descriptor);
  EXPECT_DEATH(WatchDescriptor(descriptor.text()),
               HasSubstr("Assertion `!\"No String constructor for WatchDescriptor - has "
                         "collection\"' failed"));
}

TEST_F(InotifyWatcherTest, tellsItsSteps) {
  Platform::setTraceFormat("%l %F: %m");
  Platform::setupVeltroDebug("InotifyMgr/7-8");
  EXPECT_THAT(
      standardError([this] { watch(IN_CREATE)->inotifyWatcherHelper()->notify("a", IN_CREATE); }),
      ElementsAre("8 handleInitialized: void Veltro::InotifyWatcher::handleInitialized()",
                  "7 notify: Notified of a changing",
                  "8 handleDestruction: void Veltro::InotifyWatcher::handleDestruction()"));
  Platform::clearVeltroDebug("InotifyMgr");
  Platform::clearTraceFormat();
}

}  // namespace
}  // namespace Veltro
