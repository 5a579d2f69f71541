#include "Veltro/ShmemMan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"
#include "Kiv/Model.h"
#include "tests/support/Asserts.h"
#include "tests/support/OwnVar.h"
#include "tests/support/StandardError.h"

namespace fs = std::filesystem;

namespace Veltro {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Lines = std::vector<std::string>;
using ManPtr = Kiv::Ptr<ShmemMan>;

std::string const kDirectory = "/var/shmem/shmem/counters/base";
std::string const kFile = kDirectory + "/mgr";

ManPtr manager(U32 maxCounters = 4) { return Kiv::allocate<ShmemMan>("mgr", "base", maxCounters); }

unsigned char* at(U64 address) {
  return reinterpret_cast<unsigned char*>(static_cast<std::uintptr_t>(address));
}

/// What `body` traces at levels 5 and 9, without the process number that must stand first.
Lines tracesOf(std::function<void()> const& body) {
  Platform::setTraceFormat("%l %m");
  Platform::setupVeltroDebug("ShmemMan/5-9");
  std::string const pid = "pid:" + std::to_string(::getpid()) + " ";
  Lines lines = standardError(body);
  Platform::clearVeltroDebug("ShmemMan");
  for (std::string& line : lines) {
    EXPECT_EQ(2u, line.find(pid)) << line;
    line.erase(2, pid.size());
  }
  return lines;
}

TEST(ShmemManTest, handsOutBlocksInOrder) {
  inOwnVar([] {
    auto const man = manager();
    EXPECT_EQ(kFile, man->fileName().stdString());
    EXPECT_TRUE(man->initialized());
    EXPECT_EQ(0u, man->counterAddr("a", 64, true)) << "readers make nothing";
    EXPECT_FALSE(fs::exists("/var/shmem") || man->memBlocksAvailInitialized());

    U64 const start = man->counterAddr("a", 64, false);
    EXPECT_EQ(start, man->mmapStartAddr());
    EXPECT_EQ(start + 64, man->counterAddr("b", 64, false));
    EXPECT_EQ(start + 128, man->counterAddr("c", 64, false));
    EXPECT_EQ(start + 64, man->counterAddr("b", 64, true));
    EXPECT_EQ(256u, man->fileSize());
    EXPECT_EQ(256u, fs::file_size(kFile));
    EXPECT_TRUE(man->mmapFile(1 << 20)) << "mapped once, whatever is asked for";
    EXPECT_EQ(256u, fs::file_size(kFile));

    // Gone for this manager, free for the next.
    EXPECT_EQ(2u, man->counterKeyToMemBlockDel("b"));
    EXPECT_EQ(start + 192, man->counterAddr("d", 64, false));
    auto const next = manager();
    next->counterKeyToMemBlockIs("a", 1);
    next->counterKeyToMemBlockIs("x", 3);
    EXPECT_EQ(2u, next->newCounterBlock("y"));
    EXPECT_EQ(4u, next->newCounterBlock("z"));
  });
}

TEST(ShmemManTest, tellsEachStep) {
  inOwnVar([] {
    auto const man = manager(3);
    man->counterKeyToMemBlockIs("a", 2);
    std::string const addr = "9 U64 Veltro::ShmemMan::counterAddr(Kiv::String, U32, bool)";
    std::string const mmap = "9 bool Veltro::ShmemMan::mmapFile(const U64&) filename: " + kFile;
    EXPECT_THAT(tracesOf([&] { man->counterAddr("b", 64, false); }),
                ElementsAre(addr, addr + " lookup block for key: b block: 0",
                            "9 mmapFile for read/write:", mmap, "9 need to mmap " + kFile,
                            "9 newCounterBlock - setting up memBlocksAvail",
                            "9 newCounterBlock setting up memBlocksAvail - block:2 is inuse by a.",
                            "9 newCounterBlock - counterKey: b",
                            "9 newCounterBlock - assign b to use block# 1",
                            addr + " allocate block for key: b block: 1"));
    EXPECT_THAT(tracesOf([&] { man->counterAddr("c", 64, false); }),
                ElementsAre(addr, addr + " lookup block for key: c block: 0",
                            "9 mmapFile for read/write:", mmap,
                            "9 filename: " + kFile + " already mmapped.",
                            "9 newCounterBlock - counterKey: c",
                            "9 newCounterBlock - assign c to use block# 3",
                            addr + " allocate block for key: c block: 3"));
    EXPECT_THAT(tracesOf([&] { man->shmemGenIdIs("c", 64, 7); }),
                ElementsAre("9 void Veltro::ShmemMan::shmemGenIdIs(Kiv::String, U32, U32) key:c "
                            "genId:7"));
  });
}

TEST(ShmemManTest, goesOnAfterARestartFromItsLog) {
  inOwnVar([] {
    std::string const log = "/var/mgr.log";
    auto const first = manager();
    for (char const* const key : {"a", "b's", "c"}) first->counterAddr(key, 64, false);
    Kiv::AttributeLog::save(*first, log);
    std::stringstream text;
    text << std::ifstream(log).rdbuf();
    EXPECT_THAT(text.str(), testing::StartsWith("Veltro::ShmemMan attribute log 1\n"
                                                "name = 'mgr'\n"
                                                "baseName = 'base'\n"
                                                "maxCounters = 4\n"
                                                "counterKeyToMemBlock['a'] = 1\n"
                                                "counterKeyToMemBlock['b\\'s'] = 2\n"
                                                "counterKeyToMemBlock['c'] = 3\n"
                                                "newBlockForbidden = False\n"
                                                "end "));
    // Restored before it made a block, and after: what the log gives away is free no more.
    auto const early = Kiv::allocate<ShmemMan>("other", "place", 0u);
    auto const late = manager();
    EXPECT_EQ(1u, late->newCounterBlock("a"));
    for (auto const& man : {early, late}) {
      Kiv::AttributeLog::load(man, log);
      EXPECT_EQ(kFile, man->fileName().stdString());
      U64 const block = man->counterAddr("b's", 64, true);
      EXPECT_EQ(man->mmapStartAddr() + 64, block);
      EXPECT_EQ(4u, man->newCounterBlock("d"));
    }
  });
}

TEST(ShmemManTest, restartsExactlyOneBlock) {
  inOwnVar([] {
    constexpr U32 kSize = 6, kGenId = 0x01020304;  // the second block is not aligned
    auto const man = manager();
    unsigned char* const start = at(man->counterAddr("a", kSize, false));
    man->counterAddr("b", kSize, false);
    std::memset(start, 0xff, 4 * kSize);
    man->shmemGenIdIs("b", kSize, kGenId);
    std::vector<unsigned char> expected(4 * kSize, 0xff);
    std::memset(&expected[kSize], 0, kSize);
    std::memcpy(&expected[kSize], &kGenId, sizeof kGenId);
    EXPECT_EQ(expected, std::vector<unsigned char>(start, start + 4 * kSize));
  });
}

TEST(ShmemManTest, faultsInTheProgramEndIt) {
  inOwnVar([] {
    struct {
      char const* name;
      U32 maxCounters;
      void (*fault)(ShmemMan&);
      char const* expression;
    } const cases[] = {
        {"no blocks at all", 0, [](auto& m) { m.counterAddr("a", 64, false); }, "block"},
        {"a second block for a key", 4, [](auto& m) { m.newCounterBlock("held"); },
         "!counterKeyToMemBlock( counterKey )"},
        {"a block outside the file", 3, [](auto& m) { m.counterAddr("held", 64, true); }, "block"},
        {"a size whose product has more than 32 bits", 65537,
         [](auto& m) { m.counterAddr("held", 65536, false); }, "block"},
        {"restart of an unknown key", 4, [](auto& m) { m.shmemGenIdIs("a", 64, 1); }, "block"},
        {"restart before the file is mapped", 4, [](auto& m) { m.shmemGenIdIs("held", 64, 1); },
         "mapped"},
        {"restart after the end", 4,
         [](auto& m) {
           m.counterAddr("held", 64, false);
           m.munmapFile(false);
           m.shmemGenIdIs("held", 64, 1);
         },
         "mapped"},
    };
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      auto const man = manager(c.maxCounters);
      man->counterKeyToMemBlockIs("held", 4);
      EXPECT_DEATH(c.fault(*man),
                   HasSubstr("Assertion `" + std::string(c.expression) + "' failed"));
    }
  });
}

TEST(ShmemManTest, whatIsRefusedIsAnException) {
  inOwnVar([] {
    auto const man = manager();
    auto const ask = [](ManPtr const& of) { return [of] { of->counterAddr("a", 64, false); }; };
    man->newBlockForbiddenIs(true);
    EXPECT_THAT(ask(man), asserts("Veltro/ShmemMan", "newCounterBlock",
                                  "creation of new block has been explicitly forbidden"));
    EXPECT_NE(0u, man->mmapStartAddr()) << "the file is mapped first";
    EXPECT_FALSE(man->memBlocksAvailInitialized());
    man->newBlockForbiddenIs(false);
    man->memBlocksAvailMetadataIs({1, 0xffffffffu});
    EXPECT_THAT(ask(man),
                testing::ThrowsMessage<Kiv::RangeException>("linkqueue index space full"));

    fs::create_directories(kDirectory + "/directory");
    fs::create_directory_symlink("/var", "/var/shmem/shmem/counters/link");
    struct {
      char const* name;
      char const* baseName;
      char const* reason;
    } const cases[] = {{"directory", "base", "Is a directory (21)"},
                       {"../mgr", "base", "Invalid argument (22)"},
                       {"mgr", "link", "Not a directory (20)"}};
    for (auto const& c : cases) {
      auto const unmapped = Kiv::allocate<ShmemMan>(c.name, c.baseName, 4u);
      EXPECT_THAT(tracesOf([&] {
                    EXPECT_THAT(ask(unmapped), testing::ThrowsMessage<Kiv::ErrnoException>(
                                                   "Failed mmap file: " + std::string(c.reason)));
                  }),
                  Contains("5 Failed to mmap " + unmapped->fileName().stdString()));
      EXPECT_EQ(0u, unmapped->mmapStartAddr());
    }
    EXPECT_FALSE(fs::exists("/var/mgr")) << "led out of the root";
    EXPECT_THAT(man->counterKeyToMemBlock(), IsEmpty());
  });
}

TEST(ShmemManTest, endsOnce) {
  inOwnVar([] {
    auto const man = manager();
    man->munmapFile(true);
    U64 const start = man->counterAddr("a", 64, false);
    man->munmapFile(false);
    EXPECT_TRUE(fs::exists(kFile));
    void* const others = ::mmap(at(start), 4096, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    man->munmapFile(true);
    unsigned char resident = 0;
    EXPECT_EQ(0, ::mincore(others, 4096, &resident)) << "unmapped what came after it";
    EXPECT_EQ(start, man->mmapStartAddr());
    EXPECT_EQ(256u, man->fileSize());
    EXPECT_TRUE(man->mmapFile(256));
    EXPECT_FALSE(fs::exists(kFile)) << "mapped again";
    EXPECT_THAT(tracesOf([&] { man->munmapFile(true); }), IsEmpty()) << "removed by another";
    fs::create_directory(kFile);
    EXPECT_THAT(tracesOf([&] { man->munmapFile(true); }),
                ElementsAre("5 unlink() error " + kFile + ": Is a directory"));
    fs::remove(kFile);

    auto const empty = manager(0);
    empty->mmapFile(0);
    std::string const address = std::to_string(empty->mmapStartAddr());
    failSystemCall(SYS_munmap, ENOMEM);
    EXPECT_THAT(tracesOf([&] { empty->munmapFile(true); }),
                ElementsAre("5 Failed to munmap " + kFile + " at address " + address +
                            ": Cannot allocate memory"));
    EXPECT_FALSE(fs::exists(kFile));
  });
}

TEST(ShmemManTest, isReachedByNameAndTellsOfKeys) {
  struct Listener final : ShmemMan::Notifiee {
    using Notifiee::Notifiee;
    void onCounterKeyToMemBlock(Kiv::String const& key) override {
      heard.push_back(key.stdString() + std::to_string(notifier().counterKeyToMemBlock(key)));
    }
    Lines heard;
  };
  auto const man = manager();
  auto const listener = Kiv::allocate<Listener>(man);
  Kiv::Reflection byName(*man);
  EXPECT_EQ(Kiv::Value(1), byName.call("newCounterBlock", {{"counterKey", "a"}}));
  EXPECT_EQ(
      Kiv::Value(0),
      byName.call("counterAddr", {{"readFlag", true}, {"counterSize", 64}, {"counterKey", "b"}}));
  EXPECT_THROW(byName.attributeIs("mmapStartAddr", 1), Kiv::RangeException);
  EXPECT_EQ(0u, man->counterKeyToMemBlockDel("unknown"));
  EXPECT_EQ(1u, man->counterKeyToMemBlockDel("a"));
  EXPECT_THAT(listener->heard, ElementsAre("a1", "a0"));

  auto const held = man->rootPath();
  EXPECT_EQ(held, man->rootPathIs("counters/base/mgr", false));
  EXPECT_NE(held, man->rootPathIs("counters/base/other", false));
  man->zeroReferencesIs();  // held still
  man->rootPathDel();
  EXPECT_EQ("", man->fileName().stdString());
  EXPECT_THROW(man->mmapFile(64), Kiv::ErrnoException);
}

}  // namespace
}  // namespace Veltro
