#pragma once
#include <string>

#include "Veltro/Platform.h"

namespace Veltro {

/// A seed that a test run can repeat, and short random strings, on the C library's srand() and
/// rand(). For test data and names, never for secrets. The generator and the seed are the
/// process's and unguarded: callers of several threads take turns.
class VELTRO_API Random {
 public:
  Random() = delete;

  /// Seeds the generator. The first call chooses the seed: QXTEST_RANDSEED's leading decimal digits
  /// (0 without any) when it is set, else the nanoseconds of the monotonic clock. Every later call
  /// restarts the same sequence.
  static void setSeed();
  /// The seed chosen; 0 before the first setSeed().
  static U32 getSeed();
  /// `n` characters out of 0-9, A-Z, a-z and NUL: not for the C string functions.
  static std::string randomString(unsigned int n);

 private:
  static bool firstSetSeedFlag;
  static U32 seed_;
};

}  // namespace Veltro
