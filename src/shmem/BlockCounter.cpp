#include "Veltro/BlockCounter.h"

#include <cstdint>

#include "Veltro/Debug.h"
#include "Veltro/Exception.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/BlockCounter";

U64* counterAt(std::uintptr_t address) {
  VELTRO_ASSERT(nullptr, address != 0 && address % 8 == 0,
                "ASSERT: a counter at address " << address << " cannot be changed in one store");
  return reinterpret_cast<U64*>(address);
}

}  // namespace

BlockCounter::BlockCounter(U64 blockAddr)
    : counter_(counterAt(blockAddr == 0 ? 0 : static_cast<std::uintptr_t>(blockAddr + kOffset))) {}

BlockCounter::BlockCounter(U64* counter)
    : counter_(counterAt(reinterpret_cast<std::uintptr_t>(counter))) {}

// A restart sets generation 0, zeros, then the new generation, in that order (ShmemMan::
// shmemGenIdIs): a value between two reads of one generation belongs to it.
std::optional<BlockCounter::Sample> BlockCounter::sample(void const* block) {
  auto const* const genId = static_cast<U32 const*>(block);
  auto const* const counter =
      reinterpret_cast<Aligned const*>(static_cast<char const*>(block) + kOffset);
  U32 const before = __atomic_load_n(genId, __ATOMIC_ACQUIRE);
  U64 const value = __atomic_load_n(counter, __ATOMIC_ACQUIRE);
  U32 const after = __atomic_load_n(genId, __ATOMIC_RELAXED);
  if (before == 0 || before != after) return std::nullopt;
  return Sample{after, value};
}

}  // namespace Veltro
