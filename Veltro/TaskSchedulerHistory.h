#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include "Veltro/ConstStringCache.h"
#include "Veltro/Export.h"

namespace Veltro {

class TaskScheduler;

/// What happened; the first fifteen to a task, the others to a scheduler.
enum class TaskSchedulerEventType : std::uint8_t {
  schedule,
  unschedule,
  runStart,
  runEnd,
  timerStart,
  timerStop,
  suspendOn,
  suspendOff,
  scheduleSuspended,  ///< a schedule dropped because the task is suspended
  forceYieldOn,
  forceYieldOff,
  idle,
  busy,
  taskCreate,
  taskDelete,
  schedulerIdle,
  schedulerRunnable,
  schedulerSuspended,
  schedulerUnsuspended,
  schedulerRunIgnoredWhileSuspended,
};

/// The last 10000 scheduling events of a thread, newest over oldest: what to read after a fault.
///
/// Shared by all schedulers of one root. All room is taken at construction; an insert writes one
/// slot and counts one reference, and allocates nothing. For one thread; nothing is locked.
/// Every event holds a reference on its subject's name, so the name of a task that is gone stays
/// interned until its last event is overwritten or cleared.
/// All names must be interned in cache(), and released before the history is destroyed: the
/// destructor asserts that (and may throw, where its owner lets it).
class VELTRO_API TaskSchedulerHistory {
 public:
  /// The steady clock's.
  using TimePoint = std::chrono::steady_clock::time_point;
  /// Events kept at most.
  static constexpr std::size_t kCapacity = 10000;

  /// One event: what, when, to whom.
  class VELTRO_API Event {
   public:
    /// The subject is the name of a task or of a scheduler.
    TaskSchedulerEventType type() const { return type_; }
    TimePoint time() const { return time_; }
    ConstStringRef const& subject() const { return subject_; }
    /// The type's label and, right after it, the subject's name. Labels of task events are padded
    /// to 11 characters, and those that fill them run into the name.
    std::string display() const;

   private:
    friend class TaskSchedulerHistory;

    TaskSchedulerEventType type_ = TaskSchedulerEventType::schedule;
    TimePoint time_;
    ConstStringRef subject_;
  };

  TaskSchedulerHistory();
  TaskSchedulerHistory(TaskSchedulerHistory const&) = delete;
  TaskSchedulerHistory& operator=(TaskSchedulerHistory const&) = delete;
  ~TaskSchedulerHistory() noexcept(false);

  /// Records an event that happened at `time`, over the oldest one when full. A type that does
  /// not fit the subject asserts. When releasing the overwritten name throws, the history is as
  /// it was. Events are printed in the order of insertion, so pass the times in order.
  void insert(TimePoint const& time, TaskSchedulerEventType type, ConstStringRef const& taskName) {
    if (type >= TaskSchedulerEventType::schedulerIdle) _refuse(type);
    _insert(time, type, taskName);
  }
  void insert(TimePoint const& time, TaskSchedulerEventType type, TaskScheduler const* scheduler);

  /// Number of events held.
  std::size_t eventCount() const { return count_; }
  /// The event inserted `age` events before the newest; `age` is below eventCount().
  Event const& event(std::size_t age) const;

  /// Prints the newest `limit` events, newest first, each with its time since boot and how long
  /// before the newest it happened. All of them are 4294967295; any other limit that is reached
  /// adds a note, also when nothing was left out. The header counts at most 10000. Linear in what
  /// it prints. Leaves the stream's state and locale alone, and does not follow them.
  void print(std::ostream& os, unsigned limit) const;

  /// Forgets all events and releases their names.
  void clear();

  /// Where the names of this thread's tasks and schedulers are interned.
  ConstStringCache& cache() { return cache_; }

 private:
  // Inline: several a task run. The name first, for it may throw; then nothing has changed.
  void _insert(TimePoint const& time, TaskSchedulerEventType type, ConstStringRef const& subject) {
    std::size_t const slot = (newest_ == 0 ? kCapacity : newest_) - 1;
    Event& event = events_[slot];
    event.subject_ = subject;
    event.time_ = time;
    event.type_ = type;
    newest_ = slot;
    if (count_ < kCapacity) ++count_;
  }
  [[noreturn]] static void _refuse(TaskSchedulerEventType type);

  ConstStringCache cache_;  // first, so destroyed after the events
  std::unique_ptr<Event[]> events_;
  std::size_t newest_ = 0;  // steps down, from the first slot to the last
  std::size_t count_ = 0;
};

}  // namespace Veltro
