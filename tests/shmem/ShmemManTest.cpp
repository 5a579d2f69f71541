#include "Veltro/ShmemMan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"
#include "Kiv/Model.h"
#include "Kiv/Trace.h"
#include "Veltro/BlockCounter.h"
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

void traceIs(char const* settings) {
  Kiv::TraceFacilityManager::environmentIs("TRACE", settings);
  Kiv::TraceFacilityManager::environmentIs("TRACEFORMAT", "%l %m");
  Kiv::TraceFacilityManager::instance().doReadEnvironment();
}

/// What `body` traces at levels 5 and 9, without the process number that must stand first.
Lines tracesOf(std::function<void()> const& body) {
  traceIs("ShmemMan/5,ShmemMan/9");
  std::string const pid = "pid:" + std::to_string(::getpid()) + " ";
  Lines lines = standardError(body);
  traceIs("-ShmemMan");
  for (std::string& line : lines) {
    EXPECT_EQ(2u, line.find(pid)) << line;
    line.erase(2, pid.size());
  }
  return lines;
}

struct ShmemManTest : testing::Test {
  void SetUp() override {
    if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to hide /var";
  }
};

TEST_F(ShmemManTest, handsOutBlocksInOrder) {
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

TEST_F(ShmemManTest, tellsEachStep) {
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

TEST_F(ShmemManTest, goesOnAfterARestartFromItsLog) {
  inOwnVar([] {
    std::string const log = "/var/mgr.log";
    inChild([&] {
      auto const man = manager();
      for (char const* const key : {"a", "b's", "c"}) {
        U64 const block = man->counterAddr(key, 64, false);
        man->shmemGenIdIs(key, 64, 7);
        BlockCounter(block).inc(5);
      }
      Kiv::AttributeLog::save(*man, log);
    });
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

    auto const man = Kiv::allocate<ShmemMan>("other", "place", 0u);
    Kiv::AttributeLog::load(man, log);
    EXPECT_EQ(kFile, man->fileName().stdString());
    U64 const block = man->counterAddr("b's", 64, true);
    EXPECT_EQ(man->mmapStartAddr() + 64, block);
    auto const before = BlockCounter::sample(at(block));
    ASSERT_TRUE(before.has_value());
    EXPECT_EQ(7u, before->genId);
    EXPECT_EQ(5u, before->value);
    man->shmemGenIdIs("b's", 64, 8);
    EXPECT_EQ(0u, BlockCounter::sample(at(block))->value);
    EXPECT_EQ(4u, man->newCounterBlock("d"));

    // A log that comes late: blocks that it gives away are taken back from the free queue.
    auto const late = manager();
    EXPECT_EQ(1u, late->newCounterBlock("a"));
    Kiv::AttributeLog::load(late, log);
    EXPECT_EQ(4u, late->newCounterBlock("d"));
  });
}

TEST_F(ShmemManTest, restartsExactlyOneBlock) {
  for (U32 const size : {4u, 6u, 64u}) {
    inOwnVar([size] {
      auto const man = manager();
      unsigned char* const start = at(man->counterAddr("a", size, false));
      man->counterAddr("b", size, false);
      std::memset(start, 0xff, 4 * size);
      man->shmemGenIdIs("b", size, 0x01020304);
      std::vector<unsigned char> expected(4 * size, 0xff);
      U32 const genId = 0x01020304;
      std::memset(&expected[size], 0, size);
      std::memcpy(&expected[size], &genId, sizeof genId);
      EXPECT_EQ(expected, std::vector<unsigned char>(start, start + 4 * size)) << "size " << size;
    });
  }
}

TEST_F(ShmemManTest, faultsInTheProgramEndIt) {
  inOwnVar([] {
    struct {
      char const* name;
      U32 maxCounters;
      std::function<void(ShmemMan&)> fault;
      char const* expression;
    } const cases[] = {
        {"more keys than blocks", 1,
         [](ShmemMan& m) {
           m.counterAddr("a", 64, false);
           m.counterAddr("b", 64, false);
         },
         "block"},
        {"a second block for a key", 4,
         [](ShmemMan& m) {
           m.newCounterBlock("a");
           m.newCounterBlock("a");
         },
         "!counterKeyToMemBlock( counterKey )"},
        {"a block outside the file", 4,
         [](ShmemMan& m) {
           m.counterKeyToMemBlockIs("a", 5);
           m.counterAddr("a", 64, false);
         },
         "block"},
        {"sizes whose product has more than 32 bits", 65537,
         [](ShmemMan& m) {
           if (m.counterAddr("a", 65536, false) == 0 || m.fileSize() != 65536) return;
           m.counterAddr("b", 65536, false);
         },
         "block"},
        {"restart of an unknown key", 4, [](ShmemMan& m) { m.shmemGenIdIs("a", 64, 1); }, "block"},
        {"restart after the end", 4,
         [](ShmemMan& m) {
           m.counterAddr("a", 64, false);
           m.munmapFile(false);
           m.shmemGenIdIs("a", 64, 1);
         },
         "mapped"},
        {"no room for the generation", 4,
         [](ShmemMan& m) {
           m.counterAddr("a", 3, false);
           m.shmemGenIdIs("a", 3, 1);
         },
         "counterSize >= sizeof genId"},
    };
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      auto const man = manager(c.maxCounters);
      EXPECT_DEATH(c.fault(*man),
                   HasSubstr("Assertion `" + std::string(c.expression) + "' failed"));
    }
  });
}

TEST_F(ShmemManTest, refusesNewBlocksWhenForbiddenOrOutOfIndices) {
  inOwnVar([] {
    auto const man = manager();
    man->newBlockForbiddenIs(true);
    EXPECT_THAT([&] { man->counterAddr("a", 64, false); },
                asserts("Veltro/ShmemMan", "newCounterBlock",
                        "creation of new block has been explicitly forbidden"));
    EXPECT_NE(0u, man->mmapStartAddr()) << "the file is mapped first";
    EXPECT_THAT(man->counterKeyToMemBlock(), IsEmpty());
    EXPECT_FALSE(man->memBlocksAvailInitialized());

    man->newBlockForbiddenIs(false);
    man->memBlocksAvailMetadataIs({1, 0xffffffffu});
    EXPECT_THAT([&] { man->counterAddr("a", 64, false); },
                testing::ThrowsMessage<Kiv::RangeException>("linkqueue index space full"));
  });
}

TEST_F(ShmemManTest, whatCannotBeMappedIsAnException) {
  inOwnVar([] {
    fs::create_directories(kFile);
    for (auto const& [name, reason] : {std::pair("mgr", EISDIR), std::pair("../mgr", EINVAL)}) {
      auto const man = Kiv::allocate<ShmemMan>(name, "base", 4u);
      std::string const text = "Failed mmap file: " + std::string(std::strerror(reason)) + " (" +
                               std::to_string(reason) + ")";
      EXPECT_THAT(tracesOf([&] {
                    EXPECT_THAT([&] { man->counterAddr("a", 64, false); },
                                testing::ThrowsMessage<Kiv::ErrnoException>(text));
                  }),
                  Contains("5 Failed to mmap " + man->fileName().stdString()));
      EXPECT_EQ(0u, man->mmapStartAddr());
      EXPECT_THAT(man->counterKeyToMemBlock(), IsEmpty());
    }
  });
}

TEST_F(ShmemManTest, endsOnce) {
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
    EXPECT_FALSE(fs::exists(kFile));
    EXPECT_THAT(tracesOf([&] { man->munmapFile(true); }), IsEmpty()) << "removed by another";

    EXPECT_EQ(start, man->mmapStartAddr());
    EXPECT_EQ(256u, man->fileSize());
    EXPECT_TRUE(man->mmapFile(256));
    EXPECT_FALSE(fs::exists(kFile)) << "mapped again";

    fs::create_directory(kFile);
    EXPECT_THAT(tracesOf([&] { man->munmapFile(true); }),
                ElementsAre("5 unlink() error " + kFile + ": Is a directory"));
  });
}

TEST_F(ShmemManTest, removesTheFileEvenIfItCannotBeUnmapped) {
  inOwnVar([] {
    auto const man = manager(0);
    man->mmapFile(0);
    std::string const start = std::to_string(man->mmapStartAddr());
    EXPECT_NE("0", start) << "an empty file is mapped too";
    failSystemCall(SYS_munmap, ENOMEM);
    EXPECT_THAT(tracesOf([&] { man->munmapFile(true); }),
                ElementsAre("5 Failed to munmap " + kFile + " at address " + start +
                            ": Cannot allocate memory"));
    EXPECT_FALSE(fs::exists(kFile));
  });
}

TEST_F(ShmemManTest, tellsOfKeysThatChange) {
  struct Listener final : ShmemMan::Notifiee {
    using Notifiee::Notifiee;
    void onCounterKeyToMemBlock(Kiv::String const& key) override {
      heard.push_back(key.stdString() + std::to_string(notifier().counterKeyToMemBlock(key)));
    }
    Lines heard;
  };
  auto const man = manager();
  auto const listener = Kiv::allocate<Listener>(man);
  man->newCounterBlock("a");
  man->counterKeyToMemBlockIs("a", 1);
  man->counterKeyToMemBlockIs("a", 3);
  man->counterKeyToMemBlockIs("b", 4);
  EXPECT_EQ(0u, man->counterKeyToMemBlockDel("unknown"));
  EXPECT_EQ(3u, man->counterKeyToMemBlockDel("a"));
  man->counterKeyToMemBlockDelAll();
  EXPECT_THAT(listener->heard, ElementsAre("a1", "a3", "b4", "a0", "b0"));
}

TEST_F(ShmemManTest, isReachedByNameAndKeepsItsRootPath) {
  auto const man = manager();
  Kiv::Reflection byName(*man);
  EXPECT_EQ(Kiv::Value(1), byName.call("newCounterBlock", {{"counterKey", "a"}}));
  EXPECT_EQ("{'a': 1}", byName.attribute("counterKeyToMemBlock").text());
  EXPECT_EQ(
      Kiv::Value(0),
      byName.call("counterAddr", {{"readFlag", true}, {"counterSize", 64}, {"counterKey", "b"}}));
  EXPECT_THROW(byName.attributeIs("mmapStartAddr", 1), Kiv::RangeException);
  auto const held = man->rootPath();
  EXPECT_EQ("counters/base/mgr", held->dirName().stdString());
  EXPECT_EQ(held, man->rootPathIs("counters/base/mgr", false));
  EXPECT_NE(held, man->rootPathIs("counters/base/other", false));
  man->zeroReferencesIs();  // held still
  man->rootPathDel();
  EXPECT_EQ("", man->fileName().stdString());
  EXPECT_THROW(man->mmapFile(64), Kiv::ErrnoException);
}

}  // namespace
}  // namespace Veltro
