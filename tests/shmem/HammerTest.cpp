// Counter files under processes that race and are killed, and on disks that are full.
// VELTRO_HAMMER=5 makes it a thousand kills.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "Kiv/AttributeLog.h"
#include "Kiv/Exception.h"
#include "Veltro/BlockCounter.h"
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

TEST(HammerTest, killedCreatorsLoseNothingThatTheyHaveTold) {
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

TEST(HammerTest, aFileSystemThatIsFullAnywhereIsAnErrorAndNoSignal) {
  inOwnVar([] {
    constexpr U32 kPages = 4;  // of the counter file; the log takes one, and so does its successor
    fs::create_directory("/var/shmem");
    for (U32 pages = 1; pages <= kPages + 3; ++pages) {
      std::string const options = "size=" + std::to_string(4 * pages) + "k";
      ASSERT_EQ(0, ::mount("none", "/var/shmem", "tmpfs", 0, options.c_str()));
      auto const man = restarted(kPages * 4096 / kBlockSize);
      U32 done = 0;
      try {
        man->counterAddr(key(0), kBlockSize, false);
        std::memset(pointer(man->mmapStartAddr()), 1, kPages * 4096);
        for (done = 1; done < 3; ++done) Kiv::AttributeLog::save(*man, kLog);
      } catch (Kiv::ErrnoException const& failure) {
        EXPECT_EQ(ENOSPC, failure.errnum()) << pages;
      }
      EXPECT_EQ(std::clamp(pages, kPages - 1, kPages + 2) - (kPages - 1), done);
      EXPECT_EQ(man->counterKeyToMemBlock(), restarted()->counterKeyToMemBlock());
      ASSERT_EQ(0, ::umount2("/var/shmem", MNT_DETACH));
    }
  });
}

}  // namespace
}  // namespace Veltro
