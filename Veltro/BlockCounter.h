#pragma once
#include <optional>

#include "Veltro/Export.h"
#include "Veltro/Platform.h"

namespace Veltro {

/// The 64-bit counter of a block of Veltro::ShmemMan, or any other that processes share.
///
///     block: | U32 generation id | U32 unused | U64 counter | the owner's ...
///     byte     0                   4            8             16
///
/// On 32 bits an ordinary `++` of a U64 is two stores, between which another process reads half of
/// each: 4294967295 + 1 is seen as 0 or as 8589934591. This one changes it in a single 8-byte store
/// and reads it in a single load, which takes an address that is a multiple of 8. Mappings begin
/// on pages, so blocks are aligned when their size is a multiple of 8; 64 also keeps two counters
/// out of one cache line.
///
/// One writer: incs of two threads or processes at once may lose one of them, never tear.
/// Readers: any number, anywhere. A handle is a pointer; it dies with the mapping.
class VELTRO_API BlockCounter final {
 public:
  /// Where the counter lies in its block, bytes.
  static constexpr U32 kOffset = 8;
  /// What a block needs for it, bytes.
  static constexpr U32 kMinBlockSize = 16;

  /// The counter of the block at that address, as ShmemMan::counterAddr() returns it. Null, or
  /// not a multiple of 8: AssertException.
  explicit BlockCounter(U64 blockAddr);
  /// A counter by its own address, as Counters::counter() returns it; the same condition.
  explicit BlockCounter(U64* counter);

  /// One load, one store, and one of each.
  U64 value() const { return __atomic_load_n(counter_, __ATOMIC_RELAXED); }
  void valueIs(U64 value) { __atomic_store_n(counter_, value, __ATOMIC_RELAXED); }
  void inc(U64 by = 1) { valueIs(value() + by); }

  /// A counter with the generation that it belongs to.
  struct Sample {
    U32 genId;  ///< never 0
    U64 value;  ///< of the counter, in that generation
  };
  /// Reads a block of another process. Nothing while it is being restarted, or before its first
  /// start: ask again.
  static std::optional<Sample> sample(void const* block);

 private:
  // The type system of C++ aligns a U64 to 4 on 32 bits; this is what makes the access one.
  typedef U64 Aligned __attribute__((aligned(8)));
  Aligned* counter_;
};

}  // namespace Veltro
