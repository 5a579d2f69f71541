#pragma once
#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace Veltro {

/// "" at the end.
inline std::string readLine(std::FILE* from) {
  char line[65536] = "";
  return std::fgets(line, sizeof line, from) == nullptr ? "" : line;
}

struct Outcome {
  int status;        // 128 and the signal's number for one that a signal ended, as shells have it
  std::string text;  // both streams, as they came
};

/// What is still to come of a program that was started by popen(), to its end.
inline Outcome rest(std::FILE* pipe) {
  Outcome outcome{0, ""};
  for (std::string line; !(line = readLine(pipe)).empty();) outcome.text += line;
  int const status = ::pclose(pipe);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

/// Runs a line of shell text.
inline Outcome shell(std::string const& line) {
  return rest(::popen(("{ " + line + "\n} 2>&1").c_str(), "r"));
}

}  // namespace Veltro
