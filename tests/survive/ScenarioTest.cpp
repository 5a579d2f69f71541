// What any loop should bear, on every back end. Times are the test's own: see Outside.
#include <fcntl.h>

#include <algorithm>
#include <vector>

#include "Kiv/Exception.h"
#include "Scene.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {

template <typename Backend>
struct ScenarioTest : testing::Test {};
TYPED_TEST_SUITE(ScenarioTest, AllBackends, );

template <typename Scene>
struct Row {
  char const* name;
  char const* log;
  void (*play)(Scene&);
};

template <typename Backend, std::size_t n>
void playAll(Row<Scene<Backend>> const (&rows)[n]) {
  Backend::run([&] {
    int descriptors = -1;
    bool first = true;  // makes the thread's epoll set
    for (auto const& row : rows) {
      SCOPED_TRACE(row.name);
      {
        Scene<Backend> scene;
        row.play(scene);
        EXPECT_EQ(row.log, scene.log);
      }
      if (std::exchange(first, false)) descriptors = openDescriptors();
      EXPECT_EQ(descriptors, openDescriptors());
    }
  });
}

TYPED_TEST(ScenarioTest, timersAndCallbacks) {
  using S = Scene<TypeParam>;
  static Row<S> const rows[] = {
      {"deadlines, and one that was replaced", "cba",
       [](S& s) {
         s.timerIn(0.02, 'a');
         auto& b = s.timerIn(60, 'b');
         s.timerIn(0, 'c');
         b.in(0.01);
         Platform::doEventLoop();
         EXPECT_NEAR(0.02, s.outside.seconds(), 0.002);
       }},
      {"huge beside tiny", "c",
       [](S& s) {
         s.timerIn(1e300, 'a');
         s.timerIn(4e8, 'b');
         s.timerIn(1e-9, 'c');
         Platform::doEventLoop(1e5);
       }},
      {"overslept, it fires once", "ab",
       [](S& s) {
         s.timerIn(1, 'a');
         s.timerIn(2, 'b');
         s.outside.nowNs += 100000000000;
         Platform::doEventLoop(1);
       }},
      {"nothing to do returns at once", "",
       [](S& s) {
         Platform::doEventLoop();
         EXPECT_EQ(0, s.outside.seconds());
       }},
      {"a limited run lasts its time, a nested one is refused and leaves the limit alone", "ab",
       [](S& s) {
         s.timerIn(1, 'a', [] { EXPECT_EQ(-1, Platform::doEventLoop()); });
         s.timerIn(2, 'b', [] { EXPECT_EQ(-1, Platform::doEventLoop(0.5)); });
         s.timerIn(6, 'c');
         EXPECT_EQ(0, Platform::doEventLoop(5));
         EXPECT_NEAR(5, s.outside.seconds(), 0.01);
       }},
  };
  playAll<TypeParam>(rows);
}

TYPED_TEST(ScenarioTest, descriptors) {
  using S = Scene<TypeParam>;
  static Row<S> const rows[] = {
      {"by level: told again until the bytes are gone", "aaa",
       [](S& s) {
         auto& a = s.watch(s.pairs[0].ends[0], 'a');
         a.handler.onRead = [&](int fd) {
           EXPECT_EQ(s.pairs[0].ends[0], fd);
           EXPECT_EQ(fd, a.control->getFd());
           s.log += 'a';
           if (s.log.size() < 3) return;
           SocketPair::take(fd);
           a.off();
         };
         s.pairs[0].put();
         Platform::doEventLoop();
         EXPECT_EQ(-1, a.control->getFd());
         EXPECT_NE(0, ::fcntl(s.pairs[0].ends[0], F_GETFL) & O_NONBLOCK);
       }},
      {"interests one by one", "AAaAa",
       [](S& s) {
         auto& a = s.watch(s.pairs[0].ends[0], 'a');
         unsigned left = 2;
         a.handler.onWrite = [&](int) {
           s.log += 'A';
           if (--left == 0) a.control->setWrites(false);
         };
         a.handler.onRead = [&](int) {
           s.log += 'a';
           a.control->setReads(false);
         };
         a.control->setWrites(true);
         Platform::doEventLoop(1);
         s.pairs[0].put();
         Platform::doEventLoop(1);
         left = 1;
         a.control->setWrites(true);
         Platform::doEventLoop(1);
         a.control->setReads(true);
         Platform::doEventLoop(1);
       }},
      {"clearEvents() silences until armed anew", "aa",
       [](S& s) {
         auto& a = s.watch(s.pairs[0].ends[0], 'a');
         a.handler.onRead = [&](int) {
           s.log += 'a';
           a.control->clearEvents();
         };
         s.pairs[0].put();
         Platform::doEventLoop(1);
         EXPECT_EQ(s.pairs[0].ends[0], a.control->getFd());
         a.control->setReads(true);
         Platform::doEventLoop(1);
       }},
      {"an interest goes over to the next descriptor, the first closed under it", "a",
       [](S& s) {
         auto& a = s.watch(s.pairs[0].ends[0], 'a');
         s.pairs[0].close(0);
         a.control->setFd(s.pairs[1].ends[0]);
         s.pairs[1].put();
         a.handler.onRead = [&](int fd) {
           s.log += 'a';
           EXPECT_EQ(s.pairs[1].ends[0], fd);
           a.off();
         };
         Platform::doEventLoop(1);
       }},
      {"a reused number belongs to its new file", "ab",
       [](S& s) {
         int const number = s.pairs[0].ends[0];
         auto& a = s.watch(number, 'a', [&] { SocketPair::take(number); });
         s.pairs[0].put();
         Platform::doEventLoop(0.1);
         s.log.resize(1);  // a task may come once more than there was to read
         a.off();
         s.pairs[0].close(0);
         EXPECT_EQ(number, ::dup2(s.pairs[1].ends[0], number));
         s.pairs[0].ends[0] = number;
         auto& b = s.watch(number, 'b');
         b.handler.onRead = [&](int) {
           s.log += 'b';
           b.off();
         };
         s.pairs[1].put();
         Platform::doEventLoop(0.1);
       }},
      {"two numbers of one file are told both", "ab",
       [](S& s) {
         int const second = ::dup(s.pairs[0].ends[0]);
         auto &a = s.watch(s.pairs[0].ends[0], 'a'), &b = s.watch(second, 'b');
         for (auto* each : {&a, &b}) {
           each->handler.onRead = [&s, each, &a](int) {
             s.log += each == &a ? 'a' : 'b';
             each->off();
           };
         }
         s.pairs[0].put();
         Platform::doEventLoop();
         if (s.log == "ba") s.log = "ab";
         ::close(second);
       }},
      {"a peer that went is readable, again and again, and costs nothing unasked", "aa",
       [](S& s) {
         auto& a = s.watch(s.pairs[0].ends[0], 'a');
         a.handler.onRead = [&](int fd) {
           char c;
           EXPECT_EQ(0, ::recv(fd, &c, 1, 0));
           s.log += 'a';
           if (s.log.size() == 2) a.control->setReads(false);
         };
         s.pairs[0].close(1);
         Platform::doEventLoop(1);
         EXPECT_GT(20u, s.outside.calls[Outside::epollWait]);
       }},
      {"70 ready at once, the first destroys all others", "a",
       [](S& s) {
         for (int i = 0; i < 70; ++i) s.pairs.emplace_back();
         std::vector<typename S::Watch*> all;
         for (auto& pair : s.pairs) {
           pair.put();
           all.push_back(&s.watch(pair.ends[0], 'a', [&] {
             for (auto* watch : all) watch->gone();
             for (auto& each : s.pairs) each.close(0);
           }));
         }
         Platform::doEventLoop(1);
       }},
      {"what cannot be watched is refused, and nothing is left of it", "a",
       [](S& s) {
         auto& a = s.watch(-1, 'a');
         int const file = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
         EXPECT_THROW(a.control->setFd(file), std::exception);
         EXPECT_EQ(-1, a.control->getFd());
         ::close(file);
         a.control->setFd(s.pairs[0].ends[0]);
         s.pairs[0].put();
         a.handler.onRead = [&](int) {
           s.log += 'a';
           a.off();
         };
         Platform::doEventLoop(1);
       }},
  };
  playAll<TypeParam>(rows);
}

}  // namespace
}  // namespace Veltro
