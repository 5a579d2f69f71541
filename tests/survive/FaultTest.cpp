// Every operation with every allocation failing in turn, and every system call of the loops: only
// the documented result, the object usable or gone, nothing leaked, no descriptor kept.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "Kiv/Exception.h"
#include "Scene.h"
#include "Veltro/Exception.h"
#include "Veltro/TaskGroup.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TimerTask.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {

/// A thread's possessions that operations are tried on.
template <typename Backend>
struct Bench {
  struct Job final : Task {
    using Task::Task;
    void taskExecute() override { ++runs; }
    unsigned runs = 0;
  };
  std::shared_ptr<Job> job(std::string const& name) {
    return std::make_shared<Job>(root, TaskPriority::normal, name);
  }
  static void run() { Platform::doEventLoop(0.01); }
  void expectRuns(char const* name) {
    auto const one = job(name);
    one->scheduleTask();
    for (int i = 0; i < 4; ++i) run();
    EXPECT_EQ(1u, one->runs);
  }

  std::shared_ptr<TaskSchedulerRoot> const root = schedulerRootVeltro();
  SocketPair pair;
  Timeout timeout;
  FdEvents events;
  Callback back;
  std::shared_ptr<Platform::TimerControl> timer = Backend::timer(&timeout);
  std::shared_ptr<Platform::FdControl> fd = Backend::fd(&events);
  std::shared_ptr<Platform::CallbackControl> callback = Backend::callback(&back);
};

template <typename Backend>
struct Operation {
  char const* name;
  void (*perform)(Bench<Backend>&);
};

template <typename Backend>
std::vector<Operation<Backend>> operations() {
  using B = Bench<Backend>;
  return {
      {"make a timer", [](B& b) { b.timer = Backend::timer(&b.timeout); }},
      {"make a watch", [](B& b) { b.fd = Backend::fd(&b.events); }},
      {"make a callback", [](B& b) { b.callback = Backend::callback(&b.back); }},
      {"arm for now", [](B& b) { b.timer->setTimeout(0); }},
      {"arm for later", [](B& b) { b.timer->setTimeout(1); }},
      {"ask for a callback", [](B& b) { b.callback->requestCallback(); }},
      {"bind a descriptor", [](B& b) { b.fd->setFd(b.pair.ends[0]); }},
      {"switch writes on", [](B& b) { b.fd->setWrites(true); }},
      {"switch reads off", [](B& b) { b.fd->setReads(false); }},
      {"drop the descriptor", [](B& b) { b.fd->delFd(); }},
      {"run beside a watch",
       [](B& b) {
         b.fd->setFd(b.pair.ends[0]);
         B::run();
       }},
      {"make a root", [](B&) { schedulerRootVeltroNonShared("another"); }},
      {"make and end a task", [](B& b) { b.job("a task with a name that is long"); }},
      {"a task that runs", [](B& b) { b.expectRuns("runs"); }},
      {"make a group with a task",
       [](B& b) {
         auto const group = TaskGroup::TaskGroupIs("group", TaskPriority::low, false, b.root);
         std::make_shared<typename B::Job>(group, TaskPriority::high, "inner")->scheduleTask();
       }},
      {"reset the figures", [](B& b) { b.root->resetStats(); }},
      {"print the report",
       [](B& b) {
         std::ostringstream text;
         b.root->printStats(text, true, true, 4, 4, 4);
       }},
      {"name the statistics", [](B& b) { b.job("job")->taskStatsNameIs("statistics of it"); }},
  };
}

/// After whatever failed: all of it works.
template <typename Backend>
void expectUsable(Bench<Backend>& b) {
  b.timeout.calls = b.back.calls = b.events.reads = 0;
  b.fd->setWrites(false);
  b.fd->setFd(b.pair.ends[0]);
  b.fd->setReads(true);
  b.events.onRead = [&](int fd) { SocketPair::take(fd); };
  b.pair.put();
  b.timer->setTimeout(0.001);
  b.callback->requestCallback();
  b.expectRuns("after");
  EXPECT_EQ(1, b.timeout.calls);
  EXPECT_EQ(1, b.back.calls);
  EXPECT_LE(1, b.events.reads);
  b.fd->delFd();
  b.run();
}

/// What may leave an operation while memory or the kernel refuses.
void expectDocumented(std::function<void()> const& action) {
  try {
    action();
  } catch (std::bad_alloc const&) {
  } catch (MemoryResourceException const&) {
  } catch (RuntimeException const&) {
  } catch (Kiv::ErrnoException const&) {
  } catch (Kiv::RangeException const&) {  // an entity without memory: "null ValidPtr"
  } catch (std::exception const& fault) {
    ADD_FAILURE() << "threw " << fault.what();
  }
}

template <typename Backend>
struct FaultTest : testing::Test {};
TYPED_TEST_SUITE(FaultTest, AllBackends, );

/// Performs `operation` twice as it should go, and then with the call failing at its first,
/// second... place, until it is no longer reached. Memory and descriptors stay as the good rounds
/// left them.
template <typename Backend>
void failEachCall(Operation<Backend> const& operation, Outside::Call call, int error) {
  for (bool const forEver : {false, true}) {
    if (forEver && call == Outside::epollWait) continue;  // no loop could go on
    long live = 0;
    int descriptors = 0;
    bool reached = true;
    for (int n = -2; reached && !testing::Test::HasFailure(); ++n) {
      SCOPED_TRACE(std::string(operation.name) + ", number " + std::to_string(n) +
                   (forEver ? " and all after" : ""));
      Outside outside;
      {
        Bench<Backend> bench;
        expectUsable(bench);
        bench.fd->setReads(true);
        if (n >= 0) outside.failIs(call, static_cast<unsigned long>(n), forEver, error);
        expectDocumented([&] { operation.perform(bench); });
        reached = n < 0 || outside.failures() != 0;
        outside.failNone();
        expectDocumented([&] { Bench<Backend>::run(); });
        expectUsable(bench);
      }
      schedulerRootVeltro()->clearHistory();
      schedulerRootVeltro()->clearStats();
      if (n < 0) {
        live = outside.liveAllocations;
        descriptors = openDescriptors();
      }
      EXPECT_GE(std::max(live, 0L), outside.liveAllocations);
      EXPECT_EQ(descriptors, openDescriptors());
    }
  }
}

TYPED_TEST(FaultTest, eachCallFailsInTurn) {
  struct {
    Outside::Call call;
    std::vector<int> errors;
  } const cases[] = {
      {Outside::allocation, {ENOMEM}},
      {Outside::epollControl, {ENOMEM, ENOSPC, EPERM, EBADF, ENOENT, EEXIST}},
      {Outside::epollWait, {EINTR, EBADF, EINVAL}},
      {Outside::epollCreate, {EMFILE, ENFILE, ENOMEM}},
  };
  TypeParam::run([&] {
    for (auto const& c : cases) {
      for (int const error : c.errors) {
        SCOPED_TRACE(std::strerror(error));
        for (auto const& operation : operations<TypeParam>()) {
          failEachCall<TypeParam>(operation, c.call, error);
        }
      }
    }
  });
}

}  // namespace
}  // namespace Veltro
