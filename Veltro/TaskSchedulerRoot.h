#pragma once
#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <iosfwd>
#include <memory>
#include <random>
#include <set>
#include <string>

#include "Veltro/TaskScheduler.h"

namespace Veltro {

class FileDescriptorTask;
class TimerTask;

/// While not 0 no thread check is made: for programs whose helper threads touch tasks and lock
/// for themselves. The library only reads it.
extern VELTRO_API int auxThreadCount;

/// The scheduler of a thread, driven by an event source that a derived class supplies, and the
/// place of what its schedulers share: the history, suspension, the thread check, random numbers.
///
/// Belongs to the thread that made it. Its tasks keep it alive: let go of them before the thread
/// ends. A derived class must not make tasks in its constructor, and must call
/// releaseResetStatsTask() in its destructor if it uses its own members in the hooks.
class VELTRO_API TaskSchedulerRoot : public TaskScheduler {
 public:
  /// No timer task waits less than `minimumTimerDelay`.
  TaskSchedulerRoot(std::string const& name, Nanoseconds minimumTimerDelay);
  ~TaskSchedulerRoot() override;

  /// True while any scheduler of the thread has a reset under way.
  bool resetStatsInProgress() const override;
  /// The thread's report: counts for each priority, the root's slip, a legend, a row for each task
  /// of every scheduler, then the dead tasks by name, then the history.
  /// `includeIdle`: also tasks without runs. `showKeys`: the tasks' addresses. `limit`,
  /// `deadLimit`: rows at most, 4294967295 for all; no dead tasks at 0. `historyEvents`: no history
  /// at 0.
  void printStats(std::ostream& stream, bool includeIdle, bool showKeys, unsigned limit,
                  unsigned deadLimit, unsigned historyEvents) const override;
  /// All of it, without the history.
  void printStatsStdErr() const;
  void handleTaskForceYieldInTest() override;

  /// Told of each task as it comes and goes. The task is under construction or destruction: its
  /// identity and its scheduler may be used, its virtual operations may not.
  virtual void taskCreated(TaskImpl& task);
  virtual void taskDestroyed(TaskImpl& task);
  virtual void timerCreated(TimerTask& task);
  virtual void timerDestroyed(TimerTask& task);
  virtual void fileDescriptorTaskCreated(FileDescriptorTask& task);
  virtual void fileDescriptorTaskDestroyed(FileDescriptorTask& task);

  /// Arms the task's timer, seconds or nanoseconds from now. Without `restart` a timer that has
  /// no more than that left is kept: false.
  virtual bool timerStart(TimerTask& task, double seconds, bool restart) = 0;
  virtual bool timerStart(TimerTask& task, Nanoseconds delay, bool restart) = 0;
  /// Disarms.
  virtual void timerStop(TimerTask& task) = 0;
  /// Seconds left, positive infinity when not armed.
  virtual double timerRemaining(TimerTask const& task) const = 0;
  /// The largest time point when not armed.
  virtual TimePoint timerExpiry(TimerTask const& task) const = 0;
  /// What a descriptor task asks of its thread's loop; see FileDescriptorTask.
  virtual void fileDescriptorTaskWatchReadableIs(FileDescriptorTask& task, bool on) = 0;
  virtual void fileDescriptorTaskWatchWritableIs(FileDescriptorTask& task, bool on) = 0;
  virtual int fileDescriptorTaskFd(FileDescriptorTask const& task) const = 0;
  virtual void fileDescriptorTaskFdIs(FileDescriptorTask& task, int fd) = 0;
  virtual void fileDescriptorTaskFdDel(FileDescriptorTask& task) = 0;
  virtual void preFdCloseCleanup(FileDescriptorTask& task) = 0;

  /// The schedulers of this thread; this one among them.
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  /// This one and all groups below it.
  std::set<TaskScheduler*> const& schedulers() const { return schedulers_; }
  /// Of all schedulers of this thread.
  unsigned taskGroupCount() const;
  unsigned totalRegisteredTaskCount() const;
  TaskSchedulerQueueStats queueStatsRoot() const;

  /// As given at construction.
  Nanoseconds minimumTimerDelay() const { return minimumTimerDelay_; }

  /// Suspends all schedulers of the thread: tasks stay queued and none runs. Resuming asks for a
  /// run at once.
  bool suspended() const { return suspended_; }
  void suspendedIs(bool suspended);

  /// Switches off the thread check, for good or for a while. The caller answers for what follows.
  bool threadSanityDisabled() const { return threadSanityDisabled_; }
  void threadSanityDisabledIs(bool disabled);
  /// Throws AssertException on any thread but the owner. Passes when disabled, while
  /// auxThreadCount is not 0, and in a forked child.
  void sanityCheckCurrentRunningThread() const {
    if (pthread_equal(pthread_self(), ownerThread_) == 0) _checkOtherThread();
  }
  /// The kernel's name of the calling thread; empty when it has none to tell.
  static std::string currentThreadName();

  /// Counted up by a root on a loop of ours as a turn begins and as it ends, so odd while a task
  /// may run: for other threads that watch this one. Null, as at first, is no mark.
  void turnMarkIs(std::shared_ptr<std::atomic<U32>> mark) { turnMark_ = std::move(mark); }

  /// The newest `n` events, newest first; see TaskSchedulerHistory.
  void printHistory(std::ostream& stream, unsigned n) const;
  void printHistoryStdErr() const;
  /// Forgets all events.
  void clearHistory();

  /// A random number from 0 to 100: the jitter of the thread's timers.
  unsigned jitterDraw() { return jitterDistribution_(randomEngine_); }
  /// Begins the row of random numbers anew: equal seeds, equal jitter. At first it is seeded from
  /// the system's random device.
  void jitterSeedIs(U32 seed) { randomEngine_.seed(seed); }

 protected:
  /// Null while nobody watches the turns.
  std::shared_ptr<std::atomic<U32>> const& turnMark() const { return turnMark_; }

 private:
  void _joinAll();
  void _leaveAll();
  void _checkOtherThread() const;

  std::set<TaskScheduler*> schedulers_;
  Nanoseconds const minimumTimerDelay_;
  pthread_t const ownerThread_;
  pid_t const ownerPid_;
  char ownerThreadName_[16];
  bool threadSanityDisabled_ = false;
  bool suspended_ = false;
  std::random_device randomDevice_;
  std::mt19937 randomEngine_;
  std::uniform_int_distribution<unsigned> jitterDistribution_{0, 100};
  TaskSchedulerRoot* nextRoot_ = nullptr;  // for debuggers
  std::shared_ptr<std::atomic<U32>> turnMark_;
};

/// The calling thread's root, bound to its event loop (Veltro/Platform.h); made at the first call,
/// named "thread:" and the thread's id, released when the thread ends.
VELTRO_API std::shared_ptr<TaskSchedulerRoot> schedulerRootVeltro();
/// Another root on the calling thread's event loop, the caller's own.
VELTRO_API std::shared_ptr<TaskSchedulerRoot> schedulerRootVeltroNonShared(std::string name);

}  // namespace Veltro
