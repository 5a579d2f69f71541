#include "bench/Child.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/Harness.h"

extern char** environ;

namespace bench {
namespace {

void writeFile(char const* path, std::string const& text) {
  int const fd = ::open(path, O_WRONLY | O_CLOEXEC);
  check(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
        "no user namespace");
  ::close(fd);
}

void enterOwnVar() {
  std::string const user = std::to_string(::getuid());
  std::string const group = std::to_string(::getgid());
  check(::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "no namespaces");
  writeFile("/proc/self/uid_map", "0 " + user + " 1");
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/gid_map", "0 " + group + " 1");
  check(::mount("none", "/var", "tmpfs", 0, "") == 0, "no own /var");
}

/// The child exits with 0 only when `work` came to its end.
template <class Work>
pid_t forked(Work&& work) {
  std::fflush(stdout);
  pid_t const child = ::fork();
  if (child != 0) return child;
  try {
    work();
  } catch (std::exception const& failure) {
    std::printf("  in the child: %s\n", failure.what());
    std::fflush(stdout);
    ::_exit(1);
  }
  ::_exit(0);
}

bool succeeded(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }

#ifdef __x86_64__
constexpr std::size_t kNumberOffset = offsetof(user_regs_struct, orig_rax);
#else
constexpr std::size_t kNumberOffset = offsetof(user_regs_struct, orig_eax);
#endif

/// What processorTime() asks of the kernel; the clocks that loops read need no system call.
bool marksMeasurement(long number) {
#ifdef SYS_clock_gettime64
  if (number == SYS_clock_gettime64) return true;
#endif
  return number == SYS_clock_gettime;
}

std::string besideUs(char const* program) {
  char self[4096];
  ssize_t const length = ::readlink("/proc/self/exe", self, sizeof self);
  check(length > 0, "no name of its own");
  std::string path(self, static_cast<std::size_t>(length));
  return path.replace(path.rfind('/') + 1, std::string::npos, program);
}

double instructions(std::string const& command) {
  std::FILE* const output = ::popen(
      ("valgrind --tool=callgrind --callgrind-out-file=/dev/null " + command + " 2>&1").c_str(),
      "r");
  check(output != nullptr, "no shell");
  double count = 0;
  char line[4096];
  while (std::fgets(line, sizeof line, output) != nullptr) {
    if (char const* const found = std::strstr(line, "Collected : ")) {
      count = std::strtod(found + sizeof "Collected :", nullptr);
    }
  }
  check(::pclose(output) == 0 && count > 0, "no count of instructions");
  return count;
}

}  // namespace

double inChildWithOwnVar(std::function<double()> const& measure) {
  int pipe[2];
  check(::pipe(pipe) == 0, "no pipe");
  pid_t const child = forked([&] {
    enterOwnVar();
    double const cost = measure();
    check(::write(pipe[1], &cost, sizeof cost) == sizeof cost, "no answer");
  });
  ::close(pipe[1]);
  double cost = 0;
  bool const told = ::read(pipe[0], &cost, sizeof cost) == sizeof cost;
  ::close(pipe[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  check(told && succeeded(status), "the child failed");
  return cost;
}

long systemCallsMeasured(std::function<double()> const& measure) {
  pid_t const child = forked([&] {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    measure();
  });
  long most = 0;
  long sinceMark = 0;
  int status = 0;
  ::waitpid(child, &status, 0);
  check(WIFSTOPPED(status), "cannot be traced");
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  for (bool entered = false;;) {
    ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    ::waitpid(child, &status, 0);
    if (!WIFSTOPPED(status)) break;
    if (WSTOPSIG(status) != (SIGTRAP | 0x80)) continue;
    entered = !entered;
    if (!entered) continue;
    if (marksMeasurement(::ptrace(PTRACE_PEEKUSER, child, kNumberOffset, nullptr))) {
      most = std::max(most, sinceMark);
      sinceMark = 0;
    } else {
      ++sinceMark;
    }
  }
  check(succeeded(status), "the child failed");
  return most;
}

double microsecondsOfRunning(char const* program) {
  std::string path = besideUs(program);
  char* arguments[] = {path.data(), nullptr};
  pid_t child = 0;
  check(::posix_spawn(&child, path.c_str(), nullptr, nullptr, arguments, environ) == 0,
        "did not start");
  int status = 0;
  rusage usage{};
  ::wait4(child, &status, 0, &usage);
  check(succeeded(status), "did not succeed");
  auto const microseconds = [](timeval const& t) {
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
  };
  return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

double instructionsEach(char const* program, char const* operation) {
  std::string const command = besideUs(program) + " " + operation;
  return (instructions(command + " 20000") - instructions(command + " 10000")) / 10000;
}

}  // namespace bench
