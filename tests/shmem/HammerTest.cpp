// Counter files under processes that race, are killed, fork, fill the disk and cut the file.
// VELTRO_HAMMER=5 makes it a thousand kills.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "Kiv/ActivityManager.h"
#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"
#include "Kiv/System.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/InotifyMgr.h"
#include "Veltro/ShmemMan.h"
#include "tests/support/Hammer.h"
#include "tests/support/OwnVar.h"

namespace fs = std::filesystem;

namespace Veltro {
namespace {

constexpr U32 kCreators = 8;
constexpr U32 kBlockSize = 64;
std::string const kFile = "/var/shmem/shmem/counters/base/mgr";
std::string const kLog = "/var/shmem/mgr.log";

using ManPtr = Kiv::Ptr<ShmemMan>;

std::string key(U32 creator) { return "creator " + std::to_string(creator); }

void* pointer(U64 address) { return reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)); }

/// A manager as after a restart: with the table of the log, or the one that all begin with.
ManPtr restarted(U32 blocks = kCreators) {
  auto const man = Kiv::allocate<ShmemMan>("mgr", "base", blocks);
  try {
    Kiv::AttributeLog::load(man, kLog);
  } catch (Kiv::ErrnoException const& none) {
    if (none.errnum() != ENOENT) throw;
    for (U32 i = 0; i < kCreators; ++i) man->newCounterBlock(key(i));
  }
  return man;
}

/// Counts until killed, and tells of each count when it is made.
[[noreturn]] void count(U32 creator, U32 genId, std::atomic<U32>& told) {
  dieWithTheParent();
  auto const man = restarted();
  BlockCounter counter(man->counterAddr(key(creator), kBlockSize, false));
  man->shmemGenIdIs(key(creator), kBlockSize, genId);
  for (;;) {
    counter.inc();
    if (++told % 16 == 1) Kiv::AttributeLog::save(*man, kLog);
  }
}

struct HammerTest : testing::Test {
  void SetUp() override {
    if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to hide /var";
  }
};

TEST_F(HammerTest, killedCreatorsLoseNothingThatTheyHaveTold) {
  Hammer hammer(200);
  auto* const told = static_cast<std::atomic<U32>*>(
      ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  U32 killedWhileCounting = 0;
  inOwnVar([&] {
    for (U32 round = 1; round <= hammer.rounds(); ++round) {
      pid_t creators[kCreators];
      for (U32 i = 0; i < kCreators; ++i) {
        told[i] = 0;
        creators[i] = ::fork();
        if (creators[i] == 0) count(i, round, told[i]);
      }
      ::usleep(hammer.chance(4000));
      std::swap(creators[0], creators[hammer.chance(kCreators)]);
      for (pid_t const creator : creators) ::kill(creator, SIGKILL);
      for (pid_t const creator : creators) {
        int status = 0;
        ::waitpid(creator, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
      }
      auto const man = restarted();
      for (U32 i = 0; i < kCreators; ++i) {
        U64 const block = man->counterAddr(key(i), kBlockSize, false);
        ASSERT_EQ(man->mmapStartAddr() + i * kBlockSize, block) << "another block after a restart";
        if (told[i] == 0) continue;
        ++killedWhileCounting;
        auto const sample = BlockCounter::sample(pointer(block));
        ASSERT_TRUE(sample.has_value());
        ASSERT_EQ(round, sample->genId);
        ASSERT_TRUE(sample->value - told[i] <= 1) << sample->value << " " << told[i];
      }
      ASSERT_EQ(kCreators * kBlockSize, fs::file_size(kFile));
      man->munmapFile(hammer.chance(2) == 0);
      if (hammer.chance(2) == 0) fs::remove(kLog);
    }
    EXPECT_GT(killedWhileCounting, hammer.rounds());
  });
  ::munmap(told, 4096);
}

/// Lets the loop deliver all that the kernel has queued.
void turn() {
  auto& config = Kiv::ActivityManager::instance().config();
  config.virtualTimeIs(true);
  config.executionTimeIs(1);
  Kiv::System::doRun();
  config.virtualTimeIs(false);
}

TEST_F(HammerTest, forksCostTheParentNeitherCountsNorEvents) {
  Hammer hammer(100);
  inOwnVar([&] {
    auto man = restarted();
    BlockCounter counter(man->counterAddr(key(3), kBlockSize, false));
    auto watcher = inotifyWatcherFactory("/var/shmem", IN_CREATE);
    for (U32 round = 1; round <= hammer.rounds(); ++round) {
      counter.inc();
      std::ofstream("/var/shmem/" + std::to_string(round));
      unsigned const deed = hammer.chance(6);
      pid_t const child = ::fork();
      if (child == 0) {
        if (deed == 0) turn();
        if (deed == 1) watcher = nullptr;
        if (deed == 2) inotifyWatcherFactory("/var/shmem", IN_DELETE), watcher = nullptr;
        if (deed == 3) man->munmapFile(false), man = nullptr;
        if (deed == 4) man->counterKeyToMemBlockDelAll(), man->newBlockForbiddenIs(true);
        ::_exit(0);
      }
      if (deed == 5) ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
      turn();
      ASSERT_EQ(round, counter.value()) << deed;
      ASSERT_EQ(round, watcher->eventCount()) << deed;
      ASSERT_EQ(4u, man->counterKeyToMemBlock(key(3))) << deed;
    }
  });
}

TEST_F(HammerTest, aFileSystemThatIsFullAnywhereIsAnErrorAndNoSignal) {
  inOwnVar([] {
    constexpr U32 kPages = 4;  // of the counter file; the log takes one, and so does its successor
    fs::create_directory("/var/shmem");
    for (U32 pages = 1; pages <= kPages + 3; ++pages) {
      SCOPED_TRACE(pages);
      std::string const options = "size=" + std::to_string(4 * pages) + "k";
      ASSERT_EQ(0, ::mount("none", "/var/shmem", "tmpfs", 0, options.c_str()));
      auto const man = restarted(kPages * 4096 / kBlockSize);
      auto const errorOf = [](std::function<void()> const& work) {
        try {
          work();
          return 0;
        } catch (Kiv::ErrnoException const& failure) {
          return failure.errnum();
        }
      };
      EXPECT_EQ(pages < kPages ? ENOSPC : 0,
                errorOf([&] { man->counterAddr(key(0), kBlockSize, false); }));
      if (pages >= kPages) {
        std::memset(pointer(man->mmapStartAddr()), 1, kPages * 4096);
        auto const save = [&] { Kiv::AttributeLog::save(*man, kLog); };
        EXPECT_EQ(pages < kPages + 1 ? ENOSPC : 0, errorOf(save));
        EXPECT_EQ(pages < kPages + 2 ? ENOSPC : 0, errorOf(save));
        EXPECT_EQ(man->counterKeyToMemBlock(), restarted()->counterKeyToMemBlock());
      }
      ASSERT_EQ(0, ::umount2("/var/shmem", MNT_DETACH));
    }
  });
}

TEST_F(HammerTest, aFileThatWasCutIsWholeAgainForAllWhoMapIt) {
  inOwnVar([] {
    auto const man = restarted();
    BlockCounter counter(man->counterAddr(key(7), kBlockSize, false));
    counter.valueIs(5);
    ASSERT_EQ(0, ::truncate(kFile.c_str(), 0));
    BlockCounter again(restarted()->counterAddr(key(7), kBlockSize, false));
    EXPECT_EQ(0u, counter.value());
    counter.inc(3);
    EXPECT_EQ(3u, again.value());
  });
}

}  // namespace
}  // namespace Veltro
