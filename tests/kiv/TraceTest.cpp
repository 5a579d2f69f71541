// The fuzz targets `trace_setting` and `trace_format` hold the grammar of TRACE, and each token of
// TRACEFORMAT, against a second reading of them.
#include "Kiv/Trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <csignal>
#include <ctime>
#include <thread>

#include "Kiv/Exception.h"
#include "tests/support/Child.h"
#include "tests/support/StandardError.h"

namespace Kiv {
namespace {
using Lines = std::vector<std::string>;

// Each level has its own writer; the environment is read in between.
TEST(TraceFacilityTest, threadsSwitchLevelsWithoutLosingEachOthers) {
  TraceFacilityManager::environmentIs("TRACE", "Busy/20,-Busy/21");
  TraceHandle const busy("Busy", 8);
  EXPECT_THROW(busy.facility()->levelEnabledIs(32, true), RangeException);
  std::vector<std::thread> threads;
  for (unsigned level = 0; level < 3; ++level) {
    threads.emplace_back([level] {
      TraceHandle const handle("Busy", 0);
      for (int i = 0; i <= 100000; ++i) handle.facility()->levelEnabledIs(level, i % 2 == 0);
    });
  }
  for (int i = 0; i < 200; ++i) {
    TraceFacilityManager::instance().doReadEnvironment();
    U32 const now = __atomic_load_n(busy.facility()->levelsEnabledPtr(), __ATOMIC_RELAXED);
    EXPECT_EQ(0x100008u, now & ~0x7u);
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0x10000fu, *busy.facility()->levelsEnabledPtr());
}

void environmentIs(char const* variable, char const* value) {
  TraceFacilityManager::environmentIs(variable, value);
  TraceFacilityManager::instance().doReadEnvironment();
}

/// A trace statement.
void say(char const* name, unsigned level, std::string const& text) {
  TraceHandle const handle(name, 0);
  if (__atomic_load_n(handle.facility()->levelsEnabledPtr(), __ATOMIC_RELAXED) & (1u << level)) {
    traceHelper(handle, level, 1, "file.cpp", 7, "work", text.c_str());
  }
}

// Every row is a process of its own.
TEST(TraceRecordTest, theEnvironmentSaysWhatIsWritten) {
  struct {
    char const* name;
    char const* trace;
    void (*act)();
    Lines lines;
  } const cases[] = {
      {"in order on top of what is on, for old handles and new ones; what is on stays on",
       "\t- A / 0 , *aB/0-31, -aaB*/2",
       [] {
         TraceHandle("A", 3);
         TraceHandle("A", 4);
         for (unsigned level : {0u, 1u, 2u}) say("A", level, "x");
         for (unsigned level : {2u, 31u}) say("aaB", level, "x");
         environmentIs("TRACE", "*/2");
         for (char const* name : {"A", "C"}) {
           for (unsigned level : {0u, 1u, 2u}) say(name, level, "y");
         }
       },
       {"A/1:x", "aaB/31:x", "A/1:y", "A/2:y", "C/2:y"}},
      {"malformed entries: one note each, empty ones and a lone minus none",
       "A/99, ,,B/1,-,- ,/2,A/5-3,A/99",
       [] {
         say("B", 1, "x");
         environmentIs("TRACE", "A/99,C/x");
         say("B", 1, "y");
       },
       {"TRACE: trace setting \"A/99\": level 99 is above 31, ignored",
        "TRACE: trace setting \"/2\": no name, ignored",
        "TRACE: trace setting \"A/5-3\": the levels run backwards, ignored", "B/1:x",
        "TRACE: trace setting \"C/x\": \"x\" is not a level, ignored", "B/1:y"}},
      {"errno is kept where nothing can be written",
       "A",
       [] {
         ::close(STDERR_FILENO);
         errno = ECHILD;
         say("A", 1, "lost");
         EXPECT_EQ(ECHILD, errno);
       },
       {}},
  };
  for (auto const& c : cases) {
    Veltro::inChild([&c] {
      TraceFacilityManager::environmentIs("TRACEFORMAT", "%n/%l:%m");
      EXPECT_EQ(c.lines, Veltro::standardError([&c] {
                  environmentIs("TRACE", c.trace);
                  c.act();
                }))
          << c.name;
    });
  }
}

// A socket of packets shows the writes: what one takes never mixes with another's line.
TEST(TraceRecordTest, isOneWriteWithLocalTimeAndProcess) {
  Veltro::inChild([] {
    time_t const now = ::time(nullptr);
    tm utc;
    ::gmtime_r(&now, &utc);
    // A zone in which it is always between five and six, but for the turn of the hour in between.
    ::setenv("TZ", ("XYZ" + std::to_string(utc.tm_hour - 5)).c_str(), 1);
    ::tzset();
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
    ::dup2(ends[1], STDERR_FILENO);
    environmentIs("TRACE", "A");
    std::string const text(4000, 'a');
    say("A", 1, text);
    char buffer[8192];
    std::string const record(buffer, std::size_t(::read(ends[0], buffer, sizeof buffer)));
    if (::time(nullptr) / 3600 != now / 3600) return;
    EXPECT_THAT(record, testing::MatchesRegex("05:[0-9]+:[0-9]+\\.[0-9]{6} " +
                                              std::to_string(::getpid()) + " A/1 work: a+\n"));
    EXPECT_THAT(record, testing::EndsWith(text + "\n"));
  });
}

// A pipe far smaller than the record, signals that interrupt the writing, and a slow reader.
TEST(TraceRecordTest, longRecordsArriveWhole) {
  std::string const record(1000000, 'a');
  for (bool const nonBlocking : {false, true}) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, nonBlocking ? O_NONBLOCK : 0));
    pid_t const writer = ::fork();
    if (writer == 0) {
      ::dup2(ends[1], STDERR_FILENO);
      struct sigaction action = {};
      action.sa_handler = [](int) {};
      ::sigaction(SIGALRM, &action, nullptr);
      itimerval const every{{0, 300}, {0, 300}};
      ::setitimer(ITIMER_REAL, &every, nullptr);
      TraceFacilityManager::environmentIs("TRACEFORMAT", "%m");
      environmentIs("TRACE", "A");
      for (int i = 0; i < 3; ++i) say("A", 0, record);
      ::_exit(0);
    }
    ::close(ends[1]);
    ::fcntl(ends[0], F_SETFL, 0);
    std::string text;
    static char buffer[65536];
    for (ssize_t n; (n = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, std::size_t(n));
      ::poll(nullptr, 0, 1);  // lets the pipe stand full
    }
    ::close(ends[0]);
    ::waitpid(writer, nullptr, 0);
    EXPECT_TRUE(record + "\n" + record + "\n" + record + "\n" == text) << nonBlocking;
  }
}

}  // namespace
}  // namespace Kiv
