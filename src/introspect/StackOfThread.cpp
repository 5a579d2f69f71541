#include "StackOfThread.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <sstream>

#include "Veltro/Backtrace.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {
namespace {

// The handler's own frame, and the kernel's that calls it.
constexpr unsigned kFramesOfTheSignal = 2;

/// Where the handler writes: plain memory, made before the signal is sent.
struct Slot {
  std::atomic<TaskSchedulerRoot const*> asked{nullptr};
  std::atomic<bool> done{false};
  char task[128];
  void* frames[64];
  unsigned count;
};
Slot slot;

// Only what may be done anywhere: reads of what its own thread wrote before, and libunwind's walk,
// which is made for signal handlers.
void takeDown(int /*signal*/) {
  int const kept = errno;
  if (TaskSchedulerRoot const* const root = slot.asked.exchange(nullptr)) {
    _TaskBase const* const task = root->executingTask();
    slot.task[0] = '\0';
    if (task != nullptr) std::strncpy(slot.task, task->taskName().c_str(), sizeof slot.task - 1);
    slot.count = Backtrace::unwind(slot.frames, sizeof slot.frames / sizeof slot.frames[0]);
    slot.done.store(true, std::memory_order_release);
  }
  errno = kept;
}

/// False when somebody else has the signal.
bool ownsSignal(int number) {
  struct sigaction action {};
  if (::sigaction(number, nullptr, &action) != 0) return false;
  if (action.sa_handler == takeDown) return true;
  if (action.sa_handler != SIG_DFL) return false;
  action = {};
  action.sa_handler = takeDown;
  action.sa_flags = SA_RESTART;
  return ::sigaction(number, &action, nullptr) == 0;
}

std::string stackInSlot() {
  std::string stack;
  for (unsigned i = kFramesOfTheSignal; i < slot.count; ++i) {
    std::string frame = Backtrace::pretty(slot.frames[i]);
    stack += (stack.empty() ? "" : " ") + frame;
  }
  return stack;
}

}  // namespace

FoundAt foundAt(pthread_t thread, TaskSchedulerRoot const& root) {
  static std::mutex* const turn = new std::mutex;
  std::lock_guard<std::mutex> const lock(*turn);
  int const number = SIGRTMIN + 5;
  if (!ownsSignal(number)) return {};
  slot.done.store(false);
  slot.asked.store(&root);
  if (::pthread_kill(thread, number) != 0) return {};
  for (int i = 0; i < 100 && !slot.done.load(std::memory_order_acquire); ++i) ::usleep(1000);
  // Taken back: then a late signal finds nothing to do. Gone already: the handler is at work.
  if (slot.asked.exchange(nullptr) != nullptr) return {};
  while (!slot.done.load(std::memory_order_acquire)) ::usleep(100);
  return {slot.task, stackInSlot()};
}

}  // namespace Veltro
