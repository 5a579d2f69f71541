#pragma once
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tests/support/TempDir.h"
#include "tests/tools/Tool.h"

namespace Veltro {

/// A real agent process (agent.cpp), to be seen in a directory of its own.
class RunningAgent {
 public:
  /// `mode` is a word of its command line, or null.
  explicit RunningAgent(char const* mode = nullptr) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    process_ = ::fork();
    if (process_ == 0) {
      ::dup2(ends[0], STDIN_FILENO);
      std::FILE* const errors = std::freopen(temp_.path("errors").c_str(), "w", stderr);
      ::setenv("VELTRO_INTROSPECT", temp_.path().c_str(), 1);
      if (mode != nullptr) ::setenv("VELTRO_WATCHDOG", "20", 1);
      if (errors != nullptr) ::execl(VELTRO_AGENT, VELTRO_AGENT, mode, nullptr);
      ::_exit(127);
    }
    ::close(ends[0]);
    input_ = ends[1];
    // Both threads; a hang is the test's time limit.
    while (agents() != 2) {
      if (::waitpid(process_, nullptr, WNOHANG) != 0) throw std::runtime_error(errors());
    }
  }
  ~RunningAgent() {
    if (process_ > 0) end();
  }

  /// Ends its input, and hears its exit status.
  int end() {
    ::close(input_);
    int status = -1;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void signal(int number) const { ::kill(process_, number); }
  std::string process() const { return std::to_string(process_); }
  std::string errorsFile() const { return temp_.path("errors"); }
  std::string errors() const { return shell("cat " + temp_.path("errors")).text; }

  /// Runs veltro, which looks for agents where this one is.
  Outcome ask(std::string const& command) const {
    return veltro(command + " --dir " + temp_.path());
  }
  /// How many threads let themselves be seen.
  long agents() const {
    std::string const list = ask("agents").text;
    return std::count(list.begin(), list.end(), '\n') - 1;
  }

 private:
  TempDir temp_;
  pid_t process_ = -1;
  int input_ = -1;
};

}  // namespace Veltro
