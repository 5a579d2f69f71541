#include "Advice.h"

#include <algorithm>

#include "Table.h"

namespace Operator {
namespace {

using Kiv::U64;

// Fewer runs than this are an accident.
constexpr U64 kEnoughRuns = 100;

std::string milliseconds(U64 time) { return decimal(static_cast<double>(time) / 1e6, 3) + " ms"; }

U64 meanOf(U64 sum, U64 count) { return count == 0 ? 0 : sum / count; }

/// How bad it is, 0 for not at all; and what to say then.
struct Rule {
  U64 (*badness)(TaskFigures const& task);
  std::string (*words)(TaskFigures const& task);
};

// A task that splits long work re-queues itself too: it uses its quantum before.
U64 polls(TaskFigures const& task) {
  bool const often = task.seenRuns >= kEnoughRuns && 2 * task.seenRequeues > task.seenRuns;
  bool const briefly = 10 * meanOf(task.seenRunTime, task.seenRuns) < task.quantum;
  return often && briefly ? task.seenRequeues : 0;
}
std::string pollsWords(TaskFigures const& task) {
  return "re-queues itself in more than half of its runs (" + std::to_string(task.seenRequeues) +
         " of " + std::to_string(task.seenRuns) + "), after " +
         milliseconds(meanOf(task.seenRunTime, task.seenRuns)) + " of a quantum of " +
         milliseconds(task.quantum) + ": let it wait for what it needs, or do more in one run";
}

U64 waits(TaskFigures const& task) {
  bool const long_ = task.quantum != 0 && task.maxWait >= 10 * task.quantum;
  return long_ && 2 * task.othersRunTime >= task.maxWait ? task.maxWait : 0;
}
std::string waitsWords(TaskFigures const& task) {
  return "waited " + milliseconds(task.maxWait) + ", " +
         std::to_string(task.maxWait / task.quantum) +
         " quanta, while others ran: raise its priority, or look for those that run long";
}

U64 leavesUnread(TaskFigures const& task) {
  constexpr char const* kEnding = ":read";
  constexpr std::size_t kLength = 5;
  bool const reads = task.name.size() > kLength &&
                     task.name.compare(task.name.size() - kLength, kLength, kEnding) == 0;
  bool const again =
      task.seenRuns >= kEnoughRuns && 100 * task.seenReadyAgain >= 95 * task.seenRuns;
  // Less time than a read of anything takes.
  bool const nothing = task.work == 0 && meanOf(task.seenRunTime, task.seenRuns) < 3000;
  return reads && again && nothing ? task.seenReadyAgain : 0;
}
std::string leavesUnreadWords(TaskFigures const& task) {
  return "ran " + std::to_string(task.seenReadyAgain) + " times of " +
         std::to_string(task.seenRuns) +
         " only to be run again at once: its descriptor is ready but not read";
}

U64 runsLong(TaskFigures const& task) { return task.violations500 != 0 ? task.maxRun : 0; }
std::string runsLongWords(TaskFigures const& task) {
  return "ran " + std::to_string(task.violations500) +
         (task.violations500 == 1 ? " time" : " times") + " for five quanta and more, at worst " +
         milliseconds(task.maxRun) + ": ask taskShouldYield(), schedule the rest and return";
}

U64 fallsBehind(TaskFigures const& task) {
  return task.pending >= 1000 && task.pending == task.maxPending ? task.pending : 0;
}
std::string fallsBehindWords(TaskFigures const& task) {
  return "has " + std::to_string(task.pending) +
         " units of work waiting, more than ever before: it falls behind";
}

constexpr Rule kRules[] = {{runsLong, runsLongWords},
                           {waits, waitsWords},
                           {leavesUnread, leavesUnreadWords},
                           {polls, pollsWords},
                           {fallsBehind, fallsBehindWords}};

}  // namespace

std::vector<std::string> adviceOn(ThreadFigures const& thread) {
  std::vector<std::string> sentences;
  U64 longestRun = 0;
  for (TaskFigures const& task : thread.tasks) longestRun = std::max(longestRun, task.maxRun);
  // A long run delays the scheduler too; that one is told of by its task.
  if (thread.maxSlip >= 10 * thread.quantum && thread.maxSlip / 2 > longestRun) {
    sentences.push_back("the scheduler was called " + milliseconds(thread.maxSlip) +
                        " late: something outside of its tasks held the thread");
  }
  for (Rule const& rule : kRules) {
    std::vector<TaskFigures const*> bad;
    for (TaskFigures const& task : thread.tasks) {
      if (rule.badness(task) != 0) bad.push_back(&task);
    }
    std::stable_sort(bad.begin(), bad.end(), [&](TaskFigures const* a, TaskFigures const* b) {
      return rule.badness(*a) > rule.badness(*b);
    });
    for (TaskFigures const* task : bad) sentences.push_back(task->name + " " + rule.words(*task));
  }
  return sentences;
}

}  // namespace Operator
