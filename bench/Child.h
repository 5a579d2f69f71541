#pragma once
#include <functional>

namespace bench {

/// Measures in a child process, with a file system of its own at /var that goes with it.
double inChildWithOwnVar(std::function<double()> const& measure);

/// The system calls that a child makes while nanosecondsEach() is measuring.
long systemCallsMeasured(std::function<double()> const& measure);

/// Processor time, in microseconds, of a run of the program beside this one.
double microsecondsOfRunning(char const* program);

/// Instructions each time `program`, beside this one, does `operation` (HotRoad.cpp).
double instructionsEach(char const* program, char const* operation);

}  // namespace bench
