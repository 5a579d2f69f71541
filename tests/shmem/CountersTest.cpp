// The facade, with and without a plugin, and the plugin that publishes; by a real agent that knows
// only the facade.
#include "Veltro/Counters.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/OwnVar.h"
#include "tests/support/Published.h"
#include "tests/support/Shell.h"

namespace fs = std::filesystem;

namespace Veltro {
namespace {

using testing::HasSubstr;
using testing::Not;

fs::path const kSets = "/var/shmem/shmem/counters/pulse";

/// What the agent prints, traces included, when it bumps the counters of its arguments once.
std::string agent(std::string const& arguments, char const* plugins = PULSE_FOLDER) {
  Outcome const outcome =
      shell(std::string("LD_LIBRARY_PATH=") + plugins + " " COUNTERS_PROBE " " + arguments);
  EXPECT_EQ(0, outcome.status) << outcome.text;
  return outcome.text;
}

BlockCounter::Sample published(char const* set, char const* key) {
  return Veltro::published(kSets / set / "log", key);
}

void write(fs::path const& path, std::string const& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

TEST(CountersTest, anAgentCountsWithAndWithoutAPlugin) {
  struct {
    char const* name;
    char const* plugins;
    char const* arguments;
    char const* output;
  } const cases[] = {
      {"no plugin", "/nowhere", "set a b", "a own 41\nb own 42\nwithout storage none\n"},
      {"no plugin, no name", "/nowhere", "- a", "a own 41\nwithout storage none\n"},
      {"a plugin", FOREIGN_PLUGIN_FOLDER, "set namings a",
       "namings live 2\na live 1001\nwithout storage live\n"},
      {"a plugin, no name", FOREIGN_PLUGIN_FOLDER, "- namings",
       "namings live 1\nwithout storage live\n"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.output, agent(c.arguments, c.plugins)) << c.name;
}

TEST(PulsePluginTest, anAgentPublishesAndARestartContinuesItsBlocks) {
  inOwnVar([] {
    EXPECT_EQ("a live 1\nb live 1\nb live 2\nwithout storage live\n", agent("set a b b"));
    auto const a = published("set", "a");
    auto const b = published("set", "b");
    EXPECT_EQ(1u, a.value);
    EXPECT_EQ(2u, b.value);
    EXPECT_EQ(a.genId, b.genId);

    agent("set c b a");
    EXPECT_EQ(1u, published("set", "b").value) << "another run starts from 0";
    EXPECT_NE(b.genId, published("set", "b").genId);
    EXPECT_EQ(1u, published("set", "c").value);
    EXPECT_EQ(fs::file_size(kSets / "set/counters"), 64u * 1024);

    agent("- own");
    EXPECT_TRUE(fs::exists(kSets / fs::path(COUNTERS_PROBE).filename() / "log"))
        << "without a name it is the program's";

    std::string const many = agent("set $(seq 1024)");
    EXPECT_THAT(many, HasSubstr("counter 1021 of set is not published: all 1024 blocks are"));
    EXPECT_THAT(many, Not(HasSubstr("counter 1020 of set")));
    EXPECT_THAT(many, HasSubstr("1024 live 1\n"));
  });
}

// Whatever is wrong with the set, the agent counts, is told why, and nothing else is touched.
TEST(PulsePluginTest, countsAloneWhereItCannotPublish) {
  auto const inSet = [](char const* name) {
    fs::create_directories(kSets / "set");
    return kSets / "set" / name;
  };
  struct {
    char const* name;
    char const* mount;
    std::function<void()> spoil;
    char const* set;
    char const* told;
  } const cases[] = {
      {"no space", "size=16k", [] {}, "set", "counters of set are not published"},
      {"up", "", [] {}, "..", "the name is not one of a directory"},
      {"below", "", [] {}, "a/b", "the name is not one of a directory"},
      {"too long", "", [] {}, "$(printf %0300d 1)", "File name too long"},
      {"a link for a lock", "", [&] { fs::create_symlink("/var/elsewhere", inSet("lock")); }, "set",
       "not published: "},
      {"a pipe for a lock", "", [&] { ::mkfifo(inSet("lock").c_str(), 0666); }, "set",
       "not published: "},
      {"a directory for a log", "", [&] { fs::create_directory(inSet("log")); }, "set",
       "Is a directory"},
      {"a file for a set", "", [] { write(kSets / "set", "mine"); }, "set", "not published: "},
      {"another publisher", "",
       [&] {
         struct flock whole {};
         whole.l_type = F_WRLCK;
         int const fd = ::open(inSet("lock").c_str(), O_RDWR | O_CREAT, 0666);
         ASSERT_EQ(0, ::fcntl(fd, F_SETLK, &whole));
       },
       "set", "another process publishes them"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    inOwnVar(
        [&] {
          c.spoil();
          std::string const output = agent(std::string(c.set) + " a a");
          EXPECT_THAT(output, HasSubstr(c.told));
          EXPECT_THAT(output, HasSubstr("a live 1\na live 2\nwithout storage live\n"));
          EXPECT_FALSE(fs::exists("/var/elsewhere") || fs::exists(kSets / "a"));
          EXPECT_FALSE(fs::exists(kSets.parent_path() / "counters"));
        },
        c.mount);
  }
}

TEST(PulsePluginTest, aLogThatCannotBeTrustedIsPutAside) {
  auto const log = [](std::string const& base, std::string const& blocks,
                      std::string const& keys = "") {
    return "Veltro::ShmemMan attribute log 1\nname = 'counters'\nbaseName = '" + base +
           "'\nmaxCounters = " + blocks + "\nnewBlockForbidden = False\n" + keys + "end\n";
  };
  std::string const x = "counterKeyToMemBlock['x'] = 7\n", y = "counterKeyToMemBlock['y'] = 7\n";
  struct {
    char const* name;
    std::string log;
    bool trusted;
  } const cases[] = {
      {"good", log("pulse/set", "1024", x), true},
      {"cut short", "Veltro::ShmemMan attribute log 1\nname = 'coun", false},
      {"out of the root", log("../../..", "1024"), false},
      {"another size", log("pulse/set", "4096"), false},
      {"beyond the file", log("pulse/set", "1024", "counterKeyToMemBlock['x'] = 1025\n"), false},
      {"one block for two", log("pulse/set", "1024", x + y), false},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    inOwnVar([&] {
      write(kSets / "set/log", c.log);
      std::string const output = agent("set a x");
      EXPECT_THAT(output, HasSubstr("a live 1\nx live 1\nwithout storage live\n"));
      EXPECT_EQ(!c.trusted, fs::exists(kSets / "set/log.damaged"));
      EXPECT_EQ(1u, published("set", "x").value);
      EXPECT_EQ(!c.trusted, output.find("counters of set start afresh") != std::string::npos);
    });
  }
}

TEST(PulsePluginTest, facadesLookOnceAndCountersKeepTheirAddresses) {
  inOwnVar([] {
    U64 own = 0;
    Counters before("before");
    ASSERT_NE(nullptr, ::dlopen(PULSE_FOLDER "/libPulseCountersPlugin.so", RTLD_NOW))
        << ::dlerror();
    EXPECT_EQ(&own, before.counter("n", &own));
    auto* const one = Counters("one").counter("n", &own);
    fs::create_directories(kSets / "two/log");
    auto* const alone = Counters("two").counter("n", &own);
    fs::remove(kSets / "two/log");
    EXPECT_EQ("n live 1\nwithout storage live\n", agent("two n")) << "a lock without a use";
    *one = 0x100000002, *alone = 3;
    EXPECT_EQ(0x100000002u, published("one", "n").value);
    EXPECT_EQ(1u, published("two", "n").value);
    EXPECT_EQ(one, Counters("one").counter("n", &own));
    EXPECT_NE(one, Counters(nullptr).counter(nullptr, &own));
    for (auto* const counter : {one, alone}) {
      EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(counter) % 8);
    }
  });
}

}  // namespace
}  // namespace Veltro
