// What disturbs a run: exceptions and forks, on every back end.
#include <sys/wait.h>

#include <algorithm>

#include "Scene.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {

template <typename Backend>
struct DisturbanceTest : testing::Test {};
TYPED_TEST_SUITE(DisturbanceTest, AllBackends, );

TYPED_TEST(DisturbanceTest, exceptions) {
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
  auto const play = [](auto const& c, char const* kind) {
    SCOPED_TRACE(std::string(c.name) + ", by a " + kind);
    Scene<TypeParam> s;
    int const fd = s.pairs[0].ends[0];
    s.timerIn(0, 'a');
    auto& timer = s.timer('b');
    auto& call = s.call('b');
    auto& watch = s.watch(-1, 'b');
    s.timerIn(0, 'c');
    auto const gone = [&] {
      timer.control.reset();
      call.control.reset();
      watch.control.reset();
    };
    timer.handler.onTimeout = call.handler.onCallback = [&] {
      s.log += 'b';
      if (c.destroysFirst) gone();
      throw 1;
    };
    watch.handler.onRead = [&](int) {
      watch.off();  // its handler is still told the number that the event was for
      timer.handler.onTimeout();
    };
    int asked = 0;
    timer.handler.onAsked = call.handler.onAsked = watch.handler.onAsked = [&] {
      ++asked;
      EXPECT_NE(nullptr, std::current_exception()) << "not within its catch block";
      if (c.destroysInAnswer) gone();
      if (c.throwsInAnswer) throw 2;
    };
    timer.handler.answer = call.handler.answer = watch.handler.answer = c.answers;
    if (*kind == 't') timer.in(0);
    if (*kind == 'c') call.soon();
    if (*kind == 'd') {
      watch.control->setFd(fd);
      s.pairs[0].put();
    }
    int left = 0;
    try {
      Platform::doEventLoop();
    } catch (int fault) {
      left = fault;
    }
    EXPECT_EQ(c.leaves, left);
    EXPECT_EQ(c.asked, asked);
    for (int const told : watch.handler.asked) EXPECT_EQ(fd, told);
    Platform::doEventLoop();
    std::sort(s.log.begin(), s.log.end());
    EXPECT_EQ("abc", s.log);
  };
  TypeParam::run([&] {
    for (auto const& c : cases) {
      for (char const* kind : {"timer", "callback", "descriptor"}) play(c, kind);
    }
    // A run that was left by exception takes its limit with it.
    Scene<TypeParam> s;
    s.timerIn(0, 'x', [] { throw 1; });
    EXPECT_THROW(Platform::doEventLoop(1), int);
    s.timerIn(5, 'y');
    Platform::doEventLoop();
    EXPECT_EQ("xy", s.log);
  });
}

/// A watch and a timer, which a child may spoil.
template <typename Backend>
struct Inherited {
  Inherited() {
    fd->setReads(true);
    fd->setFd(pair.ends[0]);
    events.onRead = [this](int) { fd->delFd(); };
  }
  /// Whether a descriptor of the child's own is told.
  void expectOwnEvents() {
    SocketPair own;
    fd->setFd(own.ends[0]);
    fd->setReads(true);
    own.put();
    Platform::doEventLoop(0.05);
    EXPECT_EQ(1, events.reads);
  }
  Outside const outside{};
  SocketPair pair;
  FdEvents events;
  Timeout handler;
  std::shared_ptr<Platform::FdControl> fd = Backend::fd(&events);
  std::shared_ptr<Platform::TimerControl> timer = Backend::timer(&handler);
};

TYPED_TEST(DisturbanceTest, forks) {
  using I = Inherited<TypeParam>;
  struct {
    char const* name;
    bool insideAHandler;
    void (*child)(I&);
  } const cases[] = {
      {"touches", false, [](I& i) { i.fd->delFd(); }},
      {"destroys", true,
       [](I& i) {
         i.fd.reset();
         i.timer.reset();
       }},
      {"runs a loop of its own", false, [](I& i) { i.expectOwnEvents(); }},
      {"frees its base, and has a new one", false,
       [](I& i) {
         leFree();
         i.fd->setReads(false);
         i.expectOwnEvents();
         i.fd.reset();
         leFree();
       }},
  };
  TypeParam::run([&] {
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      I parent;
      auto const fork = [&] { inChild([&] { c.child(parent); }); };
      if (c.insideAHandler) parent.handler.onTimeout = fork;
      if (!c.insideAHandler) fork();
      parent.timer->setTimeout(0.002);
      Platform::doEventLoop(0.01);
      EXPECT_EQ(1, parent.handler.calls);
      parent.pair.put();
      Platform::doEventLoop();
      EXPECT_EQ(1, parent.events.reads) << "the parent has gone deaf";
    }
  });
}

TYPED_TEST(DisturbanceTest, aChildForkedInsideAHandlerGoesOnByItself) {
  TypeParam::run([] {
    Inherited<TypeParam> i;
    SocketPair childs;
    pid_t child = -1;
    i.handler.onTimeout = [&] {
      child = ::fork();
      if (child == 0) {
        i.fd->setFd(childs.ends[0]);
        return childs.put();
      }
      int status = -1;
      ::waitpid(child, &status, 0);
      EXPECT_EQ(0, status);
      i.pair.put();
    };
    i.timer->setTimeout(0);
    Platform::doEventLoop(1);
    if (child == 0) ::_exit(i.events.reads == 1 ? 0 : 1);
    EXPECT_EQ(1, i.events.reads);
  });
}

}  // namespace
}  // namespace Veltro
