#include "Veltro/BlockCounter.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>

#include "Veltro/Exception.h"
#include "Veltro/ShmemMan.h"
#include "tests/support/OwnVar.h"

namespace Veltro {
namespace {

/// Both halves of a multiple of this are the same number, and each step crosses 2^32.
constexpr U64 kStep = (U64{1} << 32) + 1;

U64 address(void* place) { return reinterpret_cast<std::uintptr_t>(place); }

/// Calls `work` over and over in another process, until destroyed.
class Busy {
 public:
  explicit Busy(std::function<void()> const& work) : pid_(::fork()) {
    if (pid_ != 0) return;
    ::alarm(60);
    for (;;) work();
  }
  ~Busy() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t const pid_;
};

TEST(BlockCounterTest, anotherProcessNeverSeesHalfAChange) {
  void* const block =
      ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  BlockCounter counter(address(block));
  Busy const writer([&] { counter.inc(kStep); });
  U64 last = 0;
  unsigned changes = 0;
  for (unsigned reads = 0; reads < 2000000 || changes < 100; ++reads) {
    U64 const value = counter.value();
    ASSERT_EQ(value >> 32, value & 0xffffffffu) << "torn";
    ASSERT_GE(value, last);
    changes += value != last ? 1 : 0;
    last = value;
  }
  ::munmap(block, 4096);
}

TEST(BlockCounterTest, aSampleBelongsToItsGeneration) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to hide /var";
  inOwnVar([] {
    auto const man = Kiv::allocate<ShmemMan>("mgr", "base", 4u);
    U64 const block = man->counterAddr("key", 64, false);
    BlockCounter counter(block);
    void const* const seen = reinterpret_cast<void const*>(static_cast<std::uintptr_t>(block));
    EXPECT_FALSE(BlockCounter::sample(seen).has_value()) << "never started";
    U32 genId = 0;
    Busy const writer([&] {
      man->shmemGenIdIs("key", 64, ++genId);
      counter.valueIs(genId * kStep);
    });
    unsigned filled = 0;
    for (unsigned reads = 0; reads < 500000 || filled < 100; ++reads) {
      auto const sample = BlockCounter::sample(seen);
      if (!sample || sample->value == 0) continue;
      ASSERT_EQ(sample->genId * kStep, sample->value);
      ++filled;
    }
  });
}

TEST(BlockCounterTest, liesBehindTheGenerationAndIsAligned) {
  alignas(8) U64 storage[3] = {};
  BlockCounter(address(storage)).inc(5);
  BlockCounter(&storage[2]).valueIs(7);
  EXPECT_EQ(0u, storage[0]);
  EXPECT_EQ(5u, storage[1]);
  EXPECT_EQ(7u, storage[2]);
  EXPECT_THROW(BlockCounter(U64{0}), AssertException);
  EXPECT_THROW(BlockCounter(address(storage) + 4), AssertException);
  EXPECT_THROW(BlockCounter(nullptr), AssertException);
}

}  // namespace
}  // namespace Veltro
