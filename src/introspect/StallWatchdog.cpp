#include "Veltro/StallWatchdog.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <mutex>
#include <thread>

#include "StackOfThread.h"
#include "Veltro/Debug.h"
#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/StallWatchdog";
using Nanoseconds = StallWatchdog::Nanoseconds;

bool underADebugger() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "TracerPid:") return status >> word && word != "0";
  }
  return false;
}

void printReport(StallWatchdog::Report const& report) {
  std::string const line = report.text() + "\n";
  // One write, so that nobody's line gets into it; there is nobody to tell when it fails.
  [[maybe_unused]] auto const written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

std::string StallWatchdog::Report::text() const {
  char figures[128];
  std::snprintf(figures, sizeof figures, "' has run for %.3f s, %s (%.3f s), stack: ",
                static_cast<double>(running.count()) / 1e9, computing() ? "computing" : "waiting",
                static_cast<double>(processorTime.count()) / 1e9);
  return "stall: task '" + task + figures + (stack.empty() ? "not to be had" : stack);
}

class StallWatchdog::Impl final {
 public:
  Impl(TaskSchedulerRoot& root, Nanoseconds limit, Reporter reporter)
      : root_(root),
        limit_(limit != Nanoseconds::zero() ? limit : 10 * root.defaultTaskQuantum()),
        reporter_(reporter ? std::move(reporter) : printReport) {
    VELTRO_ASSERT(nullptr, limit_ >= std::chrono::milliseconds(1),
                  "ASSERT: a stall of " << limit_.count() << "ns is none");
    ::pthread_getcpuclockid(watched_, &processorClock_);
    root_.turnMarkIs(mark_);
    thread_ = std::thread([this] { _watch(); });
  }
  ~Impl() {
    root_.turnMarkIs(nullptr);
    if (::getpid() != pid_) {  // a forked child has not got the thread
      thread_.detach();
      return;
    }
    {
      std::lock_guard<std::mutex> const lock(mutex_);
      stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
  }

 private:
  /// One turn of the scheduler, as far as the watchdog has seen it.
  struct Turn {
    U32 mark = 0;
    Nanoseconds seen{0};
    Nanoseconds processorTime{0};  // of the thread, at the first look
    Nanoseconds processorWait{0};
    Nanoseconds next{0};  // when to report
  };

  void _watch() {
    ::pthread_setname_np(::pthread_self(), "stall-watchdog");
    Turn turn;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, limit_ / 4, [this] { return stop_; })) _look(turn);
  }

  // Odd while a turn is under way.
  void _look(Turn& turn) {
    U32 const mark = mark_->load(std::memory_order_relaxed);
    if (mark % 2 == 0 || mark != turn.mark) {
      turn = {mark, Nanoseconds::zero(), _processorTime(), _processorWait(), limit_};
      return;
    }
    turn.seen += limit_ / 4;
    if (turn.seen < turn.next || underADebugger()) return;
    turn.next *= 2;
    FoundAt const found = foundAt(watched_, root_);
    Nanoseconds const processorTime = _processorTime() - turn.processorTime;
    Nanoseconds const processorWait = _processorWait() - turn.processorWait;
    // It may have come to its end meanwhile; then it is not told of.
    if (mark_->load(std::memory_order_relaxed) != mark) return;
    reporter_({found.task, turn.seen, processorTime, processorWait, found.stack});
  }

  Nanoseconds _processorTime() const {
    timespec time{};
    ::clock_gettime(processorClock_, &time);
    return std::chrono::seconds(time.tv_sec) + Nanoseconds(time.tv_nsec);
  }

  // The second number of the kernel's line; zero where it keeps none.
  Nanoseconds _processorWait() const {
    std::ifstream file("/proc/self/task/" + std::to_string(threadId_) + "/schedstat");
    Nanoseconds::rep ran = 0;
    Nanoseconds::rep waited = 0;
    file >> ran >> waited;
    return Nanoseconds(waited);
  }

  pid_t const pid_ = ::getpid();
  int const threadId_ = Veltro::gettid();
  pthread_t const watched_ = ::pthread_self();
  TaskSchedulerRoot& root_;
  Nanoseconds const limit_;
  Reporter const reporter_;
  clockid_t processorClock_{};
  std::shared_ptr<std::atomic<U32>> const mark_ = std::make_shared<std::atomic<U32>>(0);
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

StallWatchdog::StallWatchdog(TaskSchedulerRoot& root, Nanoseconds limit, Reporter reporter)
    : impl_(std::make_unique<Impl>(root, limit, std::move(reporter))) {}
StallWatchdog::~StallWatchdog() = default;

}  // namespace Veltro
