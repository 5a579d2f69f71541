#include "Veltro/InotifyMgr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Kiv/Exception.h"
#include "Kiv/Model.h"
#include "Veltro/Exception.h"
#include "Veltro/InotifyWatcherHelper.h"
#include "tests/support/StandardError.h"
#include "tests/support/TempDir.h"
#include "tests/support/VirtualTime.h"

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
    VirtualTime const time;
    Platform::doEventLoop(1);
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
    EXPECT_EQ(1u, (*inotifyMgrFactory()->descriptorIteratorConst()).watchers().size());
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

TEST_F(InotifyWatcherTest, theProcessesWatchesAreListed) {
  fs::create_directory(temp.path("sub"));
  auto const mgr = inotifyMgrFactory();
  auto const walked = [&](int from) {
    std::vector<int> numbers;
    for (auto it = mgr->descriptorIteratorConst(from); it; ++it) numbers.push_back(it.key());
    return numbers;
  };
  auto const one = watch(IN_CREATE), two = watch(IN_DELETE | IN_MODIFY);
  int const shared = walked(0).at(0);
  auto const other = watch(IN_CREATE, "sub");
  int const own = walked(0).at(1);
  EXPECT_THAT(walked(shared + 1), ElementsAre(own));
  EXPECT_THAT(walked(own + 1), ElementsAre());
  EXPECT_TRUE(!mgr->descriptor(own + 1));

  WatchDescriptor expected(temp.path(""), shared);
  expected.newWatcher(0, Watcher("Veltro::InotifyWatcherHelper", IN_CREATE));
  expected.newWatcher(1, Watcher("Veltro::InotifyWatcherHelper", IN_DELETE | IN_MODIFY));
  EXPECT_EQ(expected, mgr->descriptor(shared));
  std::ostringstream text;
  text << "{" << shared << ": " << expected << ", " << own << ": " << mgr->descriptor(own) << "}";
  EXPECT_EQ(text.str(), Kiv::Reflection(*mgr).attribute("descriptor").text());
}

TEST(WatchValuesTest, arePrintedAndAWatcherIsParsedBack) {
  Watcher const watcher("it's", 4294967295u);
  std::string const text = "Value('Veltro::Watcher', ** {'type': 'it\\'s', 'mask': 4294967295})";
  EXPECT_EQ(text, watcher.text().stdString());
  EXPECT_EQ(watcher, Watcher(watcher.text()));
  for (char const* const wrong : {"Value('Veltro::Other', ** {'type': 'x', 'mask': 2})",
                                  "Value('Veltro::Watcher', ** {'type': 'x', 'mask': -2})"}) {
    EXPECT_THROW(Watcher{Kiv::String(wrong)}, Kiv::RangeException) << wrong;
  }
  WatchDescriptor descriptor("/etc", 3);
  std::string const start = "Value('Veltro::WatchDescriptor', ** {'name': '/etc', 'wd': 3, ";
  EXPECT_EQ(start + "'watcher': None})", descriptor.text().stdString());
  descriptor.newWatcher(1, Watcher("x", 2));
  EXPECT_THROW(descriptor.newWatcher(1, Watcher()), Kiv::RangeException);
  descriptor.watcherIs(1, watcher);
  EXPECT_EQ(start + "'watcher': {1: " + text + "}})", descriptor.text().stdString());
  EXPECT_EQ(watcher, descriptor.watcherDel(1));
  EXPECT_EQ(WatchDescriptor("/etc", 3), descriptor);
  EXPECT_DEATH(WatchDescriptor(descriptor.text()),
               HasSubstr("Assertion `!\"No String constructor for WatchDescriptor - has "
                         "collection\"' failed"));
}

TEST_F(InotifyWatcherTest, tellsItsStepsAndWhatItCannotWatch) {
  Platform::setTraceFormat("%l %F: %m");
  Platform::setupVeltroDebug("InotifyMgr/7-8");
  EXPECT_THAT(
      standardError([this] { watch(IN_CREATE)->inotifyWatcherHelper()->notify("a", IN_CREATE); }),
      ElementsAre("8 handleInitialized: void Veltro::InotifyWatcher::handleInitialized()",
                  "7 notify: Notified of a changing",
                  "8 handleDestruction: void Veltro::InotifyWatcher::handleDestruction()"));
  Platform::clearVeltroDebug("InotifyMgr");
  Platform::clearTraceFormat();
  EXPECT_THAT(
      [this] { watch(IN_CREATE, "missing"); },
      testing::Throws<InvalidInitializeException>(testing::Property(
          &InvalidInitializeException::message,
          "InotifyWatcherHelper: failed to initialize watcher for " + temp.path("missing"))));
  EXPECT_FALSE(inotifyMgrFactory()->descriptorIteratorConst());
}

}  // namespace
}  // namespace Veltro
