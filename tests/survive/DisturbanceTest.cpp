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
    int const* offered = nullptr;
    timer.handler.onAsked = call.handler.onAsked = watch.handler.onAsked = [&] {
      ++asked;
      if (c.destroysInAnswer) gone();
      if (c.throwsInAnswer) throw 2;
      try {
        throw;
      } catch (int const& fault) {
        offered = &fault;
      }
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
    } catch (int const& fault) {
      left = fault;
      EXPECT_TRUE(offered == nullptr || offered == &fault) << "a copy";
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

TYPED_TEST(DisturbanceTest, forks) {
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

TYPED_TEST(DisturbanceTest, aChildForkedInsideAHandlerGoesOnByItself) {
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

}  // namespace
}  // namespace Veltro
