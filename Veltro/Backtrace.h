#pragma once
#include <string>

#include "Veltro/Export.h"

namespace Veltro {

/// Up to 100 return addresses of one thread's stack, innermost first. A value.
class VELTRO_API Backtrace final {
 public:
  /// Deeper stacks are cut.
  static constexpr unsigned kMaxFrames = 100;

  /// The calling thread's stack if `capture`, else none.
  explicit Backtrace(bool capture);

  /// Stores up to `maximum` return addresses of the calling thread's stack, the caller's first,
  /// and returns how many. Allocates nothing; looks up no symbols.
  static unsigned unwind(void** addresses, unsigned maximum);

  /// One line a frame: "path(symbol+0xoffset)[0xaddress]", names as the linker has them; or
  /// "No backtrace available". Looks symbols up, so it is slow.
  std::string pretty() const;
  /// The same of one return address, without the newline.
  static std::string pretty(void* address);

  /// Frames held, innermost first, and the return address of each; `index` is below count().
  unsigned count() const { return count_; }
  void* address(unsigned index) const { return addresses_[index]; }

 private:
  void* addresses_[kMaxFrames];
  unsigned count_;
};

}  // namespace Veltro
