// A process that does what its arguments say, in order, and traces to its standard error:
//   handle NAME LEVELS      makes a handle
//   trace NAME LEVEL TEXT   a trace statement of a function `work` at file.cpp:7
//   bare NAME               a record with neither file nor function nor text, without flag
//   env VARIABLE VALUE      sets a variable, and has the environment read again
//   flood NAME THREADS RECORDS BYTES   records of "<" + BYTES characters + ">" from each thread
//   signals                 lets a timer signal interrupt system calls from here on
//   errno NAME              exits 0 if tracing to a closed standard error keeps errno
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/Trace.h"

namespace {

void trace(std::string const& name, unsigned level, std::string const& text) {
  Kiv::TraceHandle const handle(name, 0);
  if (__atomic_load_n(handle.facility()->levelsEnabledPtr(), __ATOMIC_RELAXED) & (1u << level)) {
    Kiv::traceHelper(handle, level, 1, "file.cpp", 7, "work", text.c_str());
  }
}

void flood(std::string const& name, int threads, int records, int bytes) {
  std::vector<std::thread> writers;
  for (int t = 0; t < threads; ++t) {
    writers.emplace_back([&, t] {
      std::string const text = "<" + std::string(std::size_t(bytes), char('a' + t)) + ">";
      for (int r = 0; r < records; ++r) trace(name, 0, text);
    });
  }
  sigset_t alarm;
  ::sigemptyset(&alarm);
  ::sigaddset(&alarm, SIGALRM);
  ::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);  // leaves the signals to the writers
  for (std::thread& writer : writers) writer.join();
}

void startSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ::sigaction(SIGALRM, &action, nullptr);
  itimerval const every{{0, 300}, {0, 300}};
  ::setitimer(ITIMER_REAL, &every, nullptr);
}

bool keepsErrno(std::string const& name) {
  Kiv::TraceHandle const handle(name, 1);
  ::close(STDERR_FILENO);
  errno = ECHILD;
  Kiv::traceHelper(handle, 0, 1, "file.cpp", 7, "work", "lost");
  return errno == ECHILD;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> const words(argv + 1, argv + argc);
  auto word = words.begin();
  auto const number = [&] { return std::stoi(*word++); };
  while (word != words.end()) {
    std::string const verb = *word++;
    if (verb == "signals") {
      startSignals();
      continue;
    }
    std::string const name = *word++;
    if (verb == "handle") {
      Kiv::TraceHandle(name, Kiv::U32(std::stoul(*word++, nullptr, 0)));
    } else if (verb == "trace") {
      unsigned const level = unsigned(number());
      trace(name, level, *word++);
    } else if (verb == "bare") {
      Kiv::traceHelper(Kiv::TraceHandle(name, 0), 0, 0, nullptr, 0, nullptr, nullptr);
    } else if (verb == "env") {
      Kiv::TraceFacilityManager::environmentIs(name.c_str(), *word++);
      Kiv::TraceFacilityManager::instance().doReadEnvironment();
    } else if (verb == "flood") {
      int const threads = number();
      int const records = number();
      flood(name, threads, records, number());
    } else if (verb == "errno") {
      return keepsErrno(name) ? EXIT_SUCCESS : EXIT_FAILURE;
    } else {
      return 64;
    }
  }
  return EXIT_SUCCESS;
}
