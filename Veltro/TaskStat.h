#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "Veltro/Export.h"
#include "Veltro/TaskPriority.h"

namespace Veltro {

using U32 = std::uint32_t;
using U64 = std::uint64_t;

class TaskImpl;

/// Tells a task from others of its name. An address only: it may be that of a task long gone.
class VELTRO_API TaskKey {
 public:
  /// Of any address, null too.
  explicit constexpr TaskKey(void const* task) : task_(task) {}
  /// The address in parentheses: "(0x5655a1b0)", "(NULL)".
  std::string toStrep() const;

  friend constexpr bool operator==(TaskKey a, TaskKey b) { return a.task_ == b.task_; }
  friend constexpr bool operator!=(TaskKey a, TaskKey b) { return a.task_ != b.task_; }

 private:
  void const* task_;
};

/// One task's figures at one moment, or the sum over dead tasks of one name: a value, which no
/// longer knows the task but by address.
///
/// Times are nanoseconds; counts wrap where 32 bits do not last. A high-water mark of kNoSample
/// says that nothing was ever reported; real marks stop one below it.
class VELTRO_API TaskStat {
 public:
  /// All times are kept so.
  using Duration = std::chrono::nanoseconds;
  /// A high-water mark before its first sample.
  static constexpr U32 kNoSample = 0xffffffff;

  /// What the task was doing: one byte of flags.
  class VELTRO_API TaskStatus {
   public:
    constexpr TaskStatus() = default;

    /// The flags by their bits, on which the named ones below stand.
    constexpr bool bitmaskHasBitSet(std::uint8_t mask) const { return (bits_ & mask) != 0; }
    constexpr void bitmaskSetBit(std::uint8_t mask, bool on) {
      bits_ = static_cast<std::uint8_t>(on ? bits_ | mask : bits_ & ~mask);
    }

    /// It is a timer task.
    constexpr bool taskTimer() const { return bitmaskHasBitSet(kTimer); }
    constexpr void taskTimerIs(bool on) { bitmaskSetBit(kTimer, on); }
    /// Its timer is armed.
    constexpr bool taskTimerRunning() const { return bitmaskHasBitSet(kTimerRunning); }
    constexpr void taskTimerRunningIs(bool on) { bitmaskSetBit(kTimerRunning, on); }
    /// It is runnable.
    constexpr bool taskOnRunQueue() const { return bitmaskHasBitSet(kOnRunQueue); }
    constexpr void taskOnRunQueueIs(bool on) { bitmaskSetBit(kOnRunQueue, on); }
    /// It is inside its taskExecute().
    constexpr bool taskCurrentlyRunning() const { return bitmaskHasBitSet(kCurrentlyRunning); }
    constexpr void taskCurrentlyRunningIs(bool on) { bitmaskSetBit(kCurrentlyRunning, on); }
    /// It is suspended for test.
    constexpr bool taskSuspendedForTest() const { return bitmaskHasBitSet(kSuspendedForTest); }
    constexpr void taskSuspendedForTestIs(bool on) { bitmaskSetBit(kSuspendedForTest, on); }

   private:
    static constexpr std::uint8_t kTimer = 0x01;
    static constexpr std::uint8_t kTimerRunning = 0x02;
    static constexpr std::uint8_t kOnRunQueue = 0x04;
    static constexpr std::uint8_t kCurrentlyRunning = 0x08;
    static constexpr std::uint8_t kSuspendedForTest = 0x10;

    std::uint8_t bits_ = 0;
  };

  /// All counts 0, both high-water marks kNoSample, no flag set.
  TaskStat(std::string name, TaskImpl const* task, TaskPriority priority)
      : name_(std::move(name)), task_(task), taskPriority_(priority) {}

  /// The statistics name, by which records are folded.
  std::string const& name() const { return name_; }
  void nameIs(std::string const& name) { name_ = name; }
  /// Identity only: never dereference it.
  TaskImpl const* task() const { return task_; }
  /// The task's.
  TaskPriority taskPriority() const { return taskPriority_; }

  /// Runs, and the time of them all.
  U32 taskRunCount() const { return runCount_; }
  void taskRunInc(unsigned runs) { runCount_ += runs; }
  Duration taskTotalRunTime() const { return totalRunTime_; }
  void taskTotalRunTimeInc(Duration time) { totalRunTime_ += time; }
  /// The longest single run.
  Duration taskRunTimeHighWaterMark() const { return runTimeHighWaterMark_; }
  void taskRunTimeHighWaterMarkIs(Duration time) { runTimeHighWaterMark_ = time; }

  /// Units of work done in all runs.
  U64 taskWorkCountTotal() const { return workCountTotal_; }
  void taskWorkCountTotalInc(unsigned long long units) { workCountTotal_ += units; }
  /// The units of a report, averaged with weight 1/10 for the newest.
  float taskWorkCountDecayAvg() const { return workCountDecayAvg_; }
  void taskWorkCountDecayAvgIs(float average) { workCountDecayAvg_ = average; }
  /// The most units of one report.
  U32 taskWorkCountHighWaterMark() const { return workCountHighWaterMark_; }
  void taskWorkCountHighWaterMarkIs(U32 units) { workCountHighWaterMark_ = units; }
  /// Units of work waiting, as last reported.
  U32 taskLastWorkPending() const { return lastWorkPending_; }
  void taskLastWorkPendingIs(U32 units) { lastWorkPending_ = units; }
  /// The most units that waited.
  U32 taskWorkPendingHighWaterMark() const { return workPendingHighWaterMark_; }
  void taskWorkPendingHighWaterMarkIs(U32 units) { workPendingHighWaterMark_ = units; }

  /// Runs of five quanta and more.
  U32 taskQuantumViolation500() const { return quantumViolation500_; }
  void taskQuantumViolation500Inc(unsigned runs) { quantumViolation500_ += runs; }
  /// Runs of two quanta and more, but less than five.
  U32 taskQuantumViolation200() const { return quantumViolation200_; }
  void taskQuantumViolation200Inc(unsigned runs) { quantumViolation200_ += runs; }

  /// From becoming runnable to running, last time and at worst.
  Duration taskLastSchedulingLatency() const { return lastSchedulingLatency_; }
  void taskLastSchedulingLatencyIs(Duration latency) { lastSchedulingLatency_ = latency; }
  Duration taskSchedulingLatencyHighWaterMark() const { return schedulingLatencyHighWaterMark_; }
  void taskSchedulingLatencyHighWaterMarkIs(Duration latency) {
    schedulingLatencyHighWaterMark_ = latency;
  }

  /// Dead tasks folded into this record; 0 for a live one.
  U32 taskDeadCount() const { return deadCount_; }
  void taskDeadCountInc(unsigned tasks) { deadCount_ += tasks; }
  void taskDeadCountIs(U32 tasks) { deadCount_ = tasks; }

  /// What the task was doing.
  TaskStatus taskStatus() const { return status_; }
  void taskStatusIs(TaskStatus status) { status_ = status; }

  /// Two characters. First: "*" running, "S" suspended for test, "T" or "t" for a timer task whose
  /// timer is armed or not, else a blank. Second: the priority's letter, upper case when runnable.
  std::string taskStatusString() const;

  /// Folds in the record of one more dead task of the same name: counts and times add up, marks
  /// take the larger, what is "last" is the other's; the dead count grows by one, whatever the
  /// other's. A record of another name asserts and changes nothing.
  TaskStat& operator+=(TaskStat const& other);

 private:
  std::string name_;
  TaskImpl const* task_;
  TaskPriority taskPriority_;
  U32 runCount_ = 0;
  Duration totalRunTime_{0};
  U64 workCountTotal_ = 0;
  float workCountDecayAvg_ = 0;
  U32 workCountHighWaterMark_ = kNoSample;
  U32 lastWorkPending_ = 0;
  U32 workPendingHighWaterMark_ = kNoSample;
  U32 quantumViolation500_ = 0;
  U32 quantumViolation200_ = 0;
  Duration runTimeHighWaterMark_{0};
  Duration lastSchedulingLatency_{0};
  Duration schedulingLatencyHighWaterMark_{0};
  U32 deadCount_ = 0;
  TaskStatus status_;
};

/// The task counts of one priority.
class VELTRO_API TaskSchedulerPriorityStats {
 public:
  /// The counts at one moment.
  TaskSchedulerPriorityStats(TaskPriority priority, U32 runnable, U32 idle, U32 dead, U64 runs)
      : taskPriority_(priority),
        runnableCount_(runnable),
        idleCount_(idle),
        deadCount_(dead),
        totalRunCount_(runs) {}

  /// Tasks queued, tasks not queued, tasks that died, and runs of them all.
  TaskPriority taskPriority() const { return taskPriority_; }
  U32 runnableCount() const { return runnableCount_; }
  U32 idleCount() const { return idleCount_; }
  U32 deadCount() const { return deadCount_; }
  U64 totalRunCount() const { return totalRunCount_; }

  /// Adds the four counts; another priority asserts and changes nothing.
  TaskSchedulerPriorityStats& operator+=(TaskSchedulerPriorityStats const& other);

 private:
  TaskPriority taskPriority_;
  U32 runnableCount_;
  U32 idleCount_;
  U32 deadCount_;
  U64 totalRunCount_;
};

/// The task counts of a scheduler, or of all schedulers of a thread, by ascending priority value.
class VELTRO_API TaskSchedulerQueueStats {
 public:
  /// By priority.
  using PriorityStats = std::map<TaskPriority, TaskSchedulerPriorityStats>;

  /// One entry a priority that has been inserted.
  PriorityStats const& priorityStats() const { return priorityStats_; }
  /// False, and nothing changed, when the priority is there already.
  bool priorityStatsInsert(TaskSchedulerPriorityStats const& stats) {
    return priorityStats_.emplace(stats.taskPriority(), stats).second;
  }

  /// Adds priority by priority; one that is not here yet is copied.
  TaskSchedulerQueueStats& operator+=(TaskSchedulerQueueStats const& other);

 private:
  PriorityStats priorityStats_;
};

}  // namespace Veltro
