#pragma once
#include "Kiv/Export.h"

namespace Kiv {

/// A window in which the process's umask is the given one; the umask found at its start is put
/// back at its end, on every path.
///
/// The umask belongs to the whole process, so windows of several threads would restore each
/// other's value and lose the real one for good. These wait for each other; on one thread they
/// nest. Keep a window as short as one open or mkdir: files that code outside any window makes
/// meanwhile get this mask too.
///
/// fork() waits for the windows of other threads, so a child never starts inside one; inside the
/// forking thread's own window the child goes on in it and ends it for itself.
/// Neither start nor end touches errno, throws or allocates.
class KIV_API UmaskGuard final {
 public:
  /// Waits for the windows of other threads.
  explicit UmaskGuard(unsigned mask = 0) noexcept;
  ~UmaskGuard();
  UmaskGuard(UmaskGuard const&) = delete;
  UmaskGuard& operator=(UmaskGuard const&) = delete;

 private:
  unsigned const previous_;
};

}  // namespace Kiv
