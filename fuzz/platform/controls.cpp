// Timers, callbacks and descriptor watches under any sequence of operations, outside and inside
// handlers, in virtual time: never early, once an arming, nothing after a cancel or the end of a
// control, and in the end all that was promised. Over the type system's loop, over tasks of that
// loop's scheduler, and over tasks of a test kit.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>

#include "Kiv/System.h"
#include "Veltro/Platform.h"
#include "Veltro/TestKit.h"
#include "fuzz/support/Fuzz.h"

namespace Veltro::fuzz {
namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();
constexpr double kTolerance = 1e-6;  // of the reference's own arithmetic
constexpr double kDelays[] = {
    0,  0.001, 0.25,      0.25,       10,    10,
    99, 1e300, kInfinite, -kInfinite, -1e-9, std::numeric_limits<double>::quiet_NaN()};
constexpr double kLongest = 99;

/// Where controls come from, and what turns them.
struct Loop {
  virtual ~Loop() = default;
  virtual double now() const { return Kiv::System::currentTime(); }
  virtual void run(double seconds) { Platform::doEventLoop(seconds); }
  virtual std::shared_ptr<TaskScheduler> scheduler() const { return nullptr; }
  auto timer(Platform::TimeoutHandler* handler) const {
    return scheduler() == nullptr ? Platform::getTimerControl(handler)
                                  : Platform::getTimerControl(handler, scheduler(), priority, "t");
  }
  auto callback(Platform::CallbackHandler* handler) const {
    return scheduler() == nullptr
               ? Platform::getCallbackControl(handler)
               : Platform::getCallbackControl(handler, scheduler(), priority, "c");
  }
  auto descriptor(Platform::FdEventHandler* handler) const {
    return scheduler() == nullptr ? Platform::getFdControl(handler)
                                  : Platform::getFdControl(handler, scheduler(), priority, "d");
  }
  TaskPriority const priority = TaskPriority::normal;
};

struct SchedulerLoop final : Loop {
  std::shared_ptr<TaskScheduler> scheduler() const override { return schedulerRootVeltro(); }
};

struct KitLoop final : Loop {
  double now() const override { return std::chrono::duration<double>(kit->elapsed()).count(); }
  void run(double seconds) override {
    kit->runFor(std::chrono::nanoseconds(static_cast<std::int64_t>(seconds * 1e9)));
  }
  std::shared_ptr<TaskScheduler> scheduler() const override { return kit; }
  std::shared_ptr<TestKit> const kit = std::make_shared<TestKit>();
};

class World;

struct Timer final : Platform::TimeoutHandler {
  explicit Timer(World& world);
  void timeout() override;
  World& world;
  double due = kInfinite;  // the model's: infinite while nothing is owed
  std::shared_ptr<Platform::TimerControl> control;
};

struct Callback final : Platform::CallbackHandler {
  explicit Callback(World& world);
  void callback() override;
  World& world;
  bool owed = false;
  std::shared_ptr<Platform::CallbackControl> control;
};

struct Watch final : Platform::FdEventHandler {
  explicit Watch(World& world);
  ~Watch() override;
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;
  void write();
  void readsIs(bool on) { control->setReads(reads = wanted = on); }
  World& world;
  int pipe[2];
  bool bound = true;
  bool reads = false;   // interest
  bool wanted = false;  // as last set: what a task takes up again with a descriptor
  unsigned unread = 0;
  std::shared_ptr<Platform::FdControl> control;
};

class World {
 public:
  World(Loop& theLoop, Input& input) : loop(theLoop), input_(input) {
    for (auto& timer : timers_) timer = std::make_unique<Timer>(*this);
    for (auto& callback : callbacks_) callback = std::make_unique<Callback>(*this);
    for (auto& watch : watches_) watch = std::make_unique<Watch>(*this);
  }

  void run() {
    while (!input_.empty()) {
      if (input_.below(4) == 0) {
        loop.run(kDelays[input_.below(5)]);
      } else {
        operate();
      }
    }
    // What is owed and can come, comes.
    draining_ = true;
    loop.run(kLongest + 1);
    for (auto const& timer : timers_) {
      FUZZ_CHECK(!timer || timer->due > loop.now(), "owed since " << timer->due);
    }
    for (auto const& callback : callbacks_) FUZZ_CHECK(!callback || !callback->owed, "a callback");
    for (auto const& watch : watches_) {
      FUZZ_CHECK(!watch || !watch->reads || watch->unread == 0, "bytes " << watch->unread);
    }
  }

  /// What a handler does before it returns; the calling object may be gone then.
  void react() {
    ++depth_;
    for (unsigned n = draining_ ? 0 : input_.below(4); n > 0; --n) operate();
    --depth_;
  }
  void entered() const { FUZZ_CHECK(depth_ == 0, "called from inside a call"); }

  Loop& loop;

 private:
  void operate() {
    ++depth_;
    switch (input_.below(3)) {
      case 0:
        operate(timers_[input_.below(kMany)]);
        break;
      case 1:
        operate(callbacks_[input_.below(kMany)]);
        break;
      default:
        operate(watches_[input_.below(2)]);
    }
    --depth_;
  }
  void operate(std::unique_ptr<Timer>& timer);
  void operate(std::unique_ptr<Callback>& callback);
  void operate(std::unique_ptr<Watch>& watch);

  static constexpr unsigned kMany = 4;
  Input& input_;
  std::array<std::unique_ptr<Timer>, kMany> timers_;
  std::array<std::unique_ptr<Callback>, kMany> callbacks_;
  std::array<std::unique_ptr<Watch>, 2> watches_;
  unsigned depth_ = 0;
  bool draining_ = false;
};

Timer::Timer(World& theWorld) : world(theWorld), control(world.loop.timer(this)) {}

void Timer::timeout() {
  world.entered();
  FUZZ_CHECK(due < kInfinite, "not armed");
  FUZZ_CHECK(world.loop.now() >= due - kTolerance, due - world.loop.now() << " s early");
  due = kInfinite;
  world.react();
}

void World::operate(std::unique_ptr<Timer>& timer) {
  if (!timer) {
    timer = std::make_unique<Timer>(*this);
    return;
  }
  switch (input_.below(8)) {
    case 0:
      timer.reset();
      return;
    case 1:
      timer->control->delTimeout();
      timer->due = kInfinite;
      return;
    case 2: {
      double const left = timer->control->remainingTimeout();
      FUZZ_CHECK(left >= 0, left);
      FUZZ_CHECK(timer->due < kInfinite || left == kInfinite, left);
      return;
    }
    default: {
      double const delay = kDelays[input_.below(std::size(kDelays))];
      double const before = loop.now();
      timer->control->setTimeout(delay);
      // Not a number and what is not above 0 is now; what nobody lives to see is owed all the same.
      timer->due = delay > 0 ? before + delay : before;
    }
  }
}

Callback::Callback(World& theWorld) : world(theWorld), control(world.loop.callback(this)) {}

void Callback::callback() {
  world.entered();
  FUZZ_CHECK(owed, "not requested");
  owed = false;
  FUZZ_CHECK(!control->pendingCallback(), "its own call is still pending");
  world.react();
}

void World::operate(std::unique_ptr<Callback>& callback) {
  if (!callback) {
    callback = std::make_unique<Callback>(*this);
    return;
  }
  switch (input_.below(4)) {
    case 0:
      callback.reset();
      return;
    case 1:
      callback->control->cancelCallback();
      callback->owed = false;
      break;
    default:
      callback->control->requestCallback();
      callback->owed = true;
  }
  FUZZ_CHECK(callback->control->pendingCallback() == callback->owed, callback->owed);
}

Watch::Watch(World& theWorld) : world(theWorld), control(world.loop.descriptor(this)) {
  FUZZ_CHECK(::pipe2(pipe, O_NONBLOCK | O_CLOEXEC) == 0, "pipe");
  control->setFd(pipe[0]);
}

Watch::~Watch() {
  control.reset();
  ::close(pipe[0]);
  ::close(pipe[1]);
}

void Watch::readFdEvent(int fd) {
  world.entered();
  FUZZ_CHECK(bound && reads, "not asked for");
  // A task may have been queued for bytes that went before its turn; the loop knows no such delay.
  bool const mayBeLate = world.loop.scheduler() != nullptr;
  FUZZ_CHECK(fd == pipe[0] && (unread > 0 || mayBeLate), unread << " bytes");
  char byte = 0;
  FUZZ_CHECK(::read(fd, &byte, 1) == (unread > 0 ? 1 : -1), unread << " bytes");
  if (unread > 0) --unread;
  world.react();
}

void Watch::writeFdEvent(int) { FUZZ_CHECK(false, "the reading end of a pipe is never writable"); }

void Watch::write() {
  if (unread < 64) unread += static_cast<unsigned>(::write(pipe[1], "x", 1));
}

void World::operate(std::unique_ptr<Watch>& watch) {
  if (!watch) {
    watch = std::make_unique<Watch>(*this);
    return;
  }
  switch (input_.below(8)) {
    case 0:
      watch.reset();
      return;
    case 1:
      watch->control->delFd();
      watch->bound = watch->reads = false;
      break;
    case 2:
      watch->control->clearEvents();
      watch->reads = false;
      break;
    case 3:
      if (watch->bound) watch->readsIs(false);
      break;
    case 4:
      watch->control->setFd(watch->pipe[0]);
      watch->bound = true;
      if (loop.scheduler() != nullptr) watch->reads = watch->wanted;
      break;
    case 5:
      if (watch->bound) watch->readsIs(true);
      break;
    default:
      watch->write();
  }
  FUZZ_CHECK(watch->control->getFd() == (watch->bound ? watch->pipe[0] : -1), watch->bound);
}

std::unique_ptr<Loop> loopOf(unsigned number) {
  if (number == 0) return std::make_unique<Loop>();
  if (number == 1) return std::make_unique<SchedulerLoop>();
  return std::make_unique<KitLoop>();
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  Veltro::Platform::setFastForward(true);
  Input input(data, size);
  auto const loop = loopOf(input.below(3));
  World(*loop, input).run();
  return 0;
}
