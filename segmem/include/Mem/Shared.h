#pragma once
#include <cstddef>
#include <string>

#include "Kiv/Types.h"
#include "Mem/Export.h"

namespace Mem {

/// How a segment is mapped.
enum class Mode : Kiv::U32 {
  shared = 0,       ///< what one process writes, the others read
  privateCopy = 1,  ///< writes stay in this process
};

/// A file mapped into memory and shared by several processes.
///
/// attach() finds or makes the file, sizes it and maps it. Two processes may race on it, and one
/// may be killed at any point: the next attach finds a usable file. A file is never shrunk, for
/// another process may have more of it mapped, and its blocks are reserved before it is mapped:
/// a full file system is an error here, not a SIGBUS at some later store.
class MEM_API Shared final {
 public:
  /// Lock the file (flock) while it is made and sized; reserve its blocks.
  static constexpr unsigned SHARED_LOCK = 1;
  static constexpr unsigned SHARED_RESERVE = 2;
  static constexpr unsigned SHARED_DEFAULT_FLAGS = SHARED_LOCK | SHARED_RESERVE;

  /// The segment `name` in `directory`; nothing is touched yet. `create`: attach makes the file
  /// (mode 0666, whatever the umask) and missing directories (0777). `keep`: the mapping
  /// outlives this object and is the caller's to unmap; else the destructor unmaps it.
  Shared(std::string directory, std::string name, bool create, unsigned flags, bool keep);
  ~Shared();
  Shared(Shared const&) = delete;
  Shared& operator=(Shared const&) = delete;

  /// Maps the first `length` bytes, at least a page; a shorter file is grown to `length` first
  /// when `writable`. Returns the address, or null with errno:
  ///   ELOOP a link, EISDIR a directory, EINVAL a FIFO, socket or device, or a name that is
  ///   empty or has a slash or a zero byte; EMLINK a file with a second name elsewhere; ENOENT
  ///   missing, without create; ENODATA shorter than `length`, not writable; ENOSPC or EDQUOT no
  ///   room; EALREADY attached before; or what the kernel says.
  /// Never blocks on what it opens; waits for the lock.
  /// `tag` names the attachment in traces ("SegMem": level 5 done, level 1 failed).
  void* attach(Kiv::U32 length, Mode mode, bool writable, std::string const& tag);

 private:
  int _open(bool writable) const;
  int _openLocked(bool writable) const;
  void* _map(int fd, Kiv::U32 length, Mode mode, bool writable);

  std::string const directory_;
  std::string const name_;
  std::string const path_;
  bool const create_;
  unsigned const flags_;
  bool const keep_;
  void* address_ = nullptr;
  std::size_t mapped_ = 0;
};

}  // namespace Mem
