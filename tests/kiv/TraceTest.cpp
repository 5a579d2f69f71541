#include "Kiv/Trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "Kiv/Exception.h"

namespace Kiv {
namespace {
using testing::HasSubstr;
using testing::MatchesRegex;
using Words = std::vector<std::string>;

constexpr U32 kAll = 0xffffffffu;

TEST(TraceSettingTest, grammar) {
  struct {
    char const* text;
    char const* name;
    bool matches;
    U32 of0;
    U32 ofAll;
  } const cases[] = {
      {"Foo", "Foo", true, kAll, kAll},
      {"Foo", "Foobar", false, kAll, kAll},
      {"-Foo", "Foo", true, 0, 0},
      {"Foo/0", "Foo", true, 1, kAll},
      {"Foo/31", "Foo", true, 0x80000000u, kAll},
      {"-Foo/31", "Foo", true, 0, 0x7fffffffu},
      {"Foo/3-5", "Foo", true, 0x38, kAll},
      {"Foo/0-31", "Foo", true, kAll, kAll},
      {"-Foo/4-4", "Foo", true, 0, kAll & ~0x10u},
      {"Foo/*", "Foo", true, kAll, kAll},
      {" \t- Foo / 3 - 5 ", "Foo", true, 0, kAll & ~0x38u},
      {"*", "", true, kAll, kAll},
      {"*", "any/thing", true, kAll, kAll},
      {"Task*", "TaskScheduler", true, kAll, kAll},
      {"Task*", "ATask", false, kAll, kAll},
      {"*a*b*c", "xaxbabbc", true, kAll, kAll},
      {"*a*b*c", "xaxbabb", false, kAll, kAll},
      {"a/b/3", "a/b", true, 8, kAll},
      {"Two words/1", "Two words", true, 2, kAll},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    TraceSetting const setting(c.text);
    EXPECT_EQ(c.matches, setting.matches(c.name));
    EXPECT_EQ(c.of0, setting.applied(0));
    EXPECT_EQ(c.ofAll, setting.applied(kAll));
  }
  std::ostringstream printed;
  printed << TraceSetting("  -A * / 3 \t");
  EXPECT_EQ("-A * / 3", printed.str());
}

TEST(TraceSettingTest, malformedTextSaysWhatIsWrong) {
  struct {
    char const* text;
    char const* why;
  } const cases[] = {
      {"", "no name"},
      {"-", "no name"},
      {"/3", "no name"},
      {"Foo/", "\"\" is not a level"},
      {"Foo/x", "\"x\" is not a level"},
      {"Foo/3x", "\"3x\""},
      {"Foo/-3", "\"\" is not"},
      {"Foo/3-", "\"\" is not"},
      {"Foo/1-2-3", "\"2-3\""},
      {"Foo/+1", "\"+1\""},
      {"Foo/32", "32 is above 31"},
      {"Foo/99999999999999999999", "above 31"},
      {"Foo/5-3", "backwards"},
      {"Foo/**", "\"**\""},
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

TEST(TraceFacilityTest, oneWordForAllHandlesOfAName) {
  TraceHandle const first("Shared", 5);
  TraceHandle const second("Shared", 2);
  EXPECT_EQ(first.facility(), second.facility());
  EXPECT_EQ(5u, *second.facility()->levelsEnabledPtr());
  second.facility()->levelEnabledIs(31, true);
  first.facility()->levelEnabledIs(0, false);
  EXPECT_EQ(0x80000004u, *first.facility()->levelsEnabledPtr());
  EXPECT_THROW(first.facility()->levelEnabledIs(32, true), RangeException);
  EXPECT_NE(first.facility(), TraceHandle("Other", 0).facility());
}

// Each level has its own writer; the readers and the environment come in between.
TEST(TraceFacilityTest, threadsSwitchLevelsWithoutLosingEachOthers) {
  TraceFacilityManager::environmentIs("TRACE", "Busy/20,-Busy/21");
  std::vector<std::thread> threads;
  std::atomic<bool> stop{false};
  for (unsigned level = 0; level < 3; ++level) {
    threads.emplace_back([level] {
      TraceHandle const handle("Busy", 0);
      for (int i = 0; i <= 100000; ++i) handle.facility()->levelEnabledIs(level, i % 2 == 0);
    });
  }
  std::thread reader([&] {
    TraceHandle const handle("Busy", 0);
    while (!stop) {
      U32 const now = __atomic_load_n(handle.facility()->levelsEnabledPtr(), __ATOMIC_RELAXED);
      EXPECT_EQ(0u, now & ~0x100007u);
    }
  });
  for (int i = 0; i < 200; ++i) TraceFacilityManager::instance().doReadEnvironment();
  for (std::thread& thread : threads) thread.join();
  stop = true;
  reader.join();
  EXPECT_EQ(0x100007u, *TraceHandle("Busy", 0).facility()->levelsEnabledPtr());
}

/// Processes whose standard errors are one pipe.
class Probes {
 public:
  Probes() {
    if (::pipe2(ends_, O_CLOEXEC) != 0) throw ErrnoException("pipe2", errno);
  }
  ~Probes() { ::close(ends_[0]); }

  void start(Words const& environment, Words const& script) {
    Words arguments{"kiv_traceprobe"};
    arguments.insert(arguments.end(), script.begin(), script.end());
    std::vector<char*> const argv = pointers(arguments), envp = pointers(environment);
    std::string const path = beside("kiv_traceprobe");
    pid_t const pid = ::fork();
    if (pid == 0) {
      ::dup2(ends_[1], STDERR_FILENO);
      ::execve(path.c_str(), argv.data(), envp.data());
      ::_exit(127);
    }
    children_.push_back(pid);
  }
  /// Lets a pipe stand full between two reads.
  void readsSlowly() { pauseMilliseconds_ = 1; }
  void writesNeverBlock() { ::fcntl(ends_[1], F_SETFL, O_NONBLOCK); }

  /// All that they write until the last has ended; every one must have exited 0.
  std::string output() {
    ::close(ends_[1]);
    std::string text;
    static char buffer[65536];
    for (ssize_t n; (n = ::read(ends_[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, std::size_t(n));
      ::poll(nullptr, 0, pauseMilliseconds_);
    }
    for (pid_t const child : children_) {
      int status = -1;
      ::waitpid(child, &status, 0);
      EXPECT_EQ(0, status);
    }
    return text;
  }

 private:
  static std::string beside(char const* name) {
    char self[4096];
    ssize_t const bytes = ::readlink("/proc/self/exe", self, sizeof self);
    std::string const path(self, std::size_t(bytes));
    return path.substr(0, path.rfind('/') + 1) + name;
  }
  static std::vector<char*> pointers(Words const& words) {
    std::vector<char*> result;
    for (std::string const& text : words) result.push_back(const_cast<char*>(text.c_str()));
    result.push_back(nullptr);
    return result;
  }
  int ends_[2];
  int pauseMilliseconds_ = 0;
  std::vector<pid_t> children_;
};

std::string outputOf(Words const& environment, Words const& script) {
  Probes probes;
  probes.start(environment, script);
  return probes.output();
}

TEST(TraceProcessTest, environmentAndRecords) {
  std::string const plain = "TRACEFORMAT=%n/%l:%m";
  struct {
    char const* name;
    Words environment, script;
    char const* output;
  } const cases[] = {
      {"nothing is on unasked", {plain}, {"trace", "A", "0", "x"}, ""},
      {"initial levels",
       {plain},
       {"handle", "A", "2", "trace", "A", "1", "x", "trace", "A", "0", "y"},
       "A/1:x\n"},
      {"TRACE acts on the first handle",
       {plain, "TRACE=A/3"},
       {"trace", "A", "3", "x", "trace", "A", "4", "y", "trace", "B", "3", "z"},
       "A/3:x\n"},
      {"TRACE is applied on top of initial levels",
       {plain, "TRACE=-A/0,B"},
       {"handle", "A", "3", "trace", "A", "0", "x", "trace", "A", "1", "y"},
       "A/1:y\n"},
      {"entries count in order",
       {plain, "TRACE=A,-A/1,*/2,-B*"},
       {"trace", "A", "1", "x", "trace", "A", "2", "y", "trace", "BC", "2", "z"},
       "A/2:y\n"},
      {"changed while it runs, for old handles and new ones",
       {plain},
       {"handle", "A", "0", "env", "TRACE", "*/1", "trace", "A", "1", "x", "trace", "B", "1", "y"},
       "A/1:x\nB/1:y\n"},
      {"what was switched on stays on without its entry",
       {plain, "TRACE=A/1"},
       {"handle", "A", "0", "env", "TRACE", "A/2", "trace", "A", "1", "x", "trace", "B", "1", "y"},
       "A/1:x\n"},
      {"empty entries and a lone minus are nothing",
       {plain, "TRACE= ,,-, A/1 ,- ,"},
       {"trace", "A", "1", "x"},
       "A/1:x\n"},
      {"malformed entries: one note each, the rest counts",
       {plain, "TRACE=A/99,B/1,/2,A/99"},
       {"trace", "B", "1", "x", "env", "TRACE", "A/99,C/x", "trace", "B", "1", "y"},
       "TRACE: trace setting \"A/99\": level 99 is above 31, ignored\n"
       "TRACE: trace setting \"/2\": no name, ignored\n"
       "B/1:x\n"
       "TRACE: trace setting \"C/x\": \"x\" is not a level, ignored\n"
       "B/1:y\n"},
      {"every token",
       {"TRACE=A", "TRACEFORMAT=%n|%l|%f|%L|%F|%m|%%|%x|%"},
       {"trace", "A", "9", "te%mxt"},
       "A|9|file.cpp|7|work|te%mxt|%|%x|%\n"},
      {"a newline of its own is enough", {plain, "TRACE=A"}, {"trace", "A", "1", "x\n"}, "A/1:x\n"},
      {"null pointers are empty", {"TRACEFORMAT=[%f%F%m%L]"}, {"bare", "A"}, "[0]"},
      {"the format changes while it runs",
       {plain, "TRACE=A"},
       {"trace", "A", "1", "x", "env", "TRACEFORMAT", "%m", "trace", "A", "1", "y"},
       "A/1:x\ny\n"},
      {"errno is kept", {"TRACE=A"}, {"errno", "A"}, ""},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.output, outputOf(c.environment, c.script));
  }
}

TEST(TraceProcessTest, standardFormatHasLocalTimeAndProcess) {
  char const* const record = "05:[0-9]+:[0-9]+\\.[0-9]{6} [0-9]+ A/1 work: x\n";
  time_t const now = ::time(nullptr);
  tm utc;
  ::gmtime_r(&now, &utc);
  // A zone in which it is always between five and six, but for the turn of the hour in between.
  std::string const zone = "TZ=XYZ" + std::to_string(utc.tm_hour - 5);
  std::string const output = outputOf({"TRACE=A", zone}, {"trace", "A", "1", "x"});
  if (::time(nullptr) / 3600 == now / 3600) {
    EXPECT_THAT(output, MatchesRegex(record));
  }
}

// Four processes of four threads, in records up to what a pipe takes whole.
TEST(TraceProcessTest, threadsAndProcessesNeverMixLines) {
  Probes probes;
  std::map<std::string, int> expected;
  for (int const bytes : {1, 80, 1000, 4000}) {
    for (char c = 'a'; c < 'e'; ++c) expected["<" + std::string(std::size_t(bytes), c) + ">"] = 100;
    probes.start({"TRACE=A", "TRACEFORMAT=%m"}, {"flood", "A", "4", "100", std::to_string(bytes)});
  }
  std::istringstream lines(probes.output());
  std::map<std::string, int> seen;
  for (std::string line; std::getline(lines, line);) ++seen[line];
  EXPECT_TRUE(expected == seen) << seen.size() << " different lines";
}

// A pipe far smaller than the record, signals that interrupt the writing, and a slow reader.
TEST(TraceProcessTest, longRecordsArriveWhole) {
  for (bool const nonBlocking : {false, true}) {
    SCOPED_TRACE(nonBlocking);
    Probes probes;
    probes.readsSlowly();
    if (nonBlocking) probes.writesNeverBlock();
    probes.start({"TRACE=A", "TRACEFORMAT=%m"}, {"signals", "flood", "A", "1", "3", "1000000"});
    std::string const record = "<" + std::string(1000000, 'a') + ">\n";
    EXPECT_TRUE(record + record + record == probes.output());
  }
}

}  // namespace
}  // namespace Kiv
