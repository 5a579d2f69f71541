#pragma once
#include <cstddef>
#include <cstdint>

#include "Veltro/Platform.h"

/// What an agent that lets itself be seen (Veltro/Introspection.h) writes into its records file.
///
///     | Header | Section 0 | Section 1 ... | records of section 0 | records of section 1 | ...
///
/// All numbers are little-endian and of fixed width, 8-byte ones at multiples of 8: a 32-bit agent
/// and a 64-bit reader see the same. Times are nanoseconds; those of day are of the monotonic
/// clock. A string is the offset of a NUL-ended text in the section of strings.
///
/// Reading: `sequence` is odd while the agent writes. Copy header and body between two readings of
/// one even value; then nothing is torn. Ignore sections of a kind that you do not know, and take
/// `recordBytes` for the step from record to record: newer agents may append fields. Another
/// `version` is another layout.
namespace Veltro::IntrospectionFormat {

/// What the file begins with, and the layout that this header describes.
constexpr char kMagic[9] = "VELTROin";
constexpr U32 kVersion = 1;

/// The head of the file: whose it is, how to read it, and when it was written.
struct alignas(8) Header {
  char magic[8];
  U32 version;
  U32 headerBytes;
  U32 processId;
  U32 threadId;
  U64 processStart;  ///< clock ticks after boot, as in the kernel's stat file of the process
  U32 sequence;      ///< odd while the agent writes
  U32 sectionCount;
  U64 answered;   ///< number of the request that this is the answer to; 0: none yet
  U64 bodyBytes;  ///< behind the header: sections and records
  U64 takenAt;
  char program[32];
  char thread[16];
};
static_assert(sizeof(Header) == 112 && offsetof(Header, sequence) == 32, "other processes map it");

/// What the records of a section are.
enum class Kind : U32 {
  strings = 1,  ///< bytes
  error,        ///< bytes: why there is nothing else
  schedulers,
  priorities,
  tasks,
  deadTasks,  ///< records of tasks, folded by name
  loop,       ///< the window under way, then the last whole one; none until they were asked for
  events,     ///< newest first
  traces,
};

/// Where the records of one Kind are: `count` of them, `recordBytes` from one to the next.
struct alignas(8) Section {
  U32 kind;
  U32 recordBytes;
  U32 count;
  U32 offset;  ///< of the first record, from the start of the file
};
static_assert(sizeof(Section) == 16, "other processes map it");

/// A scheduler of the thread: its name, its tasks and how many are queued, its worst slip.
struct alignas(8) Scheduler {
  U32 name;
  U32 isGroup;
  U32 tasks;
  U32 runnable;
  U64 maxSlip;
};
static_assert(sizeof(Scheduler) == 24, "other processes map it");

/// The counts of one priority, over all schedulers of the thread.
struct alignas(8) Priority {
  U32 priority;
  U32 runnable;
  U32 idle;
  U32 dead;
  U64 runs;
};
static_assert(sizeof(Priority) == 24, "other processes map it");

/// The figures of Veltro/TaskStat.h.
struct alignas(8) Task {
  U64 key;
  U32 name;
  U32 scheduler;
  U32 priority;
  U32 status;  ///< bits as in TaskStatus: timer 1, armed 2, queued 4, running 8, suspended 16
  U32 runs;
  U32 dead;
  U32 violations200;
  U32 violations500;
  U64 runTime;
  U64 maxRunTime;
  U64 quantum;  ///< 0 for dead tasks
  U64 lastWait;
  U64 maxWait;
  U64 work;
  U32 maxWork;
  U32 pending;
  U32 maxPending;
  U32 unused;
};
static_assert(sizeof(Task) == 104 && offsetof(Task, runTime) == 40, "other processes map it");

/// Bucket 0 counts zeros, bucket n what is from 2^(n-1) to below 2^n, the last one all beyond.
struct alignas(8) Histogram {
  U64 sum;
  U64 max;
  U32 buckets[40];
};
static_assert(sizeof(Histogram) == 176, "other processes map it");

/// Passes of the event loop from `start` to `end`.
struct alignas(8) Loop {
  U64 start;
  U64 end;
  U64 passes;
  Histogram waited;
  Histogram worked;
  Histogram lag;     ///< of the first timer of a pass behind its deadline
  Histogram events;  ///< timers called and descriptors ready in a pass
};
static_assert(sizeof(Loop) == 728, "other processes map it");

/// One event of the history: when, what, and the name of whom.
struct alignas(8) Event {
  U64 time;
  U32 type;  ///< as in Veltro/TaskSchedulerHistory.h
  U32 subject;
};
static_assert(sizeof(Event) == 16, "other processes map it");

/// A trace category and its live levels.
struct Trace {
  U32 name;
  U32 levels;  ///< bit n for level n
};
static_assert(sizeof(Trace) == 8, "other processes map it");

}  // namespace Veltro::IntrospectionFormat
