#pragma once
#include <string>

#include "Mem/Export.h"
#include "Veltro/Debug.h"

namespace Mem {

/// A directory in which processes keep files that others find by name: root/prefix/dirName.
///
/// The root belongs to the machine and may be reached over links. What lies below it is made,
/// emptied and removed without following a link, so that nobody who may write there can lead
/// these operations elsewhere. To pass through a directory takes no leave to list it.
///
/// Reports through the handler: level 5 what it does, level 1 what it could not do. Borrows the
/// handler. Any thread; nothing is locked, nothing is kept open.
class MEM_API RootPath final {
 public:
  /// Joins the three with single slashes; `prefix` and `dirName` may be empty or have several
  /// components. With `create` makes the directory at once.
  RootPath(Veltro::Platform::DebugHandler& handler, std::string const& root,
           std::string const& prefix, std::string const& dirName, bool create);

  /// Whether the path can be used: the root is absolute, no component is ".." or holds a zero
  /// byte, and, with create, the directory was made. A directory that is merely missing is valid.
  /// An invalid object creates, removes and cleans nothing.
  bool valid() const { return valid_; }

  /// The directory's own path, without a slash at its end.
  std::string const& fullPath() const { return fullPath_; }
  /// The path of `name` inside it; "" gives the directory's own.
  std::string fullPath(std::string const& name) const;

  /// Whether the directory is there.
  bool exists() const;
  /// Makes the directory and all missing parents, mode 0777 whatever the umask, also while others
  /// make and clean up their own beside it. True when it is there afterwards; else errno says why.
  bool create();
  /// Removes one file in it; one that is missing counts as removed. "" and names with a slash
  /// or a zero byte are refused.
  bool removeFile(std::string const& name);
  /// Removes all that is in the directory, the directory, and its parents below root and prefix
  /// as far as they are empty. A link inside is removed, never followed. Refused when dirName is
  /// empty: root and prefix are not this object's to remove. True when the directory is gone.
  bool cleanup();

 private:
  Veltro::Platform::DebugHandler& handler_;
  std::string root_;
  std::string prefix_;   // the three in single-slash form, without a slash at either end
  std::string dirName_;  // (the root keeps its leading one)
  std::string fullPath_;
  bool valid_;
};

}  // namespace Mem
