// What any loop should bear, on every back end, and no walk comes across. Times are the test's own:
// see Outside.
#include <fcntl.h>

#include <algorithm>
#include <vector>

#include "Scene.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {

template <typename Backend>
struct ScenarioTest : testing::Test {};
TYPED_TEST_SUITE(ScenarioTest, AllBackends, );

TYPED_TEST(ScenarioTest, runsAndDescriptors) {
  using S = Scene<TypeParam>;
  struct {
    char const* name;
    char const* log;
    void (*play)(S&);
  } const rows[] = {
      {"a limited run lasts its time, a nested one is refused and leaves the limit alone", "ab",
       [](S& s) {
         s.timerIn(1, 'a', [] { EXPECT_EQ(-1, Platform::doEventLoop()); });
         s.timerIn(2, 'b', [] { EXPECT_EQ(-1, Platform::doEventLoop(0.5)); });
         s.timerIn(6, 'c');
         EXPECT_EQ(0, Platform::doEventLoop(5));
         EXPECT_NEAR(5, s.outside.seconds(), 0.01);
       }},
      {"nothing to do returns at once", "",
       [](S& s) {
         Platform::doEventLoop();
         EXPECT_EQ(0, s.outside.seconds());
       }},
      {"an interest goes over to the next descriptor, the first closed under it", "a",
       [](S& s) {
         auto& a = s.watchOnce(s.pairs[0].ends[0], 'a');
         s.pairs[0].close(0);
         ::fcntl(s.pairs[1].ends[0], F_SETFL, 0);
         a.control->setFd(s.pairs[1].ends[0]);
         s.pairs[1].put();
         Platform::doEventLoop(1);
       }},
      {"a reused number belongs to its new file", "ab",
       [](S& s) {
         int const number = s.pairs[0].ends[0];
         s.watchOnce(number, 'a');
         s.pairs[0].put();
         Platform::doEventLoop(0.1);
         EXPECT_EQ(number, ::dup2(s.pairs[1].ends[0], number));
         s.watchOnce(number, 'b');
         s.pairs[1].put();
         Platform::doEventLoop(0.1);
       }},
      {"two numbers of one file are told both", "ab",
       [](S& s) {
         int const second = ::dup(s.pairs[0].ends[0]);
         s.watchOnce(s.pairs[0].ends[0], 'a');
         s.watchOnce(second, 'b');
         s.pairs[0].put();
         Platform::doEventLoop();
         std::sort(s.log.begin(), s.log.end());
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
         s.pairs = std::deque<SocketPair>(70);
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
         auto& a = s.watchOnce(-1, 'a');
         int const file = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
         EXPECT_THROW(a.control->setFd(file), std::exception);
         EXPECT_EQ(-1, a.control->getFd());
         ::close(file);
         a.control->setFd(s.pairs[0].ends[0]);
         s.pairs[0].put();
         Platform::doEventLoop(1);
       }},
  };
  TypeParam::run([&] {
    int descriptors = -1;
    for (auto const& row : rows) {
      SCOPED_TRACE(row.name);
      {
        S scene;
        row.play(scene);
        EXPECT_EQ(row.log, scene.log);
      }
      if (descriptors < 0) descriptors = openDescriptors();  // the thread's epoll set is made
      EXPECT_EQ(descriptors, openDescriptors());
    }
  });
}

}  // namespace
}  // namespace Veltro
