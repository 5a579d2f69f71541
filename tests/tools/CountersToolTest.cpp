#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "Kiv/AttributeLog.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/ShmemMan.h"
#include "tests/support/OwnVar.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;

namespace Veltro {
namespace {

using testing::HasSubstr;

struct Outcome {
  int status;
  std::string text;  // both streams, as they came
};

std::string readLine(std::FILE* from) {
  char line[4096] = "";
  return std::fgets(line, sizeof line, from) == nullptr ? "" : line;
}

Outcome run(std::string const& arguments, std::string const& redirect = " 2>&1") {
  std::FILE* const pipe = ::popen((COUNTERS_TOOL " " + arguments + redirect).c_str(), "r");
  Outcome outcome{-1, ""};
  for (std::string line; !(line = readLine(pipe)).empty();) outcome.text += line;
  int const status = ::pclose(pipe);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

/// A log with two keys of four, and a file of blocks of 16 bytes where the first was started.
struct CountersToolTest : testing::Test {
  CountersToolTest() {
    manager->counterKeyToMemBlockIs("files", 1);
    manager->counterKeyToMemBlockIs("it's \"\n\xff\xc3\xa4", 3);
    Kiv::AttributeLog::save(*manager, log);
    fs::resize_file((std::ofstream(file), file), 64);
    blockIs(0, 7, 0x100000002u);
  }
  void blockIs(std::streamoff at, U32 genId, U64 value) const {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(at).write(reinterpret_cast<char const*>(&genId), sizeof genId);
    stream.seekp(at + 8).write(reinterpret_cast<char const*>(&value), sizeof value);
  }

  TempDir temp;
  std::string const log = temp.path("log");
  std::string const file = temp.path("file");
  std::string const both = "--file=" + file + " " + log;
  Kiv::Ptr<ShmemMan> const manager = Kiv::allocate<ShmemMan>("mgr", "base", 4u);
};

TEST_F(CountersToolTest, printsATableAndJson) {
  Outcome const table = run(both);
  EXPECT_EQ(0, table.status);
  EXPECT_EQ(
      "COUNTER         BLOCK  GENERATION       VALUE\n"
      "'files'             1           7  4294967298\n"
      "'it\\'s \"\\n\xff\xc3\xa4'      3           -           -\n",
      table.text);
  Outcome const json = run("--json --block-size 16 " + both);
  EXPECT_EQ(0, json.status);
  EXPECT_EQ("{\"file\":\"" + file +
                "\",\"maxCounters\":4,\"blockSize\":16,\"counters\":["
                "{\"key\":\"files\",\"block\":1,\"generation\":7,\"value\":4294967298},"
                "{\"key\":\"it's \\\"\\u000a\\ufffd\xc3\xa4\",\"block\":3,"
                "\"generation\":null,\"value\":null}]}\n",
            json.text);
}

TEST_F(CountersToolTest, followsValuesKeysAndRestarts) {
  std::FILE* const tool =
      ::popen((COUNTERS_TOOL " --json --follow=0.01 " + both + " 2>&1").c_str(), "r");
  auto const followsUntil = [tool](char const* text) {
    for (std::string line = readLine(tool); !line.empty(); line = readLine(tool)) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  };
  EXPECT_TRUE(followsUntil("\"value\":4294967298}"));
  blockIs(0, 7, 9);
  EXPECT_TRUE(followsUntil("\"generation\":7,\"value\":9}"));
  manager->counterKeyToMemBlockIs("new", 2);
  Kiv::AttributeLog::save(*manager, log);
  blockIs(16, 7, 1);
  EXPECT_TRUE(followsUntil("\"new\",\"block\":2,\"generation\":7,\"value\":1}"));
  // An agent that removed its file and began a new one.
  fs::copy_file(file, temp.path("next"));
  fs::rename(temp.path("next"), file);
  blockIs(0, 8, 1);
  EXPECT_TRUE(followsUntil("\"generation\":8,\"value\":1}"));
  ::pclose(tool);  // it ends as it writes to nobody
}

TEST_F(CountersToolTest, showsRatesWithinAGeneration) {
  Outcome const outcome = run("--follow=0.01 --times 2 " + both);
  EXPECT_EQ(0, outcome.status);
  EXPECT_THAT(outcome.text, HasSubstr("PER SECOND\n'files'             1           7  4294967298"
                                      "         0.0\n"));
}

TEST_F(CountersToolTest, findsTheFileThatTheLogNames) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to hide /var";
  inOwnVar([this] {
    BlockCounter(manager->counterAddr("files", 64, false)).inc(3);
    manager->shmemGenIdIs("it's \"\n\xff\xc3\xa4", 64, 2);
    Outcome const outcome = run("--json " + log);
    EXPECT_EQ(0, outcome.status);
    EXPECT_THAT(outcome.text, HasSubstr("{\"file\":\"/var/shmem/shmem/counters/base/mgr\","
                                        "\"maxCounters\":4,\"blockSize\":64,"));
    EXPECT_THAT(outcome.text, HasSubstr("\"block\":3,\"generation\":2,\"value\":0}"));
  });
}

TEST_F(CountersToolTest, saysWhatIsWrong) {
  std::ofstream(temp.path("damaged")) << "Veltro::ShmemMan attribute log 1\n"
                                         "name = 'mgr'\n"
                                         "maxCounters = many\n"
                                         "end\n";
  std::ofstream(temp.path("beyond")) << "Veltro::ShmemMan attribute log 1\n"
                                        "maxCounters = 4\n"
                                        "counterKeyToMemBlock['x'] = 5\n"
                                        "end\n";
  std::ofstream(temp.path("short")) << "only a few bytes";
  fs::create_symlink(file, temp.path("link"));
  struct {
    std::string arguments;
    int status;
    std::string text;
  } const cases[] = {
      {"--help", 0, "usage: veltro-counters [OPTION...] LOG\n"},
      {"", 2, "veltro-counters: LOG is missing"},
      {log + " more", 2, "one word too many: more"},
      {"--colour " + log, 2, "unknown option --colour"},
      {"--file", 2, "--file needs a value"},
      {"--times 3 " + log, 2, "--times goes with --follow only"},
      {"--follow=soon " + log, 2, "--follow cannot be 'soon'"},
      {"--follow=nan " + log, 2, "--follow cannot be 'nan'"},
      {"--block-size=15 " + log, 2, "--block-size cannot be '15'"},
      {temp.path("missing"), 1, temp.path("missing") + ": No such file or directory (2)"},
      {temp.path("damaged"), 1, temp.path("damaged") + ": attribute log line 3: "},
      {"--file=" + file + " " + temp.path("beyond"), 1, "key 'x' has block 5 of 4"},
      {"--file=" + temp.path("missing") + " " + log, 1, "No such file or directory (2)"},
      {"--file=" + temp.path("link") + " " + log, 1, "Too many levels of symbolic links (40)"},
      {"--file=" + temp.path("short") + " " + log, 1,
       "16 bytes are not 4 blocks with a counter each"},
      {"--block-size=64 " + both, 1, "64 bytes are not 4 blocks with a counter each of 64 bytes"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.arguments);
    Outcome const outcome = run(c.arguments);
    EXPECT_EQ(c.status, outcome.status);
    EXPECT_THAT(outcome.text, HasSubstr(c.text));
  }
  EXPECT_EQ(1, run(both, " >/dev/full 2>&-").status);
}

}  // namespace
}  // namespace Veltro
