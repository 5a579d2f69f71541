// What every back end of the facade promises, on each of them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "tests/platform/Backends.h"

namespace Veltro {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct SocketPair {
  SocketPair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
  }
  ~SocketPair() {
    closeEnd(0);
    closeEnd(1);
  }
  void closeEnd(int end) {
    if (ends[end] >= 0) ::close(ends[end]);
    ends[end] = -1;
  }
  void put(int end, char const* text = "x") {
    EXPECT_EQ(1, ::send(ends[end], text, 1, MSG_NOSIGNAL));
  }
  static void take(int fd) {
    char c;
    while (::recv(fd, &c, 1, MSG_DONTWAIT) == 1) {
    }
  }
  int ends[2];
};

template <typename Backend>
struct ControlsTest : testing::Test {};
using Backends = testing::Types<KivBackend, LibeventBackend, TaskBackend<KivBackend>,
                                TaskBackend<LibeventBackend>>;
TYPED_TEST_SUITE(ControlsTest, Backends, );

TYPED_TEST(ControlsTest, timersFireOnceInTheOrderOfTheirDeadlines) {
  TypeParam::run([] {
    std::string order;
    Timeout a([&] { order += 'a'; }), b([&] { order += 'b'; }), c([&] { order += 'c'; });
    auto const ta = TypeParam::timer(&a), tb = TypeParam::timer(&b), tc = TypeParam::timer(&c);
    ta->setTimeout(0.020);
    tb->setTimeout(60);
    tb->setTimeout(0.010);  // replaces
    tc->setTimeout(0);
    Platform::doEventLoop();
    EXPECT_EQ("cba", order);
    EXPECT_EQ(kInfinity, ta->remainingTimeout());
    Platform::doEventLoop();
    EXPECT_EQ("cba", order);
  });
}

TYPED_TEST(ControlsTest, delaysAreNeverCutShort) {
  struct {
    double seconds;
    bool fires;
  } const cases[] = {{0, true},           {-0.0, true},        {-1, true},   {-kInfinity, true},
                     {kNaN, true},        {-1e300, true},      {1e-9, true}, {0.0101, true},
                     {kInfinity, false},  {1e300, false},      {4e8, false}, {2147483646.5, false},
                     {2147483647, false}, {2147483649, false}, {1e10, false}};
  TypeParam::run([&] {
    for (auto const& c : cases) {
      SCOPED_TRACE(c.seconds);
      Timeout handler;
      auto const timer = TypeParam::timer(&handler);
      auto const start = std::chrono::steady_clock::now();
      double elapsed = -1;
      handler.onTimeout = [&] {
        elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      };
      timer->setTimeout(c.seconds);
      if (TypeParam::kDueHasTimeLeft || c.seconds > 0) {
        EXPECT_EQ(c.seconds == kInfinity, timer->remainingTimeout() == kInfinity);
      }
      if (!c.fires) {
        EXPECT_GT(timer->remainingTimeout(), 86400);
      }
      Platform::doEventLoop(0.03);
      EXPECT_EQ(c.fires ? 1 : 0, handler.calls);
      if (c.seconds > 0 && c.fires) {
        EXPECT_GE(elapsed, c.seconds);
      }
    }
  });
}

TYPED_TEST(ControlsTest, aDelayCountsFromItsArmingHoweverLateInThePass) {
  TypeParam::run([] {
    using Clock = std::chrono::steady_clock;
    Clock::time_point armed;
    double elapsed = -1;
    Timeout second([&] { elapsed = std::chrono::duration<double>(Clock::now() - armed).count(); });
    auto const later = TypeParam::timer(&second);
    Timeout busy([&] {
      auto const until = Clock::now() + std::chrono::milliseconds(20);
      while (Clock::now() < until) {
      }
      armed = Clock::now();
      later->setTimeout(0.005);
    });
    auto const first = TypeParam::timer(&busy);
    first->setTimeout(0);
    Platform::doEventLoop();
    EXPECT_GE(elapsed, 0.005);
  });
}

TYPED_TEST(ControlsTest, remainingAndPending) {
  TypeParam::run([] {
    Timeout handler;
    auto const timer = TypeParam::timer(&handler);
    EXPECT_EQ(kInfinity, timer->remainingTimeout());
    timer->setTimeout(100);
    EXPECT_NEAR(100, timer->remainingTimeout(), 1);
    timer->setTimeout(kInfinity);
    EXPECT_EQ(kInfinity, timer->remainingTimeout());
    timer->setTimeout(100);
    timer->delTimeout();
    EXPECT_EQ(kInfinity, timer->remainingTimeout());

    Callback back;
    auto const callback = TypeParam::callback(&back);
    bool pendingInside = true;
    back.onCallback = [&] { pendingInside = callback->pendingCallback(); };
    EXPECT_FALSE(callback->pendingCallback());
    callback->requestCallback();
    callback->requestCallback();
    EXPECT_TRUE(callback->pendingCallback());
    EXPECT_EQ(0, back.calls) << "called from inside the request";
    Platform::doEventLoop();
    EXPECT_EQ(1, back.calls);
    EXPECT_FALSE(pendingInside);
    callback->requestCallback();
    callback->cancelCallback();
    EXPECT_FALSE(callback->pendingCallback());
    Platform::doEventLoop(0.01);
    EXPECT_EQ(1, back.calls);
  });
}

TYPED_TEST(ControlsTest, askingAgainDoesNotPutACallbackOff) {
  TypeParam::run([] {
    Callback second;
    auto const patient = TypeParam::callback(&second);
    int turns = 0;
    Callback first;
    auto const eager = TypeParam::callback(&first);
    first.onCallback = [&] {
      patient->requestCallback();
      if (++turns < 100 && second.calls == 0) eager->requestCallback();
    };
    eager->requestCallback();
    Platform::doEventLoop();
    EXPECT_GT(second.calls, 0);
    EXPECT_LT(turns, 5);
  });
}

TYPED_TEST(ControlsTest, zeroDelaysLeaveRoomForDescriptorsAndTimers) {
  TypeParam::run([] {
    SocketPair pair;
    FdEvents events;
    auto const fd = TypeParam::fd(&events);
    fd->setReads(true);
    fd->setFd(pair.ends[0]);
    Timeout other;
    auto const timer = TypeParam::timer(&other);
    int turns = 0;
    Timeout again;
    auto const zero = TypeParam::timer(&again);
    again.onTimeout = [&] {
      if (++turns < 1000000 && (events.reads == 0 || other.calls == 0)) zero->setTimeout(0);
    };
    events.onRead = [&](int) { fd->delFd(); };
    timer->setTimeout(0.002);
    zero->setTimeout(0);
    pair.put(1);
    Platform::doEventLoop();
    EXPECT_EQ(1, events.reads);
    EXPECT_EQ(1, other.calls);
  });
}

TYPED_TEST(ControlsTest, anyControlMayBeDisarmedOrDestroyedInsideAHandler) {
  TypeParam::run([] {
    // Three due in one pass; the first to run disarms one, destroys one and itself.
    int calls = 0;
    std::unique_ptr<Timeout> handlers[3];
    std::shared_ptr<Platform::TimerControl> timers[3];
    for (int i = 0; i < 3; ++i) {
      handlers[i] = std::make_unique<Timeout>([&, i] {
        ++calls;
        timers[(i + 1) % 3]->delTimeout();
        timers[(i + 2) % 3].reset();
        handlers[(i + 2) % 3].reset();
        auto const self = std::move(handlers[i]);
        timers[i].reset();
      });
      timers[i] = TypeParam::timer(handlers[i].get());
      timers[i]->setTimeout(0);
    }
    Platform::doEventLoop();
    EXPECT_EQ(1, calls);

    SocketPair pair;
    auto fdHandler = std::make_unique<FdEvents>();
    auto fd = TypeParam::fd(fdHandler.get());
    fdHandler->onRead = [&](int) {
      fd.reset();
      auto const self = std::move(fdHandler);
    };
    fd->setReads(true);
    fd->setWrites(true);
    fd->setFd(pair.ends[0]);
    pair.put(1);
    Platform::doEventLoop(0.01);
    EXPECT_EQ(nullptr, fd);
  });
}

TYPED_TEST(ControlsTest, anExceptionIsOfferedAndThenLeavesTheLoop) {
  TypeParam::run([] {
    struct Fault : std::runtime_error {
      using runtime_error::runtime_error;
    } const fault("thrown by a handler");
    Timeout handler;
    auto const timer = TypeParam::timer(&handler);
    Timeout next;
    auto const after = TypeParam::timer(&next);
    handler.onTimeout = [&] { throw fault; };
    for (bool const answer : {false, true}) {
      handler.answer = answer;
      handler.asked = next.calls = 0;
      timer->setTimeout(0);
      after->setTimeout(0);
      if (answer) {
        EXPECT_NO_THROW(Platform::doEventLoop());
      } else {
        EXPECT_THROW(Platform::doEventLoop(), Fault);
        EXPECT_LE(next.calls, 1);
        Platform::doEventLoop();  // goes on with what was due
      }
      EXPECT_EQ(1, handler.asked);
      EXPECT_EQ(1, next.calls);
    }

    Callback back([&] { throw fault; });
    auto const callback = TypeParam::callback(&back);
    callback->requestCallback();
    EXPECT_THROW(Platform::doEventLoop(), Fault);
    back.answer = true;
    callback->requestCallback();
    EXPECT_NO_THROW(Platform::doEventLoop());
    EXPECT_EQ(2, back.calls);

    SocketPair pair;
    FdEvents events;
    auto const fd = TypeParam::fd(&events);
    events.onRead = [&](int) {
      fd->delFd();  // the exception is offered with the descriptor that the event was for
      throw fault;
    };
    pair.put(1);
    for (bool const answer : {false, true}) {
      events.answer = answer;
      fd->setFd(pair.ends[0]);
      fd->setReads(true);
      if (answer) {
        EXPECT_NO_THROW(Platform::doEventLoop());
      } else {
        EXPECT_THROW(Platform::doEventLoop(), Fault);
      }
    }
    EXPECT_EQ((std::vector<int>{pair.ends[0], pair.ends[0]}), events.asked);
  });
}

TYPED_TEST(ControlsTest, theAnswerMayThrowOrDestroyTheControl) {
  TypeParam::run([] {
    struct {
      char const* name;
      bool destroys, throws, answer;
      int leaves;  // 0 for none
    } const cases[] = {
        {"throws another", false, true, true, 2},
        {"destroys, answers", true, false, true, 0},
        {"destroys, does not answer", true, false, false, 1},
        {"destroys, throws another", true, true, false, 2},
    };
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      Timeout handler([] { throw 1; });
      auto timer = TypeParam::timer(&handler);
      int const* offered = nullptr;
      handler.answer = c.answer;
      handler.onAsked = [&] {
        if (c.destroys) timer.reset();
        if (c.throws) throw 2;
        try {
          throw;
        } catch (int const& fault) {
          offered = &fault;
        }
      };
      timer->setTimeout(0);
      int left = 0;
      try {
        Platform::doEventLoop();
      } catch (int const& fault) {
        left = fault;
        EXPECT_TRUE(c.throws || offered == &fault) << "a copy";
      }
      EXPECT_EQ(c.leaves, left);
    }
  });
}

TYPED_TEST(ControlsTest, aLimitedRunLastsItsTimeAndLeavesNothingBehind) {
  TypeParam::run([] {
    using Clock = std::chrono::steady_clock;
    auto const start = Clock::now();
    EXPECT_EQ(0, Platform::doEventLoop(0.02));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(15));

    Timeout handler([] { throw 1; });
    auto const timer = TypeParam::timer(&handler);
    timer->setTimeout(0);
    EXPECT_THROW(Platform::doEventLoop(0.02), int);
    // The limit of the run that was left must not end this one.
    Timeout late;
    auto const lateTimer = TypeParam::timer(&late);
    lateTimer->setTimeout(0.05);
    Platform::doEventLoop();
    EXPECT_EQ(1, late.calls);

    int nested = 0;
    handler.onTimeout = [&] { nested = Platform::doEventLoop() + Platform::doEventLoop(0.0); };
    timer->setTimeout(0);
    lateTimer->setTimeout(0.01);
    Platform::doEventLoop(0.05);
    EXPECT_EQ(-2, nested);
    EXPECT_EQ(2, late.calls);
  });
}

TYPED_TEST(ControlsTest, descriptorsAreWatchedByLevelAndByDirection) {
  TypeParam::run([] {
    SocketPair pair;
    FdEvents events;
    auto const fd = TypeParam::fd(&events);
    EXPECT_EQ(-1, fd->getFd());
    fd->setReads(true);
    fd->setFd(pair.ends[0]);
    EXPECT_EQ(pair.ends[0], fd->getFd());
    EXPECT_NE(0, ::fcntl(pair.ends[0], F_GETFL) & O_NONBLOCK);

    events.onRead = [&](int number) {
      EXPECT_EQ(pair.ends[0], number);
      if (events.reads == 3) SocketPair::take(number);  // until then it stays readable
    };
    pair.put(1);
    Platform::doEventLoop(0.01);
    // A task may be queued once more by readiness that the kernel told of before the bytes went.
    EXPECT_GE(events.reads, 3);
    EXPECT_LE(events.reads, 4);
    EXPECT_EQ(0, events.writes);
    int const before = events.reads;

    events.onWrite = [&](int) {
      if (events.writes == 2) fd->setWrites(false);
    };
    fd->setWrites(true);
    Platform::doEventLoop(0.01);
    EXPECT_EQ(2, events.writes);

    fd->setReads(false);
    pair.put(1);
    Platform::doEventLoop(0.01);
    EXPECT_EQ(before, events.reads);
    fd->setReads(true);
    events.onRead = [&](int) { fd->clearEvents(); };
    Platform::doEventLoop(0.01);
    EXPECT_EQ(before + 1, events.reads);
    EXPECT_EQ(pair.ends[0], fd->getFd());
    fd->setReads(true);
    events.onRead = [&](int) { fd->delFd(); };
    Platform::doEventLoop();  // nothing is left to wait for
    EXPECT_EQ(before + 2, events.reads);
    EXPECT_EQ(-1, fd->getFd());
  });
}

TYPED_TEST(ControlsTest, anInterestIsCarriedOverToTheNextDescriptor) {
  TypeParam::run([] {
    SocketPair first, second;
    FdEvents events;
    auto const fd = TypeParam::fd(&events);
    fd->setReads(true);
    fd->setFd(first.ends[0]);
    first.closeEnd(0);  // closed under the watch, before it is bound anew
    fd->setFd(second.ends[0]);
    second.put(1);
    events.onRead = [&](int number) {
      EXPECT_EQ(second.ends[0], number);
      fd->delFd();
    };
    Platform::doEventLoop(0.05);
    EXPECT_EQ(1, events.reads);
  });
}

TYPED_TEST(ControlsTest, aPeerThatHungUpIsReadableAndCostsNothingUnasked) {
  TypeParam::run([] {
    SocketPair pair;
    FdEvents events;
    auto const fd = TypeParam::fd(&events);
    fd->setReads(true);
    fd->setFd(pair.ends[0]);
    pair.closeEnd(1);
    events.onRead = [&](int number) {
      char c;
      EXPECT_EQ(0, ::recv(number, &c, 1, 0));
      fd->setReads(false);
    };
    Platform::doEventLoop(0.02);
    EXPECT_EQ(1, events.reads);
    fd->delFd();
  });
}

TYPED_TEST(ControlsTest, aForkedChildDisturbsNobody) {
  TypeParam::run([] {
    SocketPair pair;
    FdEvents events;
    auto fd = TypeParam::fd(&events);
    fd->setReads(true);
    fd->setFd(pair.ends[0]);
    Timeout handler;
    auto timer = TypeParam::timer(&handler);
    timer->setTimeout(0.005);
    events.onRead = [&](int number) {
      SocketPair::take(number);
      fd->delFd();
    };
    enum { touches, destroys, runs };
    for (int const what : {touches, destroys, runs}) {
      pid_t const child = ::fork();
      if (child == 0) {
        if (what == touches) {
          fd->setReads(false);
          fd->delFd();
        } else if (what == destroys) {
          fd.reset();
          timer.reset();
        } else {
          SocketPair own;
          fd->setFd(own.ends[0]);
          own.put(1);
          Platform::doEventLoop();
          ::_exit(events.reads == 1 && handler.calls == 1 ? 0 : 1);
        }
        ::_exit(0);
      }
      int status = -1;
      ::waitpid(child, &status, 0);
      EXPECT_EQ(0, status) << what;
    }
    pair.put(1);
    Platform::doEventLoop();
    EXPECT_EQ(1, events.reads);
    EXPECT_EQ(1, handler.calls);
  });
}

TYPED_TEST(ControlsTest, aChildForkedInsideAHandlerGoesOnByItself) {
  TypeParam::run([] {
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
        ::alarm(20);
        fd->setFd(childs.ends[0]);
        childs.put(1);
        return;
      }
      int status = -1;
      ::waitpid(child, &status, 0);
      EXPECT_EQ(0, status);
      parents.put(1);
    });
    auto const timer = TypeParam::timer(&handler);
    timer->setTimeout(0);
    Platform::doEventLoop();
    if (child == 0) ::_exit(events.reads == 1 ? 0 : 1);
    EXPECT_EQ(1, events.reads);
  });
}

TYPED_TEST(ControlsTest, whatCannotBeWatchedIsRefused) {
  TypeParam::run([] {
    FdEvents events;
    auto const fd = TypeParam::fd(&events);
    fd->setReads(true);
    int const file = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    EXPECT_THROW(fd->setFd(file), std::exception);
    EXPECT_EQ(-1, fd->getFd());
    ::close(file);
    SocketPair pair;
    fd->setFd(pair.ends[0]);
    pair.put(1);
    events.onRead = [&](int) { fd->delFd(); };
    Platform::doEventLoop(0.02);
    EXPECT_EQ(1, events.reads);
  });
}

}  // namespace
}  // namespace Veltro
