// A random walk over timers, callbacks and descriptors, held against a model that knows nothing of
// how the loops work: only what was armed, when, and what may be called.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <sstream>

#include "Scene.h"
#include "Veltro/TaskGroup.h"

namespace Veltro {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kTick = 1.0 / 512;  // exact in seconds and in nanoseconds
constexpr std::int64_t kTickNs = 1953125;

/// Where a control stands: for tasks, the scheduler and the priority. Order is kept within a lane.
struct Lane {
  std::shared_ptr<TaskScheduler> scheduler;
  TaskPriority priority = TaskPriority::normal;
  unsigned number = 0;
};

/// A loop, bare or under a scheduler, and what it promises about order and ends beyond what all do.
template <typename Loop, bool tasks>
struct On : Loop {
  static constexpr bool kTasks = tasks;
  static constexpr bool kExact = std::is_same_v<Loop, KivBackend>;
  static constexpr bool kOneOrder = kExact && !tasks;  // zero delays and deadlines are one order
  static std::shared_ptr<Platform::TimerControl> timer(Platform::TimeoutHandler* h, Lane const& l) {
    if (!tasks) return Loop::timer(h);
    return Platform::getTimerControl(h, l.scheduler, l.priority, "timer");
  }
  static std::shared_ptr<Platform::FdControl> fd(Platform::FdEventHandler* h, Lane const& l) {
    if (!tasks) return Loop::fd(h);
    return Platform::getFdControl(h, l.scheduler, l.priority, "fd");
  }
  static std::shared_ptr<Platform::CallbackControl> callback(Platform::CallbackHandler* h,
                                                             Lane const& l) {
    if (!tasks) return Loop::callback(h);
    return Platform::getCallbackControl(h, l.scheduler, l.priority, "callback");
  }
};

template <typename Backend>
class Walk {
 public:
  explicit Walk(unsigned seed) : random_(seed) {
    for (auto& actor : actors_) _fill(actor);
  }
  Walk(Walk const&) = delete;

  /// Empty, or what was wrong first.
  std::string steps(unsigned count) {
    while (steps_ < count && wrong_.empty()) {
      for (unsigned i = _below(12); i != 0; --i) _operate();
      _run(_below(8));
    }
    if (wrong_.empty()) _end();
    return wrong_;
  }
  unsigned taken() const { return steps_; }

 private:
  enum Kind { timer, callback, descriptor };
  struct Actor final : Platform::TimeoutHandler,
                       Platform::CallbackHandler,
                       Platform::FdEventHandler {
    explicit Actor(Walk& w) : walk(w) {}
    void timeout() override { walk._called(*this); }
    void callback() override { walk._called(*this); }
    void readFdEvent(int fd) override { walk._ready(*this, fd, reads); }
    void writeFdEvent(int fd) override { walk._ready(*this, fd, writes); }
    bool handleTimeoutException() override { return answers; }
    bool handleCallbackException() override { return answers; }
    bool handleFdException(int) override { return answers; }

    Walk& walk;
    Kind kind{};
    Lane lane;
    std::shared_ptr<Platform::TimerControl> timerControl;
    std::shared_ptr<Platform::CallbackControl> callbackControl;
    std::shared_ptr<Platform::FdControl> fdControl;
    bool answers = false;
    // The model's.
    bool armed = false;
    bool zero = false;
    bool placeUnknown = false;
    std::int64_t dueNs = 0;
    unsigned long sequence = 0;
    bool reads = false, writes = false;
    int bound = -1;
    unsigned calls = 0;
  };

  unsigned _below(unsigned n) { return static_cast<unsigned>(random_()) % n; }
  std::unique_ptr<Actor>& _any() { return actors_[_below(kActors)]; }
  template <typename... Parts>
  void _wrong(Parts const&... parts) {
    if (!wrong_.empty()) return;
    std::ostringstream text;
    ((text << parts), ...);
    text << ", step " << steps_ << ", at " << outside_.nowNs;
    wrong_ = text.str();
  }

  Lane _lane() {
    Lane lane;
    if (!Backend::kTasks) return lane;
    unsigned const scheduler = _below(3);
    unsigned const priority = _below(5);
    lane.priority = TaskPriority(priority);
    lane.scheduler = schedulerRootVeltro();
    if (scheduler != 0) {
      auto& group = groups_[scheduler - 1];
      if (!group || _below(20) == 0) {
        group = TaskGroup::TaskGroupIs("g", TaskPriority(_below(5)), false, lane.scheduler);
        ++groupsMade_;
      }
      lane.scheduler = group;
    }
    lane.number = (scheduler == 0 ? 0 : groupsMade_ * 2 + scheduler) * 5 + priority;
    return lane;
  }

  void _fill(std::unique_ptr<Actor>& place) {
    auto actor = std::make_unique<Actor>(*this);
    actor->kind = static_cast<Kind>(_below(3));
    actor->lane = _lane();
    actor->answers = _below(2) == 0;
    if (actor->kind == timer) actor->timerControl = Backend::timer(actor.get(), actor->lane);
    if (actor->kind == callback) {
      actor->callbackControl = Backend::callback(actor.get(), actor->lane);
    }
    if (actor->kind == descriptor) {
      actor->fdControl = Backend::fd(actor.get(), actor->lane);
      actor->fdControl->setReads(false);  // the back ends begin differently
    }
    place = std::move(actor);
  }

  void _operate() {
    ++steps_;
    auto& place = _any();
    Actor& actor = *place;
    if (_below(16) == 0) return _fill(place);  // the old one goes, wherever the loop stands
    if (actor.kind == timer) return _operateTimer(actor);
    if (actor.kind == callback) return _operateCallback(actor);
    _operateDescriptor(actor);
  }

  void _operateTimer(Actor& actor) {
    unsigned const deed = _below(6);
    if (deed == 3) return _checkRemaining(actor);
    if (deed < 2) {
      actor.armed = false;
      if (deed == 0) return actor.timerControl->delTimeout();
      return actor.timerControl->setTimeout(kInfinity);
    }
    unsigned const ticks = deed == 2 ? 0 : 1 + _below(20);
    actor.timerControl->setTimeout(kTick * ticks);
    // A task that is queued keeps its place; whether one that has come due is, only its loop knows.
    if (ticks == 0 && Backend::kTasks && actor.armed && actor.dueNs <= outside_.nowNs) {
      actor.placeUnknown = actor.placeUnknown || !actor.zero;
    } else {
      _armed(actor, ticks * kTickNs);
    }
  }

  void _operateCallback(Actor& actor) {
    if (_below(3) == 0) {
      actor.callbackControl->cancelCallback();
      actor.armed = false;
    } else {
      actor.callbackControl->requestCallback();
      if (!actor.armed) _armed(actor, 0);
    }
    if (actor.callbackControl->pendingCallback() != actor.armed) _wrong("pending is wrong");
  }

  void _armed(Actor& actor, std::int64_t delayNs) {
    actor.placeUnknown = false;
    actor.armed = true;
    actor.zero = delayNs == 0;
    actor.dueNs = outside_.nowNs + delayNs;
    actor.sequence = ++sequence_;
  }

  void _checkRemaining(Actor const& actor) {
    double const left = actor.timerControl->remainingTimeout();
    if (!actor.armed) {
      if (left != kInfinity) _wrong("idle, and ", left, " s left");
    } else if (!Backend::kTasks || actor.dueNs > outside_.nowNs) {
      double const expected =
          std::max(0.0, static_cast<double>(actor.dueNs - outside_.nowNs) / 1e9);
      if (std::abs(left - expected) > 5e-6) _wrong(left, " s left, not ", expected);
    }
  }

  void _operateDescriptor(Actor& actor) {
    Platform::FdControl& control = *actor.fdControl;
    SocketPair const& socket = sockets_[_below(kSockets)];
    char bytes[64];
    switch (_below(9)) {
      case 0:
      case 1:
        return control.setReads(actor.reads = _below(3) != 0);
      case 2:
        return control.setWrites(actor.writes = _below(3) == 0);
      case 3:
        actor.bound = -1;
        actor.reads = actor.writes = false;
        return control.delFd();
      case 4:
        actor.reads = actor.writes = false;
        return control.clearEvents();
      case 5:
      case 6:
        control.setFd(actor.bound = socket.ends[0]);
        // What clearEvents() leaves of the interests differs; from here on they are alike again.
        control.setReads(actor.reads = _below(3) != 0);
        return control.setWrites(actor.writes);
      case 7:
        if (::read(socket.ends[0], bytes, sizeof bytes) > 0) return;
        [[fallthrough]];
      default:
        if (::write(socket.ends[1], "x", 1) != 1) return;
    }
  }

  /// A timer's or callback's turn.
  void _called(Actor& actor) {
    ++steps_;
    ++actor.calls;
    if (!actor.armed) return _wrong("called, though not armed");
    if (outside_.nowNs < actor.dueNs) _wrong("early by ", actor.dueNs - outside_.nowNs, " ns");
    for (auto const& other : actors_) {
      if (other.get() != &actor && _precedes(*other, actor)) {
        _wrong("out of turn: due ", actor.dueNs, " #", actor.sequence, " before ", other->dueNs,
               " #", other->sequence);
      }
    }
    actor.armed = false;
    _act(actor);
  }

  static bool _precedes(Actor const& a, Actor const& b) {
    if (a.kind == descriptor || !a.armed || a.lane.number != b.lane.number) return false;
    if (a.placeUnknown || b.placeUnknown) return false;
    if (a.zero != b.zero && !Backend::kOneOrder) return false;
    if (a.zero && b.zero) return a.sequence < b.sequence;
    if (a.dueNs / 1000 != b.dueNs / 1000) return a.dueNs < b.dueNs;
    return Backend::kExact && a.sequence < b.sequence;  // libevent's ties: within a microsecond
  }

  void _ready(Actor& actor, int fd, bool interest) {
    ++steps_;
    ++actor.calls;
    if (!interest) _wrong("told without interest");
    if (fd != actor.bound) _wrong("told of ", fd, ", bound to ", actor.bound);
    // Takes its time, and the loop's clock is read.
    outside_.nowNs += kTickNs;
    clockReader_->remainingTimeout();
    if (quiet_ || _below(2) == 0) {
      SocketPair::take(fd);
    }
    if (quiet_) {
      actor.writes = false;
      return actor.fdControl->setWrites(false);
    }
    _act(actor);
  }

  /// What a handler does: anything.
  void _act(Actor& actor) {
    if (quiet_ || !wrong_.empty()) return;
    Actor const* const self = &actor;
    for (unsigned i = _below(4); i != 0; --i) _operate();
    if (_below(32) == 0 && Platform::doEventLoop(kTick) != -1) _wrong("a run inside a run");
    bool gone = true;
    for (auto const& each : actors_) gone = gone && each.get() != self;
    // A task that let go of its handler lives to the end of its run: nobody could be asked.
    if (_below(16) == 0 && !(Backend::kTasks && gone)) throw 1;
  }

  void _run(unsigned ticks) {
    std::int64_t const end = outside_.nowNs + ticks * kTickNs;
    try {
      if (Platform::doEventLoop(kTick * ticks) != 0) _wrong("a limited run ends as it should not");
      if (outside_.nowNs < end && !mayBeCut_) _wrong("a limited run is cut short");
      mayBeCut_ = false;
    } catch (int) {
      // libevent keeps the end of a run that came in the pass of an exception for the next run.
      mayBeCut_ = !Backend::kExact;
    }
  }

  /// What is armed comes, what is ready is told, and then nothing is left.
  void _end() {
    quiet_ = true;
    _run(0);  // takes what an exception has cut
    clockReader_->setTimeout(1);
    for (auto const& actor : actors_) {
      actor->calls = 0;
      if (actor->kind == descriptor && actor->bound >= 0 && actor->reads) {
        for (auto const& socket : sockets_) {
          if (actor->bound == socket.ends[0] && ::write(socket.ends[1], "x", 1) != 1) std::abort();
        }
      }
    }
    _run(1);
    for (auto const& actor : actors_) {
      if (actor->kind != descriptor) continue;
      bool const told = actor->calls != 0 || actor->bound < 0 || !actor->reads;
      // Those that share a descriptor drain it for each other: a task may come too late.
      if (!told && !Backend::kTasks) _wrong("a ready descriptor is not told");
      actor->fdControl->delFd();
    }
    Platform::doEventLoop();
    for (auto const& actor : actors_) {
      if (actor->kind != descriptor && actor->armed) _wrong("armed, and never called");
    }
  }

  static constexpr unsigned kActors = 24;
  static constexpr unsigned kSockets = 4;
  Outside outside_;
  Timeout clockHandler_;
  std::shared_ptr<Platform::TimerControl> const clockReader_ = [this] {
    auto control = Platform::getTimerControl(&clockHandler_);
    control->setTimeout(1e6);
    return control;
  }();
  std::mt19937 random_;
  std::array<SocketPair, kSockets> sockets_;
  std::shared_ptr<TaskGroup> groups_[2];
  unsigned groupsMade_ = 0;
  std::array<std::unique_ptr<Actor>, kActors> actors_;
  unsigned long sequence_ = 0;
  unsigned steps_ = 0;
  bool quiet_ = false;
  bool mayBeCut_ = false;
  std::string wrong_;
};

unsigned fromEnvironment(char const* name, unsigned otherwise) {
  char const* const text = std::getenv(name);
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

template <typename Backend>
struct WalkTest : testing::Test {};
using Backends = testing::Types<On<KivBackend, false>, On<LibeventBackend, false>,
                                On<KivBackend, true>, On<LibeventBackend, true>>;
TYPED_TEST_SUITE(WalkTest, Backends, );

// WALK_SEED replays one walk; WALK_STEPS makes all of them longer.
TYPED_TEST(WalkTest, agreesWithTheModel) {
  constexpr unsigned kStepsAWalk = 2000;
  unsigned const steps = fromEnvironment("WALK_STEPS", 1000000);
  unsigned const only = fromEnvironment("WALK_SEED", 0);
  TypeParam::run([&] {
    unsigned taken = 0;
    for (unsigned seed = only != 0 ? only : 1; taken < steps; ++seed) {
      Walk<TypeParam> walk(seed);
      std::string const wrong = walk.steps(kStepsAWalk);
      ASSERT_EQ("", wrong) << "replay with WALK_SEED=" << seed;
      taken += walk.taken();
      if (only != 0) return;
    }
  });
}

}  // namespace
}  // namespace Veltro
