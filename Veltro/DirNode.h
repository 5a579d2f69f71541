#pragma once
#include <dirent.h>

#include <string>

#include "Veltro/Platform.h"

namespace Veltro {

/// A directory being read. Notes go to the handler, which must outlive it: level 5 what it does,
/// level 1 what fails; nothing throws. Belongs to one thread at a time.
class VELTRO_API DirNode final {
 public:
  /// Opens `path`. Failing, it is not open: readEntry() gives null.
  DirNode(Platform::DebugHandler& handler, std::string const& path);
  ~DirNode();
  DirNode(DirNode const&) = delete;
  DirNode& operator=(DirNode const&) = delete;

  /// Starts over: closes, if open, and opens the path again. Whether it is open now.
  bool openDir();
  bool isOpen() const { return dir_ != nullptr; }
  /// The next entry, "." and ".." too, in the file system's order; null at the end, on a read error
  /// and when not open. It stays valid until the next call on this object.
  dirent* readEntry() const;

  /// As it was given.
  std::string const& path() const { return path_; }

 private:
  std::string const path_;
  Platform::DebugHandler& handler_;
  DIR* dir_;
};

}  // namespace Veltro
