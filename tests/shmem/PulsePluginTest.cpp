// The counters plugin, by a real agent that knows only the facade.
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

#include "Veltro/PluginCpp.h"
#include "tests/support/OwnVar.h"
#include "tests/support/Published.h"
#include "tests/support/Shell.h"

namespace fs = std::filesystem;

/// The plugin's operations as published, declared anew. Not in the unnamed namespace: there the
/// compiler knows that nobody implements it.
struct PublishedCounters {
  virtual char const* name() = 0;
  virtual void countersNameIs(char const* name) = 0;
  virtual unsigned long long* counterPtr(char const* counterName) = 0;
};

namespace Veltro {
namespace {

using testing::HasSubstr;
using testing::Not;

fs::path const kSets = "/var/shmem/shmem/counters/pulse";

/// What the agent prints, traces included, when it bumps the counters of its arguments once.
std::string agent(std::string const& arguments) {
  Outcome const outcome = shell("LD_LIBRARY_PATH=" PULSE_FOLDER " " COUNTERS_PROBE " " + arguments);
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

struct PulsePluginTest : testing::Test {
  void SetUp() override {
    if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to hide /var";
  }
};

TEST_F(PulsePluginTest, anAgentPublishesAndARestartContinuesItsBlocks) {
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
  });
}

// Whatever is wrong with the set, the agent counts, is told why, and nothing else is touched.
TEST_F(PulsePluginTest, countsAloneWhereItCannotPublish) {
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
      {"a link for a lock", "",
       [] {
         fs::create_directories(kSets / "set");
         fs::create_symlink("/var/elsewhere", kSets / "set/lock");
       },
       "set", "not published: "},
      {"a pipe for a lock", "",
       [] {
         fs::create_directories(kSets / "set");
         ::mkfifo((kSets / "set/lock").c_str(), 0666);
       },
       "set", "not published: "},
      {"a directory for a log", "", [] { fs::create_directories(kSets / "set/log"); }, "set",
       "Is a directory"},
      {"a file for a set", "", [] { write(kSets / "set", "mine"); }, "set", "not published: "},
      {"another publisher", "",
       [] {
         write(kSets / "set/lock", "");
         struct flock whole {};
         whole.l_type = F_WRLCK;
         ASSERT_EQ(0, ::fcntl(::open((kSets / "set/lock").c_str(), O_RDWR), F_SETLK, &whole));
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
          EXPECT_FALSE(fs::exists("/var/elsewhere") || fs::exists(kSets / "set/counters.log"));
          EXPECT_FALSE(fs::exists(kSets.parent_path() / "counters") || fs::exists(kSets / "a"));
        },
        c.mount);
  }
}

TEST_F(PulsePluginTest, aLogThatCannotBeTrustedIsPutAside) {
  auto const log = [](char const* name, char const* base, char const* blocks, char const* keys) {
    return std::string("Veltro::ShmemMan attribute log 1\nname = '") + name + "'\nbaseName = '" +
           base + "'\nmaxCounters = " + blocks + "\nnewBlockForbidden = False\n" + keys + "end\n";
  };
  struct {
    char const* name;
    std::string log;
    bool trusted;
  } const cases[] = {
      {"good", log("counters", "pulse/set", "1024", "counterKeyToMemBlock['x'] = 7\n"), true},
      {"cut short", "Veltro::ShmemMan attribute log 1\nname = 'coun", false},
      {"another set's", log("counters", "pulse/other", "1024", ""), false},
      {"out of the root", log("counters", "../../..", "1024", ""), false},
      {"another size", log("counters", "pulse/set", "4096", ""), false},
      {"beyond the file",
       log("counters", "pulse/set", "1024", "counterKeyToMemBlock['x'] = 1025\n"), false},
      {"one block for two",
       log("counters", "pulse/set", "1024",
           "counterKeyToMemBlock['x'] = 7\ncounterKeyToMemBlock['y'] = 7\n"),
       false},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    inOwnVar([&] {
      write(kSets / "set/log", c.log);
      std::string const output = agent("set a x");
      EXPECT_THAT(output, HasSubstr("a live 1\nx live 1\nwithout storage live\n"));
      EXPECT_EQ(!c.trusted, fs::exists(kSets / "set/log.damaged"));
      EXPECT_EQ(1u, published("set", "a").value);
      EXPECT_EQ(1u, published("set", "x").value);
      EXPECT_EQ(!c.trusted, output.find("counters of set start afresh") != std::string::npos);
    });
  }
}

TEST_F(PulsePluginTest, moreKeysThanBlocksAreCountedAlone) {
  inOwnVar([] {
    std::string const output = agent("set $(seq 1026)");
    EXPECT_THAT(output, HasSubstr("counter 1025 of set is not published: all 1024 blocks are"));
    EXPECT_THAT(output, HasSubstr("1026 live 1\n"));
    EXPECT_THAT(output, Not(HasSubstr("counter 1024 of set")));
    EXPECT_EQ(1u, published("set", "1024").value);
  });
}

TEST_F(PulsePluginTest, setsAndCountersKeepTheirAddresses) {
  inOwnVar([] {
    ASSERT_NE(nullptr, ::dlopen(PULSE_FOLDER "/libPulseCountersPlugin.so", RTLD_NOW))
        << ::dlerror();
    auto& plugin =
        *reinterpret_cast<PublishedCounters*>(Platform::loadPlugin("PulseCountersPlugin"));
    EXPECT_STREQ("PulseCountersPlugin", plugin.name());
    plugin.countersNameIs("one");
    auto* const one = plugin.counterPtr("n");
    plugin.countersNameIs("two");
    auto* const two = plugin.counterPtr("n");
    plugin.countersNameIs("..");
    auto* const alone = plugin.counterPtr("n");
    *one = 1, *two = 0x100000002, *alone = 3;
    EXPECT_EQ(1u, published("one", "n").value);
    EXPECT_EQ(0x100000002u, published("two", "n").value);
    plugin.countersNameIs("one");
    EXPECT_EQ(one, plugin.counterPtr("n"));
    EXPECT_NE(one, plugin.counterPtr(nullptr));
    for (auto* const counter : {one, two, alone}) {
      EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(counter) % 8);
    }
  });
}

}  // namespace
}  // namespace Veltro
