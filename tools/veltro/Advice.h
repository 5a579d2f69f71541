#pragma once
#include <string>
#include <vector>

#include "Kiv/Types.h"

namespace Operator {

/// What is known of a task without having asked it for anything: times in nanoseconds.
struct TaskFigures {
  std::string name;
  Kiv::U64 runs = 0;
  Kiv::U64 runTime = 0;
  Kiv::U64 maxRun = 0;
  Kiv::U64 quantum = 20000000;
  Kiv::U64 maxWait = 0;
  Kiv::U64 violations500 = 0;
  Kiv::U64 work = 0;
  Kiv::U64 pending = 0;
  Kiv::U64 maxPending = 0;
  Kiv::U64 othersRunTime = 0;  // of all other tasks of the thread
  // From the history, which holds the latest events only.
  Kiv::U64 seenRuns = 0;
  Kiv::U64 seenRunTime = 0;
  Kiv::U64 seenRequeues = 0;    // runs in which it scheduled itself
  Kiv::U64 seenReadyAgain = 0;  // runs soon after which it was scheduled from outside
};

/// What is known of a thread.
struct ThreadFigures {
  Kiv::U64 maxSlip = 0;
  Kiv::U64 quantum = 20000000;  // the largest of its tasks'
  std::vector<TaskFigures> tasks;
};

/// What an engineer would say who looked at the figures; a sentence each, the worst of a rule
/// first. Nothing is said of what is healthy, or of what was seen too seldom.
std::vector<std::string> adviceOn(ThreadFigures const& thread);

}  // namespace Operator
