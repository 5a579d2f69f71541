#include "Veltro/BlockCounter.h"

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <set>

#include "Veltro/Exception.h"
#include "Veltro/ShmemMan.h"
#include "tests/support/OwnVar.h"

namespace Veltro {
namespace {

/// Both halves of a multiple of this are the same number, and each step crosses 2^32.
constexpr U64 kStep = (U64{1} << 32) + 1;

U64 address(void* place) { return reinterpret_cast<std::uintptr_t>(place); }

/// Runs `work` in another process, and `look` before each of its instructions. Two stores in a row
/// reach the memory so close to one another that a race between processors seldom shows it.
int stepThrough(std::function<void()> const& work, std::function<void()> const& look) {
  pid_t const child = ::fork();
  if (child == 0) {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    work();
    ::_exit(0);
  }
  int status = 0;
  for (::waitpid(child, &status, 0); WIFSTOPPED(status); ::waitpid(child, &status, 0)) {
    look();
    ::ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr);
  }
  return status;
}

TEST(BlockCounterTest, noInstructionSeesOrLeavesHalfAChange) {
  inOwnVar([] {
    auto const man = Kiv::allocate<ShmemMan>("mgr", "base", 4u);
    U64 const block = man->counterAddr("key", 64, false);
    BlockCounter counter(block);
    void const* const seen = reinterpret_cast<void const*>(static_cast<std::uintptr_t>(block));
    EXPECT_FALSE(BlockCounter::sample(seen).has_value()) << "never started";

    std::set<U64> values;
    auto const writer = [&] {
      for (U32 genId : {1u, 2u}) {
        man->shmemGenIdIs("key", 64, genId);
        counter.inc(genId * kStep);
      }
    };
    std::pair<U32, U64> last;
    EXPECT_EQ(0, stepThrough(writer, [&] {
                values.insert(counter.value());
                auto const sample = BlockCounter::sample(seen);
                if (!sample) return;
                std::pair const now(sample->genId, sample->value);
                ASSERT_LE(last, now) << "another generation's value";
                last = now;
              }));
    EXPECT_EQ((std::set<U64>{0, kStep, 2 * kStep}), values);

    auto const reader = [&] {
      for (int reads = 0; reads < 10; ++reads) {
        U64 const value = counter.value();
        if (value >> 32 != (value & 0xffffffffu)) ::_exit(1);
      }
    };
    EXPECT_EQ(0, stepThrough(reader, [&] { counter.inc(kStep); })) << "read in two halves";
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
