#include "Kiv/Trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <map>
#include <thread>

#include "Kiv/Exception.h"
#include "tests/support/Child.h"
#include "tests/support/StandardError.h"

namespace Kiv {
namespace {
using testing::HasSubstr;
using Lines = std::vector<std::string>;

constexpr U32 kAll = 0xffffffffu;

TEST(TraceSettingTest, grammar) {
  struct {
    char const* text;
    char const* name;
    bool matches;
    U32 of0;
    U32 ofAll;
  } const cases[] = {
      {"Foo", "Foobar", false, kAll, kAll},
      {"-Foo/31", "Foo", true, 0, 0x7fffffffu},
      {"Foo/3-5", "Foo", true, 0x38, kAll},
      {"Foo/0-31", "Foo", true, kAll, kAll},
      {"Foo/*", "Foo", true, kAll, kAll},
      {" \t- Two words / 3 - 5 ", "Two words", true, 0, kAll & ~0x38u},
      {"*", "", true, kAll, kAll},
      {"Task*", "ATask", false, kAll, kAll},
      {"Foo*", "Foo", true, kAll, kAll},
      {"*a*b*c", "xaxbabbc", true, kAll, kAll},
      {"*a*b*c", "xaxbabb", false, kAll, kAll},
      {"a/b/3", "a/b", true, 8, kAll},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    TraceSetting const setting(c.text);
    EXPECT_EQ(c.matches, setting.matches(c.name));
    EXPECT_EQ(c.of0, setting.applied(0));
    EXPECT_EQ(c.ofAll, setting.applied(kAll));
  }
  EXPECT_EQ("-A * / 3", testing::PrintToString(TraceSetting("  -A * / 3 \t")));
}

TEST(TraceSettingTest, malformedTextSaysWhatIsWrong) {
  struct {
    char const* text;
    char const* why;
  } const cases[] = {
      {"-", "no name"},
      {"/3", "no name"},
      {"Foo/", "\"\" is not a level"},
      {"Foo/3x", "\"3x\""},
      {"Foo/3-", "\"\" is not"},
      {"Foo/1-2-3", "\"2-3\""},
      {"Foo/+1", "\"+1\""},
      {"Foo/32", "32 is above 31"},
      {"Foo/99999999999999999999", "above 31"},
      {"Foo/5-3", "backwards"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    try {
      TraceSetting setting(c.text);
      ADD_FAILURE() << "accepted";
    } catch (RangeException const& fault) {
      EXPECT_THAT(fault.what(), HasSubstr(c.why));
      EXPECT_THAT(fault.what(), HasSubstr(std::string("\"") + c.text + "\""));
    }
  }
}

// Each level has its own writer; the readers and the environment come in between.
TEST(TraceFacilityTest, threadsSwitchLevelsWithoutLosingEachOthers) {
  TraceFacilityManager::environmentIs("TRACE", "Busy/20,-Busy/21");
  TraceHandle const busy("Busy", 8);
  EXPECT_THROW(busy.facility()->levelEnabledIs(32, true), RangeException);
  std::vector<std::thread> threads;
  std::atomic<bool> stop{false};
  for (unsigned level = 0; level < 3; ++level) {
    threads.emplace_back([level] {
      TraceHandle const handle("Busy", 0);
      for (int i = 0; i <= 100000; ++i) handle.facility()->levelEnabledIs(level, i % 2 == 0);
    });
  }
  std::thread reader([&] {
    while (!stop) {
      U32 const now = __atomic_load_n(busy.facility()->levelsEnabledPtr(), __ATOMIC_RELAXED);
      EXPECT_EQ(8u, now & ~0x100007u);
    }
  });
  for (int i = 0; i < 200; ++i) TraceFacilityManager::instance().doReadEnvironment();
  for (std::thread& thread : threads) thread.join();
  stop = true;
  reader.join();
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
TEST(TraceRecordTest, theEnvironmentSaysWhatIsWrittenAndHow) {
  char const* const plain = "%n/%l:%m";
  struct {
    char const* name;
    char const* trace;
    char const* format;
    void (*act)();
    Lines lines;
  } const cases[] = {
      {"initial levels, and TRACE on top of them",
       "-A/0,B",
       plain,
       [] {
         TraceHandle("A", 3);
         TraceHandle("A", 4);
         for (unsigned level : {0u, 1u, 2u}) say("A", level, "x");
         say("B", 31, "x");
         say("C", 0, "x");
       },
       {"A/1:x", "B/31:x"}},
      {"entries count in order",
       "A,-A/1,*/2,-B*",
       plain,
       [] {
         say("A", 1, "x");
         say("A", 2, "y");
         say("BC", 2, "z");
       },
       {"A/2:y"}},
      {"a change is for old handles and new ones; what is on stays on without its entry",
       "A/1",
       plain,
       [] {
         say("A", 2, "w");
         environmentIs("TRACE", "*/2");
         for (char const* name : {"A", "B"}) {
           say(name, 1, "x");
           say(name, 2, "y");
         }
       },
       {"A/1:x", "A/2:y", "B/2:y"}},
      {"malformed entries: one note each, empty ones and a lone minus none",
       "A/99, ,,B/1,-,- ,/2,A/99",
       plain,
       [] {
         say("B", 1, "x");
         environmentIs("TRACE", "A/99,C/x");
         say("B", 1, "y");
       },
       {"TRACE: trace setting \"A/99\": level 99 is above 31, ignored",
        "TRACE: trace setting \"/2\": no name, ignored", "B/1:x",
        "TRACE: trace setting \"C/x\": \"x\" is not a level, ignored", "B/1:y"}},
      {"every token, and one newline at most",
       "A",
       "%n|%l|%f|%L|%F|%m|%%|%x|%",
       [] {
         say("A", 9, "te%mxt");
         environmentIs("TRACEFORMAT", "%m");
         say("A", 1, "x\n");
         say("A", 1, "y");
       },
       {"A|9|file.cpp|7|work|te%mxt|%|%x|%", "x", "y"}},
      {"null pointers are empty",
       "",
       "[%f%F%m%L]",
       [] {
         for (int i : {1, 2}) traceHelper(TraceHandle("A", 0), 0, 0, nullptr, i, nullptr, nullptr);
       },
       {"[1][2]"}},
      {"errno is kept where nothing can be written",
       "A",
       "",
       [] {
         ::close(STDERR_FILENO);
         errno = ECHILD;
         say("A", 1, "lost");
         EXPECT_EQ(ECHILD, errno);
       },
       {}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Veltro::inChild([&c] {
      EXPECT_EQ(c.lines, Veltro::standardError([&c] {
                  TraceFacilityManager::environmentIs("TRACEFORMAT", c.format);
                  environmentIs("TRACE", c.trace);
                  c.act();
                }));
    });
  }
}

TEST(TraceRecordTest, theStandardFormatHasLocalTimeAndProcess) {
  Veltro::inChild([] {
    time_t const now = ::time(nullptr);
    tm utc;
    ::gmtime_r(&now, &utc);
    // A zone in which it is always between five and six, but for the turn of the hour in between.
    ::setenv("TZ", ("XYZ" + std::to_string(utc.tm_hour - 5)).c_str(), 1);
    ::tzset();
    environmentIs("TRACE", "A");
    Lines const lines = Veltro::standardError([] { say("A", 1, "x"); });
    std::string const rest = " " + std::to_string(::getpid()) + " A/1 work: x";
    if (::time(nullptr) / 3600 != now / 3600) return;
    EXPECT_THAT(lines,
                testing::ElementsAre(testing::MatchesRegex("05:[0-9]+:[0-9]+\\.[0-9]{6}" + rest)));
  });
}

// What one write(2) takes never mixes with another's line. A socket of packets shows the writes.
TEST(TraceRecordTest, eachIsOneWriteAlsoOfSeveralThreads) {
  Veltro::inChild([] {
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
    ::dup2(ends[1], STDERR_FILENO);
    TraceFacilityManager::environmentIs("TRACEFORMAT", "%m");
    environmentIs("TRACE", "A");
    std::map<std::string, int> expected, seen;
    std::vector<std::thread> writers;
    for (std::size_t const bytes : {1u, 80u, 1000u, 4000u}) {
      std::string const text(bytes, 'a');
      expected[text + "\n"] = 100;
      writers.emplace_back([text] {
        for (int i = 0; i < 100; ++i) say("A", 0, text);
      });
    }
    static char buffer[65536];
    for (int i = 0; i < 400; ++i) {
      ssize_t const size = ::read(ends[0], buffer, sizeof buffer);
      ++seen[std::string(buffer, std::size_t(size))];
    }
    EXPECT_TRUE(expected == seen) << seen.size() << " different records";
    for (std::thread& writer : writers) writer.join();
  });
}

// A pipe far smaller than the record, signals that interrupt the writing, and a slow reader.
TEST(TraceRecordTest, longRecordsArriveWhole) {
  std::string const record(1000000, 'a');
  for (bool const nonBlocking : {false, true}) {
    SCOPED_TRACE(nonBlocking);
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
    EXPECT_TRUE(record + "\n" + record + "\n" + record + "\n" == text);
  }
}

}  // namespace
}  // namespace Kiv
