// What any loop should bear, on every back end. Times are the test's own: see Outside.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>

#include <algorithm>
#include <stdexcept>
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
      {"zero delays come in the order of arming", "abcdeabcde",
       [](S& s) {
         typename S::Timer* timers[5];
         for (int i = 0; i < 5; ++i) timers[i] = &s.timer(static_cast<char>('a' + i));
         for (auto* timer : timers) timer->in(0);
         Platform::doEventLoop();
         s.timerIn(0, '-', [&] {
           s.log.pop_back();
           for (auto* timer : timers) timer->in(0);
         });
         Platform::doEventLoop();
       }},
      {"so do callbacks asked for in one call", "-abcdef",
       [](S& s) {
         typename S::Call* calls[6];
         for (int i = 0; i < 6; ++i) calls[i] = &s.call(static_cast<char>('a' + i));
         s.timerIn(0.01, '-', [&] {
           for (auto* call : calls) call->soon();
         });
         Platform::doEventLoop();
       }},
      {"restarted inside another's call", "acb",
       [](S& s) {
         auto& b = s.timerIn(2, 'b');
         s.timerIn(3, 'c');
         s.timerIn(1, 'a', [&] { b.in(5); });
         Platform::doEventLoop();
       }},
      {"a zero delay re-armed waits for the next pass", "abaa",
       [](S& s) {
         int left = 2;
         auto& a = s.timer('a');
         a.handler.onTimeout = [&] {
           s.log += 'a';
           if (left-- > 0) a.in(0);
         };
         a.in(0);
         s.timerIn(0, 'b');
         Platform::doEventLoop();
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
      {"asked twice, called once, and never from inside the asking", "a",
       [](S& s) {
         auto& a = s.call('a');
         a.soon();
         a.soon();
         EXPECT_TRUE(a.control->pendingCallback());
         EXPECT_EQ("", s.log);
         Platform::doEventLoop();
         EXPECT_FALSE(a.control->pendingCallback());
       }},
      {"taken back: nothing comes", "",
       [](S& s) {
         auto& a = s.call('a');
         a.soon();
         a.control->cancelCallback();
         EXPECT_FALSE(a.control->pendingCallback());
         auto& b = s.timerIn(0, 'b');
         b.in(S::kInfinity);
         auto& c = s.timerIn(1, 'c');
         c.control->delTimeout();
         EXPECT_EQ(S::kInfinity, c.control->remainingTimeout());
         Platform::doEventLoop(5);
       }},
      {"not pending inside its own call, and may ask again", "aaa",
       [](S& s) {
         int left = 2;
         auto& a = s.call('a');
         a.handler.onCallback = [&] {
           s.log += 'a';
           EXPECT_FALSE(a.control->pendingCallback());
           if (left-- > 0) a.soon();
         };
         a.soon();
         Platform::doEventLoop();
       }},
      {"asking again does not put a callback off", "abab",
       [](S& s) {
         auto& b = s.call('b');
         auto& a = s.call('a');
         int left = 2;
         a.handler.onCallback = [&] {
           s.log += 'a';
           b.soon();
           b.soon();
           if (--left > 0) a.soon();
         };
         a.soon();
         b.soon();
         Platform::doEventLoop();
       }},
      {"one disarms and destroys others of its pass, and itself", "a",
       [](S& s) {
         auto &a = s.timer('a'), &b = s.timer('b'), &c = s.timer('c');
         auto& d = s.call('d');
         a.handler.onTimeout = [&] {
           s.log += 'a';
           b.control->delTimeout();
           c.gone();
           d.control->cancelCallback();
           a.gone();
         };
         for (auto* timer : {&a, &b, &c}) timer->in(0);
         d.soon();
         Platform::doEventLoop();
       }},
      {"destroyed while armed: nothing comes", "",
       [](S& s) {
         s.timerIn(0, 'a').gone();
         s.timerIn(1, 'b').gone();
         s.call('c').soon();
         s.pairs[0].put();
         s.watch(s.pairs[0].ends[0], 'd').gone();
         s.call('e');
         auto& c = s.call('f');
         c.soon();
         c.control.reset();
         Platform::doEventLoop(2);
         s.log.erase(0, 1);  // c, which was left
       }},
      {"destroyed twice over by the one before it", "ab",
       [](S& s) {
         auto& c = s.timer('c');
         s.timerIn(0, 'a', [&] { c.gone(); });
         s.timerIn(0, 'b', [&] { c.gone(); });
         c.in(0);
         Platform::doEventLoop();
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
      {"taken off by another of the same pass: no call", "a",
       [](S& s) {
         for (auto& pair : s.pairs) pair.put();
         std::vector<typename S::Watch*> all;
         for (auto& pair : s.pairs) {
           all.push_back(&s.watch(pair.ends[0], 'a', [&] {
             for (std::size_t i = 0; i < all.size(); ++i) {
               i == 0   ? all[i]->off()
               : i == 1 ? all[i]->control->clearEvents()
                        : all[i]->control->setReads(false);
             }
           }));
         }
         Platform::doEventLoop(1);
       }},
      {"an interest goes over to the next descriptor, the first closed under it", "a",
       [](S& s) {
         auto& a = s.watch(s.pairs[0].ends[0], 'a', [&] { s.pairs[2].put(); });
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
      {"toggled thousands of times", "A",
       [](S& s) {
         auto& a = s.watch(s.pairs[0].ends[0], 'a');
         a.handler.onWrite = [&](int) {
           s.log += 'A';
           a.off();
         };
         for (int i = 0; i < 5001; ++i) {
           a.control->setReads(i % 3 == 0);
           a.control->setWrites(i % 2 == 0);
         }
         Platform::doEventLoop();
       }},
      {"out-of-band data disturbs nobody", "a",
       [](S& s) {
         int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
         sockaddr_in address{};
         address.sin_family = AF_INET;
         address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
         socklen_t size = sizeof address;
         auto* const generic = reinterpret_cast<sockaddr*>(&address);
         EXPECT_EQ(0, ::bind(listener, generic, size));
         EXPECT_EQ(0, ::listen(listener, 1));
         EXPECT_EQ(0, ::getsockname(listener, generic, &size));
         int const client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
         EXPECT_EQ(0, ::connect(client, generic, size));
         int const server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
         auto& a = s.watch(server, 'a');
         a.handler.onRead = [&](int fd) {
           char c = 0;
           if (::recv(fd, &c, 1, 0) == 1 && c == 'n') s.log += 'a';
           if (c == 'n') a.off();
         };
         EXPECT_EQ(1, ::send(client, "u", 1, MSG_OOB));
         EXPECT_EQ(1, ::send(client, "n", 1, 0));
         Platform::doEventLoop(1);
         for (int const fd : {listener, client, server}) ::close(fd);
       }},
      {"out of descriptors while accepting: off, and on again", "arb",
       [](S& s) {
         s.pairs[0].put();
         rlimit before{};
         ::getrlimit(RLIMIT_NOFILE, &before);
         auto& a = s.watch(s.pairs[0].ends[0], 'a');
         auto& r = s.timer('r', [&] {
           ::setrlimit(RLIMIT_NOFILE, &before);
           a.control->setReads(true);
         });
         a.handler.onRead = [&](int fd) {
           int const next = ::dup(fd);
           s.log += next < 0 ? 'a' : 'b';
           next < 0 ? a.control->setReads(false) : a.off();
           if (next < 0) r.in(1);
           ::close(next);
         };
         limitIs(RLIMIT_NOFILE, static_cast<rlim_t>(nextDescriptors()[0]));
         Platform::doEventLoop();
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
      {"both directions at once, in parts", "",
       [](S& s) {
         constexpr std::size_t kAll = 1000000;
         std::size_t sent[2]{}, received[2]{};
         typename S::Watch* ends[2];
         for (int i = 0; i < 2; ++i) {
           ends[i] = &s.watch(s.pairs[0].ends[i], 'a');
           ends[i]->handler.onRead = [&, i](int fd) {
             received[i] += SocketPair::take(fd);
             if (received[i] == kAll) ends[i]->control->setReads(false);
           };
           ends[i]->handler.onWrite = [&, i](int fd) {
             static char const bytes[70001]{};
             std::size_t const most = std::min(sizeof bytes, kAll - sent[i]);
             ssize_t const n = ::send(fd, bytes, most, MSG_NOSIGNAL);
             if (n > 0) sent[i] += static_cast<std::size_t>(n);
             if (sent[i] == kAll) ends[i]->control->setWrites(false);
           };
           ends[i]->control->setWrites(true);
         }
         Platform::doEventLoop(1);
         for (std::size_t const n : received) EXPECT_EQ(kAll, n);
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

TYPED_TEST(ScenarioTest, exceptions) {
  // Thrown by one of three in a pass: offered to its handler, who may answer, throw anew, or
  // destroy the control. The others' turn comes in this run or the next.
  struct {
    char const* name;
    bool destroysFirst, destroysInAnswer, throwsInAnswer, answers;
    int leaves, asked;
  } const cases[] = {
      {"unanswered", false, false, false, false, 1, 1},
      {"answered", false, false, false, true, 0, 1},
      {"the answer throws another", false, false, true, true, 2, 1},
      {"the answer destroys, and answers", false, true, false, true, 0, 1},
      {"the answer destroys, and does not", false, true, false, false, 1, 1},
      {"destroyed before the throw: nobody is asked", true, false, false, true, 1, 0},
  };
  using S = Scene<TypeParam>;
  TypeParam::run([&] {
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      S s;
      s.timerIn(0, 'a');
      auto& b = s.timer('b');
      s.timer('c').in(0);
      b.handler.onTimeout = [&] {
        s.log += 'b';
        if (c.destroysFirst) b.gone();
        throw 1;
      };
      b.handler.answer = c.answers;
      int const* offered = nullptr;
      b.handler.onAsked = [&] {
        if (c.destroysInAnswer) b.gone();
        if (c.throwsInAnswer) throw 2;
        try {
          throw;
        } catch (int const& fault) {
          offered = &fault;
        }
      };
      b.in(0);
      int left = 0;
      try {
        Platform::doEventLoop();
      } catch (int const& fault) {
        left = fault;
        EXPECT_TRUE(offered == nullptr || offered == &fault) << "a copy";
      }
      EXPECT_EQ(c.leaves, left);
      EXPECT_EQ(c.asked, b.handler.asked);
      Platform::doEventLoop();
      EXPECT_EQ("abc", s.log.substr(0, 1) + "bc") << s.log;
      EXPECT_EQ(3u, s.log.size());
    }

    S s;
    auto& call = s.call('c', [] { throw 1; });
    auto& watch = s.watch(s.pairs[0].ends[0], 'd', [&] { throw 1; });
    s.pairs[0].put();
    for (bool const answer : {false, true}) {
      call.handler.answer = watch.handler.answer = answer;
      call.soon();
      watch.handler.onRead = [&](int) {
        watch.off();  // still told the number that the event was for
        throw 1;
      };
      watch.control->setFd(s.pairs[0].ends[0]);
      watch.control->setReads(true);
      unsigned thrown = 0;
      for (int run = 0; run < 3; ++run) {
        try {
          Platform::doEventLoop(0.1);
        } catch (int) {
          ++thrown;
        }
      }
      EXPECT_EQ(answer ? 0u : 2u, thrown);
    }
    EXPECT_EQ(2, call.handler.calls);
    EXPECT_EQ((std::vector<int>(2, s.pairs[0].ends[0])), watch.handler.asked);
    // A run that was left by exception takes its limit with it.
    s.timerIn(0, 'x', [] { throw 1; });
    EXPECT_THROW(Platform::doEventLoop(1), int);
    s.log.clear();
    s.timerIn(5, 'y');
    Platform::doEventLoop();
    EXPECT_EQ("y", s.log);
  });
}

TYPED_TEST(ScenarioTest, forks) {
  struct {
    char const* name;
    bool insideAHandler;
    void (*child)(Platform::FdControl&, std::shared_ptr<Platform::FdControl>&,
                  std::shared_ptr<Platform::TimerControl>&, FdEvents const&);
  } const cases[] = {
      {"touches", false,
       [](auto& fd, auto&, auto&, auto&) {
         fd.setReads(false);
         fd.delFd();
       }},
      {"destroys", true,
       [](auto&, auto& fd, auto& timer, auto&) {
         fd.reset();
         timer.reset();
       }},
      {"runs a loop of its own", false,
       [](auto& fd, auto&, auto&, auto& events) {
         SocketPair own;
         fd.setFd(own.ends[0]);
         own.put();
         Platform::doEventLoop(0.05);
         EXPECT_EQ(1, events.reads);
       }},
      {"frees its base, and has a new one", false,
       [](auto& fd, auto& owner, auto&, auto& events) {
         leFree();
         SocketPair own;
         fd.setReads(false);
         fd.setFd(own.ends[0]);
         fd.setReads(true);
         own.put();
         Platform::doEventLoop(0.05);
         EXPECT_EQ(1, events.reads);
         owner.reset();
         leFree();
       }},
  };
  TypeParam::run([&] {
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      Outside const outside;
      SocketPair pair;
      FdEvents events;
      auto fd = TypeParam::fd(&events);
      fd->setReads(true);
      fd->setFd(pair.ends[0]);
      events.onRead = [&](int) { fd->delFd(); };
      Timeout handler;
      auto timer = TypeParam::timer(&handler);
      auto const fork = [&] { inChild([&] { c.child(*fd, fd, timer, events); }); };
      handler.onTimeout = [&] {
        if (c.insideAHandler) fork();
      };
      if (!c.insideAHandler) fork();
      timer->setTimeout(0.002);
      Platform::doEventLoop(0.01);
      EXPECT_EQ(1, handler.calls);
      pair.put();
      Platform::doEventLoop();
      EXPECT_EQ(1, events.reads) << "the parent has gone deaf";
    }
  });
}

TYPED_TEST(ScenarioTest, aChildForkedInsideAHandlerGoesOnByItself) {
  TypeParam::run([] {
    Outside const outside;
    SocketPair parents, childs;
    FdEvents events;
    auto const fd = TypeParam::fd(&events);
    fd->setReads(true);
    fd->setFd(parents.ends[0]);
    events.onRead = [&](int) { fd->delFd(); };
    pid_t child = -1;
    Timeout handler([&] {
      child = ::fork();
      if (child == 0) {
        fd->setFd(childs.ends[0]);
        childs.put();
        return;
      }
      int status = -1;
      ::waitpid(child, &status, 0);
      EXPECT_EQ(0, status);
      parents.put();
    });
    auto const timer = TypeParam::timer(&handler);
    timer->setTimeout(0);
    Platform::doEventLoop(1);
    if (child == 0) ::_exit(events.reads == 1 ? 0 : 1);
    EXPECT_EQ(1, events.reads);
  });
}

// A task a pass: between any two tasks the loop has its turn, which is a timer of its own here.
TYPED_TEST(ScenarioTest, everyTaskLeavesTheLoopItsTurn) {
  TypeParam::run([] {
    Outside outside;
    std::string log;
    auto const root = schedulerRootVeltro();
    std::vector<std::unique_ptr<Callback>> handlers;
    std::vector<std::shared_ptr<Platform::CallbackControl>> controls;
    for (char const letter : {'a', 'b', 'c', 'd'}) {
      handlers.push_back(std::make_unique<Callback>([&log, letter] { log += letter; }));
      controls.push_back(
          Platform::getCallbackControl(handlers.back().get(), root, TaskPriority::normal, "t"));
      controls.back()->requestCallback();
    }
    Timeout handler;
    auto const beat = Platform::getTimerControl(&handler);
    handler.onTimeout = [&] {
      log += '.';
      if (log.size() < 12) beat->setTimeout(0);
    };
    beat->setTimeout(0);
    Platform::doEventLoop(0.1);
    for (std::size_t i = 0; i + 1 < log.size(); ++i) {
      EXPECT_TRUE(log[i] == '.' || log[i + 1] == '.') << log;
    }
    EXPECT_NE(std::string::npos, log.find('d'));
  });
}

}  // namespace
}  // namespace Veltro
