#pragma once
#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace Veltro {

inline std::string readLine(std::FILE* from) {
  char line[65536] = "";
  return std::fgets(line, sizeof line, from) == nullptr ? "" : line;
}

struct Outcome {
  int status;
  std::string text;  // both streams, as they came
};

/// Runs a line of shell text.
inline Outcome shell(std::string const& line) {
  std::FILE* const pipe = ::popen(line.c_str(), "r");
  Outcome outcome{-1, ""};
  for (std::string text; !(text = readLine(pipe)).empty();) outcome.text += text;
  int const status = ::pclose(pipe);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

/// Runs the program with these arguments.
inline Outcome veltro(std::string const& arguments, std::string const& redirect = " 2>&1") {
  return shell(VELTRO_TOOL " " + arguments + redirect);
}

}  // namespace Veltro
