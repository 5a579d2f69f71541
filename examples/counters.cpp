// Counters in a file that other processes map: a manager hands out blocks by key, and each block
// holds a generation id and a 64-bit counter. Reading one costs the counting process nothing.
// The file is /var/shmem/shmem/counters/example/NAME; who may not make it gets an exception.
//
// Prints:
//   /var/shmem/shmem/counters/example/tour
//   files 3 in generation 7
//   bytes 4294967298 in generation 7
#include <cstdint>
#include <cstdio>

#include "Veltro/BlockCounter.h"
#include "Veltro/ShmemMan.h"

namespace {

constexpr Veltro::U32 kBlockSize = 64;  // bytes; two counters never share a cache line

Veltro::BlockCounter start(Veltro::ShmemMan& manager, char const* key, Veltro::U32 generation) {
  Veltro::BlockCounter const counter(manager.counterAddr(key, kBlockSize, false));
  manager.shmemGenIdIs(key, kBlockSize, generation);  // zeroes it, and says since when it counts
  return counter;
}

// What a reader does: in this process here, for the example's sake.
void show(Veltro::ShmemMan& manager, char const* key) {
  auto const address = static_cast<std::uintptr_t>(manager.counterAddr(key, kBlockSize, true));
  auto const sample = Veltro::BlockCounter::sample(reinterpret_cast<void const*>(address));
  if (!sample) return;  // being restarted at this moment: ask again
  std::printf("%s %llu in generation %u\n", key, static_cast<unsigned long long>(sample->value),
              sample->genId);
}

}  // namespace

int main() {
  auto const manager = Kiv::allocate<Veltro::ShmemMan>("tour", "example", 16u);
  Veltro::BlockCounter files = start(*manager, "files", 7);
  Veltro::BlockCounter bytes = start(*manager, "bytes", 7);
  for (int file = 0; file < 3; ++file) files.inc();
  bytes.inc(4294967298u);  // more than 32 bits, in one store also on a 32-bit machine

  std::printf("%s\n", manager->fileName().charPtr());
  show(*manager, "files");
  show(*manager, "bytes");
  manager->munmapFile(true);  // and remove it; an agent leaves it for its next start
}
