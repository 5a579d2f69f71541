#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "Kiv/AttributeLog.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/CounterDescriptions.h"
#include "Veltro/ShmemMan.h"
#include "tests/support/OwnVar.h"
#include "tests/support/TempDir.h"
#include "tests/tools/RunningAgent.h"

namespace fs = std::filesystem;

namespace Veltro {
namespace {

using testing::HasSubstr;

/// A log with two keys of four, and a file of blocks of 16 bytes where the first was started.
struct CountersTest : testing::Test {
  CountersTest() {
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

TEST_F(CountersTest, printsATableAndJson) {
  Outcome const table = veltro("counters " + both);
  EXPECT_EQ(0, table.status);
  EXPECT_EQ(
      "COUNTER         BLOCK  GENERATION       VALUE\n"
      "'files'             1           7  4294967298\n"
      "'it\\'s \"\\n\xff\xc3\xa4'      3           -           -\n",
      table.text);
  EXPECT_THAT(veltro("counters --follow=0.01 --times 2 " + both).text,
              HasSubstr("PER SECOND\n'files'             1           7  4294967298         0.0\n"));
  Outcome const json = veltro("counters --json --block-size 16 " + both);
  EXPECT_EQ(0, json.status);
  EXPECT_EQ("{\"file\":\"" + file +
                "\",\"maxCounters\":4,\"blockSize\":16,\"counters\":["
                "{\"key\":\"files\",\"block\":1,\"generation\":7,\"value\":4294967298},"
                "{\"key\":\"it's \\\"\\n\xef\xbf\xbd\xc3\xa4\",\"block\":3,"
                "\"generation\":null,\"value\":null}]}\n",
            json.text);
}

TEST_F(CountersTest, saysWhatTheAgentSaidOfThem) {
  CounterDescriptions about;
  about.descriptionIs("files", {"counter", "files", "Files, 'read'\nand \\ hashed."});
  EXPECT_THROW(about.descriptionIs("files", {"sum", "", ""}), Kiv::RangeException);
  about.save(CounterDescriptions::pathOf(log));
  EXPECT_THAT(veltro("counters --json " + both).text,
              HasSubstr("\"value\":4294967298,\"kind\":\"counter\",\"unit\":\"files\","
                        "\"help\":\"Files, 'read'\\nand \\\\ hashed.\"}"));
  blockIs(32, 1, 5);  // of the key that nothing was said of
  Outcome const metrics = veltro("counters --metrics " + both);
  EXPECT_EQ(0, metrics.status);
  EXPECT_EQ(
      "# HELP files Files, 'read'\\nand \\\\ hashed. Unit: files\n"
      "# TYPE files counter\n"
      "files{key=\"files\"} 4294967298\n"
      "# TYPE it_s______ untyped\n"
      "it_s______{key=\"it's \\\"\\n\xef\xbf\xbd\xc3\xa4\"} 5\n",
      metrics.text);
  std::ofstream(CounterDescriptions::pathOf(log)) << "{'files': {'kind': 'sum'}}";
  EXPECT_EQ(1, veltro("counters " + both).status);
}

TEST_F(CountersTest, followsValuesKeysAndRestarts) {
  std::FILE* const tool =
      ::popen((VELTRO_TOOL " counters --json --follow=0.01 " + both + " 2>&1").c_str(), "r");
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

TEST_F(CountersTest, findsTheFileThatTheLogNames) {
  inOwnVar([this] {
    BlockCounter(manager->counterAddr("files", 64, false)).inc(3);
    manager->shmemGenIdIs("it's \"\n\xff\xc3\xa4", 64, 2);
    Outcome const outcome = veltro("counters --json " + log);
    EXPECT_EQ(0, outcome.status);
    EXPECT_THAT(outcome.text, HasSubstr("{\"file\":\"/var/shmem/shmem/counters/base/mgr\","
                                        "\"maxCounters\":4,\"blockSize\":64,"));
    EXPECT_THAT(outcome.text, HasSubstr("\"block\":3,\"generation\":2,\"value\":0}"));
  });
}

TEST_F(CountersTest, saysWhatIsWrong) {
  std::string const head = "Veltro::ShmemMan attribute log 1\n";
  std::ofstream(temp.path("damaged")) << head << "name = 'mgr'\nmaxCounters = many\nend\n";
  std::ofstream(temp.path("beyond"))
      << head << "maxCounters = 4\ncounterKeyToMemBlock['x'] = 5\nend\n";
  std::ofstream(temp.path("short")) << "only a few bytes";
  fs::create_symlink(file, temp.path("link"));
  struct {
    std::string arguments;
    int status;
    std::string text;
  } const cases[] = {
      {"counters --help", 0, "Usage: veltro counters [OPTIONS] LOG\n"},
      {"", 2, "veltro: A subcommand is required (--help says more)"},
      {"counters", 2, "veltro: LOG is required"},
      {"counters --follow=nan " + log, 2, "--follow: cannot be 'nan'"},
      {"counters --block-size=15 " + log, 2, "--block-size: cannot be '15'"},
      {"counters --json --metrics " + log, 2, "excludes"},
      {"counters " + temp.path("missing"), 1, "missing: No such file or directory (2)"},
      {"counters " + temp.path("damaged"), 1, "damaged: attribute log line 3: "},
      {"counters --file=" + file + " " + temp.path("beyond"), 1, "key 'x' has block 5 of 4"},
      {"counters --file=" + temp.path("link") + " " + log, 1,
       "Too many levels of symbolic links (40)"},
      {"counters --file=" + temp.path("short") + " " + log, 1,
       "16 bytes are not 4 blocks with a counter each"},
      {"counters --block-size=64 " + both, 1, "not 4 blocks with a counter each of 64 bytes"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.arguments);
    Outcome const outcome = veltro(c.arguments);
    EXPECT_EQ(c.status, outcome.status);
    EXPECT_THAT(outcome.text, HasSubstr(c.text));
  }
  EXPECT_EQ(1, veltro("counters " + both, " >/dev/full 2>&-").status);
}

// Bash itself reads the script and completes.
TEST_F(CountersTest, completesItsWords) {
  RunningAgent const agent;
  std::string const prepare = "source <(" VELTRO_TOOL
                              " completion) && "
                              "export VELTRO_INTROSPECT=$(dirname " +
                              agent.errorsFile() + ") && COMP_WORDS=(" VELTRO_TOOL " ";
  std::string const main = "agent." + agent.process() + "." + agent.process();
  struct {
    std::string words, completed;
  } const cases[] = {
      {"cou", "counters"},     {"counters --f", "--file --follow"},
      {"counters fi", "file"}, {"trace -o fi", "file"},
      {"trace " + main, main},
  };
  for (auto const& c : cases) {
    auto const at = 1 + std::count(c.words.begin(), c.words.end(), ' ');
    EXPECT_EQ(c.completed + "\n",
              shell("cd " + temp.path() + " && bash -c '" + prepare + c.words +
                    ") COMP_CWORD=" + std::to_string(at) + " && _veltro && echo ${COMPREPLY[@]}'")
                  .text);
  }
}

}  // namespace
}  // namespace Veltro
